// A serial line between two ports, in simulated time: rate, delay and everything that
// goes wrong on a line, from a seed.
#pragma once

#include "rig/rng.h"
#include "rig/time/virtualtime.h"

#include <array>
#include <cstdint>
#include <deque>
#include <string>

namespace soak {

// What goes wrong on the way of one direction. All zero: nothing.
struct Faults
{
    double bitErrorRate = 0;
    double burstsPerSecond = 0; // of the time in which bytes travel
    int burstBytes = 0;
    double burstBitErrorRate = 0;
    double dropChunk = 0; // probability for each chunk; so the next two
    double doubleChunk = 0;
    double delayChunk = 0;
    std::int64_t delayedByNs = 0; // at most; what comes behind overtakes
    double garbagePerSecond = 0; // of all time, between bytes and into silence
    int garbageBytes = 0; // at most
    bool silence = false; // nothing arrives
};

struct LineSettings
{
    int bitsPerSecond = 9600; // a byte takes ten
    std::int64_t delayNs = 0;
    int chunkBytes = 16; // how many travel together
    int driverDepth = 4096; // bytes the driver takes from a program
    bool wakesWhenLow = true; // a driver calls itself writable only when nearly empty
};

// One way: the driver's queue of the sending port, the line, the input of the receiving port.
class Direction
{
public:
    Direction(const LineSettings& settings, std::uint64_t seed);

    void setFaults(const Faults& faults, std::int64_t now);
    // A hang-up: everything on its way is gone.
    void clear();

    std::int64_t nextEventNs() const;
    void advanceTo(std::int64_t now);

    std::size_t send(const char* data, std::size_t size, std::int64_t now);
    bool takesMore() const;
    std::size_t bytesToSend() const { return m_queue.size() - m_queueTaken; }
    void dropQueue();

    std::size_t receive(char* data, std::size_t maxSize);
    std::size_t bytesToReceive() const { return m_input.size() - m_inputTaken; }
    void dropInput();

    std::uint64_t bytesCarried() const { return m_bytesCarried; }
    std::uint64_t faultsMade() const { return m_faultsMade; }
    std::uint64_t bytesOverrun() const { return m_bytesOverrun; }

private:
    struct Flight
    {
        std::int64_t arrivalNs;
        std::string bytes;
    };

    void carryChunk(std::int64_t start);
    void damage(std::string& bytes);
    void flipBits(std::string& bytes, std::size_t from, std::size_t to, double rate);
    std::string garbage();
    void scheduleBurst();
    void scheduleGarbage(std::int64_t from);
    void launch(std::int64_t arrivalNs, std::string bytes);

    LineSettings m_settings;
    std::int64_t m_nsPerByte;
    Faults m_faults;
    Rng m_rng;
    std::string m_queue; // the driver's; the first m_queueTaken bytes are gone
    std::size_t m_queueTaken = 0;
    std::int64_t m_lineFreeNs = 0;
    std::deque<Flight> m_flight; // by arrival
    std::string m_input;
    std::size_t m_inputTaken = 0;
    std::int64_t m_bitsToError = never;
    std::int64_t m_bytesToBurst = never;
    int m_burstLeft = 0;
    std::int64_t m_nextGarbageNs = never;
    std::uint64_t m_bytesCarried = 0;
    std::uint64_t m_faultsMade = 0;
    std::uint64_t m_bytesOverrun = 0;
};

// Both ways, and the two ports at its ends (0 and 1).
class Line : public World
{
public:
    Line(const LineSettings& settings, std::uint64_t seed);
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
        std::size_t bytesToWrite() const override { return out().bytesToSend(); }
        int modemLines() const override;
        void flushInput() override { in().dropInput(); }
        void flushOutput() override { out().dropQueue(); }

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

} // namespace soak
