#include "host/session/outgoingmessages.h"

#include "host/session/hashslice.h"
#include "host/session/steadytime.h"

namespace host {

namespace {

// A Data frame that is cut off is lost. Its size is at most a tenth of what the call has carried, so
// that little is lost, and yet the frames' own bytes are a tiny share of a file.
constexpr int carriedForDataByte = 10;
constexpr int minDataBytes = 1024;
constexpr int maxDataBytes = maxFramePayloadBytes;

constexpr qint64 settledEveryMs = 5000;
constexpr int maxRetriesInSession = 1; // after a wrong hash

} // namespace

OutgoingMessages::OutgoingMessages(const Peer& peer, OutgoingStore* store, SessionControl* session)
    : m_peer(peer), m_store(store), m_session(session)
{
}

void OutgoingMessages::onState(const Frame& frame)
{
    StateFrame state;
    if (m_peerStateKnown || !state.decode(frame.payload)) {
        m_session->giveUp(brokenProtocol(QStringLiteral("state")));
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

qint64 OutgoingMessages::settledDueMs() const
{
    const bool isDue = m_acknowledgementsSeen != m_settledTold && m_peerStateKnown;
    return isDue ? m_settledToldMs + settledEveryMs : never;
}

bool OutgoingMessages::tellSettled(qint64 nowMs)
{
    if (nowMs < settledDueMs())
        return false;
    m_session->put(FrameType::Settled, encodeNumbers({m_acknowledgementsSeen}));
    m_settledTold = m_acknowledgementsSeen;
    m_settledToldMs = nowMs;
    return true;
}

bool OutgoingMessages::sendNext()
{
    if (m_sending)
        return m_sending->offered && sendData();
    return m_peerStateKnown && begin();
}

bool OutgoingMessages::sendData()
{
    const qint64 frameBytes = qBound<qint64>(minDataBytes, m_dataBytesSent / carriedForDataByte, maxDataBytes);
    const qint64 wanted = qMin(frameBytes, m_sending->message.size - m_sending->position);
    const QByteArray bytes = m_sending->device->read(wanted);
    if (bytes.size() != wanted) {
        const QString reason =
            QStringLiteral("the queued copy cannot be read to its end: %1").arg(m_sending->device->errorString());
        m_session->put(FrameType::Abort, encodeReason(reason));
        failed(reason);
        return true;
    }
    m_session->put(FrameType::Data, bytes);
    m_dataBytesSent += bytes.size();
    m_sending->position += bytes.size();
    m_session->tell(fileEvent(SessionEvent::Kind::FileProgress, m_sending->message, m_sending->position));
    if (m_sending->position == m_sending->message.size)
        sentAll();
    return true;
}

std::optional<OutgoingMessage> OutgoingMessages::takeNext()
{
    if (m_again.empty())
        return m_store->claimNext(m_peer, m_session);
    OutgoingMessage message = m_again.front();
    m_again.erase(m_again.begin());
    return message;
}

bool OutgoingMessages::begin()
{
    std::optional<OutgoingMessage> next = takeNext();
    if (!next)
        return false;
    if (m_peerStored.contains(next->id)) {
        // Its acknowledgement was lost with an earlier connection.
        delivered(*next);
        return true;
    }
    QString error;
    m_sending = Sending{};
    m_sending->message = std::move(*next);
    m_sending->device = m_store->open(m_sending->message, &error);
    if (!m_sending->device) {
        failed(error);
        return true;
    }
    const auto part = m_peerParts.find(m_sending->message.id);
    if (part == m_peerParts.end() || part->second.length > m_sending->message.size) {
        offer(0);
        return true;
    }
    m_sending->peerPart = part->second;
    m_sending->prefixHash = std::make_unique<QCryptographicHash>(QCryptographicHash::Sha256);
    m_peerParts.erase(part);
    compare();
    return true;
}

void OutgoingMessages::compare()
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
    if (!isSame) {
        const QString text = QStringLiteral("what '%1' has of '%2' differs: sending it from the beginning");
        m_session->tell(textEvent(SessionEvent::Kind::Note, text.arg(m_peer.abonent, sending.message.fileName)));
    }
    sending.prefixHash.reset();
    if (sending.device->seek(offset))
        offer(offset);
    else
        failed(QStringLiteral("the queued copy cannot be read: %1").arg(sending.device->errorString()));
}

void OutgoingMessages::offer(qint64 offset)
{
    Sending& sending = *m_sending;
    OfferFrame frame;
    frame.messageId = sending.message.id;
    frame.size = sending.message.size;
    frame.offset = offset;
    frame.sha256 = sending.message.sha256;
    frame.modifiedSecs = sending.message.modifiedSecs;
    frame.fileName = sending.message.fileName;
    m_session->put(FrameType::Offer, frame.encode());
    sending.offerIndex = m_nextOffer++;
    sending.position = offset;
    sending.offered = true;
    m_session->tell(fileEvent(SessionEvent::Kind::FileBegun, sending.message, offset));
    if (offset == sending.message.size)
        sentAll();
}

void OutgoingMessages::sentAll()
{
    m_unacknowledged[m_sending->offerIndex] = m_sending->message;
    m_sending.reset();
}

// Our own copy cannot be read. The session keeps its claim, so that nobody tries again during it.
void OutgoingMessages::failed(const QString& reason)
{
    const OutgoingMessage message = m_sending->message;
    const qint64 position = m_sending->position;
    m_sending.reset();
    m_store->notDelivered(message, reason, OutgoingStore::Fault::Local);
    m_session->tell(fileEvent(SessionEvent::Kind::FileFailed, message, position, reason));
}

void OutgoingMessages::delivered(const OutgoingMessage& message)
{
    const QString error = m_store->remove(message);
    if (!error.isEmpty())
        m_session->tell(textEvent(SessionEvent::Kind::Note, error));
    m_session->tell(fileEvent(SessionEvent::Kind::FileDelivered, message, message.size));
}

// The message of an offer that the peer has answered. If it is still being sent, that is aborted.
std::optional<OutgoingMessage> OutgoingMessages::takeOffered(quint64 offerIndex, const QString& abortReason)
{
    std::optional<OutgoingMessage> message;
    const auto found = m_unacknowledged.find(offerIndex);
    if (found != m_unacknowledged.end()) {
        message = found->second;
        m_unacknowledged.erase(found);
    } else if (m_sending && m_sending->offered && m_sending->offerIndex == offerIndex) {
        m_session->put(FrameType::Abort, encodeReason(abortReason));
        message = m_sending->message;
        m_sending.reset();
    }
    return message;
}

void OutgoingMessages::onStored(const Frame& frame)
{
    QVector<quint64> offers;
    if (!decodeNumbers(frame.payload, &offers)) {
        m_session->giveUp(brokenProtocol(QStringLiteral("acknowledgement")));
        return;
    }
    for (const quint64 offerIndex : offers) {
        // It may not be sent completely yet: the peer had it from an earlier session.
        const std::optional<OutgoingMessage> message = takeOffered(offerIndex, QStringLiteral("stored before"));
        if (!message) {
            m_session->giveUp(QStringLiteral("the other side acknowledged what was not sent"));
            return;
        }
        delivered(*message);
        ++m_acknowledgementsSeen;
    }
}

void OutgoingMessages::onRefused(const Frame& frame)
{
    RefusedFrame refused;
    if (!refused.decode(frame.payload)) {
        m_session->giveUp(brokenProtocol(QStringLiteral("refusal")));
        return;
    }
    const std::optional<OutgoingMessage> message = takeOffered(refused.offerIndex, QStringLiteral("refused"));
    if (!message) {
        m_session->giveUp(QStringLiteral("the other side refused what was not sent"));
        return;
    }
    const bool wrongHash = refused.code == RefusalCode::WrongHash;
    const QString reason = QStringLiteral("'%1' refused it: %2").arg(m_peer.abonent, refused.reason);
    m_store->notDelivered(*message, reason, wrongHash ? OutgoingStore::Fault::Recheck : OutgoingStore::Fault::Remote);
    m_session->tell(fileEvent(SessionEvent::Kind::FileFailed, *message, 0, reason));
    if (wrongHash && m_retries[message->id]++ < maxRetriesInSession)
        m_again.push_back(*message);
}

bool OutgoingMessages::nothingLeft() const
{
    return m_peerStateKnown && !m_sending && m_again.empty() && m_unacknowledged.empty() &&
           !m_store->hasUnclaimed(m_peer);
}

void OutgoingMessages::drop()
{
    m_sending.reset();
    m_store->releaseAll(m_session);
}

} // namespace host
