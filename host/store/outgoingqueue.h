// The messages that wait to be sent: one directory each in the output directory, one task
// file each in the directory of tasks for the transport.
//
//   output/00000001/content        the file's bytes as they were when it was queued
//   output/00000001/reason.json    why it has not been delivered yet
//   tasks/toTransport/00000001.task  which message, to whom, under which name (JSON)
//
// A message exists as long as its task does: the task is written last and removed first, so that a
// crash leaves at most a directory without a task. Several programs may queue at the same time.
#pragma once

#include "host/installation/opendirectory.h"
#include "host/session/sessionstore.h"
#include "host/store/waitreason.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QHash>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <optional>

namespace host {

struct QueuedMessage : OutgoingMessage
{
    QString taskPath;
    QDateTime queued;
    WaitReason reason;
};

// Any thread may call any operation.
class OutgoingQueue : public OutgoingStore
{
public:
    OutgoingQueue(const QDir& outputDir, const QDir& tasksDir);

    // Copies the file into the queue. When this returns an empty text, the whole copy is safe on the
    // disk. An error text says what to do about it.
    QString enqueue(const QString& abonent, const QString& filePath, QueuedMessage* queued = nullptr);

    // Looks for messages that other programs have queued or removed. Returns a text for each damaged
    // task, once.
    QStringList rescan();

    // As of the last rescan(), oldest first.
    [[nodiscard]] QVector<QueuedMessage> messages() const;

    // Removes what an interrupted enqueue() or remove() left. Only for the program that serves the
    // queue. Returns texts about links that were not followed.
    QStringList cleanUp();

    // See OutgoingStore.
    std::optional<OutgoingMessage> claimNext(const Peer& peer, const void* session) override;
    [[nodiscard]] bool hasUnclaimed(const Peer& peer) const override;
    void releaseAll(const void* session) override;
    [[nodiscard]] QSet<quint64> queuedIds(const Peer& peer) const override;
    std::unique_ptr<QIODevice> open(const OutgoingMessage& message, QString* error) const override;
    QString remove(const OutgoingMessage& message) override;
    void notDelivered(const OutgoingMessage& message, const QString& reason, Fault fault) override;

    // Stores with the message why it waits. Does nothing if the reason is the same as before.
    void setReason(const OutgoingMessage& message, const WaitReason& reason);

    // Sets the reasons of all messages. reasonOf is asked once for each abonent and must not call
    // this object; it answers null while something is being done about the abonent's messages. The
    // reason of a single message (see WaitReason::isOfTheMessage()) stays.
    using ReasonOf = std::function<std::optional<WaitReason>(const QString& abonent)>;
    void updateReasons(const ReasonOf& reasonOf);

    // The abonents for whom unclaimed messages wait, in the order of their oldest message.
    [[nodiscard]] QStringList waitingAbonents() const;

    // Reads the whole copy and compares its hash; an error text if it differs.
    [[nodiscard]] QString verify(const OutgoingMessage& message) const;

private:
    struct Entry
    {
        QueuedMessage message;
        QString abonentKey;
        const void* claimedBy = nullptr; // not owned, only compared
        qint64 postponedUntilMs = 0;
    };

    [[nodiscard]] QString copyIntoQueue(const QString& filePath, const OpenDirectory& directory,
                                        QueuedMessage* message) const;
    [[nodiscard]] QString commit(const OpenDirectory& output, const QString& newName, QueuedMessage* message) const;
    [[nodiscard]] QString messagePath(const OutgoingMessage& message) const;
    [[nodiscard]] QString contentPath(const OutgoingMessage& message) const;
    [[nodiscard]] std::optional<Entry> load(const QString& taskPath) const;
    [[nodiscard]] bool isClaimable(const Entry& entry, const QString& abonentKey) const;
    Entry* find(quint64 id);
    void saveReason(const OutgoingMessage& message, const WaitReason& reason) const;
    void postpone(const OutgoingMessage& message); // not to be claimed for a while

    const QDir m_outputDir;
    const QDir m_tasksDir;
    QElapsedTimer m_clock;

    QMutex m_changes; // one change on the disk at a time; to be taken before m_mutex, never after it
    mutable QMutex m_mutex; // guards the rest
    QVector<Entry> m_entries;
    QStringList m_damaged; // damaged tasks that were already reported
};

} // namespace host
