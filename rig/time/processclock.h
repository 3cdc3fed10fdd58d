// The clock of the whole process, once it is started: what the program and its libraries read
// as time (clock_gettime, gettimeofday, time) moves only as told here, and nanosleep moves it on
// by its time and returns at once. What measures work stays real.
//
// Linking this into a program replaces those functions; until startClock() they do what they
// always do. Times are nanoseconds since startClock() unless the name says otherwise.
#pragma once

#include <cstdint>
#include <ctime>

namespace rig {

struct ClockStart
{
    std::int64_t monotonicNs = 0; // what the monotonic clock shows at the start
    std::int64_t wallNs = 0; // and the wall clock, since the epoch
    std::int64_t lookNs = 0; // how far a look moves the clock, so that a loop of looks ends
};

void startClock(const ClockStart& start);
void stopClock(); // time is real again
bool isClockStarted();

std::int64_t clockNs();
std::int64_t lookAtClockNs(); // a look as the program takes it
void advanceClockNs(std::int64_t ns);
void moveClockToNs(std::int64_t ns); // never back

std::int64_t wallOffsetNs(); // what the wall clock shows beyond clockNs(), since the epoch
void stepWallClockNs(std::int64_t ns); // either way; the monotonic clock does not notice

// What the clock of that name shows, by a look.
std::int64_t shownNs(clockid_t id);
bool measuresWork(clockid_t id);

// What nanosleep does instead of moving the clock. Null: nothing.
void setNanosleep(int (*sleepNs)(std::int64_t ns));

std::int64_t toNs(const timespec& time);
timespec toTimespec(std::int64_t ns);

} // namespace rig
