// Runs of two sessions over link channels on a simulated line.
#pragma once

#include "tests/soak/linkrun.h"

namespace soak {

RunResult runSessions(const Scenario& scenario);

} // namespace soak
