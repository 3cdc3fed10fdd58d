// Processor time of single threads of this process.
#pragma once

#include <QtGlobal>

#include <map>

// By thread number, in ns.
using ThreadTimes = std::map<int, qint64>;

// Of every thread that runs now. Empty where the kernel does not tell.
ThreadTimes threadTimesNs();

// What the threads of now that are not in others have used since then.
qint64 usedNs(const ThreadTimes& then, const ThreadTimes& now, const ThreadTimes& others);
