#include "com/link/drainrate.h"

#include <algorithm>

namespace {

constexpr double gain = 0.25;
constexpr double usPerS = 1e6;

} // namespace

void DrainRate::look(qint64 nowUs, qint64 writtenBytes, qint64 pendingBytes)
{
    const qint64 gone = writtenBytes - pendingBytes;
    if (m_wasBusy) {
        m_sampledUs += nowUs - m_lastUs;
        m_sampledBytes += gone - m_lastGone;
    }
    m_lastUs = nowUs;
    m_lastGone = gone;
    const bool hasRunDry = m_wasBusy && pendingBytes == 0;
    m_wasBusy = pendingBytes > 0;
    if (hasRunDry || m_sampledUs >= (isMeasured() ? sampleUs : firstSampleUs))
        finishSample(hasRunDry);
}

// A port that has run dry took at least so much.
void DrainRate::finishSample(bool hasRunDry)
{
    if (m_sampledUs >= firstSampleUs && m_sampledBytes > 0) {
        const double sample = static_cast<double>(m_sampledBytes) * usPerS / static_cast<double>(m_sampledUs);
        if (!isMeasured())
            m_bytesPerS = sample;
        else if (hasRunDry)
            m_bytesPerS = std::max(m_bytesPerS, sample);
        else
            m_bytesPerS += gain * (sample - m_bytesPerS);
    }
    m_sampledUs = 0;
    m_sampledBytes = 0;
}
