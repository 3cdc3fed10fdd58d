// How far ahead new packets may be sent without losing them for good.
//
// The peer confirms a packet that is too far ahead of the number it expects, and throws it away.
// And the number it expects can lag: a repeat that fills a gap is delivered alone, and the packets
// held after it are delivered only with the next packet that arrives ahead. Until then the peer's
// window ends earlier than the confirmations suggest.
#pragma once

#include "com/link/ccompacket.h"
#include "com/link/linkrules.h"

#include <QList>
#include <QVector>

#include <array>

class SendWindow
{
public:
    // While the peer has a gap, no new packet goes out more than this far beyond it.
    static constexpr int maxAheadOfGap = 60;

    // While the peer may lag, no new packet goes out more than this far beyond the lowest number
    // that it may expect: its window of 119, less the grace of 8 for which overtaken packets may
    // hold it back.
    static constexpr int maxAheadOfLag = 111;

    // A packet went out for the first time, or again; oldest: the oldest number then
    // waiting for confirmation.
    void noteSent(quint8 number, quint8 oldest);
    void noteRepeated(quint8 number, quint8 oldest);

    // The packets that one confirmation has taken from the queue. All had gone out.
    void noteConfirmed(const QVector<quint8>& numbers);

    // A host may add one write to a queue that is nearly full. If that write makes no more packets
    // than this, the queue stays within the peer's window by itself.
    static constexpr int maxPacketsPerWrite = linkrules::numberWindow - linkrules::maxPacketsInQueue - 1;

    // The same limit as newPacketsLimit(), for the packets of one write: no limit for up to
    // maxPacketsPerWrite packets of blockSize bytes. With more, packets wait as after a repeat,
    // because the first loss may be noticed too late, after the end of the window.
    static int writeLimit(int writtenBytes, int blockSize);

    // Whether a confirmation of its number can belong to this packet, aheadOfOldest numbers after
    // the oldest one. If the limits have held this packet back, the confirmation belongs to an
    // older packet with the same number, which was repeated more often than needed.
    static bool mayBeConfirmed(const CComPacket& packet, int aheadOfOldest)
    {
        return packet.sentTime != 0 || aheadOfOldest <= maxAheadOfLag;
    }

    // How many numbers beyond the queue's first packet a new packet may be.
    int newPacketsLimit(const QList<CComPacket>& queue) const;

private:
    // A packet's place in the whole stream. Its number alone does not order packets that lie
    // further apart than half of the numbers, as the oldest ones of two sendings may.
    using Place = qint64;
    Place placeOfOldest(quint8 oldest);

    // What is known of the latest packet with a number. Sendings and confirmations are counted,
    // first and repeated ones together, because the line keeps their order.
    struct Sent
    {
        Place place = 0;
        Place oldest = 0; // when it went out first
        qint64 firstSending = 0;
        qint64 lastSending = 0;
        qint64 confirmation = 0; // the one that has named it; 0: none
    };
    bool hasArrivedBefore(const Sent& packet, Place earlier) const;
    Place provedBy(const Sent& packet) const;

    // On a line that keeps the order of bytes, the peer can lag only after a repeat. Later
    // confirmations prove how far it is: when a packet arrives for the first time, the peer moves
    // past everything that has arrived before, except as many numbers as the grace of an overtaken
    // packet.
    bool m_mayLag = false;
    Place m_oldest = 256; // as told last; past the 0 of packets that never went out
    Place m_leastExpected = 0; // as proved, while it may lag
    Place m_lastRepeated = 0; // the furthest since it may lag
    qint64 m_sendings = 0;
    qint64 m_confirmations = 0;
    std::array<Sent, 256> m_sent{}; // by number
};
