// What one packet of the link takes on the wire, in bytes; docs/link-protocol.md draws it.
// Numbers of more than one byte are little-endian.
#pragma once

namespace packetlayout {

constexpr char startSymbol = 0x7C;
constexpr int typeOffset = 1;
constexpr int numberOffset = 2;
constexpr int lengthOffset = 3; // 2 bytes: the payload's
constexpr int headerCheckOffset = lengthOffset + 2; // 2 bytes: crc16 of the bytes before it
constexpr int headerSize = headerCheckOffset + 2;
constexpr int payloadCheckSize = 4; // crc32 of header and payload, if there is a payload
constexpr int maxOverhead = headerSize + payloadCheckSize;

// What a packet size leaves for header and checks: one byte less than they take, so a full packet
// is one byte longer than the packet size. Peers do the same.
constexpr int blockReserve = maxOverhead - 1;

// The smallest packet size that leaves a byte for payload.
constexpr int smallestPacketSize = blockReserve + 1;

} // namespace packetlayout
