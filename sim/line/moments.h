// Moments of the monotonic clock, in nanoseconds; -1 is none.
#pragma once

#include <QtGlobal>

#include <algorithm>
#include <ctime>

namespace sim {

constexpr qint64 nsPerMs = 1000000;
constexpr qint64 nsPerSecond = 1000 * nsPerMs;

constexpr qint64 sliceNs = nsPerMs; // no shorter sleep while bytes flow

inline qint64 clockNs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<qint64>(now.tv_sec) * nsPerSecond + now.tv_nsec;
}

// The earlier of two moments, of which -1 is none.
inline qint64 earlier(qint64 first, qint64 second)
{
    if (first < 0 || second < 0)
        return std::max(first, second);
    return std::min(first, second);
}

// A length of time, not negative, as system calls take it.
inline timespec toTimespec(qint64 ns)
{
    return {static_cast<time_t>(ns / nsPerSecond), static_cast<long>(ns % nsPerSecond)};
}

} // namespace sim
