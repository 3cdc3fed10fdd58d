// The processor time of the handshake and of sealing.
#include "bench/parts/traffic.h"
#include "host/session/noise.h"

#include <QByteArray>
#include <QList>
#include <benchmark/benchmark.h>

#include <memory>

namespace {

host::NoiseCipher cipher()
{
    host::SecretBytes key(host::noiseKeyBytes);
    return host::NoiseCipher(std::move(key));
}

void sealing(benchmark::State& state)
{
    const QByteArray bytes = traffic::randomBytes(static_cast<int>(state.range(0)));
    host::NoiseCipher sending = cipher();
    for (auto _ : state)
        benchmark::DoNotOptimize(sending.seal(bytes));
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// The messages to open are sealed while the time is not measured, a few at a time.
void opening(benchmark::State& state)
{
    constexpr int atATime = 64;
    const QByteArray bytes = traffic::randomBytes(static_cast<int>(state.range(0)));
    host::NoiseCipher sending = cipher();
    host::NoiseCipher receiving = cipher();
    QByteArray plain;
    for (auto _ : state) {
        state.PauseTiming();
        QList<QByteArray> sealed;
        for (int i = 0; i < atATime; ++i)
            sealed.append(sending.seal(bytes));
        state.ResumeTiming();
        for (const QByteArray& message : sealed) {
            if (!receiving.open(message, &plain))
                state.SkipWithError("a sealed message does not open");
        }
    }
    state.SetBytesProcessed(state.iterations() * atATime * state.range(0));
}

// Both sides of it.
void handshake(benchmark::State& state)
{
    const auto identity = std::make_shared<const host::KeyPair>(host::KeyPair::generate());
    for (auto _ : state) {
        host::NoiseHandshake initiator(host::NoiseHandshake::Role::Initiator, "prologue", identity);
        host::NoiseHandshake responder(host::NoiseHandshake::Role::Responder, "prologue", identity);
        QByteArray payload;
        const bool isDone = responder.read(initiator.write(payload), &payload) &&
                            initiator.read(responder.write(payload), &payload) &&
                            responder.read(initiator.write(payload), &payload);
        if (!isDone)
            state.SkipWithError("the handshake fails");
    }
    state.SetItemsProcessed(state.iterations());
}

} // namespace

BENCHMARK(sealing)->Arg(16)->Arg(1024)->Arg(16384);
BENCHMARK(opening)->Arg(16)->Arg(1024)->Arg(16384);
BENCHMARK(handshake);
