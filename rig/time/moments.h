// Moments and lengths of simulated time, in nanoseconds.
#pragma once

#include <cstdint>

namespace rig {

constexpr std::int64_t nsPerMs = 1000000;
constexpr std::int64_t nsPerS = 1000 * nsPerMs;
constexpr std::int64_t never = INT64_MAX;

} // namespace rig
