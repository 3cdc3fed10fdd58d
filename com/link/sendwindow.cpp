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

void SendWindow::noteSent(quint8 number, quint8 oldest)
{
    const Place place = placeOfOldest(oldest);
    ++m_sendings;
    m_sent[number] = {place + linkrules::stepsFrom(oldest, number), place, m_sendings, m_sendings, 0};
}

void SendWindow::noteRepeated(quint8 number, quint8 oldest)
{
    const Place repeated = placeOfOldest(oldest) + linkrules::stepsFrom(oldest, number);
    m_lastRepeated = m_mayLag ? std::max(m_lastRepeated, repeated) : repeated;
    if (!m_mayLag)
        m_leastExpected = m_oldest;
    m_mayLag = true;
    m_sent[number].lastSending = ++m_sendings;
}

// Whether the packet at the earlier place had arrived when this confirmed one arrived for the first
// time. Either nothing of it was sent later; or it was confirmed sooner, and this one was sent once
// and so arrived after that.
bool SendWindow::hasArrivedBefore(const Sent& packet, Place earlier) const
{
    const Sent& before = m_sent[static_cast<quint8>(earlier)];
    if (before.place != earlier || before.confirmation == 0)
        return false;
    const bool wasSentOnce = packet.firstSending == packet.lastSending;
    return before.lastSending < packet.firstSending || (wasSentOnce && before.confirmation < packet.confirmation);
}

// The number that the peer expected at least when this confirmed packet had arrived, but for the
// grace. What was confirmed before it went out first needs no other proof.
SendWindow::Place SendWindow::provedBy(const Sent& packet) const
{
    Place proved = std::max(m_leastExpected, packet.oldest);
    while (proved < packet.place && hasArrivedBefore(packet, proved))
        ++proved;
    return proved;
}

void SendWindow::noteConfirmed(const QVector<quint8>& numbers)
{
    ++m_confirmations;
    for (const quint8 number : numbers)
        m_sent[number].confirmation = m_confirmations;
    for (int i = 0; m_mayLag && i < numbers.size(); ++i) {
        const Sent& packet = m_sent[numbers.at(i)];
        const Place proved = provedBy(packet);
        m_leastExpected = std::max(m_leastExpected, proved);
        // Repeats that are still under way are behind what the peer expects by now.
        if (proved > m_lastRepeated && packet.place > m_lastRepeated + heldBackPastRepeat)
            m_mayLag = false;
    }
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
