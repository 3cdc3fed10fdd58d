// The unit that two link channels exchange: a numbered slice of a host's stream, or a
// list of the numbers that have arrived. docs/link-protocol.md draws the bytes.
#pragma once

#include <QByteArray>

enum PacketType : quint8
{
    DataPacket = 0,
    ConfirmationPacket = 1,
};

// A value; operations on different packets may run in different threads.
class CComPacket
{
public:
    // Fills bytes from type, number and data. The length field holds the low 16 bits of
    // the payload's size, so a payload of more than 65535 bytes cannot be read back.
    void makePacket();

    // Takes one packet from the front of buffer. True if there was a complete one: it is now in this
    // object, and removed from buffer together with the bytes before it. Otherwise false; bytes that
    // cannot become a packet may be removed from buffer anyway, and this object may have changed.
    bool readPacket(QByteArray* buffer);

    enum class Cut
    {
        Packet, // one was taken; it ends at *end
        Incomplete, // one has begun at *end; the bytes before it need not be searched again
        Nothing, // the bytes from *end on may be the beginning of a packet
    };

    // The same over bytes that stay where they are; then data and bytes are views of them, for as
    // long as they stay unchanged.
    Cut cut(const char* buffer, int size, int* end);

    quint8 type = DataPacket; // a PacketType; other values travel, and are ignored
    quint8 number = 0; // of a data packet: 255 is followed by 0
    QByteArray data; // payload: a slice of the stream, or one confirmed number a byte
    QByteArray bytes; // the wire image
    qint64 sentTime = 0; // last written, ms since the epoch; 0: never. Not on the wire
};
