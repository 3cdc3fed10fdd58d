// How a session opens, before anything is said: both sides prove who they are, and agree on
// the keys that seal all that follows.
//
//   caller                                    answerer
//   word, message 1 ------------------------>
//          <------------------------ word, message 2     the caller sees whose key it is
//   3, message 3 --------------------------->            the answerer sees whose key it is
//   sealed frames -------------------------->
//          <------------------------ 4, sealed frames
//
// The word tells, in the clear, what is spoken here: "transport-host", the version (1 byte),
// "C" for the caller or "A" for the answerer, the largest payload of a frame (2, big-endian).
// Both words are the prologue of the handshake, which fails if one was changed on the way. The
// messages have fixed lengths (see noise.h). Zeros may come between any two of these items: a side
// that waits sends one each second, because the link delivers what is held behind a gap only when
// another packet follows.
#pragma once

#include "host/session/handshakeguard.h"
#include "host/session/noise.h"
#include "host/session/peer.h"
#include "host/session/peerdirectory.h"
#include "host/session/sessioncall.h"
#include "host/session/steadytime.h"

#include <QByteArray>
#include <QString>

#include <memory>
#include <utility>

namespace host {

// For one thread; the time is handed in. After a failure it cannot go on.
class Opening
{
public:
    // directory: not owned. guard: not owned, may be null.
    Opening(const SessionCall& call, std::shared_ptr<const KeyPair> identity, PeerDirectory* directory,
            HandshakeGuard* guard);

    void receive(const QByteArray& bytes, qint64 nowMs);

    // What is to be said now; empty when nothing is due.
    [[nodiscard]] QByteArray takeOutput(qint64 nowMs);
    // When takeOutput() will have something to give; never when there is nothing to say.
    [[nodiscard]] qint64 outputDueMs() const { return m_output.isEmpty() ? never : m_outputDueMs; }

    // What a side says while it waits.
    [[nodiscard]] static QByteArray filler() { return QByteArray(1, '\0'); }

    [[nodiscard]] bool hasFailed() const { return m_end != SessionEnd::None; }
    [[nodiscard]] SessionEnd end() const { return m_end; }
    [[nodiscard]] QString reason() const { return m_reason; }

    // Call it when the call ends: a handshake that the caller began and did not complete counts as
    // failed.
    void abandon();

    // Our sealed frames may follow what takeOutput() gave; the peer's key is proved.
    [[nodiscard]] bool maySend() const { return m_handshake.isDone() && m_output.isEmpty() && !hasFailed(); }
    // From now on the peer sends only sealed frames.
    [[nodiscard]] bool isOver() const { return m_isOver; }

    // Once maySend(): who the peer is. An answerer that refuses the peer tells it so in a sealed
    // frame.
    [[nodiscard]] const PeerDirectory::Verdict& verdict() const { return m_verdict; }
    [[nodiscard]] Peer peer() const;
    [[nodiscard]] NoiseCipher takeSending() { return m_handshake.takeSending(); }

    // Once isOver().
    [[nodiscard]] NoiseCipher takeReceiving() { return m_handshake.takeReceiving(); }
    [[nodiscard]] QByteArray takeRest() { return std::exchange(m_input, QByteArray()); }

private:
    bool takeItem(qint64 nowMs);
    bool checkWord();
    bool takeMessage(int header, qint64 nowMs);
    void judge();
    void fail(SessionEnd end, const QString& reason);
    [[nodiscard]] QByteArray word(bool isCaller) const;

    const SessionCall m_call;
    const std::shared_ptr<const KeyPair> m_identity;
    PeerDirectory* const m_directory; // not owned
    HandshakeGuard* const m_guard; // not owned, may be null
    NoiseHandshake m_handshake;
    PeerDirectory::Verdict m_verdict;
    QByteArray m_input; // not yet parsed
    QByteArray m_output; // not yet taken
    qint64 m_outputDueMs = 0;
    bool m_hasWord = false; // the peer's, with its first message
    bool m_isOver = false;
    SessionEnd m_end = SessionEnd::None;
    QString m_reason;
};

// How a session with a peer that is refused ends.
[[nodiscard]] SessionEnd refusalEnd(PeerDirectory::Verdict::Cause cause);

} // namespace host
