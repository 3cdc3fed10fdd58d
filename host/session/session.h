// The session protocol: two installations exchange messages over a channel of bytes,
// both directions at once. A state machine without threads, timers or sockets: bytes and
// the time are handed in, bytes are taken out.
//
// A session begins with the handshake of opening.h. All that follows is sealed. Both sides say Hello,
// and each answers the other's Hello with its State: the messages that it has stored and the other
// may not know of, and its parts of messages, with their hashes. Then each side sends its messages,
// one after another, without waiting for acknowledgements: Offer, Data..., Offer, Data... A side
// that has nothing left says Finish. When both have said it, the caller says Bye, and the other
// side agrees.
//
// This class has the stream of frames, the phases and the end; outgoingmessages.h and
// incomingmessages.h have the messages, sessiontimes.h the limits of time.
#pragma once

#include "host/session/frame.h"
#include "host/session/incomingmessages.h"
#include "host/session/opening.h"
#include "host/session/outgoingmessages.h"
#include "host/session/peerdirectory.h"
#include "host/session/sessioncall.h"
#include "host/session/sessioncontrol.h"
#include "host/session/sessionevent.h"
#include "host/session/sessionsettings.h"
#include "host/session/sessionstore.h"
#include "host/session/sessiontimes.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <memory>

namespace host {

class Session final : private SessionControl
{
public:
    using EventSink = std::function<void(const SessionEvent&)>;

    // directory and what store points to: not owned, outlive the session. nowMs, here and below: any
    // steady clock, in milliseconds.
    Session(const SessionSettings& settings, const SessionCall& call, PeerDirectory* directory,
            const SessionStore& store, EventSink sink, qint64 nowMs);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Bytes that came from the channel, in pieces of any size.
    void receive(const QByteArray& bytes, qint64 nowMs);

    // The next bytes for the channel, at most maxBytes and as many as there are to send;
    // empty when there is nothing to send now.
    QByteArray takeOutput(int maxBytes, qint64 nowMs);

    // Timeouts, and hashing in slices. Call it regularly, or at the latest when nextTurnMs() says so.
    void advance(qint64 nowMs);

    // When the session must be asked again, on the clock that is handed in. Before that neither
    // advance() nor takeOutput() has anything to do, unless bytes come in or the host calls
    // something else. (A message that is queued meanwhile is found at the next turn.) A time in the
    // past when there is something to do now.
    [[nodiscard]] qint64 nextTurnMs() const;

    // While set, the session does not end although nothing is left to send.
    void setKeepAlive(bool keepAlive);

    // Ends the session soon; the peer is told why.
    void stop(const QString& reason, qint64 nowMs);

    // The channel has no connection any more.
    void connectionLost();

    // The token under which the store knows the session; it is only compared.
    [[nodiscard]] const void* claimant() const { return static_cast<const SessionControl*>(this); }

    [[nodiscard]] bool isFinished() const { return m_phase == Phase::Finished; }
    [[nodiscard]] SessionEnd end() const { return m_end; }
    [[nodiscard]] bool endedWell() const { return m_end == SessionEnd::Agreed; }
    [[nodiscard]] QString endReason() const { return m_endReason; }
    [[nodiscard]] bool wasUseful() const { return m_wasUseful; } // a message was stored or delivered
    // The peer's name in this installation; empty until it has proved who it is and said Hello.
    [[nodiscard]] QString peerName() const { return m_isPeerNamed ? m_peer.abonent : QString(); }
    [[nodiscard]] const Peer& peer() const { return m_peer; }
    // Whether a file is coming in that still lacks many bytes.
    [[nodiscard]] bool hasMuchToReceive() const { return m_incoming.hasMuchToReceive(); }

private:
    enum class Phase
    {
        Opening, // the handshake, until the peer's Hello
        Preparing, // the peer's Hello came; we hash our parts, for our State
        Running,
        ByeSent, // we asked to end and wait for the answer
        Lingering, // we agreed to end; our answer is on its way
        Closing, // we said Stop; it is on its way
        Finished,
    };

    void put(FrameType type, const QByteArray& payload = QByteArray()) override;
    void tell(const SessionEvent& event) override;
    void giveUp(const QString& reason) override;

    void receiveOpening(const QByteArray& bytes);
    void sayOpening();
    void refusePeer(const PeerDirectory::Verdict& verdict);
    void expelIfBlocked();
    bool receiveFrames();
    void dispatch(const Frame& frame);
    void dispatchMessage(const Frame& frame);
    void onHello(const Frame& frame);
    void onOffer(const Frame& frame);
    void onFinish();
    void onBye();
    void onByeAnswer(bool yes);
    void onStop(const Frame& frame);

    void hashParts();
    bool produce();
    bool produceOpening();
    bool produceFrames();
    bool produceEnding();
    bool produceHeartbeat();
    void sayHeartbeat();
    void checkLimits();
    [[nodiscard]] SessionTimes::Facts facts() const;
    [[nodiscard]] bool isExpulsionAsked() const;
    [[nodiscard]] bool nothingLeft() const;

    void close(SessionEnd end, const QString& reason);
    void beginClosing(SessionEnd end, const QString& reason, int closingMs);
    void finish(SessionEnd end, const QString& reason);

    const SessionSettings m_settings;
    const bool m_isCaller;
    PeerDirectory* const m_directory; // not owned
    const EventSink m_sink;

    Phase m_phase = Phase::Opening;
    SessionEnd m_end = SessionEnd::None;
    SessionEnd m_closingEnd = SessionEnd::None;
    bool m_wasUseful = false;
    bool m_keepAlive = false;
    QString m_endReason;
    QString m_closingReason;
    Peer m_peer;
    bool m_isPeerNamed = false;

    // The stream
    std::unique_ptr<Opening> m_opening; // until only sealed frames come
    FrameReader m_reader;
    FrameWriter m_writer;
    QByteArray m_output; // frames written and not yet taken
    int m_outputPosition = 0;
    bool m_isHeartbeat = false; // the output is nothing but a heartbeat
    bool m_hasSaidAll = false; // the last takeOutput() had nothing to give, and nothing has happened since

    OutgoingMessages m_outgoing;
    IncomingMessages m_incoming;

    // Ending
    bool m_finishSent = false;
    bool m_peerFinished = false;

    // Time
    qint64 m_nowMs; // as it was handed in last
    SessionTimes m_times;
    qint64 m_askedMs; // when the directory was last asked whether the peer may stay
    qint64 m_deadlineMs = 0; // of Closing and Lingering
};

} // namespace host
