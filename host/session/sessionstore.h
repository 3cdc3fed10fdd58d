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

// One message that is being received. Deleting the object keeps its part, for the next session to
// resume.
class IncomingFile
{
public:
    virtual ~IncomingFile() = default;

    [[nodiscard]] virtual quint64 messageId() const = 0;
    [[nodiscard]] virtual qint64 length() const = 0; // bytes of the part

    // The next bytes that the part had when this object was made, from the beginning, at most
    // maxSize; empty at the end or on failure (then *error is set).
    virtual QByteArray readBack(qint64 maxSize, QString* error) = 0;

    // Go on after the first offer.offset bytes of the part and forget the rest of it. Another
    // session that still holds the part loses it (its append() fails from then on): the sender
    // has turned to this one. False with *refused set when the message cannot be received:
    // somebody else has resumed the part since this object was made, it is shorter, it is of
    // another file than the one offered, or there is no room for the rest.
    virtual bool resume(const OfferFrame& offer, RefusedFrame* refused) = 0;

    // The rest answer an error text, empty on success.
    virtual QString append(const QByteArray& bytes) = 0;

    // All bytes are there and their hash is right: put the message into the inbox and remember
    // its id, both so that they outlive a crash. *place tells the user where it is.
    virtual QString store(const OfferFrame& offer, QString* place) = 0;

    // Remove the part.
    virtual void discard() = 0;
};

// Where messages wait to be sent. Called from the threads of all sessions at once. A peer gets at
// the queue of its own abonent only, and only if it is proved.
class OutgoingStore
{
public:
    virtual ~OutgoingStore() = default;

    // A message may be claimed by one session only (session: any token that tells sessions
    // apart); it stays so until it is removed or the session releases all it has.
    virtual std::optional<OutgoingMessage> claimNext(const Peer& peer, const void* session) = 0;
    [[nodiscard]] virtual bool hasUnclaimed(const Peer& peer) const = 0;
    virtual void releaseAll(const void* session) = 0;
    // All that is queued for peer, claimed or not; nothing for one that is not proved.
    [[nodiscard]] virtual QSet<quint64> queuedIds(const Peer& peer) const = 0;

    // Null with *error set when the queued copy cannot be read.
    virtual std::unique_ptr<QIODevice> open(const OutgoingMessage& message, QString* error) const = 0;

    // The peer has the message: take it out of the queue. An error text, empty on success.
    virtual QString remove(const OutgoingMessage& message) = 0;

    enum class Fault
    {
        Remote,
        Local, // our own copy is to blame: not soon again
        Recheck, // compare our copy with its hash
    };
    // The message stays queued; reason is shown to the user.
    virtual void notDelivered(const OutgoingMessage& message, const QString& reason, Fault fault) = 0;
};

// Where messages arrive. Called from the threads of all sessions at once. A peer gets at nothing
// but its own parts and messages (see peerKey()).
class IncomingStore
{
public:
    virtual ~IncomingStore() = default;

    // Messages stored from peer of which it may not have heard.
    [[nodiscard]] virtual QVector<quint64> unsettled(const Peer& peer) = 0;
    virtual void settle(const Peer& peer, const QVector<quint64>& messageIds) = 0;
    [[nodiscard]] virtual bool isStored(const Peer& peer, quint64 messageId, const QByteArray& sha256) = 0;

    // Parts left from earlier sessions with peer; they are held only once resumed.
    virtual std::vector<std::unique_ptr<IncomingFile>> parts(const Peer& peer) = 0;

    // From the first byte: a part of the message is dropped. Null with *refused set when the
    // message cannot be received.
    virtual std::unique_ptr<IncomingFile> begin(const Peer& peer, const OfferFrame& offer, RefusedFrame* refused) = 0;
};

// What a session needs of the place where messages are kept. Neither is owned.
struct SessionStore
{
    OutgoingStore* outgoing = nullptr;
    IncomingStore* incoming = nullptr;
};

} // namespace host
