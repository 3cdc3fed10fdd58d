// Turns the reports of a running host's sessions into events, journal lines and rows of its views.
#pragma once

#include "host/channel/sessionprotocol.h"
#include "host/filetable.h"
#include "host/installation/runrecords.h"

#include <QHash>
#include <QVector>

#include <functional>

namespace host {

// Used in one thread.
class Transfers
{
public:
    using FileChanged = std::function<void(const FileProgress&)>;

    // records: not owned, outlives this object.
    Transfers(RunRecords* records, FileChanged fileChanged) : m_records(records), m_fileChanged(std::move(fileChanged))
    {
    }

    void onReport(const SessionReport& report, qint64 nowMs);

    // The port is not in a call any more, so that its sessions are over, even if they have not said so.
    // Returns their tokens in the store.
    [[nodiscard]] QVector<const void*> portLeft(const QString& port, qint64 nowMs);

    // Forgets files that have been over for a while.
    void prune(qint64 nowMs) { m_files.prune(nowMs); }

    [[nodiscard]] bool hasSessions() const { return !m_sessions.isEmpty(); }
    [[nodiscard]] QVector<FileProgress> files() const { return m_files.rows(); }
    [[nodiscard]] int receivedCount() const { return m_receivedCount; }
    [[nodiscard]] int deliveredCount() const { return m_deliveredCount; }

private:
    void onEvent(const SessionReport& report, qint64 nowMs);
    void onEnded(const SessionReport& report, qint64 nowMs);
    void cutOff(quint64 call, qint64 nowMs);

    RunRecords* const m_records;
    const FileChanged m_fileChanged;
    FileTable m_files;
    QHash<quint64, SessionReport> m_sessions; // running ones: the first report of each, by its call
    int m_receivedCount = 0;
    int m_deliveredCount = 0;
};

} // namespace host
