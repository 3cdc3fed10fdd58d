#include "rig/packetoracle.h"

#include <algorithm>
#include <array>

namespace rig {

namespace {

constexpr std::size_t headerBytes = 7;
constexpr std::size_t checkedHeaderBytes = 5; // behind them the header's own check
constexpr std::size_t checkBytes = 4;

using Table = std::array<std::uint32_t, 256>;

// Bit by bit, so that no table had to be copied from anywhere.
Table forwardTable() // 16 bits wide, high bit first
{
    Table table{};
    for (unsigned value = 0; value < table.size(); ++value) {
        unsigned rest = value << 8;
        for (int bit = 0; bit < 8; ++bit)
            rest = (rest & 0x8000) ? (rest << 1) ^ 0x1021 : rest << 1;
        table[value] = rest & 0xFFFF;
    }
    return table;
}

Table reflectedTable() // 32 bits wide, low bit first
{
    Table table{};
    for (std::uint32_t value = 0; value < table.size(); ++value) {
        std::uint32_t rest = value;
        for (int bit = 0; bit < 8; ++bit)
            rest = (rest & 1) ? (rest >> 1) ^ 0xEDB88320u : rest >> 1;
        table[value] = rest;
    }
    return table;
}

const Table forward = forwardTable();
const Table reflected = reflectedTable();

std::uint32_t little(const char* bytes, std::size_t count)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < count; ++i)
        value |= std::uint32_t(static_cast<std::uint8_t>(bytes[i])) << (8 * i);
    return value;
}

void appendLittle(std::string& bytes, std::uint32_t value, int count)
{
    for (int i = 0; i < count; ++i)
        bytes += static_cast<char>(value >> (8 * i));
}

} // namespace

std::uint16_t headerCheck(const char* data, std::size_t size)
{
    unsigned check = 0xFFFF;
    for (std::size_t i = 0; i < size; ++i) {
        const auto byte = static_cast<std::uint8_t>(data[i]);
        const unsigned index = (check >> 8) ^ byte;
        unsigned word = forward[index];
        if (byte >= 0x80) {
            // Bytes are signed on this wire: they reach back into the other table.
            const std::uint32_t entry = reflected[128 + index / 2];
            word = (index & 1) ? entry >> 16 : entry & 0xFFFF;
        }
        check = ((check << 8) ^ word) & 0xFFFF;
    }
    return static_cast<std::uint16_t>(check);
}

std::uint32_t payloadCheck(const char* data, std::size_t size)
{
    std::uint32_t check = 0xFFFFFFFF;
    for (std::size_t i = 0; i < size; ++i)
        check = (check >> 8) ^ reflected[(check ^ static_cast<std::uint8_t>(data[i])) & 0xFF];
    return ~check;
}

std::string headerImage(std::uint8_t type, std::uint8_t number, std::uint16_t length)
{
    std::string bytes{startSymbol, static_cast<char>(type), static_cast<char>(number)};
    appendLittle(bytes, length, 2);
    appendLittle(bytes, headerCheck(bytes.data(), bytes.size()), 2);
    return bytes;
}

std::string packetImage(const WirePacket& packet)
{
    std::string bytes = headerImage(packet.type, packet.number, static_cast<std::uint16_t>(packet.payload.size()));
    bytes += packet.payload;
    if (!packet.payload.empty())
        appendLittle(bytes, payloadCheck(bytes.data(), bytes.size()), 4);
    return bytes;
}

PacketPlace findPacket(const char* data, std::size_t size)
{
    std::size_t at = 0;
    while (at + headerBytes <= size) {
        const char* header = data + at;
        if (header[0] != startSymbol ||
            headerCheck(header, checkedHeaderBytes) != little(header + checkedHeaderBytes, 2)) {
            ++at;
            continue;
        }
        const std::size_t length = little(header + 3, 2);
        const std::size_t whole = headerBytes + length + (length > 0 ? checkBytes : 0);
        if (at + whole > size)
            return {PacketPlace::Kind::Begun, at, 0};
        const std::size_t checkAt = headerBytes + length;
        if (length == 0 || little(header + checkAt, checkBytes) == payloadCheck(header, checkAt))
            return {PacketPlace::Kind::Whole, at, at + whole};
        at += headerBytes + 1; // one more than the header: so do peers
    }
    return {PacketPlace::Kind::None, std::min(at, size), 0};
}

WirePacket packetAt(const char* data, const PacketPlace& place)
{
    const char* header = data + place.begin;
    return {static_cast<std::uint8_t>(header[1]), static_cast<std::uint8_t>(header[2]),
            std::string(header + headerBytes, little(header + 3, 2))};
}

bool PacketCutter::next(WirePacket* packet)
{
    const PacketPlace place = findPacket(m_buffer.data(), m_buffer.size());
    const bool isWhole = place.kind == PacketPlace::Kind::Whole;
    if (isWhole)
        *packet = packetAt(m_buffer.data(), place);
    m_buffer.erase(0, isWhole ? place.end : place.begin); // what is in front has been looked at
    return isWhole;
}

} // namespace rig
