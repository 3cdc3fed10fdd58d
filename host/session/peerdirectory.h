// Who may have a session with this installation: asked by a session once a peer has proved
// that it holds a key.
#pragma once

#include "host/session/peer.h"

#include <QByteArray>
#include <QString>

#include <optional>

namespace host {

// Called from the threads of all sessions at once.
class PeerDirectory
{
public:
    virtual ~PeerDirectory() = default;

    struct Verdict
    {
        enum class Kind
        {
            Proved,
            Unproved,
            Refused
        };
        enum class Cause
        {
            UnknownKey,
            BlockedKey,
            WrongKey, // the called abonent is known by another one
            Failed, // the directory could not be asked, or could not remember the key
        };

        Kind kind = Kind::Refused;
        QString abonent; // the name under which the peer is known here; unproved: one made of its key
        QString reason; // of a refusal: for our journal, never told to the peer
        Cause cause = Cause::UnknownKey; // of a refusal
    };

    // A call came in: whose key is it?
    virtual Verdict whoCalls(const QByteArray& publicKey) = 0;

    // A call of ours was answered: may the party with this key be the one that was called? A
    // key that is seen for the first time is remembered as the called abonent's.
    virtual Verdict whoAnswers(const QString& calledAbonent, const QByteArray& publicKey) = 0;

    // Asked each second while a session with peer runs: why it may not go on, when it was blocked
    // meanwhile. Null otherwise, also when that cannot be found out: it was let in once.
    virtual std::optional<Verdict> whyExpelled(const Peer& peer) = 0;
};

} // namespace host
