// What every process begins with that runs something in simulated time.
#pragma once

namespace rig {

// Starts virtual time, on the same day for all, and keeps Qt's debug output quiet, where the
// channel tells of each damaged packet.
void beginRunProcess();

} // namespace rig
