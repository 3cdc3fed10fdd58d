// Time that only a test moves. While an object of this class lives, the clocks of the
// process (and with them QDateTime and QElapsedTimer) stand still, and each sleep moves
// them on by its time and returns at once. For tests of one thread.
#pragma once

#include <QtGlobal>

namespace rig {

class VirtualClock
{
public:
    VirtualClock();
    ~VirtualClock();
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    // Since the object was made.
    qint64 nowMs() const;
    void advanceMs(qint64 ms);

    // Sets the wall clock forward, or back; the monotonic clock goes on as it does.
    void stepWallClockMs(qint64 ms);
};

} // namespace rig
