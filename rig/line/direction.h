// One way of a serial line between two ports: the driver of the sending port, the line with all
// that goes wrong on it, the driver of the receiving port. Everything from a seed; time is handed in.
// Pace, noise and what is under way are those of the simulated exchange. Faults that only a test
// wants are added here: pieces that get lost, doubled or late, garbage, silence.
#pragma once

#include "rig/rng.h"
#include "rig/time/moments.h"
#include "sim/line/noise.h"
#include "sim/line/pace.h"
#include "sim/line/underway.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace rig {

// What goes wrong on the way of one direction. All zero: nothing.
struct Faults
{
    double bitErrorRate = 0;
    sim::BurstSettings burst; // of the time in which bytes travel
    double dropChunk = 0; // probability for each chunk; so the next two
    double doubleChunk = 0;
    double delayChunk = 0;
    std::int64_t delayedByNs = 0; // at most; what comes behind overtakes
    std::int64_t jitterNs = 0; // at most, of each chunk; nothing overtakes
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
    int inputDepth = 65536; // bytes kept for a program that does not read; more is lost
    bool hidesOutput = false; // a driver that says it has nothing left to send, whatever it has

    // A modem between driver and line that keeps bytes of its own, behind a port of another rate.
    int modemBytes = 0; // none: the port runs at the line's rate
    int portBitsPerSecond = 0;
    bool flowControl = true; // the port waits for room in the modem; without it what is too much is lost
};

class Direction
{
public:
    Direction(const LineSettings& settings, std::uint64_t seed);

    void setFaults(const Faults& faults, std::int64_t now);
    // The modems agree on a rate anew: nothing is carried until then.
    void pauseUntil(std::int64_t ns);
    // Of the faults, silence alone.
    void setSilent(bool silent) { m_faults.silence = silent; }
    // A hang-up: everything on its way is gone.
    void clear();

    std::int64_t nextEventNs() const;
    void advanceTo(std::int64_t now);

    // How much of it the driver takes.
    std::size_t send(const char* data, std::size_t size, std::int64_t now);
    bool takesMore() const;
    std::size_t bytesToSend() const { return m_output.size(); }
    std::size_t bytesToldToSend() const { return m_settings.hidesOutput ? 0 : bytesToSend(); }
    std::size_t roomToSend() const { return static_cast<std::size_t>(m_settings.driverDepth) - bytesToSend(); }
    void dropOutput() { m_output.clear(); }

    std::size_t receive(char* data, std::size_t maxSize);
    QByteArray receiveAll() { return m_input.take(m_input.size()); }
    std::size_t bytesToReceive() const { return m_input.size(); }
    void dropInput() { m_input.clear(); }

    // When the next, and the last, of the bytes sent so far reaches the other driver, if nothing
    // goes wrong with it; never: none is on its way.
    std::int64_t nextArrivalNs() const;
    std::int64_t lastArrivalNs() const;

    std::uint64_t bytesCarried() const { return m_bytesCarried; }
    std::uint64_t faultsMade() const { return m_faultsMade; }
    std::uint64_t bytesOverrun() const { return m_bytesOverrun; }

private:
    // A driver's queue.
    class Queue
    {
    public:
        std::size_t size() const { return static_cast<std::size_t>(m_bytes.size() - m_taken); }
        void append(const QByteArray& bytes) { m_bytes += bytes; }
        QByteArray take(std::size_t size);
        void clear();

    private:
        QByteArray m_bytes;
        int m_taken = 0; // of them, from the front
    };

    bool hasModem() const { return m_settings.modemBytes > 0; }
    Queue& carried() { return hasModem() ? m_modem : m_output; }
    const Queue& carried() const { return hasModem() ? m_modem : m_output; }
    std::int64_t nextToModemNs() const;
    std::int64_t nextToLineNs() const;
    void moveToModem();
    void carryChunk();
    QByteArray garbage();
    void scheduleGarbage(std::int64_t from);
    void launch(std::int64_t arrivalNs, const QByteArray& bytes);
    bool happens(double probability); // and is counted

    const LineSettings m_settings;
    Faults m_faults;
    Rng m_rng;
    Queue m_output;
    sim::Pace m_portPace; // from the driver into the modem
    Queue m_modem;
    sim::Pace m_pace; // of the line
    std::optional<sim::Noise> m_noise; // none: no bit errors
    sim::UnderWay m_underWay;
    Queue m_input;
    std::int64_t m_nextGarbageNs = never;
    std::uint64_t m_bytesCarried = 0;
    std::uint64_t m_faultsMade = 0;
    std::uint64_t m_bytesOverrun = 0;
};

} // namespace rig
