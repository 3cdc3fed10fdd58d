#include "host/session/incomingmessages.h"

#include "host/session/hashslice.h"

namespace host {

namespace {

constexpr qint64 muchBytes = 4096;
constexpr int maxStoredInFrame = 1000;
constexpr int maxToAcknowledge = 100000;
constexpr int maxToSettle = 1000000; // acknowledgements of one call
constexpr int mostRefusalsOfStrangers = 20; // each is a line in the journal

// What the peer is told: never anything about our disk. A peer that is not proved does not learn our
// limits either.
QString toldReason(RefusalCode code, const QString& reason, bool isProved)
{
    if (!isProved)
        return QStringLiteral("it is not taken here");
    return code == RefusalCode::Failed ? QStringLiteral("it could not be stored there; that side's journal tells why")
                                       : reason;
}

std::unique_ptr<QCryptographicHash> newHash()
{
    return std::make_unique<QCryptographicHash>(QCryptographicHash::Sha256);
}

} // namespace

IncomingMessages::IncomingMessages(const Peer& peer, IncomingStore* store, SessionControl* session)
    : m_peer(peer), m_store(store), m_session(session)
{
}

void IncomingMessages::lookForParts()
{
    for (auto& file : m_store->parts(m_peer)) {
        Part part;
        part.hash = newHash();
        part.file = std::move(file);
        const quint64 id = part.file->messageId();
        m_parts[id] = std::move(part);
    }
}

bool IncomingMessages::hashParts()
{
    qint64 budget = hashSliceBytes;
    for (auto it = m_parts.begin(); it != m_parts.end();) {
        QString error;
        if (!hashSlice(&it->second, &budget, &error))
            return false;
        if (error.isEmpty()) {
            ++it;
            continue;
        }
        m_session->tell(textEvent(SessionEvent::Kind::Note, error));
        it = m_parts.erase(it);
    }
    sayState();
    return true;
}

// True when the whole part is hashed, or when it cannot be read.
bool IncomingMessages::hashSlice(Part* part, qint64* budget, QString* error)
{
    while (!part->done && *budget > 0) {
        const QByteArray bytes = part->file->readBack(*budget, error);
        part->hash->addData(bytes);
        part->hashedBytes += bytes.size();
        *budget -= bytes.size();
        part->done = bytes.isEmpty();
    }
    return part->done;
}

void IncomingMessages::sayState()
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
        m_session->put(FrameType::State, state.encode());
        state.parts.clear();
    } while (!state.isLast);
}

void IncomingMessages::onOffer(const Frame& frame)
{
    OfferFrame offer;
    if (m_receiving || !offer.decode(frame.payload)) {
        m_session->giveUp(brokenProtocol(QStringLiteral("offer")));
        return;
    }
    m_receiving = Receiving{};
    m_receiving->offer = offer;
    m_receiving->offerIndex = m_nextOffer++;
    m_receiving->position = offer.offset;
    if (m_store->isStored(m_peer, offer.messageId, offer.sha256)) {
        duplicate();
        return;
    }
    const auto part = m_parts.find(offer.messageId);
    const qint64 stands = part == m_parts.end() ? 0 : part->second.hashedBytes;
    if (offer.offset != 0 && offer.offset != stands) {
        m_session->giveUp(QStringLiteral("the other side takes a message up where none stands"));
        return;
    }
    RefusedFrame refused;
    if (beginOrResume(&refused))
        m_session->tell(fileEvent(SessionEvent::Kind::FileBegun, offer, offer.offset));
    else
        refuse(refused.code, refused.reason);
    if (offer.offset == offer.size)
        receivedAll();
}

// The message was stored before. Its data is skipped until the peer has heard that.
void IncomingMessages::duplicate()
{
    const OfferFrame offer = m_receiving->offer;
    m_parts.erase(offer.messageId);
    toAcknowledge();
    m_session->tell(fileEvent(SessionEvent::Kind::FileDuplicate, offer, offer.size));
    if (offer.offset == offer.size)
        m_receiving.reset();
}

bool IncomingMessages::beginOrResume(RefusedFrame* refused)
{
    Receiving& receiving = *m_receiving;
    const OfferFrame& offer = receiving.offer;
    if (offer.offset == 0) {
        m_parts.erase(offer.messageId);
        receiving.hash = newHash();
        receiving.file = m_store->begin(m_peer, offer, refused);
        return receiving.file != nullptr;
    }
    const auto found = m_parts.find(offer.messageId);
    Part part = std::move(found->second);
    m_parts.erase(found);
    receiving.hash = std::move(part.hash);
    if (!part.file->resume(offer, refused))
        return false;
    receiving.file = std::move(part.file);
    return true;
}

void IncomingMessages::onData(const Frame& frame)
{
    if (!m_receiving || frame.payload.isEmpty() ||
        frame.payload.size() > m_receiving->offer.size - m_receiving->position) {
        m_session->giveUp(brokenProtocol(QStringLiteral("data")));
        return;
    }
    Receiving& receiving = *m_receiving;
    receiving.position += frame.payload.size();
    if (receiving.file) {
        const QString error = receiving.file->append(frame.payload);
        if (error.isEmpty()) {
            receiving.hash->addData(frame.payload);
            m_session->tell(fileEvent(SessionEvent::Kind::FileProgress, receiving.offer, receiving.position));
        } else {
            receiving.file.reset();
            refuse(RefusalCode::Failed, error);
        }
    }
    if (receiving.position == receiving.offer.size)
        receivedAll();
}

void IncomingMessages::receivedAll()
{
    Receiving& receiving = *m_receiving;
    if (receiving.file) {
        QString place;
        if (receiving.hash->result() != receiving.offer.sha256) {
            receiving.file->discard();
            refuse(RefusalCode::WrongHash, QStringLiteral("what arrived does not have the hash that was announced"));
        } else if (const QString error = receiving.file->store(receiving.offer, &place); !error.isEmpty()) {
            refuse(RefusalCode::Failed, error);
        } else {
            toAcknowledge();
            m_session->tell(fileEvent(SessionEvent::Kind::FileStored, receiving.offer, receiving.offer.size, place));
        }
    }
    m_receiving.reset();
}

// An error of this machine names paths on its disk. Only its own user may see them.
void IncomingMessages::refuse(RefusalCode code, const QString& reason)
{
    RefusedFrame refused;
    refused.offerIndex = m_receiving->offerIndex;
    refused.code = code;
    refused.reason = toldReason(code, reason, m_peer.isProved);
    m_session->put(FrameType::Refused, refused.encode());
    m_session->tell(fileEvent(SessionEvent::Kind::FileFailed, m_receiving->offer, m_receiving->position, reason));
    if (!m_peer.isProved && ++m_refusals >= mostRefusalsOfStrangers)
        m_session->giveUp(QStringLiteral("too much of what it offered was refused"));
}

void IncomingMessages::onAbort(const Frame& frame)
{
    QString reason;
    if (!decodeReason(frame.payload, &reason)) {
        m_session->giveUp(brokenProtocol(QStringLiteral("abort")));
        return;
    }
    // All data may have arrived while the abort was on its way.
    if (!m_receiving)
        return;
    if (m_receiving->file) {
        m_session->tell(fileEvent(SessionEvent::Kind::FileFailed, m_receiving->offer, m_receiving->position,
                                  QStringLiteral("'%1' broke it off: %2").arg(m_peer.abonent, reason)));
    }
    m_receiving.reset();
}

void IncomingMessages::toAcknowledge()
{
    m_toAcknowledge.append(m_receiving->offerIndex);
    m_toSettle.append(m_receiving->offer.messageId);
}

bool IncomingMessages::acknowledge()
{
    if (m_toAcknowledge.isEmpty())
        return false;
    m_session->put(FrameType::Stored, encodeNumbers(m_toAcknowledge.mid(0, maxStoredInFrame)));
    m_toAcknowledge = m_toAcknowledge.mid(maxStoredInFrame);
    return true;
}

void IncomingMessages::onSettled(const Frame& frame)
{
    QVector<quint64> numbers;
    if (!decodeNumbers(frame.payload, &numbers) || numbers.size() != 1)
        m_session->giveUp(brokenProtocol(QStringLiteral("settled")));
    else
        settleFirst(static_cast<int>(qMin<quint64>(numbers.first(), static_cast<quint64>(m_toSettle.size()))));
}

// The list keeps its settled entries, because the peer counts from its beginning.
void IncomingMessages::settleFirst(int count)
{
    if (count <= m_settledCount)
        return;
    m_store->settle(m_peer, m_toSettle.mid(m_settledCount, count - m_settledCount));
    m_settledCount = count;
}

bool IncomingMessages::hasMuchToReceive() const
{
    return m_receiving && m_receiving->offer.size - m_receiving->position > muchBytes;
}

bool IncomingMessages::hasPiledUp() const
{
    return m_toAcknowledge.size() > maxToAcknowledge || m_toSettle.size() > maxToSettle;
}

void IncomingMessages::drop()
{
    m_receiving.reset();
    m_parts.clear();
}

} // namespace host
