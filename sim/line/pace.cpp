#include "sim/line/pace.h"

#include "sim/line/linesettings.h"
#include "sim/line/moments.h"

#include <algorithm>

namespace sim {

void Pace::begin(qint64 nowNs)
{
    m_baseNs = nowNs;
    m_bytesSinceBase = 0;
}

qint64 Pace::room(qint64 nowNs) const
{
    if (nowNs <= m_baseNs)
        return 0;
    const qint64 elapsedNs = nowNs - m_baseNs;
    const qint64 seconds = elapsedNs / nsPerSecond;
    const qint64 bits = seconds * m_rate + elapsedNs % nsPerSecond * m_rate / nsPerSecond;
    return std::max<qint64>(bits / bitsPerByte - m_bytesSinceBase, 0);
}

qint64 Pace::throughNs(qint64 bytes) const
{
    // Rounded up: room() at this very moment counts the byte.
    return m_baseNs + ((m_bytesSinceBase + bytes) * bitsPerByte * nsPerSecond + m_rate - 1) / m_rate;
}

void Pace::take(qint64 bytes)
{
    m_bytesSinceBase += bytes;
    // The base moves on by whole ten seconds, in which exactly rate bytes pass.
    while (m_bytesSinceBase > m_rate) {
        m_bytesSinceBase -= m_rate;
        m_baseNs += bitsPerByte * nsPerSecond;
    }
}

} // namespace sim
