// The commands of an exchange as text, for people and for scripts.
#pragma once

#include "sim/exchange/exchange.h"

#include <QString>
#include <QStringList>

namespace sim {

struct ControlReply
{
    QStringList text; // line by line; the last is "ok" or begins with "error: "
    bool quit = false;
};

class Control
{
public:
    explicit Control(Exchange* exchange) : m_exchange(exchange) {} // exchange: not owned

    // Any thread. A blank command gets no answer at all.
    ControlReply execute(const QString& command);

    // One line for each command, or for two that belong together.
    static QStringList help();

private:
    Exchange* m_exchange; // not owned
};

} // namespace sim
