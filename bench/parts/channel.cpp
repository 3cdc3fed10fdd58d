// What the link channel does with the bytes of a line: one read() for each piece that arrives,
// including everything else that a pass does, such as reading settings.
#include "bench/parts/traffic.h"
#include "com/link/ccomchannel.h"
#include "rig/port/fakeserialport.h"
#include "rig/silentstate.h"

#include <QByteArray>
#include <benchmark/benchmark.h>

namespace {

constexpr int portBytes = 4096; // as many as a serial port's driver holds
constexpr int everything = 1 << 30;

class ReceivingChannel
{
public:
    ReceivingChannel()
    {
        m_port.setLine([](const QByteArray&) {}); // confirmations
    }

    // How much of the stream it brought.
    int take(const QByteArray& bytes)
    {
        m_port.inject(bytes);
        return m_channel.read(everything).size();
    }

private:
    rig::FakeSerialPort m_port;
    rig::SilentState m_state;
    CComChannel m_channel{&m_port, &m_state, 0};
};

void takeRepeatedly(benchmark::State& state, const QByteArray& bytes, int payload)
{
    ReceivingChannel channel;
    for (auto _ : state) {
        int received = 0;
        for (int offset = 0; offset < bytes.size(); offset += portBytes)
            received += channel.take(bytes.mid(offset, portBytes));
        if (received != payload)
            state.SkipWithError("not the bytes that were sent");
    }
    state.SetBytesProcessed(state.iterations() * bytes.size());
}

void takeBurst(benchmark::State& state, const traffic::Burst& burst)
{
    const QtMessageHandler before = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    ReceivingChannel channel;
    for (auto _ : state)
        traffic::play(burst, [&](const QByteArray& piece) { channel.take(piece); });
    qInstallMessageHandler(before);
    state.SetBytesProcessed(state.iterations() * burst.bytes());
}

// All numbers in their order, from the first that a channel expects, so that everything is
// delivered each time.
void channelCleanTraffic(benchmark::State& state)
{
    takeRepeatedly(state, traffic::dataPackets(1, 256), 256 * traffic::payloadBytes);
}

void channelGarbage(benchmark::State& state)
{
    takeRepeatedly(state, QByteArray(16 * portBytes, 'g'), 0);
}

void channelRandomGarbage(benchmark::State& state)
{
    takeRepeatedly(state, traffic::randomBytes(16 * portBytes), 0);
}

void channelGarbageInPieces(benchmark::State& state)
{
    takeBurst(state, traffic::garbageInPieces(static_cast<int>(state.range(0))));
}

void channelGarbageAtOnce(benchmark::State& state)
{
    takeBurst(state, traffic::garbageAtOnce(static_cast<int>(state.range(0))));
}

void channelDamagedPacketAtOnce(benchmark::State& state)
{
    takeBurst(state, traffic::damagedPacketAtOnce(static_cast<int>(state.range(0))));
}

// A pass in which there is nothing to do.
void channelOneByteOfGarbage(benchmark::State& state)
{
    ReceivingChannel channel;
    const QByteArray byte(1, 'g');
    for (auto _ : state)
        channel.take(byte);
    state.SetItemsProcessed(state.iterations());
}

} // namespace

BENCHMARK(channelCleanTraffic);
BENCHMARK(channelGarbage);
BENCHMARK(channelRandomGarbage);
BENCHMARK(channelOneByteOfGarbage);
// Two sizes: a reader that searches the same bytes again needs more time for each byte of the larger
// one.
BENCHMARK(channelGarbageInPieces)->Arg(4096)->Arg(32768);
BENCHMARK(channelGarbageAtOnce)->Arg(4096)->Arg(32768);
BENCHMARK(channelDamagedPacketAtOnce)->Arg(4096)->Arg(32768);
