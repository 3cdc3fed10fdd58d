#include "host/transfers.h"

#include "host/installation/diskfile.h"
#include "host/installation/names.h"

namespace host {

namespace {

QJsonObject fileFields(const SessionReport& report)
{
    const SessionEvent& event = report.event;
    QJsonObject fields;
    fields[QStringLiteral("call")] = static_cast<double>(report.call);
    fields[QStringLiteral("peer")] = report.peer;
    fields[QStringLiteral("port")] = report.channelName;
    fields[QStringLiteral("direction")] = event.file.isOutgoing ? QStringLiteral("out") : QStringLiteral("in");
    fields[QStringLiteral("id")] = idText(event.file.messageId);
    fields[QStringLiteral("file")] = event.file.fileName;
    fields[QStringLiteral("size")] = static_cast<double>(event.file.sizeBytes);
    fields[QStringLiteral("sha256")] = QString::fromLatin1(event.file.sha256.toHex());
    fields[QStringLiteral("bytes")] = static_cast<double>(event.file.doneBytes);
    if (!event.text.isEmpty())
        fields[QStringLiteral("text")] = event.text;
    return fields;
}

QJsonObject callFields(const SessionReport& report)
{
    return {{QStringLiteral("call"), static_cast<double>(report.call)},
            {QStringLiteral("port"), report.channelName},
            {QStringLiteral("called"), report.called},
            {QStringLiteral("peer"), report.peer}};
}

QString sessionOf(const SessionReport& report)
{
    if (!report.called.isEmpty())
        return QStringLiteral("the call to '%1'").arg(report.called);
    return report.peer.isEmpty() ? QStringLiteral("the session with an unproved caller")
                                 : QStringLiteral("the session with '%1'").arg(report.peer);
}

} // namespace

void Transfers::onReport(const SessionReport& report, qint64 nowMs)
{
    switch (report.kind) {
    case SessionReport::Kind::Begun:
        m_sessions.insert(report.call, report);
        m_records->event(QStringLiteral("callBegun"), callFields(report));
        return;
    case SessionReport::Kind::Event: onEvent(report, nowMs); return;
    case SessionReport::Kind::Ended: onEnded(report, nowMs); return;
    }
}

void Transfers::onEnded(const SessionReport& report, qint64 nowMs)
{
    m_sessions.remove(report.call);
    const bool endedWell = report.end == SessionEnd::Agreed;
    QJsonObject fields = callFields(report);
    fields[QStringLiteral("well")] = endedWell;
    fields[QStringLiteral("end")] = endWord(report.end);
    fields[QStringLiteral("useful")] = report.wasUseful;
    fields[QStringLiteral("reason")] = report.reason;
    m_records->event(QStringLiteral("callEnded"), fields);
    if (!endedWell)
        m_records->journal(
            true, QStringLiteral("%1 on %2 ended early: %3").arg(sessionOf(report), report.channelName, report.reason));
    cutOff(report.call, nowMs);
}

void Transfers::cutOff(quint64 call, qint64 nowMs)
{
    for (const FileProgress& file : m_files.cutOff(call, nowMs))
        m_fileChanged(file);
}

QVector<const void*> Transfers::portLeft(const QString& port, qint64 nowMs)
{
    QVector<const void*> claimants;
    for (auto session = m_sessions.begin(); session != m_sessions.end();) {
        if (session->channelName != port) {
            ++session;
            continue;
        }
        claimants.append(session->claimant);
        cutOff(session->call, nowMs);
        session = m_sessions.erase(session);
    }
    return claimants;
}

void Transfers::onEvent(const SessionReport& report, qint64 nowMs)
{
    using Kind = SessionEvent::Kind;
    const SessionEvent& event = report.event;
    const QString direction = event.file.isOutgoing ? QStringLiteral("to") : QStringLiteral("from");
    const QString subject =
        QStringLiteral("'%1' %2 '%3'").arg(displayName(event.file.fileName), direction, report.peer);
    switch (event.kind) {
    case Kind::PeerNamed: return;
    case Kind::Note: m_records->journal(false, event.text); return;
    case Kind::FileBegun: m_records->event(QStringLiteral("fileBegun"), fileFields(report)); break;
    case Kind::FileProgress: m_records->event(QStringLiteral("progress"), fileFields(report)); break;
    case Kind::FileStored:
        ++m_receivedCount;
        m_records->event(QStringLiteral("stored"), fileFields(report));
        m_records->journal(false, QStringLiteral("received %1, %2 bytes, hash verified: %3")
                                      .arg(subject, QString::number(event.file.sizeBytes), event.text));
        break;
    case Kind::FileDelivered:
        ++m_deliveredCount;
        m_records->event(QStringLiteral("delivered"), fileFields(report));
        m_records->journal(
            false, QStringLiteral("delivered %1, %2 bytes").arg(subject, QString::number(event.file.sizeBytes)));
        break;
    case Kind::FileDuplicate: m_records->event(QStringLiteral("duplicate"), fileFields(report)); break;
    case Kind::FileFailed:
        m_records->event(QStringLiteral("failed"), fileFields(report));
        m_records->journal(true, QStringLiteral("failed %1: %2").arg(subject, event.text));
        break;
    }
    m_fileChanged(m_files.update(report, nowMs));
}

} // namespace host
