// The files on their way over a host's connections, for its views and its state file.
#pragma once

#include "host/channel/sessionprotocol.h"

#include <QString>
#include <QVector>

#include <map>
#include <tuple>

namespace host {

struct FileProgress
{
    FileUnderWay file;
    QString peer;
    QString channelName;
    qint64 resumedFrom = 0; // bytes
    qint64 beganMs = 0;
    qint64 changedMs = 0;
    enum class State
    {
        Moving,
        Waiting,
        Whole,
        Failed
    } state = State::Moving; // Waiting: for the peer's answer
    QString text;

    [[nodiscard]] bool isOver() const { return state == State::Whole || state == State::Failed; }
};

// Used in one thread.
class FileTable
{
public:
    // A session reports about a file. Returns the row as it is now.
    const FileProgress& update(const SessionReport& report, qint64 nowMs);

    // A session has ended, and with it the files that it had on the way. Returns the changed rows.
    QVector<FileProgress> cutOff(quint64 call, qint64 nowMs);

    // Forgets files that have been over for a while.
    void prune(qint64 nowMs);

    [[nodiscard]] QVector<FileProgress> rows() const;

private:
    struct Key
    {
        quint64 call;
        bool outgoing;
        quint64 id;
        bool operator<(const Key& other) const
        {
            return std::tie(call, outgoing, id) < std::tie(other.call, other.outgoing, other.id);
        }
    };

    std::map<Key, FileProgress> m_rows;
};

} // namespace host
