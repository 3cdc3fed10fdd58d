#include "com/link/transmissions.h"

#include <algorithm>

void Transmissions::sent(quint8 number, int wireBytes)
{
    Packet& packet = m_packets[number];
    packet = {};
    packet.isOut = true;
    packet.wireBytes = wireBytes;
    write(number, packet);
    packet.liveOrder = packet.order;
    packet.liveEnd = packet.end;
}

void Transmissions::repeated(quint8 number, bool isNeeded)
{
    Packet& packet = m_packets[number];
    write(number, packet);
    packet.departedUs = -1;
    if (!isNeeded)
        return;
    packet.isLost = false;
    packet.liveOrder = packet.order;
    packet.liveEnd = packet.end;
    packet.live = {};
}

void Transmissions::write(quint8 number, Packet& packet)
{
    m_written += packet.wireBytes;
    packet.order = ++m_orders;
    packet.end = m_written;
    m_inPort.push_back({number, packet.order, packet.end});
}

void Transmissions::look(qint64 nowUs, qint64 pendingBytes, DeliveryRate& rate, bool hasMore)
{
    const qint64 gone = m_written - pendingBytes;
    for (; !m_inPort.empty() && m_inPort.front().end <= gone; m_inPort.pop_front()) {
        const Copy& copy = m_inPort.front();
        Packet& packet = m_packets[copy.number];
        if (!packet.isOut)
            continue;
        if (copy.order == packet.order)
            packet.departedUs = nowUs;
        if (copy.order == packet.liveOrder) {
            packet.live = rate.start(nowUs, m_departedBytes == 0, hasMore || pendingBytes > 0);
            if (!packet.isLost)
                m_departedBytes += packet.wireBytes;
        }
    }
}

Transmissions::Packet Transmissions::confirmed(quint8 number)
{
    Packet& packet = m_packets[number];
    m_evidence = std::max(m_evidence, packet.liveOrder);
    dropUnderWay(packet);
    packet.isOut = false;
    return packet;
}

QVector<quint8> Transmissions::takeLost()
{
    QVector<quint8> lost;
    for (int number = 0; number < static_cast<int>(m_packets.size()); ++number) {
        Packet& packet = m_packets[static_cast<std::size_t>(number)];
        if (!packet.isOut || packet.isLost || packet.order >= m_evidence)
            continue;
        dropUnderWay(packet);
        packet.isLost = true;
        lost.append(static_cast<quint8>(number));
    }
    std::sort(lost.begin(), lost.end(), [this](quint8 a, quint8 b) { return m_packets[a].order < m_packets[b].order; });
    return lost;
}

void Transmissions::dropUnderWay(const Packet& packet)
{
    if (!packet.isLost && packet.live.departedUs >= 0)
        m_departedBytes -= packet.wireBytes;
}
