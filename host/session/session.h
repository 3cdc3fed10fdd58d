// The session protocol: two installations exchange messages over a channel of bytes,
// both directions at once. A state machine without threads, timers or sockets: bytes and
// the time are handed in, bytes are taken out.
//
// Course: the handshake of opening.h; then, sealed, both sides say Hello; each answers the
// other's with its State (what it has stored that the other may not know, which parts stand,
// with their hashes). Then each streams its messages, one after another, without waiting:
// Offer, Data..., Offer, Data... Acknowledgements come when they come. A side with nothing
// left says Finish; when both have, the caller asks Bye and the other agrees.
#pragma once

#include "host/session/frame.h"
#include "host/session/handshakeguard.h"
#include "host/session/opening.h"
#include "host/session/peerdirectory.h"
#include "host/session/sessioncall.h"
#include "host/session/sessionframes.h"
#include "host/session/sessionstore.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QSet>
#include <QString>
#include <QVector>

#include <functional>
#include <map>
#include <memory>
#include <optional>

namespace host {

struct SessionSettings
{
    QString abonentName; // our own
    std::shared_ptr<const KeyPair> identity;
    std::shared_ptr<HandshakeGuard> guard; // null: answers are never slowed down

    // A silent side says something after so long (five times that, but at most a third of
    // silenceMs, while much comes in and nothing else was said lately), since it frees packets
    // held behind a gap: a filler, or an Alive when it has said nothing else for aliveMs, or a
    // third of silenceMs. The other side's silenceMs should be the same.
    int heartbeatMs = 1000;
    int aliveMs = 10000;
    // Nothing came for so long: the connection is dead. On a line of 1200 bit/s a minute
    // may well pass between two packets that bring anything new, since a driver full of
    // repeats (4 KiB, 35 s) stands in front of them.
    int silenceMs = 120000;
    int stallMs = 600000; // acknowledgements are due and nothing but heartbeats came for so long (a full
                          // queue alone takes two minutes at 1200 bit/s)
    int openingMs = 60000; // the other side has not said who it is after so long
    int uselessMs = 300000; // nothing of use came or went for so long, and our host does not keep the session
    int strangerMs = 900000; // in all, for a peer that is not proved
    int closingMs = 300; // time for a last Stop frame to get out
    int lingerMs = 10000; // the side that agreed to end waits for the other to hang up, at most so long,
    int lingerSilenceMs = 2500; // or until it has been silent for so long
};

struct SessionEvent
{
    enum class Kind
    {
        PeerNamed, // text: the peer's name
        FileBegun, // done: where it is taken up
        FileProgress, // done: bytes received, or handed to the channel
        FileStored, // incoming: whole, verified, in the inbox (text: where)
        FileDelivered, // outgoing: the peer has stored it
        FileDuplicate, // incoming: it was stored before; acknowledged again
        FileFailed, // text: why; an outgoing one stays queued
        Note, // text, for the journal
    };

    Kind kind = Kind::Note;
    bool outgoing = false;
    quint64 messageId = 0;
    QString fileName;
    QByteArray sha256;
    qint64 size = 0;
    qint64 done = 0;
    QString text;
};

class Session
{
public:
    using EventSink = std::function<void(const SessionEvent&)>;

    // directory, store: not owned, outlive the session. nowMs: any steady clock, in milliseconds.
    Session(const SessionSettings& settings, const SessionCall& call, PeerDirectory* directory, SessionStore* store,
            EventSink sink, qint64 nowMs);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Bytes that came from the channel, in pieces of any size.
    void receive(const QByteArray& bytes, qint64 nowMs);

    // The next bytes for the channel, at most maxBytes and as many as there are to send;
    // empty when there is nothing to send now.
    QByteArray takeOutput(int maxBytes, qint64 nowMs);

    // Call it regularly: timeouts, and hashing in slices.
    void advance(qint64 nowMs);

    // While set, the session does not end although nothing is left to send.
    void setKeepAlive(bool keepAlive);

    // Ends the session soon; the peer is told why.
    void stop(const QString& reason, qint64 nowMs);

    // The channel has no connection any more.
    void connectionLost();

    [[nodiscard]] bool isFinished() const { return m_phase == Phase::Finished; }
    [[nodiscard]] SessionEnd end() const { return m_end; }
    [[nodiscard]] bool endedWell() const { return m_end == SessionEnd::Agreed; }
    [[nodiscard]] QString endReason() const { return m_endReason; }
    [[nodiscard]] bool wasUseful() const { return m_wasUseful; } // a message was stored or delivered
    // Under which name the peer is known here; empty until it has proved who it is and said Hello.
    [[nodiscard]] QString peerName() const { return m_isPeerNamed ? m_peer.abonent : QString(); }
    [[nodiscard]] const Peer& peer() const { return m_peer; }
    // Whether a file is coming in of which much is still to come.
    [[nodiscard]] bool isMuchComing() const;

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

    struct Part // left from an earlier session
    {
        std::unique_ptr<IncomingFile> file;
        quint64 generation = 0; // of which the hash is
        std::unique_ptr<QCryptographicHash> hash;
        qint64 hashedBytes = 0;
        bool done = false;
    };

    struct Sending
    {
        OutgoingMessage message;
        quint64 offerIndex = 0;
        std::unique_ptr<QIODevice> device;
        qint64 position = 0;
        bool offered = false;
        // While the peer's part is compared with ours:
        std::unique_ptr<QCryptographicHash> prefixHash;
        MessagePart peerPart;
    };

    struct Receiving
    {
        OfferFrame offer;
        quint64 offerIndex = 0;
        std::unique_ptr<IncomingFile> file; // null while the data is skipped
        std::unique_ptr<QCryptographicHash> hash;
        qint64 position = 0;
    };

    void receiveOpening(const QByteArray& bytes, qint64 nowMs);
    void sayOpening(qint64 nowMs);
    void refusePeer(const PeerDirectory::Verdict& verdict, qint64 nowMs);
    bool receiveFrames(qint64 nowMs);
    void dispatch(const Frame& frame, qint64 nowMs);
    void onHello(const Frame& frame, qint64 nowMs);
    void onState(const Frame& frame);
    void onOffer(const Frame& frame, qint64 nowMs);
    void onData(const Frame& frame, qint64 nowMs);
    void onAbort(const Frame& frame);
    void onStored(const Frame& frame, qint64 nowMs);
    void onRefused(const Frame& frame);
    void onSettled(const Frame& frame);
    void onFinish();
    void onBye(qint64 nowMs);
    void onByeAnswer(bool yes);

    void hashParts();
    void sendState();
    void hashSendingPrefix();

    bool produce(qint64 nowMs);
    void sayAlive(qint64 nowMs);
    bool produceAcknowledgements();
    bool produceSettled(qint64 nowMs);
    bool produceMessageData();
    bool beginNextMessage();
    bool produceEnding();
    void sendOffer(qint64 offset);
    void sendingDone();
    void sendingFailed(const QString& reason, SessionStore::Fault fault);
    void finishMessage(const OutgoingMessage& message);

    void receivedAll();
    void refuse(RefusalCode code, const QString& reason);
    void acknowledge(quint64 offerIndex, quint64 messageId);
    void settleFirst(int count);

    void put(FrameType type, const QByteArray& payload = QByteArray());
    void checkLimits(qint64 nowMs);
    void violation(const QString& what, qint64 nowMs);
    void close(SessionEnd end, const QString& reason, qint64 nowMs);
    void beginClosing(SessionEnd end, const QString& reason, qint64 nowMs);
    void finish(SessionEnd end, const QString& reason);
    void emitFileEvent(SessionEvent::Kind kind, const OutgoingMessage& message, qint64 done,
                       const QString& text = QString());
    void emitFileEvent(SessionEvent::Kind kind, const OfferFrame& offer, qint64 done, const QString& text = QString());
    void note(const QString& text);
    [[nodiscard]] bool isSendingPhase() const { return m_phase == Phase::Running; }
    [[nodiscard]] bool nothingLeft();
    [[nodiscard]] int heartbeatMs(qint64 nowMs) const;

    const SessionSettings m_settings;
    const bool m_isCaller;
    SessionStore* const m_store; // not owned
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
    bool m_saysOnlyAlive = false;

    // Sending
    bool m_peerStateKnown = false;
    std::map<quint64, MessagePart> m_peerParts;
    QSet<quint64> m_peerStored; // of our queue, as the parts above
    std::optional<QSet<quint64>> m_queuedIds; // as they were when the peer's State came
    std::optional<Sending> m_sending;
    std::map<quint64, OutgoingMessage> m_unacknowledged; // by offer
    std::map<quint64, int> m_retries; // by message
    std::vector<OutgoingMessage> m_again; // to be offered once more from the beginning
    quint64 m_nextOfferOut = 0;
    quint64 m_acknowledgementsSeen = 0; // of the peer's State and Stored frames
    quint64 m_settledTold = 0;
    qint64 m_settledToldMs = 0;
    qint64 m_dataBytesSent = 0; // in this call

    // Receiving
    std::map<quint64, Part> m_parts;
    std::optional<Receiving> m_receiving;
    quint64 m_nextOfferIn = 0;
    QVector<quint64> m_toAcknowledge; // offers
    int m_refusals = 0;
    int m_settledCount = 0;
    QVector<quint64> m_toSettle; // message ids in the order they were told to the peer

    // Ending
    bool m_finishSent = false;
    bool m_peerFinished = false;

    // Time
    qint64 m_lastHeardMs;
    qint64 m_lastSentMs;
    qint64 m_lastSaidMs; // the same, without heartbeats
    qint64 m_lastAliveMs;
    const qint64 m_beganMs;
    qint64 m_lastUsefulMs;
    qint64 m_deadlineMs = 0; // of Closing and Lingering
};

} // namespace host
