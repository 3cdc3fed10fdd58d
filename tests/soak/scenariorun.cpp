#include "tests/soak/scenariorun.h"

#include "com/link/currentcomsettings.h"

namespace soak {

using namespace rig;

namespace {

constexpr std::int64_t memoryCheckNs = 60 * nsPerS;

} // namespace

ScenarioRun::ScenarioRun(const Scenario& scenario) : m_scenario(scenario), m_line(scenario.line, scenario.seed)
{
    ChannelComSettings settings;
    settings.packetSize = scenario.channel.packetSize;
    setCurrentComSettings(settings);
}

RunResult ScenarioRun::run()
{
    for (const Phase& phase : m_scenario.phases) {
        startPhase(phase);
        const std::int64_t end = nowNs() + phase.durationNs;
        while (nowNs() < end && !m_checks.failed())
            step();
    }
    startPhase(Phase());
    finish();

    RunResult result;
    result.violations = m_checks.violations();
    result.virtualNs = nowNs();
    result.digest = m_checks.digest();
    for (int end = 0; end < 2; ++end) {
        result.bytesCarried += m_line.from(end).bytesCarried();
        result.faults += m_line.from(end).faultsMade();
    }
    complete(&result);
    return result;
}

void ScenarioRun::startPhase(const Phase& phase)
{
    stepWallClock(phase.wallStepMs);
    for (int end = 0; end < 2; ++end)
        m_line.setFaults(end, phase.faults[end]);
    beginPhase(phase);
}

void ScenarioRun::watchMemory()
{
    if (nowNs() < m_nextMemoryCheckNs)
        return;
    m_checks.checkMemory(mostMemoryBytes);
    m_nextMemoryCheckNs = nowNs() + memoryCheckNs;
}

} // namespace soak
