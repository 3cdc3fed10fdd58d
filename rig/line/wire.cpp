#include "rig/line/wire.h"

#include <algorithm>
#include <array>

namespace soak {

namespace {

constexpr std::size_t headerBytes = 7;
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

std::uint16_t little16(const std::string& bytes, std::size_t at)
{
    return static_cast<std::uint16_t>(static_cast<std::uint8_t>(bytes[at]) | static_cast<std::uint8_t>(bytes[at + 1])
                                                                                 << 8);
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

bool PacketCutter::next(WirePacket* packet)
{
    std::size_t at = 0;
    while (at + headerBytes <= m_buffer.size()) {
        if (m_buffer[at] != startSymbol || headerCheck(&m_buffer[at], 5) != little16(m_buffer, at + 5)) {
            ++at;
            continue;
        }
        const std::size_t length = little16(m_buffer, at + 3);
        const std::size_t whole = headerBytes + length + (length > 0 ? checkBytes : 0);
        if (at + whole > m_buffer.size()) {
            m_buffer.erase(0, at); // it has been looked at
            return false;
        }
        const std::uint32_t check = payloadCheck(&m_buffer[at], headerBytes + length);
        const std::size_t checkAt = at + headerBytes + length;
        if (length > 0 &&
            (little16(m_buffer, checkAt) | std::uint32_t(little16(m_buffer, checkAt + 2)) << 16) != check) {
            at += headerBytes + 1; // one more than the header: so do peers
            continue;
        }
        packet->type = static_cast<std::uint8_t>(m_buffer[at + 1]);
        packet->number = static_cast<std::uint8_t>(m_buffer[at + 2]);
        packet->payload = m_buffer.substr(at + headerBytes, length);
        m_buffer.erase(0, at + whole);
        return true;
    }
    m_buffer.erase(0, std::min(at, m_buffer.size()));
    return false;
}

} // namespace soak
