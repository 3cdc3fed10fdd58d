// The link's packets once more, written from the description of the wire alone and
// sharing nothing with the code under test: for watching a line, for noise that looks
// like packets and for peers of another make.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace soak {

constexpr char startSymbol = 0x7C;
constexpr std::uint8_t dataType = 0;
constexpr std::uint8_t confirmationType = 1;

struct WirePacket
{
    std::uint8_t type = dataType;
    std::uint8_t number = 0;
    std::string payload;
};

std::uint16_t headerCheck(const char* data, std::size_t size);
std::uint32_t payloadCheck(const char* data, std::size_t size);

std::string headerImage(std::uint8_t type, std::uint8_t number, std::uint16_t length);
std::string packetImage(const WirePacket& packet);

// Cuts packets out of a stream of bytes.
class PacketCutter
{
public:
    void append(const char* data, std::size_t size) { m_buffer.append(data, size); }
    bool next(WirePacket* packet);
    void clear() { m_buffer.clear(); }
    std::size_t bytesWaiting() const { return m_buffer.size(); }

private:
    std::string m_buffer;
};

} // namespace soak
