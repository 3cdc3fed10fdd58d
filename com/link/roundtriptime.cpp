#include "com/link/roundtriptime.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr int mostUsuals = 4;
constexpr int mostUsualsOfDoubtful = 2;

} // namespace

void RoundTripTime::take(qint64 sampleUs)
{
    takeAtMost(sampleUs, mostUsuals);
}

void RoundTripTime::takeDoubtful(qint64 sampleUs)
{
    takeAtMost(sampleUs, mostUsualsOfDoubtful);
}

void RoundTripTime::takeAtMost(qint64 sampleUs, int usuals)
{
    if (!isMeasured()) { // (2.2)
        m_smoothedUs = sampleUs;
        m_variationUs = sampleUs / 2;
        return;
    }
    sampleUs = std::min(sampleUs, usuals * usualUs());
    m_variationUs += (std::abs(m_smoothedUs - sampleUs) - m_variationUs) / 4; // (2.3), beta 1/4
    m_smoothedUs += (sampleUs - m_smoothedUs) / 8; // alpha 1/8
}

qint64 RoundTripTime::timeoutUs(qint64 passGapUs, qint64 unmeasuredUs) const
{
    if (!isMeasured())
        return std::min(longestTimeoutUs, unmeasuredUs);
    return std::min(longestTimeoutUs, usualUs() + passGapUs + passGapUs / 2);
}

qint64 RoundTripTime::usualUs() const
{
    return m_smoothedUs + std::max(granularityUs, 4 * m_variationUs);
}
