// One run of two link channels over a simulated line, with everything that must hold
// looked at after every step.
#pragma once

#include "tests/soak/runresult.h"
#include "tests/soak/scenario.h"

namespace soak {

RunResult runLink(const Scenario& scenario);

} // namespace soak
