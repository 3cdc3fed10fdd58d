#include "host/crc32.h"

#include <array>

namespace host {

namespace {

constexpr quint32 reflectedPolynomial = 0xEDB88320u;

constexpr std::array<quint32, 256> makeTable()
{
    std::array<quint32, 256> table{};
    for (quint32 index = 0; index < 256; ++index) {
        quint32 value = index;
        for (int bit = 0; bit < 8; ++bit)
            value = (value >> 1) ^ ((value & 1) ? reflectedPolynomial : 0);
        table[index] = value;
    }
    return table;
}

constexpr std::array<quint32, 256> table = makeTable();

} // namespace

quint32 crc32(const QByteArray& data, quint32 previous)
{
    quint32 value = ~previous;
    for (const char byte : data)
        value = (value >> 8) ^ table[(value ^ static_cast<quint8>(byte)) & 0xFF];
    return ~value;
}

} // namespace host
