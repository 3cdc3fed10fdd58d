#include "com/link/drainrate.h"

#include <algorithm>

namespace {

constexpr double gain = 0.25;
constexpr double usPerS = 1e6;

} // namespace

void DrainRate::look(qint64 nowUs, qint64 writtenBytes, qint64 pendingBytes)
{
    const qint64 gone = writtenBytes - pendingBytes;
    const bool wasBusy = m_lastPending > 0 || writtenBytes > m_lastWritten; // what is written follows a look
    if (wasBusy) {
        m_sampledUs += nowUs - m_lastUs;
        m_sampledBytes += gone - (m_lastWritten - m_lastPending);
        m_hasRunDry = m_hasRunDry || pendingBytes == 0;
    }
    m_lastUs = nowUs;
    m_lastWritten = writtenBytes;
    m_lastPending = pendingBytes;
    if (m_sampledUs >= (isMeasured() ? sampleUs : firstSampleUs))
        finishSample();
}

// A port that has run dry took at least so much.
void DrainRate::finishSample()
{
    if (m_sampledBytes > 0) { // a modem that stalls says nothing of its rate
        const double sample = static_cast<double>(m_sampledBytes) * usPerS / static_cast<double>(m_sampledUs);
        if (!isMeasured())
            m_bytesPerS = sample;
        else if (m_hasRunDry)
            m_bytesPerS = std::max(m_bytesPerS, sample);
        else
            m_bytesPerS += gain * (sample - m_bytesPerS);
        m_fastest = std::max(m_fastest, sample);
    }
    m_sampledUs = 0;
    m_sampledBytes = 0;
    m_hasRunDry = false;
}
