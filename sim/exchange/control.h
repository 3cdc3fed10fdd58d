// The commands of an exchange as lines of text, for people and for scripts.
#pragma once

#include "sim/exchange/exchange.h"

#include <QString>
#include <QStringList>

namespace sim {

struct ControlReply
{
    QStringList lines; // the last is "ok" or begins with "error: "
    bool quit = false;
};

class Control
{
public:
    explicit Control(Exchange* exchange) : m_exchange(exchange) {} // exchange: not owned

    // Any thread. A blank line gets no answer at all.
    ControlReply execute(const QString& line);

    // One line for each command.
    static QStringList help();

private:
    QStringList status() const;
    QStringList statistics() const;
    QString onModem(const QStringList& words, QString (Exchange::*action)(int));
    QString onSwitch(const QStringList& words, QString (Exchange::*action)(int, bool));
    QString noise(const QStringList& words);
    QString ring(const QStringList& words);
    QString say(const QStringList& words, const QString& line);

    Exchange* m_exchange; // not owned
};

} // namespace sim
