// Several installations with several lines at once, over their real stores.
#pragma once

#include "tests/soak/hubscenario.h"
#include "tests/soak/runresult.h"

namespace soak {

// directory: for the disks; it and what stands in it is made anew. Needs virtual time, started.
RunResult runHub(const HubScenario& scenario, const std::string& directory);

} // namespace soak
