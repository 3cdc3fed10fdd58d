#include "com/link/silence.h"

#include <algorithm>

namespace {

constexpr int mostDoublings = 16; // the resend interval ends the growth long before

} // namespace

void Silence::confirmed(qint64 nowUs)
{
    m_lastConfirmedUs = nowUs;
    m_probes = 0;
    m_roundBytes = 0;
}

void Silence::probed(qint64 nowUs)
{
    m_lastProbeUs = nowUs;
    ++m_probes;
}

void Silence::repeatedInRound(int wireBytes, qint64 nowUs)
{
    if (m_roundBytes == 0)
        m_roundsBeganUs = nowUs;
    m_roundBytes += wireBytes;
    m_roundsEndedUs = nowUs;
}

bool Silence::mayRepeatAll(qint64 nowUs)
{
    if (m_probes < probesBeforeRounds)
        return false;
    if (m_roundBytes >= mostRoundBytes && nowUs - m_roundsEndedUs > m_roundsEndedUs - m_roundsBeganUs)
        m_roundBytes = 0;
    return m_roundBytes < mostRoundBytes;
}

bool Silence::isProbeDue(qint64 nowUs, qint64 departedUs, qint64 timeoutUs, qint64 resendIntervalUs) const
{
    const qint64 sinceUs = std::max({departedUs, m_lastConfirmedUs, m_lastProbeUs});
    const qint64 backedOffUs = timeoutUs << std::min(m_probes, mostDoublings);
    return nowUs - sinceUs >= std::min(backedOffUs, std::max(resendIntervalUs, timeoutUs));
}
