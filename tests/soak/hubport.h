// The calls on one line of a run with several: who calls when, what goes wrong with the line,
// and the sessions at its ends.
#pragma once

#include "host/session/session.h"
#include "rig/host/sealedpeer.h"
#include "rig/rng.h"
#include "rig/time/fibers.h"
#include "tests/soak/checks.h"
#include "tests/soak/hubline.h"
#include "tests/soak/hubscenario.h"

#include <cstdint>
#include <memory>

namespace soak {

class HubLedger;
class HubSite;

class HubCalls
{
public:
    HubCalls(const HubScenario::LinePlan& plan, const HubScenario& scenario, std::uint64_t seed);

    // second: null for a hostile line. tapped: the line of others that a stranger hears.
    // Nothing is owned.
    void start(rig::Fibers* fibers, HubSite* first, HubSite* second, HubLine* tapped, HubLedger* ledger,
               Checks* checks);
    void endFaults() { m_faultsOver = true; }
    void setOver() { m_over = true; }

    HubLine& line() { return m_line; }
    std::uint64_t faultsMade() const { return m_faultsMade; }

private:
    void placeCalls();
    bool isWanted() const;
    void watchCall();
    void cut();
    void servePort(int end);
    void serveSession(int end);
    void onEvent(int end, const host::SessionEvent& event);
    void checkTimes(int end, const host::SessionSettings& settings, qint64 beganMs);
    void beHostile();

    const HubScenario& m_scenario;
    HubLine m_line;
    rig::Rng m_rng;
    HubSite* m_sites[2] = {nullptr, nullptr}; // not owned
    rig::TestDirectory m_directory; // of both sites
    HubLine* m_tapped = nullptr; // not owned
    HubLedger* m_ledger = nullptr; // not owned
    Checks* m_checks = nullptr; // not owned
    bool m_faultsOver = false;
    bool m_over = false;
    bool m_isDead = false; // the call that stands
    bool m_isCutWhenWhole = false; // as the last byte of a message comes
    qint64 m_namedMs[2] = {-1, -1}; // when the session at that end heard who calls
    qint64 m_usefulMs[2] = {0, 0}; // and last something of use
    std::uint64_t m_faultsMade = 0;
};

} // namespace soak
