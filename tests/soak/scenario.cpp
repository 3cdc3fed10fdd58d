#include "tests/soak/scenario.h"

#include "rig/packetoracle.h"
#include "tests/soak/hubscenario.h"

#include <algorithm>
#include <cstdio>

namespace soak {

using namespace rig;

namespace {

// How many packets may overtake a late one without its number coming to mean another
// packet: a channel that loses no data has at most 111 numbers under way, a receiver
// tells 136 apart.
constexpr int harmlessOvertaking = 20;
constexpr int smallestPacketBytes = 12;

LineSettings makeLine(Rng& rng)
{
    LineSettings line;
    line.bitsPerSecond = rng.oneOf({1200, 2400, 4800, 9600, 14400, 19200, 33600, 38400, 57600, 115200, 230400, 921600});
    line.delayNs = rng.chance(0.3) ? 0 : static_cast<std::int64_t>(rng.logBetween(1, 2000)) * nsPerMs;
    // Some milliseconds' worth of bytes, so that fast lines do not cost more than they show.
    const int perMs = line.bitsPerSecond / 10000;
    line.chunkBytes = static_cast<int>(rng.between(1 + perMs, 16 + 4 * perMs));
    line.wakesWhenLow = rng.chance(0.5);
    line.driverDepth = rng.chance(0.7) ? 4096 : static_cast<int>(rng.logBetween(257, 4096));
    return line;
}

ChannelSettings makeChannel(Rng& rng)
{
    ChannelSettings channel;
    if (rng.chance(0.4))
        return channel;
    channel.packetSize = rng.oneOf({12, 32, 64, 128, 256, 512, 1024, 2048});
    channel.maxBytesToWrite = rng.chance(0.5) ? 1024 : static_cast<int>(rng.logBetween(32, 4096));
    channel.maxBytesInQueue = rng.chance(0.5) ? 10240 : static_cast<int>(rng.logBetween(128, 65536));
    channel.resendIntervalMs = rng.chance(0.5) ? 2000 : static_cast<int>(rng.logBetween(100, 10000));
    channel.confirmationIntervalMs = rng.chance(0.5) ? 500 : static_cast<int>(rng.logBetween(50, 3000));
    return channel;
}

EndSettings makeEnd(Rng& rng)
{
    EndSettings end;
    end.periodMs = rng.oneOf({5, 10, 20, 20, 50, 50, 100, 200});
    if (rng.chance(0.2)) {
        end.pauseChance = rng.logBetween(1e-4, 1e-2);
        end.pauseMs = static_cast<int>(rng.logBetween(100, 5000));
    }
    end.writing =
        rng.oneOf({Writing::Bulk, Writing::Blocks, Writing::Small, Writing::Mixed, Writing::Chat, Writing::Quiet});
    end.content =
        rng.oneOf({Content::Random, Content::Random, Content::Random, Content::Random, Content::Zeros, Content::Zeros,
                   Content::StartSymbols, Content::Escapes, Content::Escapes, Content::Headers});
    end.writesPerTurn = rng.oneOf({1, 1, 4, 150});
    end.readSize = rng.chance(0.8) ? 65536 : static_cast<int>(rng.logBetween(256, 4096));
    end.runsEvents = rng.chance(0.3);
    return end;
}

std::int64_t overtakingNs(const LineSettings& line)
{
    return std::int64_t(harmlessOvertaking) * smallestPacketBytes * 10 * nsPerS / line.bitsPerSecond;
}

Faults makeFaults(Kind kind, const LineSettings& line, Rng& rng)
{
    Faults faults;
    if (kind == Kind::LinkToPlain || rng.chance(0.15))
        return faults;
    if (rng.chance(0.1)) {
        faults.silence = true;
        return faults;
    }
    if (rng.chance(0.5))
        faults.bitErrorRate = rng.logBetween(1e-7, 1e-3);
    if (rng.chance(0.3)) {
        faults.burst.meanIntervalSeconds = 1 / rng.logBetween(0.01, 2);
        faults.burst.lengthBits = static_cast<int>(sim::bitsPerByte * rng.logBetween(1, 1000));
        faults.burst.errorRate = rng.logBetween(0.01, 0.5);
    }
    if (rng.chance(0.4))
        faults.dropChunk = rng.logBetween(1e-5, 0.1);
    if (rng.chance(0.3))
        faults.doubleChunk = rng.logBetween(1e-5, 0.1);
    if (rng.chance(0.3)) {
        faults.delayChunk = rng.logBetween(1e-5, 0.05);
        // Only a session can tell an old packet whose number has come round from a new one.
        faults.delayedByNs =
            kind == Kind::Link ? overtakingNs(line) : static_cast<std::int64_t>(rng.logBetween(1, 20000)) * nsPerMs;
    }
    if (rng.chance(0.4)) {
        faults.garbagePerSecond = rng.logBetween(0.01, 10);
        faults.garbageBytes = static_cast<int>(rng.logBetween(1, 2000));
    }
    return faults;
}

Phase makePhase(Kind kind, const LineSettings& line, Rng& rng)
{
    Phase phase;
    // A slow line needs longer for as many packets.
    const int longer = line.bitsPerSecond <= 14400 ? 6 : 1;
    phase.durationNs = longer * static_cast<std::int64_t>(rng.logBetween(20, 900)) * nsPerS;
    for (Faults& faults : phase.faults)
        faults = makeFaults(kind, line, rng);
    if (rng.chance(0.3))
        phase.wallStepMs = rng.oneOf({-3600000, 3600000});
    return phase;
}

std::vector<int> makeFiles(double bytesPerSecond, Rng& rng)
{
    constexpr double longestS = 200; // for one file
    constexpr double largest = 1 << 20;
    std::vector<int> sizes;
    for (std::int64_t count = rng.between(0, 3); count > 0; --count)
        sizes.push_back(rng.chance(0.1)
                            ? 0
                            : static_cast<int>(rng.logBetween(1, 2 + std::min(largest, bytesPerSecond * longestS))));
    return sizes;
}

bool isSession(Kind kind)
{
    return kind == Kind::Session || kind == Kind::SessionToPlain;
}

const char* name(Writing writing)
{
    switch (writing) {
    case Writing::Bulk: return "bulk";
    case Writing::Blocks: return "blocks";
    case Writing::Small: return "small";
    case Writing::Mixed: return "mixed";
    case Writing::Chat: return "chat";
    case Writing::Quiet: return "quiet";
    }
    return "";
}

const char* name(Content content)
{
    switch (content) {
    case Content::Random: return "random";
    case Content::Zeros: return "zeros";
    case Content::StartSymbols: return "start-symbols";
    case Content::Escapes: return "escapes";
    case Content::Headers: return "headers";
    case Content::Packets: return "packets";
    }
    return "";
}

std::array<bool, 2> adaptiveEnds(const Scenario& scenario, Adaptive adaptive)
{
    if (adaptive == Adaptive::Drawn)
        adaptive = std::array{Adaptive::None, Adaptive::One, Adaptive::Both}[scenario.seed / 2 % 3];
    const bool isFirst = scenario.plainPeer[1] || scenario.seed % 2 == 0;
    switch (adaptive) {
    case Adaptive::One: return {isFirst, !isFirst};
    case Adaptive::Both: return {true, !scenario.plainPeer[1]};
    default: return {false, false};
    }
}

} // namespace

const char* kindName(Kind kind)
{
    switch (kind) {
    case Kind::Link: return "link";
    case Kind::LinkToPlain: return "link-plain";
    case Kind::Session: return "session";
    case Kind::SessionToPlain: return "session-plain";
    case Kind::Hub: return "hub";
    }
    return "";
}

Scenario makeScenario(Kind kind, std::uint64_t seed, Adaptive adaptive)
{
    Rng rng(seed * 4 + static_cast<std::uint64_t>(kind));
    Scenario scenario;
    scenario.seed = seed;
    scenario.kind = kind;
    if (kind == Kind::Hub) // draws for itself
        return scenario;
    scenario.line = makeLine(rng);
    scenario.channel = makeChannel(rng);
    scenario.plainPeer[1] = kind == Kind::LinkToPlain || kind == Kind::SessionToPlain;
    scenario.adaptive = adaptiveEnds(scenario, adaptive);
    for (EndSettings& end : scenario.ends) {
        end = makeEnd(rng);
        // Where bytes get lost, a receiver looks for packets inside a broken one, and
        // takes what it finds: only a session can tell.
        if (kind != Kind::Link && rng.chance(0.3))
            end.content = Content::Packets;
    }
    for (std::int64_t count = rng.between(1, 5); count > 0; --count)
        scenario.phases.push_back(makePhase(kind, scenario.line, rng));
    if (isSession(kind)) {
        // A heartbeat in packets of two bytes is more than such a line carries.
        if (scenario.line.bitsPerSecond < 9600) {
            scenario.channel.packetSize = std::max(scenario.channel.packetSize, 64);
            scenario.channel.maxBytesToWrite = std::max(scenario.channel.maxBytesToWrite, 64);
        }
        for (Phase& phase : scenario.phases) {
            if (rng.chance(0.4))
                phase.longestCallNs = static_cast<std::int64_t>(rng.logBetween(5, 600)) * nsPerS;
            for (auto& sizes : phase.fileSizes)
                sizes = makeFiles(slowestGoodput(scenario), rng);
        }
    }
    return scenario;
}

int blockSize(const ChannelSettings& settings)
{
    return std::max(1, std::min(settings.packetSize, settings.maxBytesToWrite) - 10);
}

double slowestGoodput(const Scenario& scenario)
{
    constexpr double packetOverhead = 11;
    constexpr double timesOnSlowLine = 20;
    const ChannelSettings& c = scenario.channel;
    const double block = blockSize(c);
    const double onLine = scenario.line.bitsPerSecond / 10.0 * block / (block + packetOverhead) / timesOnSlowLine;
    const double window = std::min<double>(c.maxBytesInQueue, 100 * block) + block;
    const double slowestTurnMs = 2.0 * std::max(scenario.ends[0].periodMs, scenario.ends[1].periodMs);
    const double roundTripS = 2 * static_cast<double>(scenario.line.delayNs) / nsPerS +
                              c.confirmationIntervalMs / 1000.0 + slowestTurnMs / 1000 + 1;
    return std::min(onLine, window / roundTripS / 4);
}

std::string describe(const Scenario& scenario)
{
    if (scenario.kind == Kind::Hub)
        return describe(makeHubScenario(scenario.seed));
    char text[400];
    std::snprintf(text, sizeof(text),
                  "%s %llu: %d bit/s, delay %d ms, depth %d, packet %d, write %d, queue %d, resend %d, confirm %d, "
                  "%s/%s every %d ms%s, %s/%s every %d ms%s, %d phases",
                  kindName(scenario.kind), static_cast<unsigned long long>(scenario.seed), scenario.line.bitsPerSecond,
                  static_cast<int>(scenario.line.delayNs / nsPerMs), scenario.line.driverDepth,
                  scenario.channel.packetSize, scenario.channel.maxBytesToWrite, scenario.channel.maxBytesInQueue,
                  scenario.channel.resendIntervalMs, scenario.channel.confirmationIntervalMs,
                  name(scenario.ends[0].writing), name(scenario.ends[0].content), scenario.ends[0].periodMs,
                  scenario.adaptive[0] ? " adaptively" : "", name(scenario.ends[1].writing),
                  name(scenario.ends[1].content), scenario.ends[1].periodMs, scenario.adaptive[1] ? " adaptively" : "",
                  static_cast<int>(scenario.phases.size()));
    return text;
}

std::string makeContent(Content content, std::size_t size, Rng& rng)
{
    std::string bytes;
    bytes.reserve(size);
    while (bytes.size() < size) {
        switch (content) {
        case Content::Random: bytes += static_cast<char>(rng.next()); break;
        case Content::Zeros: bytes += '\0'; break;
        case Content::StartSymbols: bytes += rig::startSymbol; break;
        case Content::Escapes:
            bytes += rng.oneOf({"+++", "ATH\r\n", "\r\nOK\r\n", "\x11\x13", "\r\nNO CARRIER\r\n", "\x03\x1A\xFF"});
            break;
        case Content::Headers:
            // Long ones are rare, since each costs a check over all that it claims.
            bytes += rig::headerImage(static_cast<std::uint8_t>(rng.below(2)), static_cast<std::uint8_t>(rng.next()),
                                      static_cast<std::uint16_t>(1 + rng.below(rng.chance(0.01) ? 65535 : 300)));
            break;
        case Content::Packets: {
            rig::WirePacket packet;
            packet.type = static_cast<std::uint8_t>(rng.below(2));
            packet.number = static_cast<std::uint8_t>(rng.next());
            packet.payload = makeContent(Content::Random, rng.below(40), rng);
            bytes += rig::packetImage(packet);
            break;
        }
        }
    }
    bytes.resize(size);
    return bytes;
}

} // namespace soak
