#include "com/link/roundtriptime.h"

#include <algorithm>
#include <cstdlib>

void RoundTripTime::take(qint64 sampleUs)
{
    if (!isMeasured()) { // (2.2)
        m_smoothedUs = sampleUs;
        m_variationUs = sampleUs / 2;
        return;
    }
    m_variationUs += (std::abs(m_smoothedUs - sampleUs) - m_variationUs) / 4; // (2.3), beta 1/4
    m_smoothedUs += (sampleUs - m_smoothedUs) / 8; // alpha 1/8
}

void RoundTripTime::takeDoubtful(qint64 sampleUs)
{
    take(isMeasured() ? std::min(sampleUs, 2 * usualUs()) : sampleUs);
}

qint64 RoundTripTime::timeoutUs(qint64 passGapUs, qint64 unmeasuredUs) const
{
    if (!isMeasured())
        return std::min(longestTimeoutUs, unmeasuredUs);
    const qint64 answerUs = m_smoothedUs + std::max(granularityUs, 4 * m_variationUs);
    return std::min(longestTimeoutUs, answerUs + passGapUs + passGapUs / 2);
}

qint64 RoundTripTime::usualUs() const
{
    return m_smoothedUs + 4 * m_variationUs;
}
