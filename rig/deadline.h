// Waiting for a condition instead of for a time.
#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>

#include <chrono>
#include <thread>

namespace rig {

// Generous: a test must pass with all cores busy and under a sanitizer.
constexpr int defaultDeadlineMs = 30000;

// Polls condition, running the calling thread's events between looks; false when the
// deadline passed first.
template <typename Condition>
bool waitFor(Condition condition, int deadlineMs = defaultDeadlineMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > deadlineMs)
            return false;
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace rig
