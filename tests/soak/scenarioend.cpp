#include "tests/soak/scenarioend.h"

#include "com/link/ccomchannel.h"
#include "tests/soak/plainpeer.h"

#include <QCoreApplication>

namespace soak {

using namespace rig;

ScenarioEnd::ScenarioEnd(int end, const Scenario& scenario, std::uint64_t drawsFrom, Checks* checks)
    : m_end(end), m_scenario(scenario), m_settings(scenario.ends[end]), m_checks(checks),
      m_rng(scenario.seed * 16 + static_cast<std::uint64_t>(end) + drawsFrom)
{
    m_port.setPortName(QString::fromStdString(Line::path(end)));
    if (!m_port.open(QIODevice::ReadWrite))
        checks->violation("the port does not open: " + m_port.errorString().toStdString());
}

std::unique_ptr<CChannel> ScenarioEnd::makeChannel(CAbstractChannelsState* state)
{
    if (m_scenario.plainPeer[m_end])
        return std::make_unique<PlainPeer>(&m_port, state, m_end, m_scenario.channel);
    return std::make_unique<CComChannel>(&m_port, state, m_end, m_scenario.adaptive[m_end]);
}

void ScenarioEnd::runEvents()
{
    if (m_settings.runsEvents)
        QCoreApplication::processEvents();
}

void ScenarioEnd::scheduleTurn()
{
    const int waitMs = m_rng.chance(m_settings.pauseChance) ? static_cast<int>(m_rng.between(0, m_settings.pauseMs))
                                                            : m_settings.periodMs;
    m_nextTurnNs = nowNs() + waitMs * nsPerMs;
}

void ScenarioEnd::beginTurnsNow()
{
    m_nextTurnNs = nowNs();
}

} // namespace soak
