// The packet cutter: each call finds the same as a second, simple implementation, and the packets
// are the same however the bytes are split.
#include "com/link/ccompacket.h"
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/packets.h"

#include <QByteArray>

#include <cstdint>
#include <vector>

using fuzz::require;

namespace {

bool isSame(const CComPacket& packet, const fuzz::PlainPacket& plain)
{
    return packet.type == plain.type && packet.number == plain.number && packet.data == plain.data &&
           packet.bytes == plain.bytes;
}

std::vector<fuzz::PlainPacket> cutWhole(const QByteArray& bytes)
{
    std::vector<fuzz::PlainPacket> packets;
    QByteArray buffer = bytes;
    QByteArray plainBuffer = bytes;
    for (;;) {
        CComPacket packet;
        packet.data = "of an earlier packet";
        fuzz::PlainPacket plain;
        const bool found = packet.readPacket(&buffer);
        require(found == fuzz::plainRead(plainBuffer, plain), "the cutter finds a packet where a plain reading does");
        require(buffer == plainBuffer, "the cutter leaves what a plain reading leaves");
        if (!found)
            return packets;
        require(isSame(packet, plain), "the packet is the described one");
        packet.bytes.clear();
        packet.makePacket();
        require(packet.bytes == plain.bytes, "making the packet again gives the same bytes");
        packets.push_back(plain);
    }
}

// pieceSize changes from piece to piece.
void cutInPieces(const QByteArray& bytes, int pieceSize, const std::vector<fuzz::PlainPacket>& expected)
{
    QByteArray buffer;
    std::size_t count = 0;
    for (int at = 0; at < bytes.size();) {
        buffer += bytes.mid(at, pieceSize);
        at += pieceSize;
        pieceSize = 1 + (pieceSize * 5 + 3) % 61;
        for (CComPacket packet; packet.readPacket(&buffer); ++count)
            require(count < expected.size() && isSame(packet, expected[count]), "a split changes no packet");
    }
    require(count == expected.size(), "a split loses no packet");
}

} // namespace

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    const int choice = input.byte();
    const QByteArray bytes = choice < 128 ? input.rest() : fuzz::lineBytes(input);
    cutInPieces(bytes, 1 + choice % 61, cutWhole(bytes));
    return 0;
}
