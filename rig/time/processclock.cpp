#include "rig/time/processclock.h"

#include <atomic>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#define INTERPOSED extern "C" __attribute__((visibility("default")))

namespace {

constexpr std::int64_t nsPerUs = 1000;
constexpr std::int64_t nsPerS = 1000000000;

// Read by all threads of a program.
std::atomic<bool> isStarted{false};
std::atomic<std::int64_t> currentNs{0};
std::atomic<std::int64_t> monotonicOffset{0};
std::atomic<std::int64_t> wallOffset{0};
std::atomic<std::int64_t> lookNs{0};
std::atomic<int (*)(std::int64_t)> nanosleepInstead{nullptr};

bool showsWallClock(clockid_t id)
{
    return id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE || id == CLOCK_TAI;
}

} // namespace

namespace rig {

void startClock(const ClockStart& start)
{
    currentNs = 0;
    monotonicOffset = start.monotonicNs;
    wallOffset = start.wallNs;
    lookNs = start.lookNs;
    isStarted = true;
}

void stopClock()
{
    isStarted = false;
}

bool isClockStarted()
{
    return isStarted;
}

std::int64_t clockNs()
{
    return currentNs.load(std::memory_order_relaxed);
}

std::int64_t lookAtClockNs()
{
    const std::int64_t ns = lookNs.load(std::memory_order_relaxed);
    return currentNs.fetch_add(ns, std::memory_order_relaxed) + ns;
}

void advanceClockNs(std::int64_t ns)
{
    currentNs += ns;
}

void moveClockToNs(std::int64_t ns)
{
    if (ns > clockNs())
        currentNs.store(ns, std::memory_order_relaxed);
}

std::int64_t wallOffsetNs()
{
    return wallOffset;
}

void stepWallClockNs(std::int64_t ns)
{
    wallOffset += ns;
}

std::int64_t shownNs(clockid_t id)
{
    return lookAtClockNs() + (showsWallClock(id) ? wallOffset : monotonicOffset);
}

bool measuresWork(clockid_t id)
{
    return id < 0 || id == CLOCK_PROCESS_CPUTIME_ID || id == CLOCK_THREAD_CPUTIME_ID;
}

void setNanosleep(int (*sleepNs)(std::int64_t ns))
{
    nanosleepInstead = sleepNs;
}

std::int64_t toNs(const timespec& time)
{
    return time.tv_sec * nsPerS + time.tv_nsec;
}

timespec toTimespec(std::int64_t ns)
{
    const std::int64_t part = (ns % nsPerS + nsPerS) % nsPerS; // never below 0, before 1970 either
    return {static_cast<time_t>((ns - part) / nsPerS), static_cast<long>(part)};
}

} // namespace rig

using namespace rig;

// These stand before libc's in the program, for its libraries too.

INTERPOSED int clock_gettime(clockid_t id, timespec* time) noexcept
{
    if (!isStarted || measuresWork(id))
        return static_cast<int>(syscall(SYS_clock_gettime, id, time));
    *time = toTimespec(shownNs(id));
    return 0;
}

INTERPOSED int gettimeofday(timeval* time, void* zone) noexcept
{
    if (!isStarted)
        return static_cast<int>(syscall(SYS_gettimeofday, time, zone));
    const timespec now = toTimespec(shownNs(CLOCK_REALTIME));
    time->tv_sec = now.tv_sec;
    time->tv_usec = now.tv_nsec / nsPerUs;
    return 0;
}

INTERPOSED time_t time(time_t* result) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (result)
        *result = now.tv_sec;
    return now.tv_sec;
}

INTERPOSED int nanosleep(const timespec* duration, timespec* rest)
{
    if (!isStarted)
        return static_cast<int>(syscall(SYS_nanosleep, duration, rest));
    if (const auto sleep = nanosleepInstead.load())
        return sleep(toNs(*duration));
    advanceClockNs(toNs(*duration));
    return 0;
}
