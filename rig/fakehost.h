// Recorders of the host objects. All write into one CallLog, so that a test compares
// whole sequences:
//   "add <id> <type> <name> <text>"   addChannel
//   "remove <id>"                     removeChannel
//   "state <id> <text>"               setState
//   "received <id> <bytes>"           addReceivedBytes
//   "sent <id> <bytes>"               addSentBytes
//   "journal <kind> <source> <text>"  addRecord
#pragma once

#include "plugin/api/cabstractchannelsstate.h"
#include "plugin/api/cabstractjournal.h"
#include "rig/calllog.h"

#include <atomic>

namespace rig {

class RecordingChannelsState : public CAbstractChannelsState
{
public:
    explicit RecordingChannelsState(CallLog* log) : m_log(log) {} // log: not owned

    int addChannel(int type, const QString& name, const QString& state) override;
    void removeChannel(int id) override;
    void setState(int id, const QString& text) override;
    void addReceivedBytes(int id, int bytes) override;
    void addSentBytes(int id, int bytes) override;

    // Identifiers count up from this; well away from connection identifiers.
    static constexpr int firstId = 101;

private:
    CallLog* m_log; // not owned
    std::atomic<int> m_nextId{firstId};
};

class RecordingJournal : public CAbstractJournal
{
public:
    explicit RecordingJournal(CallLog* log) : m_log(log) {} // log: not owned

    void addRecord(int kind, const QString& source, const QString& text) override;

private:
    CallLog* m_log; // not owned
};

} // namespace rig
