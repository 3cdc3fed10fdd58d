// Runs of two sessions over link channels on a simulated line.
#pragma once

#include "tests/soak/runresult.h"
#include "tests/soak/scenario.h"

namespace soak {

RunResult runSessions(const Scenario& scenario);

} // namespace soak
