// The link's packets once more, written from the description of the wire alone and
// sharing nothing with the code under test: for judging it, for watching a line, for noise
// that looks like packets and for peers of another make.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace rig {

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

// The first packet among bytes, as a peer finds it.
struct PacketPlace
{
    enum class Kind
    {
        None, // what is in front of begin can never become one
        Begun, // at begin stands a header, and not yet all that it promises
        Whole // from begin to end
    };
    Kind kind = Kind::None;
    std::size_t begin = 0;
    std::size_t end = 0; // of a whole one
};

PacketPlace findPacket(const char* data, std::size_t size);
// Of a whole one that findPacket() found there.
WirePacket packetAt(const char* data, const PacketPlace& place);

// Cuts packets out of a stream of bytes.
class PacketCutter
{
public:
    void append(const char* data, std::size_t size) { m_buffer.append(data, size); }
    bool next(WirePacket* packet);
    void clear() { m_buffer.clear(); }

private:
    std::string m_buffer;
};

} // namespace rig
