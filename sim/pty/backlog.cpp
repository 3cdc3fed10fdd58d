#include "sim/pty/backlog.h"

#include "sim/pty/ptyendpoint.h"

namespace sim {

int Backlog::add(const QByteArray& bytes)
{
    const int place = mostBytes - m_bytes.size();
    m_bytes += bytes.left(place);
    return qMax(bytes.size() - place, 0);
}

bool Backlog::flush(PtyEndpoint& endpoint)
{
    if (!m_bytes.isEmpty()) {
        const qint64 sent = endpoint.write(m_bytes);
        if (sent > 0)
            m_bytes.remove(0, static_cast<int>(sent));
    }
    return !m_bytes.isEmpty();
}

} // namespace sim
