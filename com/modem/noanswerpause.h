// How long to wait before a modem that does not answer is asked again.
#pragma once

#include <atomic>

// Grows by a second with every silence, up to 30 s. One object serves all ports of the
// process; any thread may call it.
class NoAnswerPause
{
public:
    static constexpr int initialSeconds = 1;
    static constexpr int maxSeconds = 30;

    // One more silence: returns the seconds to pause now, 2 after the first one.
    int lengthen()
    {
        int seconds = m_seconds.load();
        while (seconds < maxSeconds && !m_seconds.compare_exchange_weak(seconds, seconds + 1)) {
        }
        return seconds < maxSeconds ? seconds + 1 : maxSeconds;
    }

    // The modem has said something.
    void reset() { m_seconds = initialSeconds; }

private:
    std::atomic<int> m_seconds{initialSeconds};
};
