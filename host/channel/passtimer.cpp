#include "host/channel/passtimer.h"

#include <QAbstractEventDispatcher>

#include <utility>

namespace host {

PassTimer::PassTimer(std::function<void(bool wasWoken)> pass) : m_pass(std::move(pass))
{
    m_timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&m_timer, &QTimer::timeout, &m_timer, [this] { beginPass(); });
}

void PassTimer::start()
{
    // Every round of the loop ends with awake(), also the one in which the pass ran that set the sleep.
    // Only a round that began to wait after that can end the sleep.
    const auto* const loop = QAbstractEventDispatcher::instance();
    QObject::connect(loop, &QAbstractEventDispatcher::aboutToBlock, &m_timer, [this] { m_isWaiting = sleeps(); });
    QObject::connect(loop, &QAbstractEventDispatcher::awake, &m_timer, [this] { endSleep(); });
    m_timer.start(0);
}

void PassTimer::setSleep(int ms)
{
    if (m_timer.interval() != ms)
        m_timer.setInterval(ms);
}

void PassTimer::wake()
{
    const auto endAnySleep = [this] {
        m_isWaiting = sleeps();
        endSleep();
    };
    QMetaObject::invokeMethod(&m_timer, endAnySleep, Qt::QueuedConnection);
}

void PassTimer::beginPass()
{
    m_isWaiting = false;
    m_pass(std::exchange(m_wasWoken, false));
}

void PassTimer::endSleep()
{
    if (!std::exchange(m_isWaiting, false))
        return;
    m_wasWoken = true;
    m_timer.start(0);
}

} // namespace host
