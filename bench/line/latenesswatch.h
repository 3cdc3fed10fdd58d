// How late this machine wakes a process that sleeps: a measurement taken while the machine
// could not keep the line's pace says nothing about the programs on the line.
#pragma once

namespace benchline {

// Prints "MONOTONIC-SECONDS LATENESS-MS" for every wake-up that comes later than this.
constexpr double toldLatenessMs = 10;

// Runs until standard input ends.
int watchLateness();

} // namespace benchline
