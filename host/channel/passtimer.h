// Calls a session's passes: the next one at once, or after a sleep, or as soon as anything wakes the
// thread's event loop out of a sleep. As a rule that is the notifier of the port, since the channel
// does not tell that something has come.
#pragma once

#include <QTimer>

#include <functional>

namespace host {

// For the thread that it was made in, except wake(). Passes are called from a timer.
class PassTimer
{
public:
    // wasWoken: the pass comes before its time.
    explicit PassTimer(std::function<void(bool wasWoken)> pass);
    PassTimer(const PassTimer&) = delete;
    PassTimer& operator=(const PassTimer&) = delete;

    void start();
    void stop() { m_timer.stop(); }

    // To be called in a pass: the time to the next one, if nothing wakes the event loop before. A
    // notifier that is handled after this pass in the same round of the loop does not end the sleep.
    void setSleep(int ms);
    [[nodiscard]] bool sleeps() const { return m_timer.isActive() && m_timer.interval() > 0; }

    // Any thread.
    void wake();

private:
    void beginPass();
    void endSleep();

    const std::function<void(bool wasWoken)> m_pass;
    QTimer m_timer;
    bool m_isWaiting = false; // the event loop waits, and a sleep has begun
    bool m_wasWoken = false;
};

} // namespace host
