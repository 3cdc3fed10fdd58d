// How late this machine wakes a process that sleeps. If the machine was too slow for the line's
// rate, a measurement says nothing about the programs on the line.
#pragma once

namespace benchline {

// Prints "MONOTONIC-SECONDS LATENESS-MS" for every wake-up that comes later than this.
constexpr double toldLatenessMs = 10;

// Runs until standard input ends.
int watchLateness();

} // namespace benchline
