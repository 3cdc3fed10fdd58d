// The calls and connections of a running host: who is called and when, how each call ended, which
// connection is on which port. The time is handed in.
#pragma once

#include "host/calls/callfailures.h"
#include "host/calls/callscheduler.h"
#include "host/calls/portconnections.h"
#include "host/installation/runrecords.h"

#include <QString>
#include <QStringList>

#include <optional>

namespace host {

// Used in one thread.
class Calls
{
public:
    // records: not owned, outlives this object.
    Calls(const CallRules& rules, RunRecords* records) : m_scheduler(rules), m_records(records) {}

    // Whom to call: see CallScheduler.
    void setWaiting(const QStringList& abonents) { m_scheduler.setWaiting(abonents); }
    [[nodiscard]] std::optional<QString> next(qint64 nowMs) { return m_scheduler.nextCall(nowMs); }
    void placed(const QString& abonent, qint64 nowMs);

    // What the channel's server tells, in its order.
    void connected(const QString& abonent, int connectionId);
    void notConnected(const QString& abonent, qint64 nowMs);
    void disconnected(const QString& abonent, int connectionId, bool wasUseful, qint64 nowMs);
    void journalRecord(const QString& source, const QString& text);

    // A port's state text has changed, or the port is gone. Calls and connections that have ended by
    // that without a signal are reported and count as lost.
    void portState(const QString& port, const QString& text, qint64 nowMs);
    void portGone(const QString& port, qint64 nowMs);

    // reason: empty when the session ended well.
    void sessionEnded(const QString& abonent, const QString& reason) { m_failures.sessionEnded(abonent, reason); }

    [[nodiscard]] bool isCalling(const QString& abonent) const { return m_scheduler.isCalling(abonent); }
    [[nodiscard]] bool isConnectedTo(const QString& abonent) const { return m_scheduler.isConnectedTo(abonent); }
    // Since the last connection.
    [[nodiscard]] int failedCalls(const QString& abonent) const { return m_scheduler.failedCalls(abonent); }
    // The reason of the last call or session; empty when it is not known.
    [[nodiscard]] QString failure(const QString& abonent) const { return m_failures.reason(abonent); }

private:
    void lost(const QString& port, const QStringList& called, const QVector<PortConnections::Lost>& connections,
              qint64 nowMs);

    CallScheduler m_scheduler;
    CallFailures m_failures;
    PortConnections m_connections;
    RunRecords* const m_records;
};

} // namespace host
