// The session protocol: two installations exchange messages over a channel of bytes,
// both directions at once. A state machine without threads, timers or sockets: bytes and
// the time are handed in, bytes are taken out.
//
// Course: the handshake of opening.h; then, sealed, both sides say Hello; each answers the
// other's with its State (what it has stored that the other may not know, which parts stand,
// with their hashes). Then each streams its messages, one after another, without waiting:
// Offer, Data..., Offer, Data... Acknowledgements come when they come. A side with nothing
// left says Finish; when both have, the caller asks Bye and the other agrees.
//
// Here: the stream of frames, the phases and the end. What is said of messages stands in
// outgoingmessages.h and incomingmessages.h, the limits of time in sessiontimes.h.
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

    // directory and what store points to: not owned, outlive the session. nowMs: any steady clock, in milliseconds.
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

    // Until when, on the clock that is handed in, nothing needs to be done: neither advance() nor
    // takeOutput() would do anything before, unless something changes outside. The session does
    // not know of a message that is put into the queue meanwhile: it asks at its next turn.
    // In the past when there is something to do now.
    [[nodiscard]] qint64 nextTurnMs() const;

    // While set, the session does not end although nothing is left to send.
    void setKeepAlive(bool keepAlive);

    // Ends the session soon; the peer is told why.
    void stop(const QString& reason, qint64 nowMs);

    // The channel has no connection any more.
    void connectionLost();

    // Under which the store knows the session; only compared.
    [[nodiscard]] const void* claimant() const { return static_cast<const SessionControl*>(this); }

    [[nodiscard]] bool isFinished() const { return m_phase == Phase::Finished; }
    [[nodiscard]] SessionEnd end() const { return m_end; }
    [[nodiscard]] bool endedWell() const { return m_end == SessionEnd::Agreed; }
    [[nodiscard]] QString endReason() const { return m_endReason; }
    [[nodiscard]] bool wasUseful() const { return m_wasUseful; } // a message was stored or delivered
    // Under which name the peer is known here; empty until it has proved who it is and said Hello.
    [[nodiscard]] QString peerName() const { return m_isPeerNamed ? m_peer.abonent : QString(); }
    [[nodiscard]] const Peer& peer() const { return m_peer; }
    // Whether a file is coming in of which much is still to come.
    [[nodiscard]] bool hasMuchToReceive() const { return m_incoming.hasMuchToReceive(); }

private:
    enum class Phase
    {
        Opening, // the handshake, until the peer's Hello
        Preparing, // theirs came; hashing the parts that stand for our State
        Running,
        ByeSent, // we asked to end and wait for the answer
        Lingering, // we agreed to end and let the answer get out
        Closing, // we said Stop and let it get out
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
    std::unique_ptr<Opening> m_opening; // until all that comes is sealed frames
    FrameReader m_reader;
    FrameWriter m_writer;
    QByteArray m_output; // frames written and not yet taken
    int m_outputPosition = 0;
    bool m_isHeartbeat = false; // nothing else stands in the output
    bool m_hasSaidAll = false; // asked for output, it had none, and nothing has happened since

    OutgoingMessages m_outgoing;
    IncomingMessages m_incoming;

    // Ending
    bool m_finishSent = false;
    bool m_peerFinished = false;

    // Time
    qint64 m_nowMs; // as it was handed in last
    SessionTimes m_times;
    qint64 m_askedMs; // whether the peer may go on
    qint64 m_deadlineMs = 0; // of Closing and Lingering
};

} // namespace host
