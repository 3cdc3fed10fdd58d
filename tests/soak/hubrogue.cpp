#include "tests/soak/hubrogue.h"

#include "rig/time/fibers.h"
#include "tests/soak/hubsite.h"

#include <QCryptographicHash>

#include <algorithm>
#include <malloc.h>

namespace soak {

using namespace rig;

namespace {

using namespace host;

constexpr std::int64_t lookNs = 150 * nsPerMs;
constexpr std::int64_t answerNs = 60 * nsPerS; // of a slow disk
constexpr std::int64_t storingNs = 3 * nsPerS; // about so long a slow disk stores
constexpr std::int64_t floodNs = 30 * nsPerS;
constexpr std::int64_t hoardNs = 120 * nsPerS;
constexpr int largeBytes = 2 << 20;
constexpr int pieceBytes = 16000;
// What the other sessions and the harness itself take meanwhile is a part of it.
constexpr std::size_t mostFloodHeapBytes = 8 << 20;

QByteArray hashOf(const QByteArray& content)
{
    return QCryptographicHash::hash(content, QCryptographicHash::Sha256);
}

OfferFrame offerOf(quint64 id, const QByteArray& content, qint64 offset = 0)
{
    OfferFrame offer;
    offer.messageId = id;
    offer.size = content.size();
    offer.offset = offset;
    offer.sha256 = hashOf(content);
    offer.fileName = QStringLiteral("rogue");
    return offer;
}

} // namespace

// ---- one call ----

bool HubRogueEnd::open()
{
    beginCall();
    m_offers.clear();
    m_standing.clear();
    m_isInOffer = false;
    m_isStopped = false;
    if (!shakeHands(rig::testKey(HubRogue::keyNumber)))
        return false;
    HelloFrame hello;
    hello.abonentName = HubLedger::rogueName;
    say(FrameType::Hello, hello.encode());
    StateFrame nothing;
    nothing.isLast = m_rng->chance(0.5);
    m_mayFlood = !nothing.isLast;
    say(FrameType::State, nothing.encode());
    return true;
}

void HubRogueEnd::close()
{
    m_line->hangUp(1, 0);
}

std::size_t HubRogueEnd::propose(const OfferFrame& frame, const QByteArray& content, int sent)
{
    if (m_isInOffer)
        say(FrameType::Abort, encodeReason(QStringLiteral("no")));
    m_own->insert(frame.messageId);
    m_offers.push_back({frame.messageId, frame.sha256, false, false});
    m_isInOffer = sent < frame.size;
    offer(frame, content, sent);
    return m_offers.size() - 1;
}

// Frames as large as they may be, of identifiers that are nobody's.
void HubRogueEnd::flood()
{
    const std::size_t before = mallinfo2().uordblks;
    for (const std::int64_t until = nowNs() + floodNs; nowNs() < until && !isStopped(); hear())
        say(FrameType::State, state(false, StateFrame::maxStoredIds));
    const std::size_t now = mallinfo2().uordblks;
    if (now > before + mostFloodHeapBytes)
        m_checks->violation("keeps what is nobody's: " + std::to_string(now - before) + " bytes");
}

qint64 HubRogueEnd::standing(quint64 id) const
{
    const auto found = m_standing.find(id);
    return found == m_standing.end() ? 0 : found->second;
}

void HubRogueEnd::onFrame(const Frame& frame)
{
    RefusedFrame refused;
    switch (frame.type) {
    case FrameType::State: onState(frame); break;
    case FrameType::Stored: onStored(frame); break;
    case FrameType::Refused:
        if (refused.decode(frame.payload) && refused.offerIndex < m_offers.size())
            m_offers[static_cast<std::size_t>(refused.offerIndex)].isRefused = true;
        break;
    case FrameType::Offer:
    case FrameType::Data: m_checks->violation("hands messages of others to an abonent"); break;
    case FrameType::Stop: m_isStopped = true; break;
    default: break;
    }
}

void HubRogueEnd::onState(const Frame& frame)
{
    StateFrame told;
    if (!told.decode(frame.payload))
        return;
    QVector<quint64> ids = told.storedIds;
    for (const MessagePart& part : told.parts) {
        ids.append(part.messageId);
        m_standing[part.messageId] = part.length;
    }
    if (std::any_of(ids.begin(), ids.end(), [this](quint64 id) { return m_own->count(id) == 0; }))
        m_checks->violation("tells an abonent of messages that are not its own");
}

void HubRogueEnd::onStored(const Frame& frame)
{
    QVector<quint64> numbers;
    (void)decodeNumbers(frame.payload, &numbers);
    for (const quint64 number : numbers) {
        if (number >= m_offers.size())
            continue;
        Offered& offered = m_offers[static_cast<std::size_t>(number)];
        offered.isStored = true;
        m_ledger->acknowledged(m_site, HubLedger::rogueName, offered.id, offered.sha256);
    }
}

// ---- both ----

HubRogue::HubRogue(HubLine* first, HubLine* second, HubSite* site, HubLedger* ledger, Checks* checks,
                   std::uint64_t seed)
    : m_site(site), m_checks(checks), m_rng(seed), m_first(first, site->index(), ledger, checks, &m_rng, &m_own),
      m_second(second, site->index(), ledger, checks, &m_rng, &m_own)
{
}

void HubRogue::live()
{
    std::uint64_t served[2] = {0, 0};
    const auto stands = [&served](HubRogueEnd& end, int index) {
        return end.line().stands() && end.line().call() != served[index] && !end.isLost();
    };
    while (!m_over) {
        Fibers::sleepFor(lookNs);
        if (!stands(m_first, 0) && !stands(m_second, 1))
            continue;
        await([&] { return stands(m_first, 0) && stands(m_second, 1); }, 40 * nsPerS);
        if (stands(m_first, 0) && stands(m_second, 1))
            call();
        m_first.close();
        m_second.close();
        served[0] = m_first.line().call();
        served[1] = m_second.line().call();
    }
    m_first.close();
    m_second.close();
}

void HubRogue::call()
{
    if (!m_first.open() || !m_second.open())
        return;
    // What stands is told once it is hashed.
    hearFor(nsPerS + m_first.line().plan.delayNs + m_second.line().plan.delayNs);
    misbehave();
    leaveStub();
}

void HubRogue::misbehave()
{
    if (m_stubId != 0 && m_rng.chance(0.6)) {
        const qint64 told = std::min(m_first.standing(m_stubId), m_second.standing(m_stubId));
        if (told > 0 && told == std::max(m_first.standing(m_stubId), m_second.standing(m_stubId))) {
            m_stubBytes = static_cast<int>(told);
            switch (m_rng.below(7)) {
            case 0:
            case 1: resumeWhileStored(); return;
            case 2: grow(); return;
            case 3: goOnAsAnother(); return;
            case 4: resumeWhenShort(); return;
            default: rewriteHashed(); return;
            }
        }
    }
    switch (m_rng.below(9)) {
    case 0: offerNobodys(); break;
    case 1:
    case 2: hoard(); break;
    case 3: flood(); break;
    case 4: idle(); break;
    case 5: fillWhileItComes(); break;
    default: rewriteWhileStored();
    }
}

// The beginning of a message, for the next call.
void HubRogue::leaveStub()
{
    m_stubId = 0;
    if (!m_first.mayTalk() || m_rng.chance(0.2))
        return;
    m_stubId = newId();
    m_stub = random(50, 3000);
    m_stubBytes = static_cast<int>(m_rng.between(1, m_stub.size() - 1));
    (void)m_first.propose(offerOf(m_stubId, m_stub), m_stub, m_stubBytes);
    hearOf(m_first, 0);
}

// One line has said all of a message; while it is stored, the other begins it anew, with other
// bytes, or another one under its identifier.
void HubRogue::rewriteWhileStored()
{
    for (int round = 0; round < 4 && m_first.mayTalk() && m_second.mayTalk(); ++round) {
        const QByteArray content = random(20, 3000);
        const QByteArray other(content.size(), 'r');
        const quint64 id = newId();
        const std::size_t whole = m_first.propose(offerOf(id, content), content, content.size());
        hearOf(m_first, storingNs);
        (void)m_second.propose(offerOf(id, m_rng.chance(0.7) ? content : other), other,
                               static_cast<int>(m_rng.between(0, other.size() - 1)));
        await([&] { return m_first.isAnswered(whole); }, answerNs);
    }
}

// Both were told the beginning's hash; one of them writes another beginning, longer or
// shorter, and the other goes on behind its own.
void HubRogue::rewriteHashed()
{
    const QByteArray other(m_stub.size(), 'r');
    const bool isShorter = m_rng.chance(0.3);
    const qint64 rewritten =
        isShorter ? m_rng.between(0, m_stubBytes - 1) : m_rng.between(m_stubBytes, m_stub.size() - 1);
    (void)m_second.propose(offerOf(m_stubId, m_stub), other, static_cast<int>(rewritten));
    hearOf(m_second, nsPerS);
    const std::size_t rest = m_first.propose(offerOf(m_stubId, m_stub, m_stubBytes), m_stub, m_stub.size());
    await([&] { return m_first.isAnswered(rest); }, answerNs);
}

// Both go on behind what stands, one while the other is stored.
void HubRogue::resumeWhileStored()
{
    const OfferFrame offer = offerOf(m_stubId, m_stub, m_stubBytes);
    const std::size_t rest = m_first.propose(offer, m_stub, m_stub.size());
    hearOf(m_first, storingNs);
    (void)m_second.propose(offer, m_stub, m_stubBytes);
    await([&] { return m_first.isAnswered(rest); }, answerNs);
}

// The stub was small; what it goes on as is not.
void HubRogue::grow()
{
    const qint64 most = m_site->limits().maxMessageBytes;
    const QByteArray whole = m_stub + random(100, 40000);
    OfferFrame larger = offerOf(m_stubId, whole, m_stubBytes);
    larger.size = std::max<qint64>(whole.size(), m_rng.chance(0.5) ? most + 1 : 0);
    const std::size_t grown = m_first.propose(larger, whole, whole.size());
    await([&] { return m_first.isAnswered(grown); }, answerNs);
}

// Another message of the same size, which begins in the same way; and once more, when it is stored.
void HubRogue::goOnAsAnother()
{
    const QByteArray other = m_stub.left(m_stubBytes) + QByteArray(m_stub.size() - m_stubBytes, 'o');
    const std::size_t first = m_first.propose(offerOf(m_stubId, other, m_stubBytes), other, other.size());
    await([&] { return m_first.isAnswered(first); }, answerNs);
    if (!m_first.isStored(first))
        return;
    const std::size_t again = m_first.propose(offerOf(m_stubId, other), other, other.size());
    await([&] { return m_first.isAnswered(again); }, answerNs);
}

// What stands is gone on with when the disk has no room for the rest any more.
void HubRogue::resumeWhenShort()
{
    m_site->disk().setShort(true);
    hearFor(HubSite::noticedNs + nsPerS);
    const std::size_t rest = m_first.propose(offerOf(m_stubId, m_stub, m_stubBytes), m_stub, m_stub.size());
    await([&] { return m_first.isAnswered(rest); }, answerNs);
    m_site->disk().setShort(false);
}

void HubRogue::offerNobodys()
{
    for (int count = 0; count < 5 && !m_first.isStopped() && !m_over; ++count) {
        const QByteArray content = random(1, 100);
        (void)m_first.propose(offerOf(noMessageId, content), content, 0);
        hearFor(3 * nsPerS);
    }
    if (!m_first.isStopped() && m_first.line().isHeard(1) && !m_over)
        m_checks->violation("goes on with a peer whose message has the identifier 0");
}

// More than it may leave there.
void HubRogue::hoard()
{
    const bool isMany = m_rng.chance(0.6);
    int refused = 0;
    const std::int64_t until = nowNs() + hoardNs;
    while (nowNs() < until && !m_first.isStopped() && refused < 4 && !m_over) {
        HubRogueEnd& end = m_second.isStopped() || m_rng.chance(0.5) ? m_first : m_second;
        const QByteArray content = isMany ? random(1, 20) : QByteArray(200000, static_cast<char>(m_rng.next()));
        const std::size_t one = end.propose(offerOf(newId(), content), content, content.size());
        await([&] { return end.isAnswered(one); }, answerNs);
        refused += end.isRefused(one) ? 1 : 0;
    }
}

void HubRogue::flood()
{
    HubRogueEnd& end = m_first.mayFlood() ? m_first : m_second;
    if (end.mayFlood() && end.mayTalk())
        end.flood();
}

// It says that it lives, and nothing else.
void HubRogue::idle()
{
    while (!m_first.isStopped() && !m_second.isStopped() && !m_over) {
        m_first.say(FrameType::Alive);
        m_second.say(FrameType::Alive);
        hearFor(5 * nsPerS);
    }
}

// Others fill the volume while a large message comes.
void HubRogue::fillWhileItComes()
{
    const QByteArray content(largeBytes, 'l');
    const quint64 id = newId();
    const std::size_t large = m_first.propose(offerOf(id, content), content, largeBytes / 8);
    hearOf(m_first, 0);
    m_site->disk().setShort(true);
    for (int at = largeBytes / 8; at < largeBytes - pieceBytes; at += pieceBytes) {
        m_first.goOn(content.mid(at, pieceBytes));
        m_first.hear();
        if (m_first.isAnswered(large) || m_first.isStopped())
            break;
    }
    hearOf(m_first, nsPerS);
    m_site->disk().setShort(false);
    if (m_first.isStopped())
        return;
    // Or it would be hashed at the beginning of each call from now on.
    const QByteArray small(1, 's');
    const std::size_t instead = m_first.propose(offerOf(id, small), small, small.size());
    await([&] { return m_first.isAnswered(instead); }, answerNs);
}

// ---- what all of it needs ----

bool HubRogue::await(const std::function<bool()>& holds, std::int64_t ns)
{
    for (const std::int64_t until = nowNs() + ns; !holds(); Fibers::sleepFor(lookNs)) {
        if (m_over || nowNs() >= until || (m_first.isStopped() && m_second.isStopped()))
            return holds();
        m_first.hear();
        m_second.hear();
    }
    return true;
}

void HubRogue::hearFor(std::int64_t ns)
{
    const std::int64_t until = nowNs() + ns;
    await([until] { return nowNs() >= until; }, ns);
}

void HubRogue::hearOf(HubRogueEnd& end, std::int64_t latestNs)
{
    const std::int64_t arrives = end.line().from(1).lastArrivalNs(nowNs()) - nowNs();
    hearFor(std::max<std::int64_t>(0, arrives) + m_rng.between(0, latestNs));
}

QByteArray HubRogue::random(qint64 low, qint64 high)
{
    QByteArray bytes(static_cast<int>(m_rng.between(low, std::max(low, high))), Qt::Uninitialized);
    for (char& byte : bytes)
        byte = static_cast<char>(m_rng.next());
    return bytes;
}

quint64 HubRogue::newId()
{
    const quint64 id = m_rng.next() | 1;
    m_own.insert(id);
    return id;
}

} // namespace soak
