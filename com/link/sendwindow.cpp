#include "com/link/sendwindow.h"

#include <algorithm>
#include <limits>

namespace {

// An overtaken packet was repeated. It keeps the peer back while the peer expects a number
// within the grace past it and what arrives is within the grace ahead of that: up to here.
constexpr int heldBackPastRepeat = 2 * linkrules::overtakenGrace;

} // namespace

// The oldest moves by less than half of the numbers from one sending to the next.
SendWindow::Place SendWindow::placeOfOldest(quint8 oldest)
{
    m_oldest += static_cast<qint8>(oldest - static_cast<quint8>(m_oldest));
    return m_oldest;
}

void SendWindow::noteRepeated(quint8 number, quint8 oldest)
{
    const Place repeated = placeOfOldest(oldest) + linkrules::stepsFrom(oldest, number);
    m_lastRepeated = m_mayLag ? std::max(m_lastRepeated, repeated) : repeated;
    if (!m_mayLag)
        m_leastExpected = m_oldest;
    m_mayLag = true;
}

void SendWindow::noteConfirmed(quint8 number)
{
    if (!m_mayLag)
        return;
    const Place proved = m_oldestWhenSent[number];
    const Place confirmed = proved + linkrules::stepsFrom(static_cast<quint8>(proved), number);
    m_leastExpected = std::max(m_leastExpected, proved);
    if (proved > m_lastRepeated && confirmed > m_lastRepeated + heldBackPastRepeat)
        m_mayLag = false;
}

int SendWindow::writeLimit(int writtenBytes, int blockSize)
{
    const bool isWithinWindow = writtenBytes <= maxPacketsPerWrite * blockSize;
    return isWithinWindow ? std::numeric_limits<int>::max() : maxAheadOfLag;
}

int SendWindow::newPacketsLimit(const QList<CComPacket>& queue) const
{
    int limit = std::numeric_limits<int>::max();
    if (linkrules::hasGap(queue))
        limit = maxAheadOfGap;
    // The oldest packet itself may always go, so the link never stands still.
    if (m_mayLag && !queue.isEmpty()) {
        const int proved = linkrules::stepsFrom(static_cast<quint8>(m_leastExpected), queue.first().number);
        limit = std::min(limit, std::max(0, maxAheadOfLag - proved));
    }
    return limit;
}
