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
    FileProgress& row = m_rows[Key{report.call, event.file.isOutgoing, event.file.messageId}];
    const qint64 doneBefore = row.file.doneBytes;
    row.file = event.file;
    row.peer = report.peer;
    row.channelName = report.channelName;
    row.changedMs = nowMs;
    switch (event.kind) {
    case Kind::PeerNamed:
    case Kind::Note: break;
    case Kind::FileBegun:
        row.state = State::Moving;
        row.beganMs = nowMs;
        row.resumedFrom = event.file.doneBytes;
        break;
    case Kind::FileProgress:
        if (event.file.isOutgoing && event.file.doneBytes == event.file.sizeBytes)
            row.state = State::Waiting;
        break;
    case Kind::FileStored:
        row.state = State::Whole;
        row.text = event.text;
        break;
    case Kind::FileDelivered: row.state = State::Whole; break;
    case Kind::FileDuplicate:
        row.state = State::Whole;
        row.text = QStringLiteral("received before");
        break;
    case Kind::FileFailed:
        row.file.doneBytes = doneBefore; // the last bytes may not be on the disk
        row.state = State::Failed;
        row.text = event.text;
        break;
    }
    return row;
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
