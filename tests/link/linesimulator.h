// Two link channels over a line that loses, doubles, damages and delays what it is given.
// All in virtual time, so that a failing run repeats exactly from its seed.
#pragma once

#include "com/link/ccomchannel.h"
#include "rig/fakehost.h"
#include "rig/port/fakeserialport.h"
#include "rig/randombytes.h"
#include "rig/silentstate.h"
#include "rig/time/virtualclock.h"

#include <QByteArray>

#include <deque>
#include <random>

namespace linktest {

struct LineFaults
{
    int lostPercent = 0; // of the chunks, as each of these
    int doubledPercent = 0;
    int damagedPercent = 0;
    int minDelayMs = 1;
    int maxDelayMs = 1;
    int outageEveryMs = 0; // the line takes everything and delivers nothing
    int outageMs = 0;
};

// One direction of the line; what it delivers stays in order.
class Line
{
public:
    Line(const LineFaults& faults, std::mt19937& random, const testsupport::VirtualClock& clock)
        : m_faults(faults), m_random(random), m_clock(clock)
    {
    }

    void send(const QByteArray& chunk)
    {
        if (isOut() || draw(100) < m_faults.lostPercent)
            return;
        const int copies = draw(100) < m_faults.doubledPercent ? 2 : 1;
        for (int i = 0; i < copies; ++i) {
            const qint64 delayMs = m_faults.minDelayMs + draw(m_faults.maxDelayMs - m_faults.minDelayMs + 1);
            const qint64 lastMs = m_onTheWay.empty() ? 0 : m_onTheWay.back().arrivesMs;
            m_onTheWay.push_back({std::max(lastMs, m_clock.nowMs() + delayMs), damaged(chunk)});
        }
    }

    void deliverTo(testsupport::FakeSerialPort& port)
    {
        for (; !m_onTheWay.empty() && m_onTheWay.front().arrivesMs <= m_clock.nowMs(); m_onTheWay.pop_front())
            port.inject(m_onTheWay.front().bytes);
    }

private:
    struct Chunk
    {
        qint64 arrivesMs;
        QByteArray bytes;
    };

    int draw(int limit) { return static_cast<int>(m_random() % static_cast<unsigned>(limit)); }

    bool isOut() const
    {
        return m_faults.outageEveryMs > 0 && m_clock.nowMs() % m_faults.outageEveryMs < m_faults.outageMs;
    }

    QByteArray damaged(QByteArray chunk)
    {
        if (draw(100) >= m_faults.damagedPercent)
            return chunk;
        const int at = draw(chunk.size());
        chunk[at] = static_cast<char>(chunk[at] ^ (1 << draw(8)));
        return chunk;
    }

    LineFaults m_faults;
    std::mt19937& m_random;
    const testsupport::VirtualClock& m_clock;
    std::deque<Chunk> m_onTheWay;
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
            byte = testsupport::streamByte(m_seed, m_sent++);
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
            if (byte != testsupport::streamByte(peerSeed, m_received))
                return false;
            ++m_received;
        }
        return true;
    }

    int received() const { return m_received; }
    testsupport::FakeSerialPort& port() { return m_port; }

private:
    unsigned m_seed;
    testsupport::FakeSerialPort m_port;
    testsupport::SilentState m_state;
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

// Sends both ways at once until both streams have arrived.
inline Outcome exchange(const LineFaults& faults, const Stream& stream, unsigned seed, qint64 limitMs)
{
    testsupport::VirtualClock clock;
    std::mt19937 random(seed);
    Party parties[2] = {Party(seed), Party(seed + 1)};
    Line lines[2] = {Line(faults, random, clock), Line(faults, random, clock)};
    for (int i = 0; i < 2; ++i)
        parties[i].port().setLine([&lines, i](const QByteArray& chunk) { lines[i].send(chunk); });
    while (parties[0].received() < stream.length || parties[1].received() < stream.length) {
        if (clock.nowMs() > limitMs)
            return Outcome::Stuck;
        for (int i = 0; i < 2; ++i) {
            parties[i].send(stream.length, stream.blockSize, clock.nowMs());
            lines[1 - i].deliverTo(parties[i].port());
            if (!parties[i].receive(seed + (i == 0 ? 1 : 0)))
                return Outcome::Corrupted;
        }
        clock.advanceMs(1);
    }
    return Outcome::Delivered;
}

} // namespace linktest
