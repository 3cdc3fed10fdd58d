// Says when a session has its next pass: at once, after a sleep, or as soon as anything wakes the
// thread's event loop out of a sleep. That is above all the port's notifier: the channel itself
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

    // In a pass: how long it is to the next one, if nothing wakes the event loop. What wakes it in
    // the moment between the end of this pass and the beginning of its wait is not noticed.
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
