// Making packets, and cutting them out of what a line may carry.
#include "bench/parts/traffic.h"
#include "com/link/ccompacket.h"
#include "rig/allocations.h"

#include <QByteArray>
#include <benchmark/benchmark.h>

namespace {

constexpr int garbageBytes = 64 * 1024;

// How the link cuts: in place, until no whole packet is left. Returns how many there were.
int cutAll(const QByteArray& bytes)
{
    int count = 0;
    int taken = 0;
    for (;;) {
        CComPacket packet;
        int end = 0;
        const bool found = packet.cut(bytes.constData() + taken, bytes.size() - taken, &end) == CComPacket::Cut::Packet;
        taken += end;
        if (!found)
            return count;
        ++count;
    }
}

// The same by readPacket(), which takes what it cuts out of the buffer.
int readAll(QByteArray& buffer)
{
    int count = 0;
    for (CComPacket packet; packet.readPacket(&buffer);)
        ++count;
    return count;
}

void cutRepeatedly(benchmark::State& state, const QByteArray& bytes)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(cutAll(bytes));
    state.SetBytesProcessed(state.iterations() * bytes.size());
}

void readRepeatedly(benchmark::State& state, const QByteArray& bytes)
{
    for (auto _ : state) {
        QByteArray buffer(bytes.constData(), bytes.size()); // the copy counts
        benchmark::DoNotOptimize(readAll(buffer));
    }
    state.SetBytesProcessed(state.iterations() * bytes.size());
}

// Each piece is appended and looked at, down to an empty buffer.
void readBurst(benchmark::State& state, const traffic::Burst& burst)
{
    const QtMessageHandler before = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    for (auto _ : state) {
        QByteArray buffer;
        int count = 0;
        traffic::play(burst, [&](const QByteArray& piece) {
            buffer += piece;
            count += readAll(buffer);
        });
        if (count != 1 || !buffer.isEmpty())
            state.SkipWithError("not the one packet");
    }
    qInstallMessageHandler(before);
    state.SetBytesProcessed(state.iterations() * burst.bytes());
}

void makePacket(benchmark::State& state)
{
    CComPacket packet;
    packet.data = QByteArray(static_cast<int>(state.range(0)), 'a');
    qint64 allocated = 0;
    for (auto _ : state) {
        packet.bytes.clear();
        const qint64 before = rig::allocationCount();
        packet.makePacket();
        allocated += rig::allocationCount() - before;
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.counters["allocations"] = static_cast<double>(allocated) / static_cast<double>(state.iterations());
}

void cutCleanTraffic(benchmark::State& state)
{
    cutRepeatedly(state, traffic::dataPackets(0, 64));
}

void cutGarbage(benchmark::State& state)
{
    cutRepeatedly(state, QByteArray(garbageBytes, 'g'));
}

void cutRandomGarbage(benchmark::State& state)
{
    cutRepeatedly(state, traffic::randomBytes(garbageBytes));
}

// One search; for packets that arrive in pieces see below and channel.cpp.
void cutGarbageBeforeAnUnfinishedPacket(benchmark::State& state)
{
    cutRepeatedly(state,
                  QByteArray(garbageBytes / 2, 'g') + traffic::wire(DataPacket, 1, 60000).left(garbageBytes / 2));
}

// As many packets as a serial port's driver holds; all of them move when one is taken.
void readPacketCleanTraffic(benchmark::State& state)
{
    readRepeatedly(state, traffic::dataPackets(0, static_cast<int>(state.range(0))));
}

void readPacketGarbage(benchmark::State& state)
{
    readRepeatedly(state, QByteArray(garbageBytes, 'g'));
}

void readPacketRandomGarbage(benchmark::State& state)
{
    readRepeatedly(state, traffic::randomBytes(garbageBytes));
}

void readPacketGarbageInPieces(benchmark::State& state)
{
    readBurst(state, traffic::garbageInPieces(static_cast<int>(state.range(0))));
}

void readPacketGarbageAtOnce(benchmark::State& state)
{
    readBurst(state, traffic::garbageAtOnce(static_cast<int>(state.range(0))));
}

void readPacketDamagedPacketAtOnce(benchmark::State& state)
{
    readBurst(state, traffic::damagedPacketAtOnce(static_cast<int>(state.range(0))));
}

} // namespace

BENCHMARK(makePacket)->Arg(1)->Arg(traffic::payloadBytes);
BENCHMARK(cutCleanTraffic);
BENCHMARK(cutGarbage);
BENCHMARK(cutRandomGarbage);
BENCHMARK(cutGarbageBeforeAnUnfinishedPacket);
BENCHMARK(readPacketCleanTraffic)->Arg(4)->Arg(64);
BENCHMARK(readPacketGarbage);
BENCHMARK(readPacketRandomGarbage);
// Two sizes: a reader that searches the same bytes again needs more time for each byte of the larger
// one.
BENCHMARK(readPacketGarbageInPieces)->Arg(4096)->Arg(32768);
BENCHMARK(readPacketGarbageAtOnce)->Arg(4096)->Arg(32768);
BENCHMARK(readPacketDamagedPacketAtOnce)->Arg(4096)->Arg(32768);
