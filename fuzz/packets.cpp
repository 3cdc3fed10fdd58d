#include "fuzz/packets.h"

#include "rig/packetoracle.h"

#include <string>

namespace fuzz {

namespace {

constexpr int maxLineBytes = 512;

QByteArray toBytes(const std::string& text)
{
    return QByteArray(text.data(), static_cast<int>(text.size()));
}

} // namespace

QByteArray plainWire(int type, int number, const QByteArray& data)
{
    return toBytes(
        rig::packetImage({static_cast<std::uint8_t>(type), static_cast<std::uint8_t>(number), data.toStdString()}));
}

bool plainRead(QByteArray& buffer, PlainPacket& packet)
{
    using rig::PacketPlace;
    const PacketPlace place = rig::findPacket(buffer.constData(), static_cast<std::size_t>(buffer.size()));
    if (place.kind == PacketPlace::Kind::None)
        buffer.remove(0, static_cast<int>(place.begin));
    if (place.kind != PacketPlace::Kind::Whole)
        return false;
    const rig::WirePacket found = rig::packetAt(buffer.constData(), place);
    packet.type = found.type;
    packet.number = found.number;
    packet.data = toBytes(found.payload);
    packet.bytes = buffer.mid(static_cast<int>(place.begin), static_cast<int>(place.end - place.begin));
    buffer.remove(0, static_cast<int>(place.end));
    return true;
}

namespace {

enum Piece
{
    Run,
    Packet,
    EmptyPacket,
    DamagedPacket,
    LonelyHeader,
    LongPacket,
    PacketInPacket,
    PieceCount
};

QByteArray damagedPacket(Input& input)
{
    const int type = input.byte();
    const int number = input.byte();
    QByteArray wire = plainWire(type, number, input.run(input.byte()));
    const int at = input.byte() % wire.size();
    wire[at] = static_cast<char>(wire.at(at) ^ input.byte());
    return wire;
}

// times: how many such packets come, with numbers counting up, where the piece is a packet.
QByteArray pieceBytes(Piece piece, int times, Input& input)
{
    switch (piece) {
    case Run: return input.run(input.byte());
    case Packet: {
        const int type = input.byte();
        const int number = input.byte();
        const QByteArray data = input.run(input.byte());
        QByteArray bytes;
        for (int i = 0; i < times; ++i)
            bytes += plainWire(type, (number + i) & 255, data);
        return bytes;
    }
    case EmptyPacket: {
        const int type = input.byte();
        return plainWire(type, input.byte(), QByteArray());
    }
    case DamagedPacket: return damagedPacket(input);
    case LonelyHeader: {
        const int type = input.byte();
        const int number = input.byte();
        return toBytes(rig::headerImage(static_cast<std::uint8_t>(type), static_cast<std::uint8_t>(number),
                                        static_cast<std::uint16_t>(input.word())));
    }
    case LongPacket: {
        const int number = input.byte();
        return plainWire(0, number, QByteArray(input.word() % 2048, static_cast<char>(input.byte())));
    }
    case PacketInPacket: {
        const int number = input.byte();
        const QByteArray inner = input.run(input.byte()) + plainWire(0, input.byte(), input.run(input.byte()));
        return plainWire(0, number, inner).chopped(input.byte() % 12);
    }
    case PieceCount: break;
    }
    return {};
}

} // namespace

QByteArray lineBytes(Input& input)
{
    QByteArray bytes;
    // A few bytes of input make many here; long rows only make the target slow.
    while (!input.atEnd() && bytes.size() < maxLineBytes) {
        const int choice = input.byte();
        const int times = 1 + (choice >> 4);
        bytes += pieceBytes(static_cast<Piece>((choice & 15) % PieceCount), times, input);
    }
    return bytes;
}

} // namespace fuzz
