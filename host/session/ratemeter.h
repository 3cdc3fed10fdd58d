// Bytes a second, measured over one window after another.
#pragma once

#include <QtGlobal>

namespace host {

class RateMeter
{
public:
    // nowMs, here and below: any steady clock, in milliseconds.
    RateMeter(qint64 windowMs, qint64 nowMs) : m_windowMs(windowMs), m_sinceMs(nowMs) {}

    // Counts bytes; call it also with 0, so that it notices that time passes. True when a window
    // ended.
    bool count(int bytes, qint64 nowMs)
    {
        m_bytes += bytes;
        const qint64 elapsedMs = nowMs - m_sinceMs;
        if (elapsedMs < m_windowMs)
            return false;
        m_bytesPerS = m_bytes * 1000 / elapsedMs;
        m_sinceMs = nowMs;
        m_bytes = 0;
        return true;
    }

    // Over the last complete window; 0 before there is one.
    [[nodiscard]] qint64 bytesPerS() const { return m_bytesPerS; }

private:
    qint64 m_windowMs;
    qint64 m_sinceMs;
    qint64 m_bytes = 0;
    qint64 m_bytesPerS = 0;
};

} // namespace host
