// The signals that end a program, taken from a descriptor instead of by a handler.
#pragma once

namespace sim {

// Blocks SIGINT, SIGTERM and SIGHUP for this thread and those that it starts from now on.
// Readable once one of them has come; -1 with errno on failure. The caller owns it.
int stopSignalDescriptor();

} // namespace sim
