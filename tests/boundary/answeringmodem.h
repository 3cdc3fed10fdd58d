// A modem of few words on a pty, for tests of what stands above the dialogue: it answers
// each command by a table and raises its lines as a modem does.
#pragma once

#include "sim/pty/ptyendpoint.h"

#include <QByteArray>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QStringList>

#include <atomic>
#include <thread>

class AnsweringModem
{
public:
    // name: the link's name in the test's root; lines: an or of sim::ModemSignal.
    explicit AnsweringModem(const QString& name, int lines = sim::SignalDsr | sim::SignalCts);
    ~AnsweringModem();

    // What a program is told to open.
    QString portPath() const { return m_endpoint.portPath(); }

    // The answer to commands that begin with prefix, the longest prefix first; empty for
    // none. A new modem answers OK to "AT", "+++" and "ATH" and nothing to dialling.
    // An answer that begins with CONNECT raises DCD, "ATH" drops it.
    void setAnswer(const QByteArray& prefix, const QByteArray& answer);

    void setLines(int lines);
    // Out of the blue, as a line of its own.
    void say(const QByteArray& line);

    // What has been heard, without line ends, in order.
    QStringList commands() const;
    bool heard(const QString& command) const { return commands().contains(command); }

private:
    void run();
    void hear(const QByteArray& command);

    mutable QMutex m_mutex; // guards all below
    sim::PtyEndpoint m_endpoint;
    QMap<QByteArray, QByteArray> m_answers;
    QByteArray m_input;
    QStringList m_commands;
    int m_lines;
    std::atomic<bool> m_stop{false};
    std::thread m_thread; // last: it uses all of the above
};
