#include "host/calls/calls.h"

namespace host {

namespace {

const QString peerField = QStringLiteral("peer");
const QString connectionField = QStringLiteral("connection");
const QString portField = QStringLiteral("port");

} // namespace

void Calls::placed(const QString& abonent, qint64 nowMs)
{
    m_scheduler.callPlaced(abonent, nowMs);
    m_failures.callPlaced(abonent);
    m_records->event(QStringLiteral("callPlaced"), {{peerField, abonent}});
}

void Calls::connected(const QString& abonent, int connectionId)
{
    m_scheduler.connected(abonent, connectionId);
    m_connections.connected(abonent, connectionId);
    m_records->event(QStringLiteral("connected"), {{peerField, abonent}, {connectionField, connectionId}});
}

void Calls::notConnected(const QString& abonent, qint64 nowMs)
{
    m_scheduler.notConnected(abonent, nowMs);
    m_failures.notConnected(abonent);
    m_records->event(QStringLiteral("notConnected"), {{peerField, abonent}});
}

void Calls::disconnected(const QString& abonent, int connectionId, bool wasUseful, qint64 nowMs)
{
    m_scheduler.disconnected(abonent, connectionId, wasUseful, nowMs);
    m_failures.disconnected(abonent);
    m_connections.disconnected(connectionId);
    m_records->event(QStringLiteral("disconnected"),
                     {{peerField, abonent}, {connectionField, connectionId}, {QStringLiteral("useful"), wasUseful}});
}

void Calls::journalRecord(const QString& source, const QString& text)
{
    for (const QString& abonent : m_failures.journalRecord(source, text))
        m_scheduler.callBegun(abonent);
}

void Calls::portState(const QString& port, const QString& text, qint64 nowMs)
{
    const QStringList called = m_failures.portState(port, text);
    lost(port, called, m_connections.portState(port, text), nowMs);
}

void Calls::portGone(const QString& port, qint64 nowMs)
{
    const QStringList called = m_failures.portGone(port);
    lost(port, called, m_connections.portGone(port), nowMs);
}

void Calls::lost(const QString& port, const QStringList& called, const QVector<PortConnections::Lost>& connections,
                 qint64 nowMs)
{
    for (const QString& abonent : called) {
        m_scheduler.callLost(abonent, nowMs);
        m_records->event(QStringLiteral("callLost"), {{peerField, abonent}, {portField, port}});
        m_records->journal(
            true, QStringLiteral("the call to '%1' is over: %2 went down while it dialled").arg(abonent, port));
    }
    for (const PortConnections::Lost& connection : connections) {
        m_scheduler.connectionLost(connection.connectionId);
        m_failures.disconnected(connection.abonent);
        m_records->event(QStringLiteral("connectionLost"), {{peerField, connection.abonent}, {portField, port}});
        m_records->journal(
            true,
            QStringLiteral("the connection with '%1' is over: %2 went down under it").arg(connection.abonent, port));
    }
}

} // namespace host
