// Making packets, and cutting them out of what a line may carry.
#include <atomic>
#include <cstdlib>

#include <dlfcn.h>

#include <QByteArray>

#include <benchmark/benchmark.h>

#include "com/ccompacket.h"

namespace {

std::atomic<qint64> allocations{0};

constexpr int payloadBytes = 1014; // of a full packet with the usual settings

QByteArray wire(int number, int size)
{
    CComPacket packet;
    packet.number = static_cast<quint8>(number);
    packet.data = QByteArray(size, 'a');
    packet.makePacket();
    return packet.bytes;
}

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

void cutRepeatedly(benchmark::State& state, const QByteArray& bytes)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(cutAll(bytes));
    state.SetBytesProcessed(state.iterations() * bytes.size());
}

void makePacket(benchmark::State& state)
{
    CComPacket packet;
    packet.data = QByteArray(static_cast<int>(state.range(0)), 'a');
    qint64 allocated = 0;
    for (auto _ : state) {
        packet.bytes.clear();
        const qint64 before = allocations;
        packet.makePacket();
        allocated += allocations - before;
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
    state.counters["allocations"] = static_cast<double>(allocated) / static_cast<double>(state.iterations());
}

void cutCleanTraffic(benchmark::State& state)
{
    QByteArray bytes;
    for (int number = 0; number < 64; ++number)
        bytes += wire(number, payloadBytes);
    cutRepeatedly(state, bytes);
}

void cutGarbage(benchmark::State& state)
{
    cutRepeatedly(state, QByteArray(64 * 1024, 'g'));
}

// As random bytes have it: a start symbol in 256.
void cutRandomGarbage(benchmark::State& state)
{
    QByteArray bytes(64 * 1024, '\0');
    quint32 value = 1;
    for (char& byte : bytes) {
        value = value * 1664525u + 1013904223u;
        byte = static_cast<char>(value >> 24);
    }
    cutRepeatedly(state, bytes);
}

void cutGarbageBeforeAnUnfinishedPacket(benchmark::State& state)
{
    cutRepeatedly(state, QByteArray(32 * 1024, 'g') + wire(1, 60000).left(32 * 1024));
}

} // namespace

// Counts what Qt allocates; the C library's own is behind it.
extern "C" void* malloc(std::size_t size)
{
    static const auto next = reinterpret_cast<void* (*)(std::size_t)>(dlsym(RTLD_NEXT, "malloc"));
    allocations.fetch_add(1, std::memory_order_relaxed);
    return next(size);
}

BENCHMARK(makePacket)->Arg(1)->Arg(payloadBytes);
BENCHMARK(cutCleanTraffic);
BENCHMARK(cutGarbage);
BENCHMARK(cutRandomGarbage);
BENCHMARK(cutGarbageBeforeAnUnfinishedPacket);
