#include "rig/server/portboard.h"

#include <QMutexLocker>

#include <algorithm>

namespace rig {

PortBoard::PortBoard(int serverId) : m_serverId(serverId), m_lastId(serverId) {}

int PortBoard::addChannel(int, const QString& name, const QString& state)
{
    QMutexLocker locker(&m_mutex);
    for (const Port& port : qAsConst(m_ports)) {
        if (port.name == name)
            m_violations.append(QStringLiteral("registered twice: ") + name);
    }
    Port& port = m_ports[++m_lastId];
    port.name = name;
    port.text = state;
    port.since.start();
    ++m_added;
    return m_lastId;
}

void PortBoard::removeChannel(int id)
{
    QMutexLocker locker(&m_mutex);
    if (m_ports.remove(id) == 0)
        m_violations.append(QStringLiteral("removed without being there: %1").arg(id));
    m_lastRemoval.start();
}

void PortBoard::setState(int id, const QString& text)
{
    QMutexLocker locker(&m_mutex);
    if (id == m_serverId) {
        m_serverText = text;
        return;
    }
    touch(id, "state");
    if (!m_ports.contains(id))
        return;
    m_ports[id].text = text;
    m_ports[id].since.start();
}

void PortBoard::addReceivedBytes(int id, int bytes)
{
    QMutexLocker locker(&m_mutex);
    touch(id, "bytes received");
    if (bytes < 0)
        m_violations.append(QStringLiteral("received a negative number of bytes"));
}

void PortBoard::addSentBytes(int id, int bytes)
{
    QMutexLocker locker(&m_mutex);
    touch(id, "bytes sent");
    if (bytes < 0)
        m_violations.append(QStringLiteral("sent a negative number of bytes"));
}

// Called under m_mutex.
void PortBoard::touch(int id, const char* what)
{
    if (!m_ports.contains(id))
        m_violations.append(QStringLiteral("%1 of a port that is not registered: %2").arg(QLatin1String(what)).arg(id));
}

QStringList PortBoard::lines() const
{
    QMutexLocker locker(&m_mutex);
    QStringList lines{QStringLiteral("server: ") + m_serverText};
    for (const Port& port : m_ports)
        lines.append(
            QStringLiteral("%1: %2, for %3 ms").arg(port.name, port.text, QString::number(port.since.elapsed())));
    return lines;
}

int PortBoard::count() const
{
    QMutexLocker locker(&m_mutex);
    return m_ports.size();
}

bool PortBoard::isFree(const QString& port) const
{
    QMutexLocker locker(&m_mutex);
    return std::any_of(m_ports.cbegin(), m_ports.cend(),
                       [&](const Port& row) { return row.name == port && row.text == QStringLiteral("Свободен"); });
}

int PortBoard::countOf(const QString& text) const
{
    QMutexLocker locker(&m_mutex);
    int count = 0;
    for (const Port& port : m_ports)
        count += port.text == text ? 1 : 0;
    return count;
}

qint64 PortBoard::msSinceLastRemoval() const
{
    QMutexLocker locker(&m_mutex);
    return m_lastRemoval.isValid() ? m_lastRemoval.elapsed() : -1;
}

QStringList PortBoard::violations() const
{
    QMutexLocker locker(&m_mutex);
    return m_violations;
}

void CountingJournal::addRecord(int, const QString&, const QString&)
{
    ++m_count;
}

} // namespace rig
