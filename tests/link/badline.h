// Two link channels over the simulated line and all that goes wrong on it. All in virtual time, so
// that a failing run repeats exactly from its seed.
#pragma once

#include "com/link/ccomchannel.h"
#include "rig/fakehost.h"
#include "rig/line/direction.h"
#include "rig/port/fakeserialport.h"
#include "rig/randombytes.h"
#include "rig/silentstate.h"
#include "rig/time/virtualclock.h"

#include <QByteArray>

namespace linktest {

struct LinePlan
{
    rig::Faults faults;
    int bitsPerSecond = 115200;
    std::int64_t delayNs = rig::nsPerMs;
    int outageEveryMs = 0; // the line takes everything and delivers nothing
    int outageMs = 0;
};

// A channel, its port and a session that sends an endless stream: as fast as the channel
// takes it up to a length, and then a few bytes every second, since a packet that fills a
// gap leaves those behind it waiting until another one comes.
class Party
{
public:
    // seed: of the stream.
    explicit Party(unsigned seed) : m_seed(seed) {}

    // The next bytes of the stream, whether the channel wants them or not.
    void write(int size)
    {
        QByteArray bytes(size, '\0');
        for (char& byte : bytes)
            byte = rig::streamByte(m_seed, m_sent++);
        m_channel.write(bytes);
    }

    void send(int length, int blockSize, qint64 nowMs)
    {
        while (m_sent < length && m_channel.idealBlockSize() > 0)
            write(std::min(blockSize, length - m_sent));
        if (m_sent >= length && nowMs - m_lastWriteMs >= 1000 && m_channel.idealBlockSize() > 0)
            write(std::min(blockSize, 4));
        if (m_sent < length)
            m_lastWriteMs = nowMs;
        else if (nowMs - m_lastWriteMs >= 1000)
            m_lastWriteMs = nowMs;
    }

    // False if what was read is not the continuation of the peer's stream.
    bool receive(unsigned peerSeed)
    {
        for (const char byte : m_channel.read(1 << 20)) {
            if (byte != rig::streamByte(peerSeed, m_received))
                return false;
            ++m_received;
        }
        return true;
    }

    int received() const { return m_received; }
    rig::FakeSerialPort& port() { return m_port; }

private:
    unsigned m_seed;
    rig::FakeSerialPort m_port;
    rig::SilentState m_state;
    CComChannel m_channel{&m_port, &m_state, 1};
    int m_sent = 0;
    int m_received = 0;
    qint64 m_lastWriteMs = 0;
};

struct Stream
{
    int length = 0;
    int blockSize = 1; // given to one write()
};

enum class Outcome
{
    Delivered,
    Corrupted,
    Stuck
};

// One direction of a line, between two ports in memory.
class Way
{
public:
    Way(const LinePlan& line, std::uint64_t seed, const rig::VirtualClock& clock)
        : m_line(line), m_clock(clock), m_direction(settingsOf(line), seed)
    {
        m_direction.setFaults(line.faults, nowNs());
    }

    void send(const QByteArray& bytes)
    {
        m_direction.send(bytes.constData(), static_cast<std::size_t>(bytes.size()), nowNs());
    }

    void deliverTo(rig::FakeSerialPort& port)
    {
        m_direction.setSilent(m_line.outageEveryMs > 0 && m_clock.nowMs() % m_line.outageEveryMs < m_line.outageMs);
        m_direction.advanceTo(nowNs());
        port.inject(m_direction.receiveAll());
    }

    std::uint64_t faultsMade() const { return m_direction.faultsMade(); }

private:
    static rig::LineSettings settingsOf(const LinePlan& line)
    {
        rig::LineSettings settings;
        settings.bitsPerSecond = line.bitsPerSecond;
        settings.delayNs = line.delayNs;
        settings.driverDepth = 1 << 20; // the port in memory has taken it already
        return settings;
    }

    std::int64_t nowNs() const { return m_clock.nowMs() * rig::nsPerMs; }

    const LinePlan& m_line;
    const rig::VirtualClock& m_clock;
    rig::Direction m_direction;
};

// Sends both ways at once until both streams have arrived.
inline Outcome exchange(const LinePlan& line, const Stream& stream, unsigned seed, qint64 limitMs)
{
    rig::VirtualClock clock;
    Party parties[2] = {Party(seed), Party(seed + 1)};
    Way ways[2] = {Way(line, seed, clock), Way(line, ~std::uint64_t(seed), clock)};
    for (int i = 0; i < 2; ++i)
        parties[i].port().setLine([&ways, i](const QByteArray& bytes) { ways[i].send(bytes); });
    while (parties[0].received() < stream.length || parties[1].received() < stream.length) {
        if (clock.nowMs() > limitMs)
            return Outcome::Stuck;
        for (int i = 0; i < 2; ++i) {
            parties[i].send(stream.length, stream.blockSize, clock.nowMs());
            ways[1 - i].deliverTo(parties[i].port());
            if (!parties[i].receive(seed + (i == 0 ? 1 : 0)))
                return Outcome::Corrupted;
        }
        clock.advanceMs(1);
    }
    return Outcome::Delivered;
}

} // namespace linktest
