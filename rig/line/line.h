// A serial line between two simulated ports, in simulated time.
#pragma once

#include "rig/line/direction.h"
#include "rig/time/virtualtime.h"

#include <array>
#include <cstdint>
#include <string>

namespace rig {

// Both ways, and the two ports at its ends (0 and 1).
class Line : public World
{
public:
    Line(const LineSettings& settings, std::uint64_t seed);
    // The settings of the direction that starts at each end.
    Line(const std::array<LineSettings, 2>& settings, std::uint64_t seed);
    ~Line() override;
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    // The path that a program opens for port end.
    static std::string path(int end);

    // Of the direction that starts at port end.
    Direction& from(int end) { return m_directions[end]; }
    void setFaults(int end, const Faults& faults) { m_directions[end].setFaults(faults, nowNs()); }
    void setCarrier(bool present) { m_carrier = present; }

    // Bytes that a program read from port end, in order, as the program saw them; called
    // while it reads. Null: nobody wants to know.
    class Listener
    {
    public:
        virtual ~Listener() = default;
        virtual void bytesRead(int end, const char* data, std::size_t size) = 0;
    };
    void setListener(Listener* listener) { m_listener = listener; } // not owned

    std::int64_t nextEventNs() const override;
    void advanceTo(std::int64_t ns) override;

private:
    class Port : public SerialDevice
    {
    public:
        Port(Line* line, int end) : m_line(line), m_end(end) {}
        std::size_t read(char* data, std::size_t maxSize) override;
        std::size_t write(const char* data, std::size_t size) override;
        bool readable() const override { return in().bytesToReceive() > 0; }
        bool writable() const override { return out().takesMore(); }
        std::size_t bytesToRead() const override { return in().bytesToReceive(); }
        std::size_t bytesToWrite() const override { return out().bytesToldToSend(); }
        int modemLines() const override;
        void flushInput() override { in().dropInput(); }
        void flushOutput() override { out().dropOutput(); }

    private:
        Direction& in() const { return m_line->m_directions[1 - m_end]; }
        Direction& out() const { return m_line->m_directions[m_end]; }
        Line* m_line; // not owned
        int m_end;
    };

    std::array<Direction, 2> m_directions;
    std::array<Port, 2> m_ports;
    bool m_carrier = true;
    Listener* m_listener = nullptr;
};

} // namespace rig
