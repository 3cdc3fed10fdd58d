#include "com/link/sendwindow.h"

#include <algorithm>
#include <limits>

namespace {

// An overtaken packet was repeated. It keeps the peer back while the peer expects a number
// within the grace past it and what arrives is within the grace ahead of that: up to here.
constexpr int heldBackPastRepeat = 2 * linkrules::overtakenGrace;

// Of numbers that both lie within the last few hundred packets.
bool isAfter(quint8 a, quint8 b)
{
    return a != b && linkrules::stepsFrom(b, a) < 128;
}

} // namespace

void SendWindow::noteRepeated(quint8 number, quint8 oldest)
{
    if (!m_mayLag) {
        m_mayLag = true;
        m_leastExpected = oldest;
        m_lastRepeated = number;
    } else if (isAfter(number, m_lastRepeated)) {
        m_lastRepeated = number;
    }
}

void SendWindow::noteConfirmed(quint8 number)
{
    if (!m_mayLag)
        return;
    const quint8 proved = m_oldestWhenSent[number];
    if (isAfter(proved, m_leastExpected))
        m_leastExpected = proved;
    if (isAfter(proved, m_lastRepeated) && linkrules::stepsFrom(m_lastRepeated, number) > heldBackPastRepeat)
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
        const int proved = linkrules::stepsFrom(m_leastExpected, queue.first().number);
        limit = std::min(limit, std::max(0, maxAheadOfLag - proved));
    }
    return limit;
}
