// What a session needs of the place where messages are kept.
#pragma once

#include "host/session/peer.h"
#include "host/session/sessionframes.h"

#include <QByteArray>
#include <QIODevice>
#include <QSet>
#include <QString>
#include <QVector>

#include <memory>
#include <optional>
#include <vector>

namespace host {

// One file that waits to be sent.
struct OutgoingMessage
{
    quint64 id = 0; // random; the same over all attempts
    QString key; // the store's own name for it
    QString abonent;
    QString fileName;
    qint64 size = 0;
    QByteArray sha256;
    qint64 modifiedSecs = 0;
};

// One message that is being received. Deleting the object keeps what stands, for the
// next session to take up.
class IncomingFile
{
public:
    virtual ~IncomingFile() = default;

    [[nodiscard]] virtual quint64 messageId() const = 0;
    [[nodiscard]] virtual qint64 length() const = 0; // bytes that stand

    // The next bytes of what stood when this object was made, from the beginning, at most
    // maxSize; empty at the end or on failure (then *error is set).
    virtual QByteArray readBack(qint64 maxSize, QString* error) = 0;

    // Counts how often the part has been taken up: what was read back is the part's content
    // only as long as its generation is the one that was read here before the reading.
    [[nodiscard]] virtual quint64 generation() const = 0;

    // Go on after the first offer.offset bytes and forget what stands behind them. Another
    // session that still holds the message loses it (its append() fails from then on): the
    // sender has turned to this one. False with *refused set when the message cannot be
    // received: the part is not of that generation any more, is shorter, is of another file
    // than the one offered, or there is no room for the rest.
    virtual bool resume(const OfferFrame& offer, quint64 generation, RefusedFrame* refused) = 0;

    // The rest answer an error text, empty on success.
    virtual QString append(const QByteArray& bytes) = 0;

    // All bytes stand and their hash is right: put the message into the inbox and remember
    // its id, both so that they outlive a crash. *place tells the user where it is.
    virtual QString store(const OfferFrame& offer, QString* place) = 0;

    // Remove what stands.
    virtual void discard() = 0;
};

// Called from the threads of all sessions at once. A peer gets at nothing but its own: the
// queue of its abonent if it is proved, what stands and was stored from it (see peerKey()).
class SessionStore
{
public:
    virtual ~SessionStore() = default;

    // A message may be claimed by one session only (session: any token that tells sessions
    // apart); it stays so until it is delivered or the session releases all it has.
    virtual std::optional<OutgoingMessage> claimNext(const Peer& peer, const void* session) = 0;
    [[nodiscard]] virtual bool hasUnclaimed(const Peer& peer) = 0;
    virtual void releaseAll(const void* session) = 0;
    // All that is queued for peer, claimed or not; nothing for one that is not proved.
    [[nodiscard]] virtual QSet<quint64> queuedIds(const Peer& peer) = 0;

    // Null with *error set when the queued copy cannot be read.
    virtual std::unique_ptr<QIODevice> openOutgoing(const OutgoingMessage& message, QString* error) = 0;

    // The peer has it: take it out of the queue.
    virtual QString delivered(const OutgoingMessage& message) = 0;

    // It stays queued; reason is shown to the user. localFault: our own copy is to blame, do
    // not try again soon. recheck: compare the copy with its hash.
    enum class Fault
    {
        Remote,
        Local,
        Recheck
    };
    virtual void notDelivered(const OutgoingMessage& message, const QString& reason, Fault fault) = 0;

    // Messages stored from peer of which it may not have heard.
    [[nodiscard]] virtual QVector<quint64> unsettled(const Peer& peer) = 0;
    virtual void settle(const Peer& peer, const QVector<quint64>& messageIds) = 0;
    [[nodiscard]] virtual bool isStored(const Peer& peer, quint64 messageId, const QByteArray& sha256) = 0;

    // Parts left from earlier sessions with peer; they are held only once resumed.
    virtual std::vector<std::unique_ptr<IncomingFile>> parts(const Peer& peer) = 0;

    // From the first byte, whatever stands of the message. Null with *refused set when it
    // cannot be received.
    virtual std::unique_ptr<IncomingFile> beginIncoming(const Peer& peer, const OfferFrame& offer,
                                                        RefusedFrame* refused) = 0;
};

} // namespace host
