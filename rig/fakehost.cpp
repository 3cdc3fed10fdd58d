#include "rig/fakehost.h"

namespace rig {

int RecordingChannelsState::addChannel(int type, const QString& name, const QString& state)
{
    const int id = m_nextId++;
    m_log->add(QStringLiteral("add %1 %2 ").arg(id).arg(type) + name + QLatin1Char(' ') + state);
    return id;
}

void RecordingChannelsState::removeChannel(int id)
{
    m_log->add(QStringLiteral("remove %1").arg(id));
}

void RecordingChannelsState::setState(int id, const QString& text)
{
    m_log->add(QStringLiteral("state %1 ").arg(id) + text);
}

void RecordingChannelsState::addReceivedBytes(int id, int bytes)
{
    m_log->add(QStringLiteral("received %1 %2").arg(id).arg(bytes));
}

void RecordingChannelsState::addSentBytes(int id, int bytes)
{
    m_log->add(QStringLiteral("sent %1 %2").arg(id).arg(bytes));
}

void RecordingJournal::addRecord(int kind, const QString& source, const QString& text)
{
    m_log->add(QStringLiteral("journal %1 ").arg(kind) + source + QLatin1Char(' ') + text);
}

} // namespace rig
