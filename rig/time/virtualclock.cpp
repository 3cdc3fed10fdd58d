#include "rig/time/virtualclock.h"

#include <atomic>
#include <ctime>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr qint64 nsPerMs = 1000000;
constexpr qint64 nsPerS = 1000000000;

std::atomic<bool> active{false};
std::atomic<qint64> monotonicNs{0};
std::atomic<qint64> wallNs{0};
qint64 startNs = 0;

timespec toTimespec(qint64 ns)
{
    const qint64 part = (ns % nsPerS + nsPerS) % nsPerS; // never below 0, before 1970 either
    return {static_cast<time_t>((ns - part) / nsPerS), static_cast<long>(part)};
}

qint64 realNs(clockid_t clock)
{
    timespec time{};
    syscall(SYS_clock_gettime, clock, &time);
    return time.tv_sec * nsPerS + time.tv_nsec;
}

void advanceNs(qint64 ns)
{
    monotonicNs += ns;
    wallNs += ns;
}

} // namespace

// These stand before libc's in the program, for its libraries too.
extern "C" {

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (active && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) {
        *time = toTimespec(wallNs);
        return 0;
    }
    if (active && (clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_BOOTTIME)) {
        *time = toTimespec(monotonicNs);
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

__attribute__((visibility("default"))) int gettimeofday(timeval* time, void*) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / 1000;
    return 0;
}

__attribute__((visibility("default"))) int nanosleep(const timespec* time, timespec* left)
{
    if (!active)
        return static_cast<int>(syscall(SYS_nanosleep, time, left));
    advanceNs(time->tv_sec * nsPerS + time->tv_nsec);
    return 0;
}
}

namespace testsupport {

VirtualClock::VirtualClock()
{
    startNs = realNs(CLOCK_MONOTONIC);
    monotonicNs = startNs;
    wallNs = realNs(CLOCK_REALTIME);
    active = true;
}

VirtualClock::~VirtualClock()
{
    active = false;
}

qint64 VirtualClock::nowMs() const
{
    return (monotonicNs - startNs) / nsPerMs;
}

void VirtualClock::advanceMs(qint64 ms)
{
    advanceNs(ms * nsPerMs);
}

void VirtualClock::stepWallClockMs(qint64 ms)
{
    wallNs += ms * nsPerMs;
}

} // namespace testsupport
