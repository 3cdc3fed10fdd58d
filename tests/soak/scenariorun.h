// The course of every run: the scenario's phases with what goes wrong in them, then a time
// without faults in which everything must come right.
#pragma once

#include "rig/line/line.h"
#include "tests/soak/checks.h"
#include "tests/soak/runresult.h"
#include "tests/soak/scenario.h"

namespace soak {

class ScenarioRun
{
public:
    virtual ~ScenarioRun() = default;
    ScenarioRun(const ScenarioRun&) = delete;
    ScenarioRun& operator=(const ScenarioRun&) = delete;

    // Once. Needs virtual time, started.
    RunResult run();

protected:
    // Sets the process's packet size.
    explicit ScenarioRun(const Scenario& scenario);

    // The clock and the line are set for it already.
    virtual void beginPhase(const Phase&) {}
    // One turn of one end, and what must hold behind it.
    virtual void step() = 0;
    // Without faults: until everything is done, or a violation.
    virtual void finish() = 0;
    // Adds what only this kind of run counts.
    virtual void complete(RunResult* result) const = 0;

    // At every step: looks now and then.
    void watchMemory();

    const Scenario& m_scenario;
    Checks m_checks;
    rig::Line m_line;

private:
    void startPhase(const Phase& phase);

    std::int64_t m_nextMemoryCheckNs = 0;
};

} // namespace soak
