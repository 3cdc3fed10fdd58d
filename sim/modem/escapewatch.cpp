#include "sim/modem/escapewatch.h"

namespace sim {

namespace {

constexpr int escapeLength = 3;
constexpr int largestEscapeByte = 127;

} // namespace

void EscapeWatch::start(qint64 nowNs)
{
    m_count = 0;
    m_lastByteNs = nowNs;
}

void EscapeWatch::add(char byte, int escapeByte, qint64 guardNs, qint64 nowNs)
{
    const qint64 pauseNs = nowNs - m_lastByteNs;
    m_lastByteNs = nowNs;
    if (static_cast<quint8>(byte) != escapeByte || escapeByte > largestEscapeByte) {
        m_count = 0;
    } else if (pauseNs >= guardNs && (guardNs > 0 || m_count == 0)) {
        m_count = 1;
    } else if (m_count > 0) {
        // A fourth one in a row is data.
        m_count = m_count < escapeLength ? m_count + 1 : 0;
    }
}

qint64 EscapeWatch::dueNs(qint64 guardNs) const
{
    return m_count == escapeLength ? m_lastByteNs + guardNs : -1;
}

} // namespace sim
