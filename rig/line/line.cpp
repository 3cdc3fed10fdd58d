#include "rig/line/line.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <unistd.h>

namespace rig {

Line::Line(const LineSettings& settings, std::uint64_t seed) : Line(std::array{settings, settings}, seed) {}

Line::Line(const std::array<LineSettings, 2>& settings, std::uint64_t seed)
    : m_directions{Direction(settings[0], seed), Direction(settings[1], ~seed)}, m_ports{Port(this, 0), Port(this, 1)}
{
    for (int end = 0; end < 2; ++end)
        setDevice(path(end).c_str(), &m_ports[end]);
    setWorld(this);
}

Line::~Line()
{
    setWorld(nullptr);
    for (int end = 0; end < 2; ++end)
        setDevice(path(end).c_str(), nullptr);
}

std::string Line::path(int end)
{
    // QSerialPort locks a port by its name, for all processes of the machine.
    return devicePrefix + std::to_string(getpid()) + (end == 0 ? "a" : "b");
}

std::int64_t Line::nextEventNs() const
{
    return std::min(m_directions[0].nextEventNs(), m_directions[1].nextEventNs());
}

void Line::advanceTo(std::int64_t ns)
{
    for (Direction& direction : m_directions)
        direction.advanceTo(ns);
}

std::size_t Line::Port::read(char* data, std::size_t maxSize)
{
    const std::size_t taken = in().receive(data, maxSize);
    if (m_line->m_listener && taken > 0)
        m_line->m_listener->bytesRead(m_end, data, taken);
    return taken;
}

std::size_t Line::Port::write(const char* data, std::size_t size)
{
    return out().send(data, size, nowNs());
}

int Line::Port::modemLines() const
{
    return TIOCM_DSR | TIOCM_CTS | (m_line->m_carrier ? TIOCM_CAR : 0);
}

} // namespace rig
