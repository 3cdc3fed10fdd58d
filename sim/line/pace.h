// How long bytes take on a line with a fixed rate. Time is handed in, as nanoseconds of any one
// monotonic clock.
#pragma once

#include <QtGlobal>

namespace sim {

class Pace
{
public:
    explicit Pace(int bitsPerSecond) : m_rate(bitsPerSecond) {}

    int rate() const { return m_rate; }

    // The line was idle until now: it saves no time.
    void begin(qint64 nowNs);
    // How many bytes it has had the time to carry, beyond those taken.
    qint64 room(qint64 nowNs) const;
    // When so many bytes behind those taken are through. With none: when the last taken one is.
    qint64 throughNs(qint64 bytes) const;
    void take(qint64 bytes);

private:
    const int m_rate;
    // Byte n since m_baseNs is through at m_baseNs + n * 10 bits / rate, so that nothing is
    // rounded twice.
    qint64 m_baseNs = 0;
    qint64 m_bytesSinceBase = 0;
};

} // namespace sim
