#include "com/worker/portreports.h"

#include "plugin/api/cabstractchannelsstate.h"
#include "plugin/api/cabstractjournal.h"
#include "plugin/api/cchannelserver.h"
#include "plugin/api/channeltype.h"
#include "plugin/api/journalkind.h"

PortReports::PortReports(CChannelServer* server, const QString& portName) : m_server(server), m_portName(portName) {}

void PortReports::enterTable(const QString& state)
{
    m_table = m_server->channelsState;
    m_index = m_table->addChannel(ChannelType::dialUp, m_portName, state);
}

void PortReports::leaveTable()
{
    m_table->removeChannel(m_index);
}

void PortReports::writeLog(const QString& text, DebugLevel level)
{
    debug(QStringLiteral("CComThread"), text, level, DebugFlagNone);
}

void PortReports::setStatus(const QString& text) const
{
    m_server->channelsState->setState(m_index, text);
}

void PortReports::addEvent(const QString& text) const
{
    m_server->journal->addRecord(JournalKind::event, m_portName, text);
}

void PortReports::addError(const QString& text) const
{
    m_server->journal->addRecord(JournalKind::error, m_portName, text);
}

void PortReports::report(const QString& text) const
{
    setStatus(text);
    addEvent(text);
}
