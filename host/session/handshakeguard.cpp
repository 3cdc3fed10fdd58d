#include "host/session/handshakeguard.h"

#include <QMutexLocker>

#include <chrono>

namespace host {

namespace {

constexpr int maxRemembered = 6; // more would not slow down more, but take longer to forget

qint64 steadyMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

} // namespace

HandshakeGuard::HandshakeGuard(Clock clock) : m_clock(clock ? std::move(clock) : Clock(steadyMs)) {}

int HandshakeGuard::remembered(qint64 nowMs) const
{
    return static_cast<int>(qMax<qint64>(0, m_remembered - (nowMs - m_sinceMs) / forgetMs));
}

void HandshakeGuard::failed()
{
    QMutexLocker locker(&m_mutex);
    const qint64 nowMs = m_clock();
    m_remembered = qMin(maxRemembered, remembered(nowMs) + 1);
    m_sinceMs = nowMs;
    ++m_failures;
}

int HandshakeGuard::answerDelayMs() const
{
    QMutexLocker locker(&m_mutex);
    const int count = remembered(m_clock());
    return count == 0 ? 0 : qMin(maxDelayMs, firstDelayMs << (count - 1));
}

int HandshakeGuard::failures() const
{
    QMutexLocker locker(&m_mutex);
    return m_failures;
}

} // namespace host
