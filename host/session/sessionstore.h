// What a session needs from the place where messages are kept.
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

// One message that is being received. Deleting the object keeps the part, so that the next session
// can resume it.
class IncomingFile
{
public:
    virtual ~IncomingFile() = default;

    [[nodiscard]] virtual quint64 messageId() const = 0;
    [[nodiscard]] virtual qint64 length() const = 0; // bytes of the part

    // The next bytes that the part had when this object was made, from the beginning, at most
    // maxSize; empty at the end or on failure (then *error is set).
    virtual QByteArray readBack(qint64 maxSize, QString* error) = 0;

    // Goes on after the first offer.offset bytes of the part; what follows them is forgotten. If
    // another session still holds the part, it loses it (its append() fails from then on), because
    // the sender now uses this session. False with *refused set when the message cannot be received:
    // somebody else has resumed the part since this object was made, the part is shorter than
    // offer.offset, it belongs to another file, or there is no room for the rest.
    virtual bool resume(const OfferFrame& offer, RefusedFrame* refused) = 0;

    // append() and store() return an error text, empty on success.
    virtual QString append(const QByteArray& bytes) = 0;

    // Call it when all bytes are there and their hash is right: puts the message into the inbox and
    // remembers its id, both safe from a crash. *place tells the user where it is.
    virtual QString store(const OfferFrame& offer, QString* place) = 0;

    // Removes the part.
    virtual void discard() = 0;
};

// Where messages wait to be sent. Called from the threads of all sessions at once. A peer can only
// have messages for its own abonent, and only if it is proved.
class OutgoingStore
{
public:
    virtual ~OutgoingStore() = default;

    // Claims a message for one session, so that no other session gets it, until the message is removed
    // or the session releases all that it has. session: any token that differs between sessions.
    virtual std::optional<OutgoingMessage> claimNext(const Peer& peer, const void* session) = 0;
    [[nodiscard]] virtual bool hasUnclaimed(const Peer& peer) const = 0;
    virtual void releaseAll(const void* session) = 0;
    // All messages that are queued for peer, claimed or not; none if it is not proved.
    [[nodiscard]] virtual QSet<quint64> queuedIds(const Peer& peer) const = 0;

    // Null with *error set when the queued copy cannot be read.
    virtual std::unique_ptr<QIODevice> open(const OutgoingMessage& message, QString* error) const = 0;

    // Takes a message that the peer has out of the queue. An error text, empty on success.
    virtual QString remove(const OutgoingMessage& message) = 0;

    enum class Fault
    {
        Remote,
        Local, // our own copy is damaged or unreadable: not to be tried again soon
        Recheck, // our own copy may be damaged: it is compared with its hash
    };
    // The message stays queued; reason is shown to the user.
    virtual void notDelivered(const OutgoingMessage& message, const QString& reason, Fault fault) = 0;
};

// Where messages arrive. Called from the threads of all sessions at once. A peer can only reach its
// own parts and messages (see peerKey()).
class IncomingStore
{
public:
    virtual ~IncomingStore() = default;

    // Messages from peer that are stored, but the peer may not know it.
    [[nodiscard]] virtual QVector<quint64> unsettled(const Peer& peer) = 0;
    virtual void settle(const Peer& peer, const QVector<quint64>& messageIds) = 0;
    [[nodiscard]] virtual bool isStored(const Peer& peer, quint64 messageId, const QByteArray& sha256) = 0;

    // Parts left from earlier sessions with peer. A part is held only after resume().
    virtual std::vector<std::unique_ptr<IncomingFile>> parts(const Peer& peer) = 0;

    // Begins a message at its first byte and drops a part that there may be. Null with *refused set
    // when the message cannot be received.
    virtual std::unique_ptr<IncomingFile> begin(const Peer& peer, const OfferFrame& offer, RefusedFrame* refused) = 0;
};

// Both sides of the place where messages are kept. Neither is owned.
struct SessionStore
{
    OutgoingStore* outgoing = nullptr;
    IncomingStore* incoming = nullptr;
};

} // namespace host
