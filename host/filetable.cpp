#include "host/filetable.h"

namespace host {

namespace {

constexpr qint64 shownAfterEndMs = 5000;

using State = FileProgress::State;

} // namespace

const FileProgress& FileTable::update(const SessionReport& report, qint64 nowMs)
{
    using Kind = SessionEvent::Kind;
    const SessionEvent& event = report.event;
    FileProgress& file = m_rows[Key{report.call, event.outgoing, event.messageId}];
    file.outgoing = event.outgoing;
    file.messageId = event.messageId;
    file.peer = report.peer;
    file.channelName = report.channelName;
    file.fileName = event.fileName;
    file.size = event.size;
    file.changedMs = nowMs;
    switch (event.kind) {
    case Kind::PeerNamed:
    case Kind::Note: break;
    case Kind::FileBegun:
        file.state = State::Moving;
        file.beganMs = nowMs;
        file.done = event.done;
        file.resumedFrom = event.done;
        break;
    case Kind::FileProgress:
        file.done = event.done;
        if (event.outgoing && event.done == event.size)
            file.state = State::Waiting;
        break;
    case Kind::FileStored:
        file.state = State::Whole;
        file.done = event.size;
        file.text = event.text;
        break;
    case Kind::FileDelivered:
        file.state = State::Whole;
        file.done = event.size;
        break;
    case Kind::FileDuplicate:
        file.state = State::Whole;
        file.done = event.size;
        file.text = QStringLiteral("received before");
        break;
    case Kind::FileFailed:
        file.state = State::Failed;
        file.text = event.text;
        break;
    }
    return file;
}

QVector<FileProgress> FileTable::cutOff(quint64 call, qint64 nowMs)
{
    QVector<FileProgress> changed;
    for (auto& entry : m_rows) {
        FileProgress& file = entry.second;
        if (entry.first.call != call || file.isOver())
            continue;
        file.state = State::Failed;
        file.text = QStringLiteral("cut off, to be continued");
        file.changedMs = nowMs;
        changed.append(file);
    }
    return changed;
}

void FileTable::prune(qint64 nowMs)
{
    for (auto it = m_rows.begin(); it != m_rows.end();)
        it = it->second.isOver() && nowMs - it->second.changedMs > shownAfterEndMs ? m_rows.erase(it) : std::next(it);
}

QVector<FileProgress> FileTable::rows() const
{
    QVector<FileProgress> rows;
    for (const auto& entry : m_rows)
        rows.append(entry.second);
    return rows;
}

} // namespace host
