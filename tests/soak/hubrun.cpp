#include "tests/soak/hubrun.h"

#include "host/session/session.h"
#include "rig/time/fibers.h"
#include "rig/time/simdisk.h"
#include "tests/soak/hubledger.h"
#include "tests/soak/hubline.h"
#include "tests/soak/hubport.h"
#include "tests/soak/hubrogue.h"
#include "tests/soak/hubsite.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <vector>

namespace soak {

using namespace rig;

namespace {

constexpr std::int64_t checkNs = 120 * nsPerS;
constexpr int callsOfMessage = 20; // of those that take long, one behind the other
constexpr std::int64_t deliveryNs = 120 * nsPerS; // beside what the line takes for the bytes

class HubRun
{
public:
    HubRun(const HubScenario& scenario, const std::string& directory)
        : m_scenario(scenario), m_ledger(&m_checks), m_rng(scenario.seed * 64 + 17)
    {
        for (int index = 0; index < static_cast<int>(scenario.sites.size()); ++index)
            m_sites.push_back(std::make_unique<HubSite>(index, scenario, directory, &m_ledger, &m_checks));
        for (const HubScenario::LinePlan& plan : scenario.lines)
            m_calls.push_back(std::make_unique<HubCalls>(plan, scenario, scenario.seed * 64 + 40 + m_calls.size()));
    }

    RunResult run()
    {
        for (const auto& site : m_sites) {
            m_fibers.start([&site] { site->live(); }, site->process());
            m_fibers.start([&site] { site->suffer(); });
        }
        for (const auto& calls : m_calls) {
            HubSite* first = siteOf(calls->line().plan.ends[0]);
            HubSite* second = siteOf(calls->line().plan.ends[1]);
            calls->start(&m_fibers, first, second, &m_calls.front()->line(), &m_ledger, &m_checks);
        }
        startRogue();
        faultyTime();
        finish();
        return result();
    }

private:
    HubSite* siteOf(int index) { return index < 0 ? nullptr : m_sites[static_cast<std::size_t>(index)].get(); }

    // Of the first two lines that are a rogue's.
    void startRogue()
    {
        std::vector<HubLine*> lines;
        for (const auto& calls : m_calls) {
            if (calls->line().plan.isRogue)
                lines.push_back(&calls->line());
        }
        if (lines.size() < 2)
            return;
        m_rogue = std::make_unique<HubRogue>(lines[0], lines[1], siteOf(lines[0]->plan.ends[0]), &m_ledger, &m_checks,
                                             m_scenario.seed * 64 + 63);
        m_fibers.start([this] { m_rogue->live(); });
    }

    void faultyTime()
    {
        std::int64_t nextCheck = checkNs;
        while (nowNs() < m_scenario.durationNs && !m_checks.failed()) {
            m_fibers.runUntil(nowNs() + nsPerS);
            giveMessages();
            if (nowNs() < nextCheck)
                continue;
            m_ledger.check();
            m_checks.checkMemory(mostMemoryBytes);
            nextCheck = nowNs() + checkNs;
        }
    }

    void giveMessages()
    {
        for (const auto& site : m_sites) {
            if (!m_rng.chance(m_scenario.sites[static_cast<std::size_t>(site->index())].messagesPerHour / 3600))
                continue;
            const std::vector<int> others = neighbours(site->index());
            const int to = others[m_rng.below(others.size())];
            site->giveMessage(
                to, m_rng.chance(0.05) ? 0 : static_cast<int>(m_rng.logBetween(1, m_scenario.largestMessage)));
        }
    }

    std::vector<int> neighbours(int site) const
    {
        std::vector<int> found;
        for (const HubScenario::LinePlan& plan : m_scenario.lines) {
            for (int end = 0; end < 2; ++end) {
                if (plan.ends[end] == site && !plan.isHostile)
                    found.push_back(plan.ends[1 - end]);
            }
        }
        return found;
    }

    // The last fault is over: all that is queued arrives.
    void finish()
    {
        for (const auto& site : m_sites) {
            site->endFaults();
            if (m_rng.chance(0.5))
                site->restartSoon();
        }
        for (const auto& calls : m_calls)
            calls->endFaults();
        const std::int64_t deadline = nowNs() + deliveryNs + transferNs() + diskNs();
        while (!m_checks.failed() && !m_ledger.isAllDelivered()) {
            m_fibers.runUntil(nowNs() + 5 * nsPerS);
            m_ledger.check();
            if (nowNs() > deadline && !m_ledger.isAllDelivered())
                m_checks.violation("not delivered in time without faults:" + m_ledger.describeLeft());
        }
        for (const auto& calls : m_calls)
            calls->setOver();
        if (m_rogue)
            m_rogue->setOver();
        for (const auto& site : m_sites)
            site->setOver();
        // Sessions in the middle of something end as their lines do.
        const std::int64_t stopDeadline = nowNs() + 1200 * nsPerS;
        while (m_fibers.runUntil(nowNs() + nsPerS)) {
            if (nowNs() > stopDeadline) {
                m_checks.violation("something does not end");
                return;
            }
        }
        if (!m_checks.failed())
            m_ledger.checkAnew();
    }

    // For what is queued and not refused, on the slowest line between two sites.
    std::int64_t transferNs()
    {
        std::int64_t longest = 0;
        for (const HubScenario::LinePlan& plan : m_scenario.lines) {
            if (plan.isHostile)
                continue;
            for (int end = 0; end < 2; ++end) {
                const std::int64_t bytes = m_ledger.bytesLeft(plan.ends[end], plan.ends[1 - end]);
                longest = std::max(longest, bytes * 12 * nsPerS / plan.bitsPerSecond);
            }
        }
        return longest;
    }

    // What the slowest disk takes to put everything into an inbox and out of a queue.
    std::int64_t diskNs() const
    {
        std::int64_t syncNs = 0;
        for (const HubScenario::SitePlan& site : m_scenario.sites)
            syncNs = std::max(syncNs, site.syncNs + site.callNs);
        return static_cast<std::int64_t>(m_ledger.countLeft()) * callsOfMessage * syncNs;
    }

    RunResult result()
    {
        RunResult result;
        result.violations = m_checks.violations();
        result.virtualNs = nowNs();
        result.digest = m_checks.digest();
        result.bytesDelivered = m_ledger.bytesDelivered();
        result.connections = 0;
        for (const auto& calls : m_calls) {
            result.bytesCarried += calls->line().from(0).bytesCarried() + calls->line().from(1).bytesCarried();
            result.connections += calls->line().call();
            result.faults += calls->faultsMade();
        }
        for (const auto& site : m_sites)
            result.faults += site->disk().faultsMade();
        return result;
    }

    const HubScenario& m_scenario;
    Checks m_checks;
    HubLedger m_ledger;
    Rng m_rng;
    Fibers m_fibers;
    std::vector<std::unique_ptr<HubSite>> m_sites;
    std::vector<std::unique_ptr<HubCalls>> m_calls;
    std::unique_ptr<HubRogue> m_rogue;
};

} // namespace

RunResult runHub(const HubScenario& scenario, const std::string& directory)
{
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    beginSimulatedDisks(scenario.seed);
    // Fibers that do not end hold what they stand on: left alone, the process ends soon.
    auto* run = new HubRun(scenario, std::filesystem::canonical(directory)); // as descriptors show it
    const RunResult result = run->run();
    if (result.violations.empty())
        delete run;
    return result;
}

} // namespace soak
