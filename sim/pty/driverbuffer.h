// A serial driver's buffer of bounded depth, made of the pty and its row in the signal table:
// how much of what the program writes goes in, and how long it waits for room.
#pragma once

#include "sim/pty/signaltable.h"

#include <cstddef>
#include <sys/types.h>

namespace sim {

constexpr long nanosPerSecond = 1000000000;
constexpr long longestSliceNs = 50000000; // where the line's pace tells that it takes long: it may be unplugged

// Whether a program that waits for room is woken.
bool hasRoom(const SignalRow& row);

// How long a program that waits for room sleeps before it looks again: one slice. With a
// wake-up level it sleeps until the bytes above that level have left at the line's pace, so
// that looking costs little.
long roomSliceNs(const SignalRow& row);

// As the calls of libc on a pty slave.
ssize_t writeSlave(SignalRow& row, int fd, const char* data, std::size_t count);
int flushSlave(SignalRow& row, int fd, int queue);
// Waits until the modem has taken all; false when a signal came, then errno is EINTR.
bool waitUntilTaken(const SignalRow& row, int fd);

} // namespace sim
