#include "tests/soak/hubhostile.h"

#include "rig/time/fibers.h"

#include <QCryptographicHash>

#include <algorithm>

namespace soak {

using namespace rig;

namespace {

using namespace host;

constexpr int stubBytes = 10;
constexpr std::int64_t dropNs = 20 * nsPerS;
constexpr std::int64_t patientNs = 2 * nsPerS; // between two looks of one that waits
constexpr double longestS = 1500;
// Fillers of a minute, the handshake's answer, one Stop.
constexpr qint64 mostBytesToNobody = 600;

} // namespace

void HubHostile::call()
{
    const Manner manner = m_rng->chance(0.07)
                              ? Manner::Trickle
                              : static_cast<Manner>(m_rng->below(static_cast<std::uint64_t>(Manner::Count)));
    begin(manner);
    if (manner >= Manner::HandshakeAgain)
        open();
    m_changesBits = manner == Manner::ChangedBits;
    const bool isPatient = manner == Manner::Silence || manner == Manner::OnlyAlive || manner == Manner::Trickle;
    const std::int64_t until =
        nowNs() + static_cast<std::int64_t>(isPatient ? longestS : m_rng->logBetween(1, longestS)) * nsPerS;
    while (!isLost() && nowNs() < until) {
        const int heard = m_heard.size();
        hear();
        if (manner == Manner::Echo)
            write(m_heard.mid(heard));
        else
            misbehave(manner);
        Fibers::sleepFor(isPatient ? patientNs : turnNs);
    }
    hear();
    endOfCall();
    m_line->hangUp(1, 0);
}

void HubHostile::begin(Manner manner)
{
    if (manner == Manner::ReplayOfOthers)
        m_earlier = m_tapped->from(static_cast<int>(m_rng->below(2))).tapped();
    else
        m_earlier = manner == Manner::ReplayOfOwn || manner == Manner::HandshakeAgain ? m_said : m_heard;
    beginCall();
    m_framesHeard = 0;
    m_nextDropNs = 0;
}

void HubHostile::open()
{
    if (!shakeHands(rig::testKey(100 + static_cast<int>(m_rng->below(3)))))
        return;
    HelloFrame hello;
    hello.abonentName = QStringLiteral("Mallory");
    say(FrameType::Hello, hello.encode());
    if (m_rng->chance(0.9))
        say(FrameType::State, fewIds(true));
}

// ---- what the other side says ----

// What a side may say to a stranger, and what of it tells nothing of others.
void HubHostile::onFrame(const Frame& frame)
{
    ++m_framesHeard;
    const std::string type = std::to_string(static_cast<int>(frame.type));
    if (!m_isLetIn) {
        if (frame.type != FrameType::Stop || m_framesHeard > 1)
            m_checks->violation("says more than no to a stranger that is refused: frame of type " + type);
        return;
    }
    QString text;
    RefusedFrame refused;
    HelloFrame hello;
    StateFrame state;
    switch (frame.type) {
    case FrameType::Hello:
        if (!hello.decode(frame.payload) || !hello.abonentName.isEmpty())
            m_checks->violation("tells a stranger its name");
        break;
    case FrameType::State:
        if (state.decode(frame.payload))
            checkIds(state);
        break;
    case FrameType::Offer:
    case FrameType::Data: m_checks->violation("hands out messages to a stranger: frame of type " + type); break;
    case FrameType::Refused:
        if (!refused.decode(frame.payload) || refused.reason.contains(QLatin1Char('/')))
            m_checks->violation("tells a stranger where it keeps things: " + refused.reason.toStdString());
        break;
    case FrameType::Stop:
    case FrameType::Abort:
        if (!decodeReason(frame.payload, &text) || text.contains(QLatin1Char('/')))
            m_checks->violation("tells a stranger where it keeps things: " + text.toStdString());
        break;
    default: break;
    }
}

// Of other people's messages a stranger is told nothing.
void HubHostile::checkIds(const StateFrame& state)
{
    QVector<quint64> ids = state.storedIds;
    for (const MessagePart& part : state.parts)
        ids.append(part.messageId);
    const std::set<quint64>& own = m_ledger->strangersIds();
    if (std::any_of(ids.begin(), ids.end(), [&own](quint64 id) { return own.count(id) == 0; }))
        m_checks->violation("tells a stranger of messages that are not its own");
}

void HubHostile::endOfCall()
{
    const bool isProvedKey = m_writer.isUsable();
    if (m_bytesHeard > mostBytesToNobody && !(isProvedKey && m_isLetIn))
        m_checks->violation("says much to a stranger that is not let in: " + std::to_string(m_bytesHeard) + " bytes");
}

// ---- what it says ----

void HubHostile::misbehave(Manner manner)
{
    switch (manner) {
    case Manner::Garbage: write(random(static_cast<int>(m_rng->below(300)))); break;
    case Manner::Replay:
    case Manner::ReplayOfOthers:
    case Manner::ReplayOfOwn:
    case Manner::HandshakeAgain:
        write(m_earlier.left(500));
        m_earlier.remove(0, 500);
        break;
    case Manner::HalfAHandshake:
        if (!m_opening && m_rng->chance(0.5))
            halfAHandshake();
        break;
    case Manner::ChangedBits:
    case Manner::OnlyAlive: say(FrameType::Alive); break;
    case Manner::EndlessState: say(FrameType::State, fewIds(false)); break;
    case Manner::EndlessStubs:
        offerAs(anyId(), random(3), m_rng->between(3, 100000), 0);
        say(FrameType::Abort, encodeReason(QStringLiteral("no")));
        break;
    case Manner::GrowingStub:
        if (m_stub.isEmpty()) {
            m_stubId = m_rng->next() | 1;
            m_stub = random(stubBytes);
            offerAs(m_stubId, m_stub.left(stubBytes / 2), stubBytes, 0);
        } else {
            const QByteArray whole = m_stub.left(stubBytes / 2) + random(static_cast<int>(m_rng->between(100, 40000)));
            offerAs(m_stubId, whole, whole.size(), stubBytes / 2);
            m_stub.clear();
        }
        break;
    case Manner::AnyFrames: write(anyFrame()); break;
    case Manner::Customer: {
        const QByteArray content = random(static_cast<int>(m_rng->below(2000)));
        offerAs(m_rng->next() | 1, content, content.size(), 0);
        break;
    }
    case Manner::Trickle: trickle(); break;
    case Manner::Silence:
    case Manner::Echo:
    case Manner::Count: break;
    }
}

// A message of many bytes, one now and then: never useless, never done.
void HubHostile::trickle()
{
    if (m_nextDropNs == 0)
        offerAs(m_rng->next() | 1, random(1), 1000, 0);
    else if (nowNs() >= m_nextDropNs)
        say(FrameType::Data, random(1));
    if (nowNs() >= m_nextDropNs)
        m_nextDropNs = nowNs() + dropNs;
}

// Its first message, again and again, or with another byte in it.
void HubHostile::halfAHandshake()
{
    Opening opening(SessionCall{true, QStringLiteral("the victim")}, rig::testKey(100), &m_directory, nullptr);
    QByteArray message = opening.takeOutput(nowNs() / nsPerMs);
    if (m_rng->chance(0.3)) {
        const int at = static_cast<int>(m_rng->below(static_cast<std::uint64_t>(message.size())));
        message[at] = static_cast<char>(message.at(at) ^ (1 << m_rng->below(8)));
    }
    write(message);
}

// Data up to what content holds; more is promised when claimedSize is larger.
void HubHostile::offerAs(quint64 id, const QByteArray& content, qint64 claimedSize, qint64 offset)
{
    m_ledger->strangersIds().insert(id);
    OfferFrame offer;
    offer.messageId = id;
    offer.size = claimedSize;
    offer.offset = offset;
    offer.sha256 = QCryptographicHash::hash(content, QCryptographicHash::Sha256);
    offer.fileName = QStringLiteral("stranger");
    HubCaller::offer(offer, content, content.size());
}

// Often one that the installation knows from somebody else.
quint64 HubHostile::anyId()
{
    const auto& messages = m_ledger->messages();
    if (messages.empty() || m_rng->chance(0.3))
        return m_rng->chance(0.1) ? 0 : m_rng->next();
    return messages[m_rng->below(messages.size())].id;
}

QByteArray HubHostile::anyFrame()
{
    const auto type = static_cast<FrameType>(m_rng->below(18));
    QByteArray payload = random(static_cast<int>(m_rng->below(60)));
    if (m_rng->chance(0.7)) {
        switch (type) {
        case FrameType::State: payload = fewIds(m_rng->chance(0.5)); break;
        case FrameType::Stored:
        case FrameType::Settled: payload = encodeNumbers({m_rng->below(5)}); break;
        case FrameType::Abort:
        case FrameType::Stop: payload = encodeReason(QStringLiteral("so")); break;
        default: payload.clear();
        }
    }
    return m_writer.write(type, payload);
}

} // namespace soak
