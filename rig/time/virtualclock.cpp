#include "rig/time/virtualclock.h"

#include "rig/time/processclock.h"

namespace rig {

namespace {

constexpr qint64 nsPerMs = 1000000;

qint64 realNs(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return toNs(time);
}

} // namespace

VirtualClock::VirtualClock()
{
    startClock({realNs(CLOCK_MONOTONIC), realNs(CLOCK_REALTIME), 0});
}

VirtualClock::~VirtualClock()
{
    stopClock();
}

qint64 VirtualClock::nowMs() const
{
    return clockNs() / nsPerMs;
}

void VirtualClock::advanceMs(qint64 ms)
{
    advanceClockNs(ms * nsPerMs);
}

void VirtualClock::stepWallClockMs(qint64 ms)
{
    stepWallClockNs(ms * nsPerMs);
}

} // namespace rig
