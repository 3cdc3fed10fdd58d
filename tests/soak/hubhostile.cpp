#include "tests/soak/hubhostile.h"

#include "host/session/opening.h"
#include "host/session/sessionframes.h"
#include "tests/host/sealedpeer.h"
#include "tests/soak/fibers.h"

#include <QCryptographicHash>

#include <algorithm>

namespace soak {

namespace {

using namespace host;

constexpr std::int64_t turnNs = 200 * nsPerMs;
constexpr int mostHeard = 65536;
constexpr int stubBytes = 10;
// Fillers of a minute, the handshake's answer, one Stop.
constexpr qint64 mostBytesToNobody = 600;

} // namespace

void HubHostile::call()
{
    const Manner manner = static_cast<Manner>(m_rng->below(static_cast<std::uint64_t>(Manner::Count)));
    begin(manner);
    if (manner >= Manner::HandshakeAgain)
        open();
    m_changesBits = manner == Manner::ChangedBits;
    const std::int64_t until = nowNs() + static_cast<std::int64_t>(m_rng->logBetween(1, 1500)) * nsPerS;
    while (!isLost() && nowNs() < until) {
        const int heard = m_heard.size();
        hear();
        if (manner == Manner::Echo)
            write(m_heard.mid(heard));
        else
            misbehave(manner);
        Fibers::sleepFor(turnNs);
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
    m_opening.reset();
    m_writer = FrameWriter();
    m_reader = FrameReader();
    m_hearsFrames = false;
    m_framesHeard = 0;
    m_bytesHeard = 0;
    m_changesBits = false;
    m_heard.clear();
    m_said.clear();
}

void HubHostile::open()
{
    if (!shakeHands())
        return;
    HelloFrame hello;
    hello.abonentName = QStringLiteral("Mallory");
    say(FrameType::Hello, hello.encode());
    if (m_rng->chance(0.9))
        say(FrameType::State, state(true));
}

// It knows how to, and has a key, which is nobody's here.
bool HubHostile::shakeHands()
{
    m_directory.everybodyElse = QStringLiteral("the victim");
    m_opening =
        std::make_unique<Opening>(SessionCall{true, m_directory.everybodyElse},
                                  hosttest::testKey(100 + static_cast<int>(m_rng->below(3))), &m_directory, nullptr);
    while (!isLost() && !m_opening->hasFailed()) {
        write(m_opening->takeOutput(nowNs() / nsPerMs));
        if (m_opening->maySend()) {
            m_writer = FrameWriter(m_opening->takeSending());
            return true;
        }
        Fibers::sleepFor(turnNs);
        hear();
    }
    return false;
}

// ---- what the other side says ----

void HubHostile::hear()
{
    const QByteArray bytes = m_line->from(0).take(nowNs());
    m_bytesHeard += bytes.size();
    if (m_heard.size() < mostHeard)
        m_heard += bytes;
    if (m_hearsFrames) {
        m_reader.append(bytes);
    } else if (m_opening && !bytes.isEmpty()) {
        m_opening->receive(bytes, nowNs() / nsPerMs);
        if (!m_opening->isOver())
            return;
        m_hearsFrames = true;
        m_reader = FrameReader(m_opening->takeReceiving());
        m_reader.append(m_opening->takeRest());
    }
    Frame frame;
    for (;;) {
        switch (m_reader.next(&frame)) {
        case FrameReader::Result::None: return;
        case FrameReader::Result::Damaged:
            if (m_hearsFrames)
                m_checks->violation("says to a stranger what does not open");
            m_hearsFrames = false;
            return;
        case FrameReader::Result::Frame: judge(frame); break;
        }
    }
}

// What a side may say to a stranger, and what of it tells nothing of others.
void HubHostile::judge(const Frame& frame)
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
    case Manner::EndlessState: say(FrameType::State, state(false)); break;
    case Manner::EndlessStubs:
        offer(anyId(), random(3), m_rng->between(3, 100000), 0);
        say(FrameType::Abort, encodeReason(QStringLiteral("no")));
        break;
    case Manner::GrowingStub:
        if (m_stub.isEmpty()) {
            m_stubId = m_rng->next() | 1;
            m_stub = random(stubBytes);
            offer(m_stubId, m_stub.left(stubBytes / 2), stubBytes, 0);
        } else {
            const QByteArray whole = m_stub.left(stubBytes / 2) + random(static_cast<int>(m_rng->between(100, 40000)));
            offer(m_stubId, whole, whole.size(), stubBytes / 2);
            m_stub.clear();
        }
        break;
    case Manner::AnyFrames: write(anyFrame()); break;
    case Manner::Customer: {
        const QByteArray content = random(static_cast<int>(m_rng->below(2000)));
        offer(m_rng->next() | 1, content, content.size(), 0);
        break;
    }
    case Manner::Silence:
    case Manner::Echo:
    case Manner::Count: break;
    }
}

// Its first message, again and again, or with another byte in it.
void HubHostile::halfAHandshake()
{
    Opening opening(SessionCall{true, QStringLiteral("the victim")}, hosttest::testKey(100), &m_directory, nullptr);
    QByteArray message = opening.takeOutput(nowNs() / nsPerMs);
    if (m_rng->chance(0.3)) {
        const int at = static_cast<int>(m_rng->below(static_cast<std::uint64_t>(message.size())));
        message[at] = static_cast<char>(message.at(at) ^ (1 << m_rng->below(8)));
    }
    write(message);
}

// Data up to what content holds; more is promised when claimedSize is larger.
void HubHostile::offer(quint64 id, const QByteArray& content, qint64 claimedSize, qint64 offset)
{
    m_ledger->strangersIds().insert(id);
    OfferFrame offer;
    offer.messageId = id;
    offer.size = claimedSize;
    offer.offset = offset;
    offer.sha256 = QCryptographicHash::hash(content, QCryptographicHash::Sha256);
    offer.fileName = QStringLiteral("stranger");
    say(FrameType::Offer, offer.encode());
    for (int at = static_cast<int>(offset); at < content.size(); at += 1000)
        say(FrameType::Data, content.mid(at, 1000));
}

QByteArray HubHostile::state(bool isLast)
{
    StateFrame state;
    state.isLast = isLast;
    for (int count = static_cast<int>(m_rng->below(20)); count > 0; --count)
        state.storedIds.append(m_rng->next() | 1);
    for (int count = static_cast<int>(m_rng->below(4)); count > 0; --count)
        state.parts.append(MessagePart{anyId(), m_rng->between(1, 5000), random(32)});
    return state.encode();
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
        case FrameType::State: payload = state(m_rng->chance(0.5)); break;
        case FrameType::Stored:
        case FrameType::Settled: payload = encodeNumbers({m_rng->below(5)}); break;
        case FrameType::Abort:
        case FrameType::Stop: payload = encodeReason(QStringLiteral("so")); break;
        default: payload.clear();
        }
    }
    return m_writer.write(type, payload);
}

void HubHostile::say(FrameType type, const QByteArray& payload)
{
    write(m_writer.write(type, payload));
}

// As much as the line takes; the rest waits for it.
void HubHostile::write(QByteArray bytes)
{
    if (m_changesBits && !bytes.isEmpty() && m_rng->chance(0.1)) {
        const int at = static_cast<int>(m_rng->below(static_cast<std::uint64_t>(bytes.size())));
        bytes[at] = static_cast<char>(bytes.at(at) ^ (1 << m_rng->below(8)));
    }
    if (m_said.size() < mostHeard)
        m_said += bytes;
    for (int at = 0; at < bytes.size() && !isLost();) {
        const int room = m_line->from(1).room(nowNs());
        if (room > 0) {
            m_line->from(1).send(bytes.mid(at, room), nowNs());
            at += room;
        } else {
            Fibers::sleepFor(turnNs);
        }
    }
}

QByteArray HubHostile::random(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = static_cast<char>(m_rng->next());
    return bytes;
}

} // namespace soak
