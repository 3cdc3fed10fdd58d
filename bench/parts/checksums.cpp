// The two checksums, and zlib's for comparison.
#include <zlib.h>

#include <QByteArray>

#include <benchmark/benchmark.h>

#include "com/crc.h"

namespace {

QByteArray someBytes(benchmark::State& state)
{
    QByteArray bytes(static_cast<int>(state.range(0)), '\0');
    quint32 value = 1;
    for (char& byte : bytes) {
        value = value * 1664525u + 1013904223u;
        byte = static_cast<char>(value >> 24);
    }
    return bytes;
}

void countBytes(benchmark::State& state)
{
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void crc32Ours(benchmark::State& state)
{
    const QByteArray bytes = someBytes(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32(bytes.constData(), bytes.size()));
    countBytes(state);
}

void crc32Zlib(benchmark::State& state)
{
    const QByteArray bytes = someBytes(state);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            crc32(0uL, reinterpret_cast<const Bytef*>(bytes.constData()), static_cast<uInt>(bytes.size())));
    }
    countBytes(state);
}

void crc16Ours(benchmark::State& state)
{
    const QByteArray bytes = someBytes(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(crc16(bytes.constData(), bytes.size()));
    countBytes(state);
}

} // namespace

BENCHMARK(crc32Ours)->Arg(16)->Arg(256)->Arg(1024)->Arg(16384);
BENCHMARK(crc32Zlib)->Arg(16)->Arg(256)->Arg(1024)->Arg(16384);
BENCHMARK(crc16Ours)->Arg(5)->Arg(1024);
