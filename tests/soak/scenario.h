// What one run does, drawn from a seed: the line, what goes wrong on it and when, how the
// two ends behave, and the settings of the channel.
#pragma once

#include "rig/line/line.h"
#include "rig/runs/channelsettings.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace soak {

// Which pair talks, and through what.
enum class Kind
{
    Link, // two of our channels, bytes handed over by a plain driver
    LinkToPlain, // ours and a peer without our safeguards, on a line that loses nothing
    Session, // two sessions over our channels
    SessionToPlain, // two sessions, one over a peer without our safeguards
    Hub, // several installations and lines at once, over their real stores (hubscenario.h)
};

constexpr std::array<Kind, 5> allKinds = {Kind::Link, Kind::LinkToPlain, Kind::Session, Kind::SessionToPlain,
                                          Kind::Hub};
const char* kindName(Kind kind);

enum class Content
{
    Random,
    Zeros,
    StartSymbols,
    Escapes,
    Headers,
    Packets
};
enum class Writing
{
    Bulk,
    Blocks,
    Small,
    Mixed,
    Chat,
    Quiet
};

struct EndSettings
{
    int periodMs = 10; // how often the host reads
    double pauseChance = 0; // of a pause instead of a period
    int pauseMs = 0; // at most
    Writing writing = Writing::Bulk;
    Content content = Content::Random;
    int writesPerTurn = 1;
    int readSize = 65536;
    bool runsEvents = false; // whether the event loop gets a turn beside the reads
};

struct Phase
{
    std::int64_t durationNs = 0;
    std::array<rig::Faults, 2> faults; // of the direction that starts at that end
    std::int64_t wallStepMs = 0; // at its beginning

    // Sessions only.
    std::int64_t longestCallNs = rig::never; // then the carrier drops
    std::array<std::vector<int>, 2> fileSizes; // queued at its beginning, to be sent from that end
};

struct Scenario
{
    std::uint64_t seed = 0;
    Kind kind = Kind::Link;
    rig::LineSettings line;
    rig::ChannelSettings channel;
    std::array<EndSettings, 2> ends;
    std::array<bool, 2> plainPeer{}; // whether that end is a peer without our safeguards
    std::array<bool, 2> adaptive{}; // whether that end sends adaptively
    std::vector<Phase> phases; // all with faults; the one without comes behind them
};

// Payload bytes of a full packet.
int blockSize(const rig::ChannelSettings& settings);

// What of the line's rate a stream can count on at the least, in bytes a second: a window
// of a queue for each round trip, and on a slow line one packet in many that is no repeat.
double slowestGoodput(const Scenario& scenario);

// Which ends send adaptively: apart from what a seed draws, so that runs keep their numbers.
enum class Adaptive
{
    None,
    One, // which one: by the seed; ours, if the other is a plain peer
    Both, // or the one that is ours
    Drawn, // one of these, by the seed
};

Scenario makeScenario(Kind kind, std::uint64_t seed, Adaptive adaptive = Adaptive::None);

// One line, for reports.
std::string describe(const Scenario& scenario);

// The next bytes of a stream or a file of that content.
std::string makeContent(Content content, std::size_t size, rig::Rng& rng);

} // namespace soak
