// The running host: what its sessions tell, as events, journal records and rows of its views.
#include "host/installation/diskfile.h"
#include "host/installation/names.h"
#include "host/transporthost.h"

namespace host {

namespace {

QJsonObject fileFields(const SessionReport& report)
{
    const SessionEvent& event = report.event;
    QJsonObject fields;
    fields[QStringLiteral("call")] = static_cast<double>(report.call);
    fields[QStringLiteral("peer")] = report.peer;
    fields[QStringLiteral("port")] = report.channelName;
    fields[QStringLiteral("direction")] = event.outgoing ? QStringLiteral("out") : QStringLiteral("in");
    fields[QStringLiteral("id")] = idText(event.messageId);
    fields[QStringLiteral("file")] = event.fileName;
    fields[QStringLiteral("size")] = static_cast<double>(event.size);
    fields[QStringLiteral("sha256")] = QString::fromLatin1(event.sha256.toHex());
    fields[QStringLiteral("bytes")] = static_cast<double>(event.done);
    if (!event.text.isEmpty())
        fields[QStringLiteral("text")] = event.text;
    return fields;
}

QString sessionOf(const SessionReport& report)
{
    if (!report.called.isEmpty())
        return QStringLiteral("the call to '%1'").arg(report.called);
    return report.peer.isEmpty() ? QStringLiteral("the session with an unproved caller")
                                 : QStringLiteral("the session with '%1'").arg(report.peer);
}

} // namespace

void TransportHost::onReport(const SessionReport& report)
{
    QJsonObject fields{{QStringLiteral("call"), static_cast<double>(report.call)},
                       {QStringLiteral("port"), report.channelName},
                       {QStringLiteral("called"), report.called},
                       {QStringLiteral("peer"), report.peer}};
    switch (report.kind) {
    case SessionReport::Kind::Begun:
        m_sessions.insert(report.call, report);
        m_events.write(QStringLiteral("callBegun"), fields);
        return;
    case SessionReport::Kind::Event: onSessionEvent(report); return;
    case SessionReport::Kind::Ended: break;
    }
    m_sessions.remove(report.call);
    const bool endedWell = report.end == SessionEnd::Agreed;
    fields[QStringLiteral("well")] = endedWell;
    fields[QStringLiteral("end")] = endWord(report.end);
    fields[QStringLiteral("useful")] = report.wasUseful;
    fields[QStringLiteral("reason")] = report.reason;
    m_events.write(QStringLiteral("callEnded"), fields);
    // What a stranger's call came to says nothing of the calls that went out through the same port.
    if (!report.called.isEmpty() || report.isProved)
        m_failures.sessionEnded(report.called.isEmpty() ? report.peer : report.called,
                                endedWell ? QString() : report.reason);
    if (!endedWell)
        journal(true,
                QStringLiteral("%1 on %2 ended early: %3").arg(sessionOf(report), report.channelName, report.reason));
    for (const FileProgress& file : m_files.cutOff(report.call, m_clock.elapsed()))
        emit fileChanged(file);
}

// A port that is not in a call has no session and no connection any more. Where its worker was
// cut off nobody has said so, and what the session had claimed would wait for ever.
void TransportHost::followConnections(const ChannelRow& row)
{
    for (const PortConnections::Lost& lost :
         row.isGone ? m_connections.portGone(row.name) : m_connections.portState(row.name, row.state)) {
        m_scheduler->connectionLost(lost.connectionId);
        m_failures.disconnected(lost.abonent);
        m_events.write(QStringLiteral("connectionLost"),
                       {{QStringLiteral("peer"), lost.abonent}, {QStringLiteral("port"), row.name}});
        journal(true,
                QStringLiteral("the connection with '%1' is over: %2 went down under it").arg(lost.abonent, row.name));
    }
    if (!row.isGone && isStateOfCall(row.state))
        return;
    for (auto session = m_sessions.begin(); session != m_sessions.end();) {
        if (session->channelName != row.name) {
            ++session;
            continue;
        }
        m_store->releaseAll(session->claimant);
        for (const FileProgress& file : m_files.cutOff(session->call, m_clock.elapsed()))
            emit fileChanged(file);
        session = m_sessions.erase(session);
    }
}

void TransportHost::onSessionEvent(const SessionReport& report)
{
    using Kind = SessionEvent::Kind;
    const SessionEvent& event = report.event;
    const QString direction = event.outgoing ? QStringLiteral("to") : QStringLiteral("from");
    const QString subject = QStringLiteral("'%1' %2 '%3'").arg(displayName(event.fileName), direction, report.peer);
    if (event.kind == Kind::PeerNamed)
        return;
    if (event.kind == Kind::Note) {
        journal(false, event.text);
        return;
    }
    switch (event.kind) {
    case Kind::PeerNamed:
    case Kind::Note: return;
    case Kind::FileBegun: m_events.write(QStringLiteral("fileBegun"), fileFields(report)); break;
    case Kind::FileProgress: m_events.write(QStringLiteral("progress"), fileFields(report)); break;
    case Kind::FileStored:
        ++m_receivedCount;
        m_events.write(QStringLiteral("stored"), fileFields(report));
        journal(false, QStringLiteral("received %1, %2 bytes, hash verified: %3")
                           .arg(subject, QString::number(event.size), event.text));
        break;
    case Kind::FileDelivered:
        ++m_deliveredCount;
        m_events.write(QStringLiteral("delivered"), fileFields(report));
        journal(false, QStringLiteral("delivered %1, %2 bytes").arg(subject, QString::number(event.size)));
        break;
    case Kind::FileDuplicate: m_events.write(QStringLiteral("duplicate"), fileFields(report)); break;
    case Kind::FileFailed:
        m_events.write(QStringLiteral("failed"), fileFields(report));
        journal(true, QStringLiteral("failed %1: %2").arg(subject, event.text));
        break;
    }
    emit fileChanged(m_files.update(report, m_clock.elapsed()));
}

} // namespace host
