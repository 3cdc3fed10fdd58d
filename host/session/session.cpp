#include "host/session/session.h"

#include <algorithm>

namespace host {

namespace {

constexpr qint64 askEveryMs = 1000; // whether the peer may stay; the directory looks at a file
constexpr int maxOutputBytes = 1024 * 1024; // only a peer that does not take our answers makes more wait

} // namespace

Session::Session(const SessionSettings& settings, const SessionCall& call, PeerDirectory* directory,
                 const SessionStore& store, EventSink sink, qint64 nowMs)
    : m_settings(settings), m_isCaller(call.isOutgoing), m_directory(directory), m_sink(std::move(sink)),
      m_opening(std::make_unique<Opening>(call, settings.identity, directory, settings.guard.get())),
      m_outgoing(m_peer, store.outgoing, this), m_incoming(m_peer, store.incoming, this), m_nowMs(nowMs),
      m_times(m_settings, nowMs), m_askedMs(nowMs)
{
}

Session::~Session()
{
    m_outgoing.drop();
}

// ---- what the two directions need ----

void Session::put(FrameType type, const QByteArray& payload)
{
    if (type == FrameType::Offer)
        m_finishSent = false; // an offer takes it back
    if (m_outputPosition > 0) {
        m_output.remove(0, m_outputPosition);
        m_outputPosition = 0;
    }
    m_writer.append(type, payload, &m_output);
    m_isHeartbeat = false;
    m_hasSaidAll = false;
}

void Session::tell(const SessionEvent& event)
{
    using Kind = SessionEvent::Kind;
    const bool isMessageThrough = event.kind == Kind::FileStored || event.kind == Kind::FileDelivered;
    m_wasUseful = m_wasUseful || isMessageThrough;
    if (isMessageThrough ||
        (!event.file.isOutgoing && (event.kind == Kind::FileBegun || event.kind == Kind::FileProgress)))
        m_times.useful(m_nowMs);
    m_sink(event);
}

void Session::giveUp(const QString& reason)
{
    close(SessionEnd::ProtocolError, reason);
}

// ---- the stream ----

void Session::receive(const QByteArray& bytes, qint64 nowMs)
{
    m_nowMs = nowMs;
    if (bytes.isEmpty() || isFinished() || m_phase == Phase::Closing)
        return;
    m_hasSaidAll = false;
    if (m_opening)
        receiveOpening(bytes);
    else
        m_reader.append(bytes);
    // Fillers do not count as heard: they may be our own, echoed by a modem.
    if (m_opening || receiveFrames() || m_reader.isInFrame())
        m_times.heard(nowMs);
}

void Session::receiveOpening(const QByteArray& bytes)
{
    m_opening->receive(bytes, m_nowMs);
    if (m_opening->hasFailed()) {
        m_output.append(m_opening->takeOutput(m_nowMs));
        close(m_opening->end(), m_opening->reason());
        return;
    }
    sayOpening();
    if (!m_opening->isOver())
        return;
    m_reader = FrameReader(m_opening->takeReceiving());
    m_reader.append(m_opening->takeRest());
    m_opening.reset();
}

// Says the next step of the handshake and, once the handshake is done, our Hello.
void Session::sayOpening()
{
    m_output.append(m_opening->takeOutput(m_nowMs));
    if (m_writer.isUsable() || !m_opening->maySend())
        return;
    m_writer = FrameWriter(m_opening->takeSending());
    m_peer = m_opening->peer();
    const PeerDirectory::Verdict& verdict = m_opening->verdict();
    if (verdict.kind == PeerDirectory::Verdict::Kind::Refused) {
        refusePeer(verdict);
        return;
    }
    HelloFrame hello;
    if (m_peer.isProved)
        hello.abonentName = m_settings.abonentName;
    put(FrameType::Hello, hello.encode());
}

// The peer is told what its operator can do about it, and nothing about this installation.
void Session::refusePeer(const PeerDirectory::Verdict& verdict)
{
    QString told;
    switch (verdict.cause) {
    case PeerDirectory::Verdict::Cause::BlockedKey: told = QStringLiteral("your key is blocked here"); break;
    case PeerDirectory::Verdict::Cause::UnknownKey:
        told = QStringLiteral("your key is not known here: give what \"transport-host key\" shows to the operator of "
                              "this side");
        break;
    case PeerDirectory::Verdict::Cause::WrongKey:
    case PeerDirectory::Verdict::Cause::Failed:
        told = QStringLiteral("your key cannot be looked up here just now: call again later");
        break;
    }
    put(FrameType::Stop, encodeReason(told));
    beginClosing(refusalEnd(verdict.cause), verdict.reason, m_settings.refusingMs);
}

// Whether the peer has been let in and the session has not begun to end.
bool Session::isExpulsionAsked() const
{
    return m_writer.isUsable() && m_phase != Phase::Closing && m_phase != Phase::Lingering;
}

// Blocking takes effect at once: from now on this call acknowledges nothing.
void Session::expelIfBlocked()
{
    if (!isExpulsionAsked() || m_nowMs - m_askedMs < askEveryMs)
        return;
    m_askedMs = m_nowMs;
    if (const std::optional<PeerDirectory::Verdict> verdict = m_directory->whyExpelled(m_peer))
        refusePeer(*verdict);
}

// True when there was a frame.
bool Session::receiveFrames()
{
    Frame frame;
    bool wasHeard = false;
    while (!isFinished() && m_phase != Phase::Closing) {
        switch (m_reader.next(&frame)) {
        case FrameReader::Result::None: return wasHeard;
        case FrameReader::Result::Damaged:
            close(SessionEnd::Damaged, QStringLiteral("the data arrives damaged"));
            return true;
        case FrameReader::Result::Frame:
            dispatch(frame);
            wasHeard = true;
            break;
        }
    }
    return wasHeard;
}

void Session::dispatch(const Frame& frame)
{
    if (frame.type == FrameType::Stop) {
        onStop(frame);
        return;
    }
    const bool isOpening = m_phase == Phase::Opening;
    if (isOpening != (frame.type == FrameType::Hello)) {
        giveUp(brokenProtocol(QStringLiteral("opening")));
    } else if (isOpening) {
        onHello(frame);
    } else if (frame.type != FrameType::Alive) {
        dispatchMessage(frame);
        if (m_output.size() - m_outputPosition > maxOutputBytes || m_incoming.hasPiledUp())
            giveUp(QStringLiteral("the other side takes no answers"));
    }
}

void Session::dispatchMessage(const Frame& frame)
{
    switch (frame.type) {
    case FrameType::State: m_outgoing.onState(frame); return;
    case FrameType::Offer: onOffer(frame); return;
    case FrameType::Data: m_incoming.onData(frame); return;
    case FrameType::Abort: m_incoming.onAbort(frame); return;
    case FrameType::Stored: m_outgoing.onStored(frame); return;
    case FrameType::Refused: m_outgoing.onRefused(frame); return;
    case FrameType::Settled: m_incoming.onSettled(frame); return;
    case FrameType::Finish: onFinish(); return;
    case FrameType::Continue: m_peerFinished = false; return;
    case FrameType::Bye: onBye(); return;
    case FrameType::ByeYes:
    case FrameType::ByeNo: onByeAnswer(frame.type == FrameType::ByeYes); return;
    case FrameType::Hello:
    case FrameType::Alive:
    case FrameType::Stop: return; // dealt with before
    }
}

QByteArray Session::takeOutput(int maxBytes, qint64 nowMs)
{
    m_nowMs = nowMs;
    if (maxBytes <= 0 || isFinished())
        return QByteArray();
    while (m_output.size() - m_outputPosition < maxBytes && produce()) {
    }
    const QByteArray piece = m_output.mid(m_outputPosition, maxBytes);
    m_outputPosition += piece.size();
    if (m_outputPosition == m_output.size()) {
        m_output.clear();
        m_outputPosition = 0;
    }
    m_hasSaidAll = piece.isEmpty();
    if (!piece.isEmpty())
        m_times.sent(m_isHeartbeat, nowMs);
    return piece;
}

bool Session::produce()
{
    if (m_phase == Phase::Closing)
        return false;
    return produceOpening() || produceFrames() || produceHeartbeat();
}

bool Session::produceOpening()
{
    if (!m_opening)
        return false;
    const int before = m_output.size();
    sayOpening();
    return m_output.size() > before;
}

bool Session::produceFrames()
{
    if (m_phase != Phase::Running && m_phase != Phase::ByeSent)
        return false;
    if (m_incoming.acknowledge() || m_outgoing.tellSettled(m_nowMs))
        return true;
    if (m_phase != Phase::Running)
        return false;
    if (m_outgoing.sendNext()) {
        m_times.useful(m_nowMs);
        return true;
    }
    return produceEnding();
}

bool Session::produceHeartbeat()
{
    const bool isDue = m_phase != Phase::Closing && m_output.size() == m_outputPosition &&
                       m_times.isHeartbeatDue(hasMuchToReceive(), m_nowMs);
    if (isDue)
        sayHeartbeat();
    return isDue;
}

// A filler takes a third of the bytes of an Alive, but does not prove that it is ours.
void Session::sayHeartbeat()
{
    if (!m_writer.isUsable()) {
        m_output.append(Opening::filler());
    } else if (m_times.isAliveDue(m_nowMs)) {
        put(FrameType::Alive);
        m_times.saidAlive(m_nowMs);
    } else {
        m_output.append(frameFiller());
    }
    m_isHeartbeat = true;
}

// ---- opening ----

void Session::onHello(const Frame& frame)
{
    HelloFrame hello;
    if (!hello.decode(frame.payload)) {
        giveUp(brokenProtocol(QStringLiteral("name")));
        return;
    }
    m_peer.claimedName = hello.abonentName;
    m_isPeerNamed = true;
    tell(textEvent(SessionEvent::Kind::PeerNamed, m_peer.abonent));
    m_phase = Phase::Preparing;
    m_incoming.lookForParts();
    hashParts();
}

void Session::hashParts()
{
    m_times.useful(m_nowMs);
    if (m_incoming.hashParts())
        m_phase = Phase::Running;
}

void Session::onOffer(const Frame& frame)
{
    if (m_phase == Phase::Preparing || m_phase == Phase::Lingering) {
        giveUp(brokenProtocol(QStringLiteral("offer")));
        return;
    }
    m_peerFinished = false;
    m_incoming.onOffer(frame);
}

// ---- ending ----

bool Session::nothingLeft() const
{
    return !m_keepAlive && m_incoming.nothingLeft() && m_outgoing.nothingLeft();
}

bool Session::produceEnding()
{
    if (!nothingLeft())
        return false;
    if (!m_finishSent) {
        put(FrameType::Finish);
        m_finishSent = true;
        return true;
    }
    // When both sides have finished, the caller asks to end.
    if (m_peerFinished && m_isCaller) {
        put(FrameType::Bye);
        m_phase = Phase::ByeSent;
        return true;
    }
    return false;
}

void Session::setKeepAlive(bool keepAlive)
{
    if (keepAlive && !m_keepAlive && m_finishSent && m_phase == Phase::Running) {
        put(FrameType::Continue);
        m_finishSent = false;
    }
    m_hasSaidAll = m_hasSaidAll && keepAlive == m_keepAlive;
    m_keepAlive = keepAlive;
}

void Session::onFinish()
{
    m_peerFinished = true;
    // A side that has nothing left knows of everything that we have stored.
    m_incoming.settleAll();
}

void Session::onBye()
{
    if (m_phase != Phase::Running) {
        giveUp(brokenProtocol(QStringLiteral("end")));
        return;
    }
    if (!m_finishSent || !nothingLeft()) {
        put(FrameType::ByeNo);
        return;
    }
    put(FrameType::ByeYes);
    m_phase = Phase::Lingering;
    m_deadlineMs = m_nowMs + m_settings.lingerMs;
}

void Session::onByeAnswer(bool yes)
{
    if (m_phase != Phase::ByeSent) {
        giveUp(brokenProtocol(QStringLiteral("end")));
        return;
    }
    if (yes) {
        finish(SessionEnd::Agreed, QString());
        return;
    }
    m_peerFinished = false;
    m_phase = Phase::Running;
}

void Session::onStop(const Frame& frame)
{
    QString reason;
    if (!decodeReason(frame.payload, &reason))
        reason = QStringLiteral("no reason given");
    finish(m_isPeerNamed ? SessionEnd::StoppedByPeer : SessionEnd::RefusedByPeer,
           QStringLiteral("the other side ended the session: %1").arg(reason));
}

void Session::advance(qint64 nowMs)
{
    m_nowMs = nowMs;
    expelIfBlocked();
    switch (m_phase) {
    case Phase::Finished: return;
    case Phase::Closing:
        if (nowMs >= m_deadlineMs)
            finish(m_closingEnd, m_closingReason);
        return;
    case Phase::Lingering:
        if (nowMs >= m_deadlineMs || m_times.silentMs(nowMs) >= m_settings.lingerSilenceMs)
            finish(SessionEnd::Agreed, QString());
        return;
    case Phase::Preparing: hashParts(); break;
    case Phase::Running:
        if (m_outgoing.isComparing()) {
            m_outgoing.compare();
            m_times.useful(nowMs);
            m_hasSaidAll = false;
        }
        break;
    case Phase::Opening:
    case Phase::ByeSent: break;
    }
    checkLimits();
}

void Session::checkLimits()
{
    if (m_keepAlive)
        m_times.useful(m_nowMs);
    const auto overdue = m_times.overdue(facts(), m_nowMs);
    if (!overdue)
        return;
    if (overdue->end == SessionEnd::Silence)
        finish(overdue->end, overdue->reason); // nobody is there to be told
    else
        close(overdue->end, overdue->reason);
}

SessionTimes::Facts Session::facts() const
{
    SessionTimes::Facts facts;
    facts.isOpening = m_phase == Phase::Opening;
    facts.isStranger = m_isPeerNamed && !m_peer.isProved;
    facts.awaitsAcknowledgement = m_outgoing.awaitsAcknowledgement();
    return facts;
}

qint64 Session::nextTurnMs() const
{
    const bool isHashing = m_phase == Phase::Preparing || (m_phase == Phase::Running && m_outgoing.isComparing());
    if (!m_hasSaidAll || isHashing || isFinished())
        return m_nowMs;
    if (m_phase == Phase::Closing)
        return m_deadlineMs;
    qint64 nextMs = m_times.nextHeartbeatMs(hasMuchToReceive(), m_nowMs);
    if (m_phase == Phase::Lingering)
        return std::min({nextMs, m_deadlineMs, m_times.heardMs() + m_settings.lingerSilenceMs});
    nextMs = std::min(nextMs, m_times.nextLimitMs(facts()));
    if (m_opening)
        nextMs = std::min(nextMs, m_opening->outputDueMs());
    if (isExpulsionAsked())
        nextMs = std::min(nextMs, m_askedMs + askEveryMs);
    return std::min(nextMs, m_outgoing.settledDueMs());
}

void Session::stop(const QString& reason, qint64 nowMs)
{
    m_nowMs = nowMs;
    if (m_phase == Phase::Lingering)
        finish(SessionEnd::Agreed, QString());
    else
        close(SessionEnd::Stopped, reason);
}

void Session::connectionLost()
{
    if (m_phase == Phase::Closing)
        finish(m_closingEnd, m_closingReason);
    else if (m_phase == Phase::Lingering || m_phase == Phase::ByeSent)
        finish(SessionEnd::Agreed, QString());
    else
        finish(SessionEnd::ConnectionLost, QStringLiteral("the connection was lost"));
}

void Session::close(SessionEnd end, const QString& reason)
{
    if (isFinished() || m_phase == Phase::Closing)
        return;
    if (m_writer.isUsable())
        put(FrameType::Stop, encodeReason(reason));
    beginClosing(end, reason, m_settings.closingMs);
}

void Session::beginClosing(SessionEnd end, const QString& reason, int closingMs)
{
    m_closingEnd = end;
    m_closingReason = reason;
    m_phase = Phase::Closing;
    m_deadlineMs = m_nowMs + closingMs;
}

void Session::finish(SessionEnd end, const QString& reason)
{
    if (isFinished())
        return;
    if (end == SessionEnd::Agreed)
        m_incoming.settleAll();
    if (m_opening)
        m_opening->abandon();
    m_phase = Phase::Finished;
    m_end = end;
    m_endReason = reason;
    m_opening.reset();
    m_writer = FrameWriter();
    m_reader = FrameReader();
    m_incoming.drop();
    m_outgoing.drop();
}

} // namespace host
