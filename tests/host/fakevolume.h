// A volume that is as full as a test says. A program that links fakevolume.cpp has its own
// statvfs().
#pragma once

#include <atomic>

namespace hosttest {

// -1: as it is.
extern std::atomic<long long> fakeFreeBytes;
extern std::atomic<long long> fakeFreeInodes;

} // namespace hosttest
