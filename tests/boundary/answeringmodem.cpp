#include "tests/boundary/answeringmodem.h"

#include "rig/testroot.h"

#include <QMutexLocker>

#include <poll.h>

namespace {

constexpr int pollIntervalMs = 5;

} // namespace

AnsweringModem::AnsweringModem(const QString& name, int lines)
    : m_endpoint(rig::installRoot() + QLatin1Char('/') + name),
      m_answers{{"AT", "OK"}, {"+++", "OK"}, {"ATH", "OK"}, {"ATD", ""}, {"ATA", ""}}, m_lines(lines)
{
    m_endpoint.setModemSignals(lines);
    m_thread = std::thread([this] { run(); });
}

AnsweringModem::~AnsweringModem()
{
    m_stop = true;
    m_thread.join();
}

void AnsweringModem::setAnswer(const QByteArray& prefix, const QByteArray& answer)
{
    QMutexLocker locker(&m_mutex);
    m_answers.insert(prefix, answer);
}

void AnsweringModem::setLines(int lines)
{
    QMutexLocker locker(&m_mutex);
    m_lines = lines;
    m_endpoint.setModemSignals(lines);
}

void AnsweringModem::say(const QByteArray& line)
{
    QMutexLocker locker(&m_mutex);
    m_endpoint.write("\r\n" + line + "\r\n");
}

QStringList AnsweringModem::commands() const
{
    QMutexLocker locker(&m_mutex);
    return m_commands;
}

void AnsweringModem::run()
{
    while (!m_stop) {
        pollfd entry{m_endpoint.masterFd(), POLLIN, 0};
        poll(&entry, 1, pollIntervalMs);
        QMutexLocker locker(&m_mutex);
        m_input += m_endpoint.read();
        // The escape sequence has no line end.
        if (m_input.endsWith("+++")) {
            m_input.clear();
            hear("+++");
        }
        for (int end = 0; (end = m_input.indexOf('\r')) >= 0;) {
            const QByteArray command = m_input.left(end);
            m_input.remove(0, end + 1);
            if (!command.isEmpty())
                hear(command);
        }
    }
}

void AnsweringModem::hear(const QByteArray& command)
{
    m_commands.append(QString::fromLatin1(command));
    QByteArray bestPrefix;
    for (auto it = m_answers.cbegin(); it != m_answers.cend(); ++it) {
        if (command.startsWith(it.key()) && it.key().size() > bestPrefix.size())
            bestPrefix = it.key();
    }
    if (bestPrefix == "ATH")
        m_lines &= ~sim::SignalDcd;
    const QByteArray answer = m_answers.value(bestPrefix);
    if (answer.startsWith("CONNECT"))
        m_lines |= sim::SignalDcd;
    m_endpoint.setModemSignals(m_lines);
    if (!answer.isEmpty())
        m_endpoint.write("\r\n" + answer + "\r\n");
}
