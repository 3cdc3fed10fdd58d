#include "host/session/session.h"

#include "host/session/bytecodec.h"

#include <algorithm>

namespace host {

namespace {

// What is lost with a Data frame that a cut leaves unfinished is at most a tenth of what the
// call has carried, and the frames' own bytes cost next to nothing of a file.
constexpr int carriedForDataByte = 10;
constexpr int minDataBytes = 1024;
constexpr int maxDataBytes = maxFramePayloadBytes;

// With its confirmation a filler takes 25 bytes of the line, and whoever takes a file in may
// have nothing else to say for long.
constexpr int heartbeatsWhileMuchComes = 5; // times as long between two
constexpr int heartbeatsAfterWords = 20; // as usual, or words would wait behind a gap for the next one
constexpr int heartbeatsBeforeSilence = 3; // but the other side must not take us for dead: its limit is as ours
constexpr qint64 muchBytes = 4096;

constexpr qint64 hashSliceBytes = 2 * 1024 * 1024; // hashed in one call of advance()
constexpr qint64 settledEveryMs = 5000;
constexpr int maxStoredInFrame = 1000;
constexpr int maxRetriesInSession = 1; // after a wrong hash
constexpr int maxOutputBytes = 1024 * 1024; // a peer that makes us answer and takes no answers
constexpr int maxToAcknowledge = 100000;
constexpr int maxToSettle = 1000000; // acknowledgements of one call
constexpr int mostRefusalsOfStrangers = 20; // each is a line in the journal

// What the peer is told: nothing of our disk, and a stranger nothing of our limits either.
QString toldReason(RefusalCode code, const QString& reason, bool isProved)
{
    if (!isProved)
        return QStringLiteral("it is not taken here");
    return code == RefusalCode::Failed ? QStringLiteral("it could not be stored there; that side's journal tells why")
                                       : reason;
}

} // namespace

Session::Session(const SessionSettings& settings, const SessionCall& call, PeerDirectory* directory,
                 SessionStore* store, EventSink sink, qint64 nowMs)
    : m_settings(settings), m_isCaller(call.isOutgoing), m_store(store), m_sink(std::move(sink)),
      m_opening(std::make_unique<Opening>(call, settings.identity, directory, settings.guard.get())),
      m_lastHeardMs(nowMs), m_lastSentMs(nowMs), m_lastSaidMs(nowMs), m_lastAliveMs(nowMs), m_beganMs(nowMs),
      m_lastUsefulMs(nowMs)
{
}

Session::~Session()
{
    m_sending.reset();
    m_store->releaseAll(this);
}

// ---- the stream ----

void Session::receive(const QByteArray& bytes, qint64 nowMs)
{
    if (bytes.isEmpty() || isFinished())
        return;
    if (m_phase == Phase::Closing)
        return;
    if (m_opening)
        receiveOpening(bytes, nowMs);
    else
        m_reader.append(bytes);
    // Fillers may come from anywhere, a modem that echoes ours included.
    if (m_opening || receiveFrames(nowMs) || m_reader.isInFrame())
        m_lastHeardMs = nowMs;
}

void Session::receiveOpening(const QByteArray& bytes, qint64 nowMs)
{
    m_opening->receive(bytes, nowMs);
    if (m_opening->hasFailed()) {
        m_output.append(m_opening->takeOutput(nowMs));
        close(m_opening->end(), m_opening->reason(), nowMs);
        return;
    }
    sayOpening(nowMs);
    if (!m_opening->isOver())
        return;
    m_reader = FrameReader(m_opening->takeReceiving());
    m_reader.append(m_opening->takeRest());
    m_opening.reset();
}

// What the handshake has to say, and as soon as it has said all, who we are.
void Session::sayOpening(qint64 nowMs)
{
    m_output.append(m_opening->takeOutput(nowMs));
    if (m_writer.isUsable() || !m_opening->maySend())
        return;
    m_writer = FrameWriter(m_opening->takeSending());
    m_peer = m_opening->peer();
    const PeerDirectory::Verdict& verdict = m_opening->verdict();
    if (verdict.kind == PeerDirectory::Verdict::Kind::Refused) {
        refusePeer(verdict, nowMs);
        return;
    }
    HelloFrame hello;
    if (m_peer.isProved)
        hello.abonentName = m_settings.abonentName;
    put(FrameType::Hello, hello.encode());
}

// The peer learns what its operator can do, and nothing of us.
void Session::refusePeer(const PeerDirectory::Verdict& verdict, qint64 nowMs)
{
    const bool isBlocked = verdict.cause == PeerDirectory::Verdict::Cause::BlockedKey;
    const bool isUnknown = verdict.cause == PeerDirectory::Verdict::Cause::UnknownKey;
    const QString told =
        isBlocked ? QStringLiteral("your key is blocked here")
        : isUnknown
            ? QStringLiteral(
                  "your key is not known here: give what \"transport-host key\" shows to the operator of this side")
            : QStringLiteral("your key cannot be looked up here just now: call again later");
    put(FrameType::Stop, encodeReason(told));
    beginClosing(refusalEnd(verdict.cause), verdict.reason, nowMs);
}

// Whether there was a frame.
bool Session::receiveFrames(qint64 nowMs)
{
    Frame frame;
    bool wasHeard = false;
    while (!isFinished() && m_phase != Phase::Closing) {
        switch (m_reader.next(&frame)) {
        case FrameReader::Result::None: return wasHeard;
        case FrameReader::Result::Damaged:
            close(SessionEnd::Damaged, QStringLiteral("the data arrives damaged"), nowMs);
            return true;
        case FrameReader::Result::Frame:
            dispatch(frame, nowMs);
            wasHeard = true;
            break;
        }
    }
    return wasHeard;
}

QByteArray Session::takeOutput(int maxBytes, qint64 nowMs)
{
    if (maxBytes <= 0 || isFinished())
        return QByteArray();
    while (m_output.size() - m_outputPosition < maxBytes && produce(nowMs)) {
    }
    const QByteArray piece = m_output.mid(m_outputPosition, maxBytes);
    m_outputPosition += piece.size();
    if (m_outputPosition == m_output.size()) {
        m_output.clear();
        m_outputPosition = 0;
    }
    if (!piece.isEmpty()) {
        m_lastSentMs = nowMs;
        if (!m_saysOnlyAlive)
            m_lastSaidMs = nowMs;
    }
    return piece;
}

void Session::put(FrameType type, const QByteArray& payload)
{
    if (m_outputPosition > 0) {
        m_output.remove(0, m_outputPosition);
        m_outputPosition = 0;
    }
    m_output.append(m_writer.write(type, payload));
    m_saysOnlyAlive = false;
}

void Session::dispatch(const Frame& frame, qint64 nowMs)
{
    const bool isOpening = m_phase == Phase::Opening;
    if (isOpening != (frame.type == FrameType::Hello) && frame.type != FrameType::Stop) {
        violation(QStringLiteral("the other side does not keep to the protocol (opening)"), nowMs);
        return;
    }
    QString reason;
    switch (frame.type) {
    case FrameType::Hello: onHello(frame, nowMs); return;
    case FrameType::State: onState(frame); break;
    case FrameType::Offer: onOffer(frame, nowMs); break;
    case FrameType::Data: onData(frame, nowMs); break;
    case FrameType::Abort: onAbort(frame); break;
    case FrameType::Stored: onStored(frame, nowMs); break;
    case FrameType::Refused: onRefused(frame); break;
    case FrameType::Settled: onSettled(frame); break;
    case FrameType::Alive: return;
    case FrameType::Finish: onFinish(); break;
    case FrameType::Continue: m_peerFinished = false; break;
    case FrameType::Bye: onBye(nowMs); break;
    case FrameType::ByeYes:
    case FrameType::ByeNo: onByeAnswer(frame.type == FrameType::ByeYes); break;
    case FrameType::Stop:
        if (!decodeReason(frame.payload, &reason))
            reason = QStringLiteral("no reason given");
        finish(m_isPeerNamed ? SessionEnd::StoppedByPeer : SessionEnd::RefusedByPeer,
               QStringLiteral("the other side ended the session: %1").arg(reason));
        return;
    }
    const bool piledUp = m_output.size() - m_outputPosition > maxOutputBytes ||
                         m_toAcknowledge.size() > maxToAcknowledge || m_toSettle.size() > maxToSettle;
    if (m_closingReason.isEmpty() && piledUp)
        m_closingReason = QStringLiteral("the other side takes no answers");
    if (!m_closingReason.isEmpty() && m_phase != Phase::Closing)
        close(SessionEnd::ProtocolError, m_closingReason, nowMs);
}

// ---- opening ----

void Session::onHello(const Frame& frame, qint64 nowMs)
{
    HelloFrame hello;
    if (!hello.decode(frame.payload)) {
        violation(QStringLiteral("the other side does not keep to the protocol (name)"), nowMs);
        return;
    }
    m_peer.claimedName = hello.abonentName;
    m_isPeerNamed = true;
    SessionEvent event;
    event.kind = SessionEvent::Kind::PeerNamed;
    event.text = m_peer.abonent;
    m_sink(event);
    for (auto& file : m_store->parts(m_peer)) {
        Part part;
        part.generation = file->generation();
        part.hash = std::make_unique<QCryptographicHash>(QCryptographicHash::Sha256);
        part.file = std::move(file);
        const quint64 id = part.file->messageId();
        m_parts[id] = std::move(part);
    }
    m_phase = Phase::Preparing;
    m_lastUsefulMs = nowMs;
    hashParts();
}

// What stands is hashed in slices, so that the line is served meanwhile.
void Session::hashParts()
{
    qint64 budget = hashSliceBytes;
    for (auto it = m_parts.begin(); it != m_parts.end();) {
        Part& part = it->second;
        QString error;
        while (!part.done && budget > 0) {
            const QByteArray bytes = part.file->readBack(budget, &error);
            part.hash->addData(bytes);
            part.hashedBytes += bytes.size();
            budget -= bytes.size();
            part.done = bytes.isEmpty();
        }
        if (!part.done)
            return;
        if (!error.isEmpty()) {
            note(error);
            it = m_parts.erase(it);
            continue;
        }
        ++it;
    }
    sendState();
}

void Session::sendState()
{
    QVector<quint64> stored = m_store->unsettled(m_peer);
    m_toSettle = stored;
    StateFrame state;
    for (const auto& [id, part] : m_parts) {
        if (part.hashedBytes > 0 && state.parts.size() < StateFrame::maxParts)
            state.parts.append(MessagePart{id, part.hashedBytes, part.hash->result()});
    }
    do {
        state.storedIds = stored.mid(0, StateFrame::maxStoredIds);
        stored = stored.mid(state.storedIds.size());
        state.isLast = stored.isEmpty();
        put(FrameType::State, state.encode());
        state.parts.clear();
    } while (!state.isLast);
    m_phase = Phase::Running;
}

void Session::onState(const Frame& frame)
{
    StateFrame state;
    if (m_peerStateKnown || !state.decode(frame.payload)) {
        m_closingReason = QStringLiteral("the other side does not keep to the protocol (state)");
        return;
    }
    if (!m_queuedIds)
        m_queuedIds = m_store->queuedIds(m_peer);
    for (const quint64 id : state.storedIds) {
        if (m_queuedIds->contains(id))
            m_peerStored.insert(id);
    }
    m_acknowledgementsSeen += static_cast<quint64>(state.storedIds.size());
    for (const MessagePart& part : state.parts) {
        if (m_queuedIds->contains(part.messageId))
            m_peerParts[part.messageId] = part;
    }
    m_peerStateKnown = state.isLast;
}

// ---- sending ----

bool Session::produce(qint64 nowMs)
{
    if (m_opening && m_phase != Phase::Closing) {
        const int before = m_output.size();
        sayOpening(nowMs);
        if (m_output.size() > before)
            return true;
    }
    if (m_phase == Phase::Running || m_phase == Phase::ByeSent) {
        if (produceAcknowledgements() || produceSettled(nowMs))
            return true;
    }
    if (m_phase == Phase::Running) {
        if (produceMessageData() || beginNextMessage()) {
            m_lastUsefulMs = nowMs;
            return true;
        }
        if (produceEnding())
            return true;
    }
    if (m_phase != Phase::Closing && nowMs - m_lastSentMs >= heartbeatMs(nowMs) &&
        m_output.size() == m_outputPosition) {
        sayAlive(nowMs);
        return true;
    }
    return false;
}

// A filler costs a slow line a third of what an Alive does, and proves nothing.
void Session::sayAlive(qint64 nowMs)
{
    const int aliveMs = qMin(m_settings.aliveMs, m_settings.silenceMs / heartbeatsBeforeSilence);
    if (!m_writer.isUsable()) {
        m_output.append(Opening::filler());
    } else if (nowMs - qMax(m_lastSaidMs, m_lastAliveMs) >= aliveMs) {
        put(FrameType::Alive);
        m_lastAliveMs = nowMs;
    } else {
        m_output.append(frameFiller());
    }
    m_saysOnlyAlive = true;
}

bool Session::produceAcknowledgements()
{
    if (m_toAcknowledge.isEmpty())
        return false;
    put(FrameType::Stored, encodeNumbers(m_toAcknowledge.mid(0, maxStoredInFrame)));
    m_toAcknowledge = m_toAcknowledge.mid(maxStoredInFrame);
    return true;
}

bool Session::produceSettled(qint64 nowMs)
{
    if (m_acknowledgementsSeen == m_settledTold || nowMs - m_settledToldMs < settledEveryMs || !m_peerStateKnown)
        return false;
    put(FrameType::Settled, encodeNumbers({m_acknowledgementsSeen}));
    m_settledTold = m_acknowledgementsSeen;
    m_settledToldMs = nowMs;
    return true;
}

bool Session::produceMessageData()
{
    if (!m_sending || !m_sending->offered)
        return false;
    const qint64 frameBytes = qBound<qint64>(minDataBytes, m_dataBytesSent / carriedForDataByte, maxDataBytes);
    const qint64 wanted = qMin(frameBytes, m_sending->message.size - m_sending->position);
    const QByteArray bytes = m_sending->device->read(wanted);
    if (bytes.size() != wanted) {
        const QString reason =
            QStringLiteral("the queued copy cannot be read to its end: %1").arg(m_sending->device->errorString());
        put(FrameType::Abort, encodeReason(reason));
        sendingFailed(reason, SessionStore::Fault::Local);
        return true;
    }
    put(FrameType::Data, bytes);
    m_dataBytesSent += bytes.size();
    m_sending->position += bytes.size();
    emitFileEvent(SessionEvent::Kind::FileProgress, m_sending->message, m_sending->position);
    if (m_sending->position == m_sending->message.size)
        sendingDone();
    return true;
}

// True when something was done, although it may not have put any frame.
bool Session::beginNextMessage()
{
    if (m_sending || !m_peerStateKnown)
        return false;
    Sending sending;
    if (!m_again.empty()) {
        sending.message = m_again.front();
        m_again.erase(m_again.begin());
    } else {
        const std::optional<OutgoingMessage> next = m_store->claimNext(m_peer, this);
        if (!next)
            return false;
        sending.message = *next;
    }
    if (m_peerStored.contains(sending.message.id)) {
        // Its acknowledgement was lost with an earlier connection.
        finishMessage(sending.message);
        return true;
    }
    QString error;
    sending.device = m_store->openOutgoing(sending.message, &error);
    const bool opened = sending.device != nullptr;
    m_sending = std::move(sending);
    if (!opened) {
        sendingFailed(error, SessionStore::Fault::Local);
        return true;
    }
    const auto part = m_peerParts.find(m_sending->message.id);
    if (part == m_peerParts.end() || part->second.length > m_sending->message.size) {
        sendOffer(0);
        return true;
    }
    m_sending->peerPart = part->second;
    m_sending->prefixHash = std::make_unique<QCryptographicHash>(QCryptographicHash::Sha256);
    m_peerParts.erase(part);
    hashSendingPrefix();
    return true;
}

// Compares what the peer has of the message with ours, in slices.
void Session::hashSendingPrefix()
{
    Sending& sending = *m_sending;
    const qint64 wanted = qMin(hashSliceBytes, sending.peerPart.length - sending.position);
    const QByteArray bytes = sending.device->read(wanted);
    sending.prefixHash->addData(bytes);
    sending.position += bytes.size();
    if (bytes.size() == wanted && sending.position < sending.peerPart.length)
        return;
    const bool isSame = bytes.size() == wanted && sending.prefixHash->result() == sending.peerPart.sha256;
    const qint64 offset = isSame ? sending.position : 0;
    if (!isSame)
        note(QStringLiteral("what '%1' has of '%2' differs: sending it from the beginning")
                 .arg(m_peer.abonent, sending.message.fileName));
    sending.prefixHash.reset();
    if (!sending.device->seek(offset)) {
        sendingFailed(QStringLiteral("the queued copy cannot be read: %1").arg(sending.device->errorString()),
                      SessionStore::Fault::Local);
        return;
    }
    sendOffer(offset);
}

void Session::sendOffer(qint64 offset)
{
    Sending& sending = *m_sending;
    OfferFrame offer;
    offer.messageId = sending.message.id;
    offer.size = sending.message.size;
    offer.offset = offset;
    offer.sha256 = sending.message.sha256;
    offer.modifiedSecs = sending.message.modifiedSecs;
    offer.fileName = sending.message.fileName;
    put(FrameType::Offer, offer.encode());
    m_finishSent = false; // an offer takes it back
    sending.offerIndex = m_nextOfferOut++;
    sending.position = offset;
    sending.offered = true;
    emitFileEvent(SessionEvent::Kind::FileBegun, sending.message, offset);
    if (offset == sending.message.size)
        sendingDone();
}

void Session::sendingDone()
{
    m_unacknowledged[m_sending->offerIndex] = m_sending->message;
    m_sending.reset();
}

// The claim stays with this session, so that it does not try again.
void Session::sendingFailed(const QString& reason, SessionStore::Fault fault)
{
    const OutgoingMessage message = m_sending->message;
    const qint64 position = m_sending->position;
    m_sending.reset();
    m_store->notDelivered(message, reason, fault);
    emitFileEvent(SessionEvent::Kind::FileFailed, message, position, reason);
}

void Session::finishMessage(const OutgoingMessage& message)
{
    const QString error = m_store->delivered(message);
    if (!error.isEmpty())
        note(error);
    m_wasUseful = true;
    emitFileEvent(SessionEvent::Kind::FileDelivered, message, message.size);
}

void Session::onStored(const Frame& frame, qint64 nowMs)
{
    QVector<quint64> offers;
    if (!decodeNumbers(frame.payload, &offers)) {
        m_closingReason = QStringLiteral("the other side does not keep to the protocol (acknowledgement)");
        return;
    }
    for (const quint64 offer : offers) {
        const auto found = m_unacknowledged.find(offer);
        if (found != m_unacknowledged.end()) {
            finishMessage(found->second);
            m_unacknowledged.erase(found);
        } else if (m_sending && m_sending->offered && m_sending->offerIndex == offer) {
            // The peer had it from an earlier session.
            put(FrameType::Abort, encodeReason(QStringLiteral("stored before")));
            finishMessage(m_sending->message);
            m_sending.reset();
        } else {
            m_closingReason = QStringLiteral("the other side acknowledged what was not sent");
            return;
        }
        ++m_acknowledgementsSeen;
        m_lastUsefulMs = nowMs;
    }
}

void Session::onRefused(const Frame& frame)
{
    RefusedFrame refused;
    if (!refused.decode(frame.payload)) {
        m_closingReason = QStringLiteral("the other side does not keep to the protocol (refusal)");
        return;
    }
    OutgoingMessage message;
    const auto found = m_unacknowledged.find(refused.offerIndex);
    if (found != m_unacknowledged.end()) {
        message = found->second;
        m_unacknowledged.erase(found);
    } else if (m_sending && m_sending->offered && m_sending->offerIndex == refused.offerIndex) {
        put(FrameType::Abort, encodeReason(QStringLiteral("refused")));
        message = m_sending->message;
        m_sending.reset();
    } else {
        m_closingReason = QStringLiteral("the other side refused what was not sent");
        return;
    }
    const bool wrongHash = refused.code == RefusalCode::WrongHash;
    const QString reason = QStringLiteral("'%1' refused it: %2").arg(m_peer.abonent, refused.reason);
    m_store->notDelivered(message, reason, wrongHash ? SessionStore::Fault::Recheck : SessionStore::Fault::Remote);
    emitFileEvent(SessionEvent::Kind::FileFailed, message, 0, reason);
    if (wrongHash && m_retries[message.id]++ < maxRetriesInSession)
        m_again.push_back(message);
}

// ---- receiving ----

void Session::onOffer(const Frame& frame, qint64 nowMs)
{
    OfferFrame offer;
    if (m_phase == Phase::Preparing || m_phase == Phase::Lingering || m_receiving || !offer.decode(frame.payload)) {
        violation(QStringLiteral("the other side does not keep to the protocol (offer)"), nowMs);
        return;
    }
    m_peerFinished = false;
    m_receiving = Receiving();
    Receiving& receiving = *m_receiving;
    receiving.offer = offer;
    receiving.offerIndex = m_nextOfferIn++;
    receiving.position = offer.offset;
    if (m_store->isStored(m_peer, offer.messageId, offer.sha256)) {
        m_parts.erase(offer.messageId);
        acknowledge(receiving.offerIndex, offer.messageId);
        emitFileEvent(SessionEvent::Kind::FileDuplicate, offer, offer.size);
        if (offer.offset == offer.size)
            m_receiving.reset();
        return;
    }
    const auto part = m_parts.find(offer.messageId);
    const qint64 stands = part == m_parts.end() ? 0 : part->second.hashedBytes;
    if (offer.offset != 0 && offer.offset != stands) {
        violation(QStringLiteral("the other side takes a message up where none stands"), nowMs);
        return;
    }
    RefusedFrame refused;
    if (offer.offset == 0) {
        m_parts.erase(offer.messageId);
        receiving.file = m_store->beginIncoming(m_peer, offer, &refused);
    } else {
        receiving.file = std::move(part->second.file);
        receiving.hash = std::move(part->second.hash);
        const quint64 generation = part->second.generation;
        m_parts.erase(part);
        if (!receiving.file->resume(offer, generation, &refused))
            receiving.file.reset();
    }
    if (!receiving.hash)
        receiving.hash = std::make_unique<QCryptographicHash>(QCryptographicHash::Sha256);
    if (!receiving.file) {
        refuse(refused.code, refused.reason);
    } else {
        m_lastUsefulMs = nowMs;
        emitFileEvent(SessionEvent::Kind::FileBegun, offer, offer.offset);
    }
    if (offer.offset == offer.size)
        receivedAll();
}

void Session::onData(const Frame& frame, qint64 nowMs)
{
    if (!m_receiving || frame.payload.isEmpty() ||
        frame.payload.size() > m_receiving->offer.size - m_receiving->position) {
        m_closingReason = QStringLiteral("the other side does not keep to the protocol (data)");
        return;
    }
    Receiving& receiving = *m_receiving;
    receiving.position += frame.payload.size();
    if (receiving.file) {
        const QString error = receiving.file->append(frame.payload);
        if (!error.isEmpty()) {
            receiving.file.reset();
            refuse(RefusalCode::Failed, error);
        } else {
            m_lastUsefulMs = nowMs;
            receiving.hash->addData(frame.payload);
            emitFileEvent(SessionEvent::Kind::FileProgress, receiving.offer, receiving.position);
        }
    }
    if (receiving.position == receiving.offer.size)
        receivedAll();
}

void Session::receivedAll()
{
    Receiving receiving = std::move(*m_receiving);
    if (receiving.file) {
        QString place;
        if (receiving.hash->result() != receiving.offer.sha256) {
            receiving.file->discard();
            refuse(RefusalCode::WrongHash, QStringLiteral("what arrived does not have the hash that was announced"));
        } else if (const QString error = receiving.file->store(receiving.offer, &place); !error.isEmpty()) {
            refuse(RefusalCode::Failed, error);
        } else {
            m_wasUseful = true;
            acknowledge(receiving.offerIndex, receiving.offer.messageId);
            emitFileEvent(SessionEvent::Kind::FileStored, receiving.offer, receiving.offer.size, place);
        }
    }
    m_receiving.reset();
}

// An error of this machine names places on its disk: for its own user only.
void Session::refuse(RefusalCode code, const QString& reason)
{
    RefusedFrame refused;
    refused.offerIndex = m_receiving->offerIndex;
    refused.code = code;
    refused.reason = toldReason(code, reason, m_peer.isProved);
    put(FrameType::Refused, refused.encode());
    emitFileEvent(SessionEvent::Kind::FileFailed, m_receiving->offer, m_receiving->position, reason);
    if (!m_peer.isProved && ++m_refusals >= mostRefusalsOfStrangers)
        m_closingReason = QStringLiteral("too much of what it offered was refused");
}

void Session::onAbort(const Frame& frame)
{
    QString reason;
    if (!decodeReason(frame.payload, &reason)) {
        m_closingReason = QStringLiteral("the other side does not keep to the protocol (abort)");
        return;
    }
    // The data may have been complete when the abort was on its way.
    if (!m_receiving)
        return;
    if (m_receiving->file) {
        emitFileEvent(SessionEvent::Kind::FileFailed, m_receiving->offer, m_receiving->position,
                      QStringLiteral("'%1' broke it off: %2").arg(m_peer.abonent, reason));
    }
    m_receiving.reset();
}

void Session::acknowledge(quint64 offerIndex, quint64 messageId)
{
    m_toAcknowledge.append(offerIndex);
    m_toSettle.append(messageId);
}

void Session::onSettled(const Frame& frame)
{
    QVector<quint64> numbers;
    if (!decodeNumbers(frame.payload, &numbers) || numbers.size() != 1)
        m_closingReason = QStringLiteral("the other side does not keep to the protocol (settled)");
    else
        settleFirst(static_cast<int>(qMin<quint64>(numbers.first(), static_cast<quint64>(m_toSettle.size()))));
}

// The list is kept whole: the peer counts from its beginning.
void Session::settleFirst(int count)
{
    if (count <= m_settledCount)
        return;
    m_store->settle(m_peer, m_toSettle.mid(m_settledCount, count - m_settledCount));
    m_settledCount = count;
}

// ---- ending ----

int Session::heartbeatMs(qint64 nowMs) const
{
    // For a while after it has said more, since of that something may stand behind a gap.
    if (!isMuchComing() || nowMs - m_lastSaidMs < m_settings.heartbeatMs * heartbeatsAfterWords)
        return m_settings.heartbeatMs;
    return qMin(m_settings.heartbeatMs * heartbeatsWhileMuchComes, m_settings.silenceMs / heartbeatsBeforeSilence);
}

bool Session::isMuchComing() const
{
    return m_receiving && m_receiving->offer.size - m_receiving->position > muchBytes;
}

bool Session::nothingLeft()
{
    return m_peerStateKnown && !m_sending && m_again.empty() && m_unacknowledged.empty() && m_toAcknowledge.isEmpty() &&
           !m_receiving && !m_keepAlive && !m_store->hasUnclaimed(m_peer);
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
    // Of two sides that have finished, the caller asks.
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
    m_keepAlive = keepAlive;
}

void Session::onFinish()
{
    m_peerFinished = true;
    // Whoever has nothing left has heard of everything we stored.
    settleFirst(m_toSettle.size());
}

void Session::onBye(qint64 nowMs)
{
    if (m_phase != Phase::Running) {
        violation(QStringLiteral("the other side does not keep to the protocol (end)"), nowMs);
        return;
    }
    if (!m_finishSent || !nothingLeft()) {
        put(FrameType::ByeNo);
        return;
    }
    put(FrameType::ByeYes);
    m_phase = Phase::Lingering;
    m_deadlineMs = nowMs + m_settings.lingerMs;
}

void Session::onByeAnswer(bool yes)
{
    if (m_phase != Phase::ByeSent) {
        m_closingReason = QStringLiteral("the other side does not keep to the protocol (end)");
        return;
    }
    if (yes) {
        finish(SessionEnd::Agreed, QString());
        return;
    }
    m_peerFinished = false;
    m_phase = Phase::Running;
}

void Session::advance(qint64 nowMs)
{
    switch (m_phase) {
    case Phase::Finished: return;
    case Phase::Closing:
        if (nowMs >= m_deadlineMs)
            finish(m_closingEnd, m_closingReason);
        return;
    case Phase::Lingering:
        if (nowMs >= m_deadlineMs || nowMs - m_lastHeardMs >= m_settings.lingerSilenceMs)
            finish(SessionEnd::Agreed, QString());
        return;
    case Phase::Preparing:
        hashParts();
        m_lastUsefulMs = nowMs;
        break;
    case Phase::Running:
        if (m_sending && m_sending->prefixHash) {
            hashSendingPrefix();
            m_lastUsefulMs = nowMs;
        }
        break;
    case Phase::Opening:
    case Phase::ByeSent: break;
    }
    checkLimits(nowMs);
}

void Session::checkLimits(qint64 nowMs)
{
    const auto seconds = [](int ms) { return QString::number(ms / 1000.0); };
    if (m_keepAlive)
        m_lastUsefulMs = nowMs;
    if (m_isPeerNamed && !m_peer.isProved && nowMs - m_beganMs >= m_settings.strangerMs) {
        close(SessionEnd::TimeUsedUp,
              QStringLiteral("a peer that is not known here may stay for %1 s").arg(seconds(m_settings.strangerMs)),
              nowMs);
    } else if (nowMs - m_lastHeardMs >= m_settings.silenceMs) {
        finish(SessionEnd::Silence,
               QStringLiteral("nothing was heard from the other side for %1 s").arg(seconds(m_settings.silenceMs)));
    } else if (m_phase == Phase::Opening && nowMs - m_beganMs >= m_settings.openingMs) {
        close(SessionEnd::OpeningTimedOut,
              QStringLiteral("the other side did not say who it is within %1 s").arg(seconds(m_settings.openingMs)),
              nowMs);
    } else if (!m_unacknowledged.empty()) {
        if (nowMs - m_lastUsefulMs >= m_settings.stallMs)
            close(SessionEnd::Stalled, QStringLiteral("the other side acknowledges nothing"), nowMs);
    } else if (nowMs - m_lastUsefulMs >= m_settings.uselessMs) {
        close(SessionEnd::Useless,
              QStringLiteral("nothing of use came from the other side for %1 s").arg(seconds(m_settings.uselessMs)),
              nowMs);
    }
}

void Session::stop(const QString& reason, qint64 nowMs)
{
    if (m_phase == Phase::Lingering)
        finish(SessionEnd::Agreed, QString());
    else
        close(SessionEnd::Stopped, reason, nowMs);
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

void Session::violation(const QString& what, qint64 nowMs)
{
    close(SessionEnd::ProtocolError, what, nowMs);
}

void Session::close(SessionEnd end, const QString& reason, qint64 nowMs)
{
    if (isFinished() || m_phase == Phase::Closing)
        return;
    if (m_writer.isUsable())
        put(FrameType::Stop, encodeReason(reason));
    beginClosing(end, reason, nowMs);
}

void Session::beginClosing(SessionEnd end, const QString& reason, qint64 nowMs)
{
    m_closingEnd = end;
    m_closingReason = reason;
    m_phase = Phase::Closing;
    m_deadlineMs = nowMs + m_settings.closingMs;
}

void Session::finish(SessionEnd end, const QString& reason)
{
    if (isFinished())
        return;
    if (end == SessionEnd::Agreed)
        settleFirst(m_toSettle.size());
    if (m_opening)
        m_opening->abandon();
    m_phase = Phase::Finished;
    m_end = end;
    m_endReason = reason;
    m_opening.reset();
    m_writer = FrameWriter();
    m_reader = FrameReader();
    m_sending.reset();
    m_receiving.reset();
    m_parts.clear();
    m_store->releaseAll(this);
}

// ---- events ----

void Session::emitFileEvent(SessionEvent::Kind kind, const OutgoingMessage& message, qint64 done, const QString& text)
{
    SessionEvent event;
    event.kind = kind;
    event.outgoing = true;
    event.messageId = message.id;
    event.fileName = message.fileName;
    event.sha256 = message.sha256;
    event.size = message.size;
    event.done = done;
    event.text = text;
    m_sink(event);
}

void Session::emitFileEvent(SessionEvent::Kind kind, const OfferFrame& offer, qint64 done, const QString& text)
{
    SessionEvent event;
    event.kind = kind;
    event.messageId = offer.messageId;
    event.fileName = offer.fileName;
    event.sha256 = offer.sha256;
    event.size = offer.size;
    event.done = done;
    event.text = text;
    m_sink(event);
}

void Session::note(const QString& text)
{
    SessionEvent event;
    event.kind = SessionEvent::Kind::Note;
    event.text = text;
    m_sink(event);
}

} // namespace host
