// What arrives: parts in the incomplete directory, whole messages in the input directory.
//
//   incomplete/00000001/<name>     the part of a message that has arrived
//   incomplete/00000001/.message   what was announced (JSON); "verified" once it is whole
//   input/00000001/<name>          a whole message, its hash verified
//   input/00000001/.message        from whom, when, under which name, with which hash
//
// A message is received in steps, and a crash may come between any two of them: sync the content,
// mark the record as verified, add an entry to the list of received messages, move the directory to
// the input directory. Once the record is marked, the next start completes the steps. During the
// steps no session can resume the part. The same holds if the entry is in the list but can be
// neither completed (the directory cannot be moved) nor taken back: the next start and the sender
// would believe the list. Such a part is kept until one of the two is possible again.
#pragma once

#include "host/session/sessionstore.h"
#include "host/store/parts.h"
#include "host/store/quota.h"
#include "host/store/receivedlist.h"

#include <QDateTime>
#include <QDir>
#include <QMutex>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

namespace host {

struct ReceivedMessage
{
    QString key; // the directory's name
    quint64 id = 0;
    QString abonent;
    bool isProved = true;
    QByteArray publicKey; // of the sender; empty when it is not known
    QString claimedName; // what an unproved sender calls itself
    QString fileName; // the sender's name for it
    QString path; // of the file
    qint64 size = 0;
    QByteArray sha256;
    QDateTime received;
};

// Any thread may call any operation.
class Inbox : public IncomingStore
{
public:
    Inbox(const QDir& inputDir, const QDir& incompleteDir, const QString& receivedListPath,
          const InboxLimits& limits = {});
    ~Inbox() override;

    // Call it once, before anything else: creates the directories and completes what a crash
    // interrupted. Returns texts for the journal about what was found; *error is set when the inbox
    // cannot be used.
    QStringList open(QString* error);

    // The whole messages, oldest first, and how much the messages and parts of each peer take. Both
    // work without open() and look at the disk each time.
    [[nodiscard]] QVector<ReceivedMessage> messages() const;
    [[nodiscard]] InboxUsage usage() const;

    // See IncomingStore.
    [[nodiscard]] QVector<quint64> unsettled(const Peer& peer) override;
    void settle(const Peer& peer, const QVector<quint64>& messageIds) override;
    [[nodiscard]] bool isStored(const Peer& peer, quint64 messageId, const QByteArray& sha256) override;
    std::vector<std::unique_ptr<IncomingFile>> parts(const Peer& peer) override;
    std::unique_ptr<IncomingFile> begin(const Peer& peer, const OfferFrame& offer, RefusedFrame* refused) override;

private:
    friend class PartFile;

    [[nodiscard]] QString recoverPart(const QString& key); // a text for the journal, or empty
    QString endDoubt(const PartId& id); // an error text, or empty
    static bool refuse(RefusedFrame* refused, RefusalCode code, const QString& reason); // false

    QString replacePart(const Peer& peer, const OfferFrame& offer, std::shared_ptr<PartHolding>* holding);

    // Whether there is room for the message; otherwise false with *refused set. partBytes: so many
    // bytes of it are here already.
    bool admits(const Peer& peer, const OfferFrame& offer, qint64 partBytes, RefusedFrame* refused);
    [[nodiscard]] QString volumeRefuses(const Peer& peer, qint64 wanted, bool isNew, qint64 promised) const;
    [[nodiscard]] QString sharesRefuse(const Peer& peer, const OfferFrame& offer);
    [[nodiscard]] QString sharesRefuseWithout(const QVector<Counted>& counted, const Peer& peer,
                                              const OfferFrame& offer) const;
    [[nodiscard]] QVector<Counted> countedWithout(const std::vector<PartId>& without) const;

    // For PartFile. resume(): null with *refused set.
    QString openPart(const PartId& id, QFile* file);
    std::shared_ptr<PartHolding> resume(const PartId& id, const OfferFrame& offer, quint64 generation,
                                        RefusedFrame* refused);
    QString store(PartHolding* holding, const OfferFrame& offer, QString* place);
    void discard(PartHolding* holding);
    [[nodiscard]] QString diskIsFull(qint64 wanted) const;

    const QDir m_inputDir;
    const QDir m_incompleteDir;
    const InboxLimits m_limits;

    QMutex m_mutex; // guards the rest; to be taken before the mutex of a holding, never after it
    ReceivedList m_received;
    Parts m_parts;
    DirectoryCount m_inputCount;
};

} // namespace host
