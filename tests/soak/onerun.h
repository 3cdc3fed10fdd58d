// A run in the process at hand, told to whoever started it.
#pragma once

#include "tests/soak/scenario.h"

#include <cstdint>

namespace soak {

// Runs the scenario in this process (whose settings it takes as they stand), prints one
// line of figures and one for each violation to standard output. True: no violation.
bool runAndReport(const Scenario& scenario);

} // namespace soak
