#include "tests/host/sessionpair.h"

namespace hosttest {

using namespace rig;

using namespace host;

int SessionPair::Side::count(SessionEvent::Kind kind) const
{
    int found = 0;
    for (const SessionEvent& event : events)
        found += event.kind == kind ? 1 : 0;
    return found;
}

const SessionEvent* SessionPair::Side::last(SessionEvent::Kind kind) const
{
    for (auto it = events.rbegin(); it != events.rend(); ++it) {
        if (it->kind == kind)
            return &*it;
    }
    return nullptr;
}

namespace {

SessionCall callOf(bool isCaller)
{
    return SessionCall{isCaller, isCaller ? QStringLiteral("Боб") : QString()};
}

} // namespace

SessionPair::SessionPair(unsigned seed, const LineOptions& options) : m_options(options), m_random(seed)
{
    a.settings.abonentName = QStringLiteral("Alice");
    a.settings.identity = testKey(1);
    a.directory.names[testKey(2)->publicKey()] = QStringLiteral("Боб");
    a.directory.everybodyElse = QStringLiteral("Mallory");
    b.settings.abonentName = QStringLiteral("Боб");
    b.settings.identity = testKey(2);
    b.directory.names[testKey(1)->publicKey()] = QStringLiteral("Alice");
    b.directory.everybodyElse = QStringLiteral("Mallory");
    connect(options);
}

void SessionPair::connect(const LineOptions& options)
{
    m_options = options;
    m_isCut = false;
    carriedBytes = 0;
    for (Side* side : {&a, &b}) {
        side->session.reset();
        side->wire.clear();
        side->receivedBytes = 0;
        side->session = std::make_unique<Session>(
            side->settings, callOf(side == &a), &side->directory, side->store.forSessions(),
            [side](const SessionEvent& event) { side->events.push_back(event); }, nowMs);
    }
}

// Whether something came.
bool SessionPair::deliver(Side& side)
{
    const qint64 before = side.receivedBytes;
    int budget = m_options.bytesPerStep;
    while (budget > 0 && !side.wire.isEmpty() && !m_isCut) {
        int size = std::min<int>({side.wire.size(), budget, 1 + static_cast<int>(m_random() % 3000)});
        if (m_options.cutAfterBytes >= 0)
            size = static_cast<int>(qMin<qint64>(size, m_options.cutAfterBytes - carriedBytes));
        QByteArray piece = side.wire.left(size);
        side.wire.remove(0, size);
        carriedBytes += size;
        side.receivedBytes += size;
        budget -= size;
        if (side.tamper)
            piece = side.tamper(piece);
        side.session->receive(piece, nowMs);
        m_isCut = m_options.cutAfterBytes >= 0 && carriedBytes >= m_options.cutAfterBytes;
    }
    return side.receivedBytes > before;
}

bool SessionPair::takesTurn(const Side& side, bool hasReceived) const
{
    return !m_options.sleeps || hasReceived || side.session->nextTurnMs() <= nowMs;
}

void SessionPair::pump(Side& from, Side& to)
{
    while (to.wire.size() < m_options.queueBytes) {
        const QByteArray piece = from.session->takeOutput(m_options.pieceBytes, nowMs);
        if (piece.isEmpty())
            return;
        said.push_back({nowMs, &from == &a, piece.size()});
        if (!from.silent)
            to.wire.append(piece);
    }
}

void SessionPair::step()
{
    nowMs += m_options.stepMs;
    if (m_options.cutAfterBytes == 0)
        m_isCut = true;
    const bool aReceived = deliver(a);
    const bool bReceived = deliver(b);
    const bool isTurnOfA = takesTurn(a, aReceived);
    const bool isTurnOfB = takesTurn(b, bReceived);
    turns += int(isTurnOfA) + int(isTurnOfB);
    if (isTurnOfA)
        pump(a, b);
    if (isTurnOfB)
        pump(b, a);
    if (isTurnOfA)
        a.session->advance(nowMs);
    if (isTurnOfB)
        b.session->advance(nowMs);
    // One side that ended hangs up.
    if (m_isCut || a.session->isFinished() || b.session->isFinished()) {
        if (!m_isCut) {
            // What was under way still arrives.
            deliver(a);
            deliver(b);
        }
        a.session->connectionLost();
        b.session->connectionLost();
    }
}

bool SessionPair::runUntil(const std::function<bool()>& condition, qint64 limitMs)
{
    const qint64 deadlineMs = nowMs + limitMs;
    while (!condition()) {
        if (nowMs > deadlineMs)
            return false;
        step();
    }
    return true;
}

bool SessionPair::runToEnd(qint64 limitMs)
{
    return runUntil([this] { return a.session->isFinished() && b.session->isFinished(); }, limitMs);
}

} // namespace hosttest
