// How long a channel may go without a pass: what a host slept between two calls of read() lately.
#pragma once

#include <QtGlobal>

#include <algorithm>

class PassGap
{
public:
    static constexpr qint64 longestUs = 300 * 1000; // a host that sleeps longer has other troubles

    // At the beginning of each pass, by a monotonic clock.
    void pass(qint64 nowUs)
    {
        const qint64 sinceUs = m_lastPassUs < 0 ? 0 : nowUs - m_lastPassUs;
        m_gapUs = std::min(longestUs, std::max(sinceUs, m_gapUs - m_gapUs * sinceUs / fadingUs));
        m_lastPassUs = nowUs;
    }

    // The longest gap; one that is not seen again fades within some seconds.
    qint64 us() const { return m_gapUs; }

private:
    static constexpr qint64 fadingUs = 8 * 1000 * 1000;

    qint64 m_lastPassUs = -1;
    qint64 m_gapUs = 0;
};
