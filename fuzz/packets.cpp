#include "fuzz/packets.h"

#include <array>

namespace fuzz {

namespace {

constexpr int headerBytes = 7;
constexpr int checkBytes = 4;
constexpr int maxLineBytes = 512;

std::array<quint16, 256> makeTable16()
{
    std::array<quint16, 256> table{};
    for (int i = 0; i < 256; ++i) {
        int value = i << 8;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 0x8000) ? (value << 1) ^ 0x1021 : value << 1;
        table[static_cast<std::size_t>(i)] = static_cast<quint16>(value);
    }
    return table;
}

std::array<quint32, 256> makeTable32()
{
    std::array<quint32, 256> table{};
    for (quint32 i = 0; i < 256; ++i) {
        quint32 value = i;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) ? (value >> 1) ^ 0xEDB88320u : value >> 1;
        table[i] = value;
    }
    return table;
}

const std::array<quint16, 256> table16 = makeTable16();
const std::array<quint32, 256> table32 = makeTable32();

int byteAt(const QByteArray& bytes, int at)
{
    return static_cast<quint8>(bytes.at(at));
}

QByteArray littleEndian(quint32 value, int size)
{
    QByteArray bytes;
    for (int i = 0; i < size; ++i)
        bytes += static_cast<char>(value >> (8 * i));
    return bytes;
}

QByteArray plainHeader(int type, int number, int length)
{
    QByteArray header("\x7C");
    header += static_cast<char>(type);
    header += static_cast<char>(number);
    header += littleEndian(static_cast<quint32>(length), 2);
    return header + littleEndian(plainHeaderCheck(header), 2);
}

} // namespace

quint16 plainHeaderCheck(const QByteArray& header)
{
    quint16 check = 0xFFFF;
    for (int i = 0; i < header.size(); ++i) {
        const int byte = byteAt(header, i);
        const int index = (check >> 8) ^ byte;
        quint32 word = table16[static_cast<std::size_t>(index)];
        if (byte >= 0x80) {
            word = table32[static_cast<std::size_t>(128 + index / 2)];
            if (index % 2 == 1)
                word >>= 16;
        }
        check = static_cast<quint16>((check << 8) ^ word);
    }
    return check;
}

quint32 plainPayloadCheck(const QByteArray& bytes)
{
    quint32 check = 0xFFFFFFFFu;
    for (const char byte : bytes)
        check = table32[(check ^ static_cast<quint8>(byte)) & 0xFF] ^ (check >> 8);
    return ~check;
}

QByteArray plainWire(int type, int number, const QByteArray& data)
{
    QByteArray bytes = plainHeader(type, number, data.size());
    if (data.isEmpty())
        return bytes;
    bytes += data;
    return bytes + littleEndian(plainPayloadCheck(bytes), checkBytes);
}

bool plainRead(QByteArray& buffer, PlainPacket& packet)
{
    int at = 0;
    while (at + headerBytes <= buffer.size()) {
        const bool isHeader =
            byteAt(buffer, at) == 0x7C && plainHeaderCheck(QByteArray::fromRawData(buffer.constData() + at, 5)) ==
                                              (byteAt(buffer, at + 5) | byteAt(buffer, at + 6) << 8);
        if (!isHeader) {
            ++at;
            continue;
        }
        const int length = byteAt(buffer, at + 3) | byteAt(buffer, at + 4) << 8;
        const int wireBytes = length == 0 ? headerBytes : headerBytes + length + checkBytes;
        if (at + wireBytes > buffer.size())
            return false;
        const QByteArray checked = QByteArray::fromRawData(buffer.constData() + at, headerBytes + length);
        if (length == 0 ||
            buffer.mid(at + headerBytes + length, checkBytes) == littleEndian(plainPayloadCheck(checked), checkBytes)) {
            packet.type = byteAt(buffer, at + 1);
            packet.number = byteAt(buffer, at + 2);
            packet.data = buffer.mid(at + headerBytes, length);
            packet.bytes = buffer.mid(at, wireBytes);
            buffer.remove(0, at + wireBytes);
            return true;
        }
        at += headerBytes + 1;
    }
    buffer.remove(0, at);
    return false;
}

QByteArray lineBytes(Input& input)
{
    // The upper bits of the choice say how many such packets come, with numbers counting up.
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
    QByteArray bytes;
    // A few bytes of input make many here; long rows only make the target slow.
    while (!input.atEnd() && bytes.size() < maxLineBytes) {
        const int choice = input.byte();
        const int times = 1 + (choice >> 4);
        switch (static_cast<Piece>((choice & 15) % PieceCount)) {
        case Run: bytes += input.run(input.byte()); break;
        case Packet: {
            const int type = input.byte();
            const int number = input.byte();
            const QByteArray data = input.run(input.byte());
            for (int i = 0; i < times; ++i)
                bytes += plainWire(type, (number + i) & 255, data);
            break;
        }
        case EmptyPacket: {
            const int type = input.byte();
            bytes += plainWire(type, input.byte(), QByteArray());
            break;
        }
        case DamagedPacket: {
            const int type = input.byte();
            const int number = input.byte();
            QByteArray wire = plainWire(type, number, input.run(input.byte()));
            const int at = input.byte() % wire.size();
            wire[at] = static_cast<char>(wire.at(at) ^ input.byte());
            bytes += wire;
            break;
        }
        case LonelyHeader: {
            const int type = input.byte();
            const int number = input.byte();
            bytes += plainHeader(type, number, input.word());
            break;
        }
        case LongPacket: {
            const int number = input.byte();
            bytes += plainWire(0, number, QByteArray(input.word() % 2048, static_cast<char>(input.byte())));
            break;
        }
        case PacketInPacket: {
            const int number = input.byte();
            const QByteArray inner = input.run(input.byte()) + plainWire(0, input.byte(), input.run(input.byte()));
            bytes += plainWire(0, number, inner).chopped(input.byte() % 12);
            break;
        }
        case PieceCount: break;
        }
    }
    return bytes;
}

} // namespace fuzz
