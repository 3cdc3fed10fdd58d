// What became of each packet that went out and is not confirmed yet: when it left the driver, which
// of its copies may still arrive, and which packets a confirmation proves to be lost.
//
// The line keeps the order of bytes. So once something that was sent later is confirmed, what was
// sent before it and is not confirmed did not arrive, or its confirmation did not (the idea of
// RFC 9002, 6.1, with a reordering threshold of nothing).
#pragma once

#include "com/link/deliveryrate.h"

#include <QVector>

#include <array>
#include <deque>

class Transmissions
{
public:
    struct Packet
    {
        bool isOut = false; // went out and is not confirmed
        bool isLost = false; // known, and not repeated since
        int wireBytes = 0;
        qint64 order = 0; // of the latest copy, among all that was sent
        qint64 liveOrder = 0; // of the earliest copy that is not known to be lost
        qint64 liveEnd = 0; // offset of that copy's last byte in all that was written
        qint64 end = 0; // the same of the latest copy
        DeliveryRate::Start live; // when the earliest of these copies left the driver
        qint64 departedUs = -1; // when the latest copy did; -1: not yet
    };

    // A packet was written for the first time.
    void sent(quint8 number, int wireBytes);
    // Once more. isNeeded: because it was known to be lost; then nothing of earlier copies counts
    // any more.
    void repeated(quint8 number, bool isNeeded);
    // Anything else was written: confirmations.
    void written(int bytes) { m_written += bytes; }

    // Of all that was written, pendingBytes are still in the port. Notes what has left it.
    // hasMore: more than that waits to be sent.
    void look(qint64 nowUs, qint64 pendingBytes, DeliveryRate& rate, bool hasMore);

    // The packet is out of the queue. What it was, for a last time.
    Packet confirmed(quint8 number);

    // To be called when all numbers of a confirmation have been told: the packets that are lost by
    // its evidence and were not known to be, in the order in which they were sent.
    QVector<quint8> takeLost();

    const Packet& of(quint8 number) const { return m_packets[number]; }
    qint64 writtenBytes() const { return m_written; }
    // Out, not known to be lost and not confirmed; of all that, what has left the driver.
    qint64 underWayBytes() const { return m_departedBytes; }
    bool hasAllDeparted() const { return m_inPort.empty(); }

private:
    void write(quint8 number, Packet& packet);
    void dropUnderWay(const Packet& packet);

    struct Copy
    {
        quint8 number;
        qint64 order;
        qint64 end;
    };

    std::array<Packet, 256> m_packets; // by number
    std::deque<Copy> m_inPort; // written, and still in it at the last look
    qint64 m_orders = 0;
    qint64 m_evidence = 0; // the latest copy that surely arrived
    qint64 m_written = 0;
    qint64 m_departedBytes = 0;
};
