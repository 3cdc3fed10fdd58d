// Invented bytes as a line may carry them.
#pragma once

#include "com/link/ccompacket.h"

#include <QByteArray>

namespace traffic {

constexpr int payloadBytes = 1014; // of a full packet with the usual settings
constexpr int pieceBytes = 64; // as a port gives them if it is read often

// Each payload byte is 'a': no start symbol in it.
QByteArray wire(int type, int number, int size);

// Data packets with the numbers from first on, 255 being followed by 0.
QByteArray dataPackets(int first, int count);

// One start symbol in 256 bytes on average, as in random bytes; the same bytes each time.
QByteArray randomBytes(int size);

// Packets of this type are cut out and then ignored by a channel, whatever their number.
constexpr int ignoredType = 2;

// Useless bytes, then a packet. A bad reader keeps the bytes before an incomplete packet and
// searches them again with each piece.
struct Burst
{
    QByteArray atOnce; // arrives in one piece
    QByteArray inPieces; // then this
    int bytes() const { return atOnce.size() + inPieces.size(); }
};

// size bytes of garbage and a packet with size bytes of payload, all in pieces.
Burst garbageInPieces(int size);
// The same, the garbage and the packet's header in one piece.
Burst garbageAtOnce(int size);
// A damaged packet of size bytes in place of the garbage.
Burst damagedPacketAtOnce(int size);

// Calls take(bytes) for each piece of the burst, as it arrives.
template <typename Take>
void play(const Burst& burst, Take take)
{
    if (!burst.atOnce.isEmpty())
        take(burst.atOnce);
    for (int offset = 0; offset < burst.inPieces.size(); offset += pieceBytes)
        take(burst.inPieces.mid(offset, pieceBytes));
}

} // namespace traffic
