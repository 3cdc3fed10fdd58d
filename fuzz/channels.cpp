#include "fuzz/channels.h"

#include "com/link/ccomchannel.h"
#include "com/link/currentcomsettings.h"
#include "common/global.h"
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/packets.h"
#include "rig/port/fakeserialport.h"
#include "rig/randombytes.h"
#include "rig/silentstate.h"
#include "rig/time/virtualclock.h"
#include "sim/line/underway.h"

#include <QByteArray>
#include <QSettings>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>

using fuzz::require;

namespace {

constexpr char startSymbol = 0x7C;
constexpr int everything = 1 << 28;
constexpr int stepMs = 50;
constexpr int mostSteps = 100; // of whole exchanges within an input
constexpr qint64 healingMs = 600 * 1000; // this long after the last fault everything must have arrived
constexpr qint64 heartbeatMs = 1000;
constexpr qint64 hourMs = 3600 * 1000;

// Read by the channel once per process: short times make short runs.
bool prepareSettings(bool isAdaptive)
{
    QSettings settings(Global::internalSettingsFilePath(), QSettings::IniFormat);
    settings.setValue(QStringLiteral("Details/transportComResendInterval"), 400);
    settings.setValue(QStringLiteral("Details/transportComConfirmationInterval"), 100);
    settings.setValue(QStringLiteral("Details/transportComMaxBytesInQueue"), 4096);
    settings.setValue(QStringLiteral("Details/transportComAdaptive"), isAdaptive ? 1 : 0);
    settings.setValue(QStringLiteral("Debug/transportComAtCommands"), false);
    settings.sync();
    return true;
}

char byteOf(int side, int position)
{
    const char byte = rig::streamByte(static_cast<quint32>(side + 1) * 0x9E3779B9u, position);
    return byte == startSymbol ? 'x' : byte;
}

class CountingState : public rig::SilentState
{
public:
    void addReceivedBytes(int, int bytes) override { received += bytes; }
    void addSentBytes(int, int bytes) override { confirmed += bytes; }

    qint64 received = 0;
    qint64 confirmed = 0;
};

// What one side has sent and the other one has not yet: nothing arrives by itself, the input
// decides what becomes of each chunk.
class Way
{
public:
    void send(const QByteArray& bytes) { m_chunks.launch(0, bytes); }
    bool isEmpty() const { return m_chunks.isEmpty(); }
    QByteArray& first() { return m_chunks.first(); }

    void dropFirst()
    {
        m_chunks.dropFirst();
        m_flipped = std::max(0, m_flipped - 1);
    }

    void doubleFirst()
    {
        m_chunks.doubleFirst();
        m_flipped += m_flipped > 0;
    }

    void flipInFirst(int bit)
    {
        if (m_flipped > 0 || first().isEmpty())
            return;
        const int at = bit / 8 % first().size();
        first()[at] = static_cast<char>(first().at(at) ^ (1 << (bit % 8)));
        m_flipped = 1;
    }

    void clear()
    {
        m_chunks.clear();
        m_flipped = 0;
    }

private:
    sim::UnderWay m_chunks;
    int m_flipped = 0; // so many of them, from the first one on
};

struct Party
{
    explicit Party(int partySide) : side(partySide)
    {
        port.setLine([this](const QByteArray& bytes) { way.send(bytes); });
    }

    void write(int size)
    {
        size = std::min(size, channel.idealBlockSize());
        QByteArray bytes(size, '\0');
        for (char& byte : bytes)
            byte = byteOf(side, written++);
        channel.write(bytes);
    }

    void read(int maxSize)
    {
        const QByteArray bytes = channel.read(maxSize);
        require(bytes.size() <= maxSize, "read() gives no more than it was asked for");
        for (const char byte : bytes)
            require(byte == byteOf(1 - side, delivered++), "what arrives is a prefix of what was sent");
        require(state.received >= delivered, "what is delivered was reported");
        require(state.confirmed <= written, "no more is confirmed than was written");
    }

    int side;
    int written = 0;
    int delivered = 0;
    Way way; // from here to the other one
    rig::FakeSerialPort port;
    CountingState state;
    CComChannel channel{&port, &state, side};
};

// Two channels, and what the input does to the line between them.
class SpoiltCall
{
public:
    void run(fuzz::Input& input)
    {
        while (!input.atEnd())
            act(input);
        heal();
    }

private:
    enum Action
    {
        Write,
        Read,
        Wait,
        Deliver,
        Exchange, // what peers do
        Drop,
        Double,
        Flip,
        Cut,
        Garbage,
        Split,
        Room,
        StepClock,
        DropAll, // what lines do
        ActionCount
    };

    void act(fuzz::Input& input)
    {
        const int choice = input.byte();
        Party& from = *m_parties[static_cast<std::size_t>(choice >> 7)];
        Party& to = *m_parties[static_cast<std::size_t>(1 - (choice >> 7))];
        Way& way = from.way;
        switch (static_cast<Action>((choice & 127) % ActionCount)) {
        case Write: from.write(4 * input.byte()); break;
        case Read: from.read(16 * input.byte()); break;
        case Wait: m_clock.advanceMs(8 * input.byte()); break;
        case Deliver:
            for (int chunks = 1 + input.byte(); chunks > 0 && !way.isEmpty(); --chunks)
                deliver(way, to);
            break;
        case Exchange:
            for (int steps = 1 + input.byte() % 64; steps > 0 && m_steps < mostSteps; --steps, ++m_steps) {
                from.write(32);
                step();
            }
            break;
        case Drop:
            if (!way.isEmpty())
                way.dropFirst();
            break;
        case Double:
            if (!way.isEmpty())
                way.doubleFirst();
            break;
        case Flip: {
            const int bit = input.word();
            if (!way.isEmpty())
                way.flipInFirst(bit);
            break;
        }
        case Cut:
            if (!way.isEmpty())
                way.first().truncate(input.byte());
            break;
        case Garbage: to.port.inject(input.run(input.byte() % 64).replace(startSymbol, 'x')); break;
        case Split:
            if (!way.isEmpty()) {
                const int size = input.byte();
                to.port.inject(way.first().left(size));
                way.first().remove(0, size);
            }
            break;
        case Room: from.port.setRoom(input.byte() * 4); break;
        case StepClock: m_clock.stepWallClockMs(input.byte() % 2 == 0 ? hourMs : -hourMs); break;
        case DropAll: way.clear(); break;
        case ActionCount: break;
        }
    }

    static void deliver(Way& way, Party& to)
    {
        to.port.inject(way.first());
        way.dropFirst();
    }

    void step()
    {
        for (std::size_t i = 0; i < 2; ++i) {
            while (!m_parties[i]->way.isEmpty())
                deliver(m_parties[i]->way, *m_parties[1 - i]);
        }
        for (const auto& party : m_parties)
            party->read(everything);
        m_clock.advanceMs(stepMs);
    }

    void heal()
    {
        std::array<int, 2> toArrive{};
        for (std::size_t i = 0; i < 2; ++i) {
            m_parties[i]->port.setRoom(-1);
            toArrive[i] = m_parties[i]->written;
        }
        const auto haveArrived = [&] {
            for (std::size_t i = 0; i < 2; ++i) {
                if (m_parties[1 - i]->delivered < toArrive[i] || m_parties[i]->state.confirmed < toArrive[i])
                    return false;
            }
            return true;
        };
        const qint64 startMs = m_clock.nowMs();
        qint64 spokenMs = startMs - heartbeatMs;
        while (!haveArrived()) {
            require(m_clock.nowMs() - startMs < healingMs, "all arrives on a line without faults");
            if (m_clock.nowMs() - spokenMs >= heartbeatMs) {
                spokenMs = m_clock.nowMs();
                for (const auto& party : m_parties)
                    party->write(4);
            }
            step();
        }
    }

    rig::VirtualClock m_clock;
    std::array<std::unique_ptr<Party>, 2> m_parties{std::make_unique<Party>(0), std::make_unique<Party>(1)};
    int m_steps = 0;
};

class HostilePeer
{
public:
    void run(fuzz::Input& input)
    {
        while (!input.atEnd())
            act(input);
        m_port.setRoom(-1);
        for (int i = 0; i < 4; ++i)
            read(everything);
        require(m_state.received == m_delivered, "what was reported is delivered");
        require(m_delivered <= m_injected, "no more is delivered than came in");
        checkWritten();
    }

private:
    enum Action
    {
        Receive,
        Write,
        Read,
        Wait,
        Room,
        ActionCount
    };

    void act(fuzz::Input& input)
    {
        const int choice = input.byte();
        switch (static_cast<Action>(choice % ActionCount)) {
        case Receive: {
            const QByteArray script = input.run(input.byte());
            fuzz::Input pieces(reinterpret_cast<const std::uint8_t*>(script.constData()),
                               static_cast<std::size_t>(script.size()));
            const QByteArray bytes = fuzz::lineBytes(pieces);
            m_injected += bytes.size();
            m_port.inject(bytes);
            break;
        }
        case Write: {
            const int size = std::min(16 * input.byte(), m_channel.idealBlockSize());
            m_channel.write(QByteArray(size, 'w'));
            m_writtenBytes += size;
            break;
        }
        case Read: read(16 * input.byte()); break;
        case Wait: m_clock.advanceMs(8 * input.byte()); break;
        case Room: m_port.setRoom(input.byte() == 0 ? -1 : 64); break;
        case ActionCount: break;
        }
    }

    void read(int maxSize)
    {
        m_delivered += m_channel.read(maxSize).size();
        require(m_state.confirmed <= m_writtenBytes, "no more is confirmed than was written");
    }

    // Whole packets and nothing else, whatever the peer did.
    void checkWritten()
    {
        QByteArray bytes = m_port.takeWritten();
        fuzz::PlainPacket packet;
        while (fuzz::plainRead(bytes, packet)) {
            require(packet.type == 0 || packet.type == 1, "the type is one of the two");
            require(packet.type != 0 || packet.data.count('w') == packet.data.size(), "the payload is the host's");
            require(packet.type != 1 ||
                        std::is_sorted(packet.data.cbegin(), packet.data.cend(),
                                       [](char a, char b) { return static_cast<quint8>(a) < static_cast<quint8>(b); }),
                    "confirmed numbers ascend");
        }
        require(bytes.isEmpty(), "what goes out is whole packets");
    }

    rig::VirtualClock m_clock;
    rig::FakeSerialPort m_port;
    CountingState m_state;
    CComChannel m_channel{&m_port, &m_state, 1};
    qint64 m_injected = 0;
    qint64 m_delivered = 0;
    qint64 m_writtenBytes = 0;
};

} // namespace

void fuzz::tryChannels(bool isAdaptive, const std::uint8_t* data, std::size_t size)
{
    static const bool isPrepared = prepareSettings(isAdaptive);
    Q_UNUSED(isPrepared)
    fuzz::Input input(data, size);
    const int choice = input.byte();
    gComSettings.packetSize = 11 + choice % 128 * 8;
    if (choice < 128)
        SpoiltCall().run(input);
    else
        HostilePeer().run(input);
}
