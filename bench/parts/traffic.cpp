#include "bench/parts/traffic.h"

#include "com/formats/packetlayout.h"
#include "rig/randombytes.h"

namespace {

traffic::Burst splitBehindHeader(const QByteArray& front, int size)
{
    const QByteArray packet = traffic::wire(traffic::ignoredType, 1, size);
    return {front + packet.left(packetlayout::headerSize), packet.mid(packetlayout::headerSize)};
}

} // namespace

QByteArray traffic::wire(int type, int number, int size)
{
    CComPacket packet;
    packet.type = static_cast<quint8>(type);
    packet.number = static_cast<quint8>(number);
    packet.data = QByteArray(size, 'a');
    packet.makePacket();
    return packet.bytes;
}

QByteArray traffic::dataPackets(int first, int count)
{
    QByteArray bytes;
    for (int number = first; number < first + count; ++number)
        bytes += wire(DataPacket, number, payloadBytes);
    return bytes;
}

QByteArray traffic::randomBytes(int size)
{
    return rig::randomBytes(size, 1);
}

traffic::Burst traffic::garbageInPieces(int size)
{
    return {QByteArray(), randomBytes(size) + wire(ignoredType, 1, size)};
}

traffic::Burst traffic::garbageAtOnce(int size)
{
    return splitBehindHeader(randomBytes(size), size);
}

traffic::Burst traffic::damagedPacketAtOnce(int size)
{
    QByteArray damaged = wire(ignoredType, 1, size);
    damaged[damaged.size() / 2] = 'b';
    return splitBehindHeader(damaged, size);
}
