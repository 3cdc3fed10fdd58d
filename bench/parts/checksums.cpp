// The two checksums, and zlib's for comparison.
#include "bench/parts/traffic.h"
#include "com/formats/crc.h"

#include <QByteArray>
#include <benchmark/benchmark.h>

#include <zlib.h>

namespace {

QByteArray someBytes(benchmark::State& state)
{
    return traffic::randomBytes(static_cast<int>(state.range(0)));
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
BENCHMARK(crc32Zlib)->Arg(5)->Arg(16)->Arg(256)->Arg(1024)->Arg(16384);
// For headers, whose check covers 5 bytes. A long run shows one chain of look-ups, each waiting for
// the one before.
BENCHMARK(crc16Ours)->Arg(5)->Arg(1024);
