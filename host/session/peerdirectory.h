// Who may have a session with this installation. A session asks once the peer has proved that it
// holds a key.
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
            WrongKey, // another key is known for the called abonent
            Failed, // the directory could not be asked, or could not remember the key
        };

        Kind kind = Kind::Refused;
        QString abonent; // the peer's name here; unproved: a name made of its key
        QString reason; // of a refusal: for our journal, never told to the peer
        Cause cause = Cause::UnknownKey; // of a refusal
    };

    // A call came in: whose key is it?
    virtual Verdict whoCalls(const QByteArray& publicKey) = 0;

    // A call of ours was answered: can the answerer, who has this key, be the called abonent? If no
    // key was known for that abonent, this one is remembered.
    virtual Verdict whoAnswers(const QString& calledAbonent, const QByteArray& publicKey) = 0;

    // Asked each second while a session with peer runs: the reason to end it, if the peer was blocked
    // meanwhile. Otherwise null, also when the question cannot be answered, because the peer was let
    // in once.
    virtual std::optional<Verdict> whyExpelled(const Peer& peer) = 0;
};

} // namespace host
