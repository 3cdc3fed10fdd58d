// One end of a scenario's line: its port, the channel over it, and the pace of its host.
#pragma once

#include "plugin/api/cchannel.h"
#include "rig/rng.h"
#include "tests/soak/checks.h"
#include "tests/soak/scenario.h"

#include <QSerialPort>

#include <cstdint>
#include <memory>

class CAbstractChannelsState;

namespace soak {

class ScenarioEnd
{
public:
    std::int64_t nextTurnNs() const { return m_nextTurnNs; }

protected:
    // Opens the port; when it does not open, that is a violation. drawsFrom: which of the
    // seed's random numbers are its own, apart from those of other parts of the run.
    ScenarioEnd(int end, const Scenario& scenario, std::uint64_t drawsFrom, Checks* checks);
    ~ScenarioEnd() = default;

    // Ours, or a peer without our safeguards, as the scenario has it. state is not owned.
    std::unique_ptr<CChannel> makeChannel(CAbstractChannelsState* state);
    // At the beginning of a turn.
    void runEvents();
    // At its end: a period from now, or a pause.
    void scheduleTurn();
    void beginTurnsNow();

    const int m_end;
    const Scenario& m_scenario;
    const EndSettings& m_settings;
    Checks* const m_checks; // not owned
    rig::Rng m_rng;
    QSerialPort m_port;

private:
    std::int64_t m_nextTurnNs = 0;
};

} // namespace soak
