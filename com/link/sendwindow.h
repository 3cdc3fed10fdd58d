// How far ahead new packets may be sent without losing them for good.
//
// The peer confirms, and throws away, a packet too far ahead of the number it expects.
// And the number it expects can lag behind what it has: a repeat that fills a gap is
// delivered alone, and what was held behind it follows only with the next packet that
// arrives ahead. Until then the peer's window ends earlier than the confirmations tell.
#pragma once

#include "com/link/ccompacket.h"
#include "com/link/linkrules.h"

#include <QList>

#include <array>

class SendWindow
{
public:
    // While the peer has a gap, no new packet goes out more than this far beyond it.
    static constexpr int maxAheadOfGap = 60;

    // While the peer may lag, no new packet goes out more than this far beyond the least
    // number that it may expect: its window of 119, less the overtaken packets that may
    // keep it back for as many numbers as their grace.
    static constexpr int maxAheadOfLag = 111;

    // A packet went out for the first time, or again; oldest: the oldest number then
    // waiting for confirmation.
    void noteSent(quint8 number, quint8 oldest) { m_oldestWhenSent[number] = placeOfOldest(oldest); }
    void noteRepeated(quint8 number, quint8 oldest);

    // A packet that had gone out was confirmed.
    void noteConfirmed(quint8 number);

    // A host adds one write to a queue that is nearly full. As long as that is no more
    // packets than this, the queue stays within the peer's window by itself.
    static constexpr int maxPacketsPerWrite = linkrules::numberWindow - linkrules::maxPacketsInQueue - 1;

    // The same limit as newPacketsLimit, for what one write makes: none for up to
    // maxPacketsPerWrite packets of blockSize bytes; what makes more waits like after a
    // repeat, as the first loss may show only when the window is passed.
    static int writeLimit(int writtenBytes, int blockSize);

    // Whether a confirmation of its number can be meant for this packet, so far ahead of
    // the oldest. Where the limits hold a packet back, it is meant for an older one of the
    // same number, which was repeated more often than needed.
    static bool mayBeConfirmed(const CComPacket& packet, int aheadOfOldest)
    {
        return packet.sentTime != 0 || aheadOfOldest <= maxAheadOfLag;
    }

    // How many numbers beyond the queue's first a packet may be that was never sent.
    int newPacketsLimit(const QList<CComPacket>& queue) const;

private:
    // A packet's place in the whole stream. Its number alone does not order packets that lie
    // further apart than half of the numbers, as the oldest ones of two sendings may.
    using Place = qint64;
    Place placeOfOldest(quint8 oldest);

    // On a line that keeps the order, the peer can lag only after a repeat. Later
    // confirmations prove how far it has come: when a packet arrives for the first time,
    // the peer moves on over everything that had been confirmed before it was sent, save
    // as many numbers as the grace of an overtaken packet.
    bool m_mayLag = false;
    Place m_oldest = 256; // as told last; past the 0 of packets that never went out
    Place m_leastExpected = 0; // as proved, while it may lag
    Place m_lastRepeated = 0; // the furthest since it may lag
    std::array<Place, 256> m_oldestWhenSent{}; // by the packet's number
};
