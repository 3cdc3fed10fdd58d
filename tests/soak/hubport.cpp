#include "tests/soak/hubport.h"

#include "host/session/session.h"
#include "tests/soak/hubhostile.h"
#include "tests/soak/hubledger.h"
#include "tests/soak/hubrogue.h"
#include "tests/soak/hubsite.h"

#include <algorithm>

namespace soak {

using namespace rig;

namespace {

constexpr std::int64_t lookNs = 500 * nsPerMs;
constexpr int blockBytes = 1014;
constexpr qint64 slackMs = 15000; // of a disk that takes its time, several calls one behind the other

qint64 steadyMs()
{
    return nowNs() / nsPerMs;
}

host::Peer peerOf(const HubSite& site)
{
    host::Peer peer;
    peer.abonent = site.name();
    peer.publicKey = rig::testKey(site.index())->publicKey();
    peer.isProved = true;
    return peer;
}

} // namespace

HubCalls::HubCalls(const HubScenario::LinePlan& plan, const HubScenario& scenario, std::uint64_t seed)
    : m_scenario(scenario), m_line(plan), m_rng(seed)
{
}

void HubCalls::start(Fibers* fibers, HubSite* first, HubSite* second, HubLine* tapped, HubLedger* ledger,
                     Checks* checks)
{
    m_tapped = tapped;
    m_ledger = ledger;
    m_sites[0] = first;
    m_sites[1] = second;
    m_checks = checks;
    for (const HubSite* site : m_sites) {
        if (site)
            m_directory.names[rig::testKey(site->index())->publicKey()] = site->name();
    }
    m_directory.acceptsUnknown = m_rng.chance(0.7);
    fibers->start([this] { placeCalls(); });
    for (int end = 0; end < 2; ++end) {
        if (m_sites[end])
            fibers->start([this, end] { servePort(end); }, m_sites[end]->process());
    }
    if (m_line.plan.isRogue)
        m_directory.names[rig::testKey(HubRogue::keyNumber)->publicKey()] = HubLedger::rogueName;
    else if (!second)
        fibers->start([this] { beHostile(); });
}

// ---- the line ----

void HubCalls::placeCalls()
{
    while (!m_over) {
        const double longestS = m_line.plan.isRogue ? 90 : 30;
        const double pauseS = m_faultsOver ? 1 + 2 * m_rng.unit() : m_rng.logBetween(1, longestS);
        Fibers::sleepFor(static_cast<std::int64_t>(pauseS * nsPerS));
        if (m_over || !isWanted())
            continue;
        m_line.connect();
        watchCall();
    }
}

bool HubCalls::isWanted() const
{
    if (!m_sites[0]->isUp())
        return false;
    if (!m_sites[1])
        return !m_faultsOver;
    if (!m_sites[1]->isUp())
        return false;
    return m_sites[0]->store().queue().hasUnclaimed(peerOf(*m_sites[1])) ||
           m_sites[1]->store().queue().hasUnclaimed(peerOf(*m_sites[0]));
}

void HubCalls::watchCall()
{
    const bool isCut = !m_faultsOver && m_rng.chance(m_scenario.cutShare);
    const std::int64_t cutNs =
        isCut ? nowNs() + static_cast<std::int64_t>(m_rng.logBetween(0.05, 120) * nsPerS) : never;
    m_isCutWhenWhole = m_sites[1] && !m_faultsOver && m_rng.chance(m_scenario.cutShare / 2);
    m_isDead = false;
    while (m_line.stands()) {
        const bool mustEnd = m_over || (m_faultsOver && (m_isDead || m_line.plan.isHostile));
        if (mustEnd) {
            m_line.die(nowNs(), nowNs());
        } else if (!m_isDead && !m_faultsOver && nowNs() >= cutNs) {
            cut();
            m_isDead = true;
        }
        const std::int64_t next = nowNs() + lookNs;
        Fibers::sleepUntil(cutNs > nowNs() ? std::min(cutNs, next) : next);
    }
}

// The ends learn it at once, one after the other, or not at all.
void HubCalls::cut()
{
    ++m_faultsMade;
    std::int64_t learnsNs[2];
    for (std::int64_t& at : learnsNs) {
        switch (m_rng.below(3)) {
        case 0: at = nowNs(); break;
        case 1: at = nowNs() + static_cast<std::int64_t>(m_rng.logBetween(0.01, 200) * nsPerS); break;
        default: at = never;
        }
    }
    m_line.die(learnsNs[0], learnsNs[1]);
}

// What the receiver now puts into its inbox, the sender soon says again on another line.
void HubCalls::onEvent(int end, const host::SessionEvent& event)
{
    if (event.kind == host::SessionEvent::Kind::PeerNamed)
        m_namedMs[end] = steadyMs();
    if (event.kind != host::SessionEvent::Kind::Note && event.kind != host::SessionEvent::Kind::FileDuplicate &&
        event.kind != host::SessionEvent::Kind::FileFailed)
        m_usefulMs[end] = steadyMs();
    const bool isWhole = event.kind == host::SessionEvent::Kind::FileProgress && !event.file.isOutgoing &&
                         event.file.doneBytes == event.file.sizeBytes;
    if (!isWhole || !m_isCutWhenWhole || m_isDead || m_faultsOver)
        return;
    m_isCutWhenWhole = false;
    m_isDead = true;
    ++m_faultsMade;
    m_line.die(end == 1 ? nowNs() : never, end == 0 ? nowNs() : never);
}

// How long somebody who is nobody's friend may hold a line.
void HubCalls::checkTimes(int end, const host::SessionSettings& settings, qint64 beganMs)
{
    const qint64 nowMs = steadyMs();
    const auto check = [&](const char* what, qint64 sinceMs, qint64 mostMs) {
        if (nowMs - sinceMs > mostMs + settings.closingMs + slackMs)
            m_checks->violation(what + std::to_string((nowMs - sinceMs) / 1000) + " s");
    };
    if (m_namedMs[end] < 0)
        check("somebody who did not say who it is held a line for ", beganMs, settings.openingMs);
    else
        check("a line was held without use for ", m_usefulMs[end], settings.uselessMs);
    if (!m_line.plan.isRogue)
        check("a stranger held a line for ", beganMs, settings.strangerMs);
}

// ---- the ends ----

void HubCalls::servePort(int end)
{
    std::uint64_t served = 0;
    while (!m_over) {
        Fibers::sleepFor(lookNs);
        if (!m_line.stands() || m_line.call() == served)
            continue;
        served = m_line.call();
        if (m_sites[end]->isUp())
            serveSession(end);
        const std::int64_t lateNs =
            m_faultsOver || m_rng.chance(0.5) ? 0 : static_cast<std::int64_t>(m_rng.logBetween(0.01, 60) * nsPerS);
        m_line.hangUp(end, lateNs);
    }
    m_line.hangUp(end, 0); // a call that came in at the last moment
}

void HubCalls::serveSession(int end)
{
    HubSite& site = *m_sites[end];
    HubWay& in = m_line.from(1 - end);
    HubWay& out = m_line.from(end);
    site.sessionBegins();
    host::SessionSettings settings;
    settings.abonentName = site.name();
    settings.identity = rig::testKey(site.index());
    // Either end calls, in turn; a stranger is never called.
    const bool isOutgoing = m_sites[1 - end] && m_line.call() % 2 == static_cast<std::uint64_t>(end);
    const host::SessionCall call{isOutgoing, isOutgoing ? m_sites[1 - end]->name() : QString()};
    const qint64 beganMs = steadyMs();
    auto session = std::make_unique<host::Session>(
        settings, call, &m_directory, site.store().forSessions(),
        [this, end, &site](const host::SessionEvent& event) {
            site.onEvent(event);
            onEvent(end, event);
        },
        steadyMs());
    m_namedMs[end] = -1;
    while (!session->isFinished() && site.isUp()) {
        session->receive(in.take(nowNs()), steadyMs());
        session->advance(steadyMs());
        while (site.isUp() && out.room(nowNs()) > 0) {
            const QByteArray bytes = session->takeOutput(std::min(blockBytes, out.room(nowNs())), steadyMs());
            if (bytes.isEmpty() || !site.isUp())
                break;
            out.send(bytes, nowNs());
        }
        if (m_line.isLost(end) && in.nextArrivalNs() > nowNs())
            session->connectionLost();
        const std::int64_t next = std::min(
            {in.nextArrivalNs(), nowNs() + site.tickMs() * nsPerMs, std::max(nowNs() + nsPerMs, m_line.learnsNs(end))});
        if (!session->isFinished())
            Fibers::sleepUntil(std::max(next, nowNs()));
    }
    if (!m_sites[1 - end])
        checkTimes(end, settings, beganMs);
    session.reset();
    site.sessionEnds();
}

void HubCalls::beHostile()
{
    HubHostile hostile(&m_line, m_tapped, m_ledger, m_checks, &m_rng, m_directory.acceptsUnknown);
    std::uint64_t served = 0;
    while (!m_over) {
        Fibers::sleepFor(lookNs);
        if (!m_line.stands() || m_line.call() == served)
            continue;
        served = m_line.call();
        hostile.call();
    }
    m_line.hangUp(1, 0);
}

} // namespace soak
