// Which row of the signal table a descriptor of the program belongs to.
#pragma once

#include "sim/pty/signaltable.h"

namespace sim {

// The row of the pty slave behind fd, or null when fd is anything else. Asked anew each
// time, since descriptors are closed and reused behind our back.
SignalRow* rowOf(int fd);

} // namespace sim
