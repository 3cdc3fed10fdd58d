#include "tests/soak/hubscenario.h"

#include <algorithm>
#include <cstdio>

namespace soak {

using namespace rig;

namespace {

constexpr int mostMessageBytes = 60000;

HubScenario::SitePlan makeSite(Rng& rng)
{
    HubScenario::SitePlan site;
    site.syncNs = rng.oneOf<std::int64_t>({0, 5, 50, 400, 400}) * nsPerMs;
    site.callNs = rng.oneOf<std::int64_t>({0, 0, 1, 20}) * nsPerMs;
    site.tickMs = rng.oneOf({50, 100, 250, 500});
    site.maxMessageBytes = rng.chance(0.3) ? mostMessageBytes / 4 : mostMessageBytes * 100;
    site.messagesPerHour = rng.logBetween(20, 200);
    return site;
}

HubScenario::LinePlan makeLine(int from, int to, Rng& rng)
{
    HubScenario::LinePlan line;
    line.ends[0] = from;
    line.ends[1] = to;
    line.bitsPerSecond = rng.oneOf({2400, 9600, 14400, 33600, 33600, 115200});
    line.delayNs = rng.chance(0.3) ? 0 : static_cast<std::int64_t>(rng.logBetween(1, 600)) * nsPerMs;
    return line;
}

void addRogue(HubScenario* scenario, Rng& rng)
{
    const int site = static_cast<int>(rng.below(2));
    for (int count = 0; count < 2; ++count) {
        scenario->lines.push_back(makeLine(site, -1, rng));
        scenario->lines.back().isHostile = true;
        scenario->lines.back().isRogue = true;
        scenario->lines.back().bitsPerSecond = 1000000;
    }
}

} // namespace

HubScenario makeHubScenario(std::uint64_t seed)
{
    Rng rng(seed * 8 + 3);
    HubScenario scenario;
    scenario.seed = seed;
    scenario.durationNs = static_cast<std::int64_t>(rng.logBetween(600, 3600)) * nsPerS;
    const int thirds = static_cast<int>(rng.between(0, 2));
    for (int site = 0; site < 2 + thirds; ++site)
        scenario.sites.push_back(makeSite(rng));
    for (std::int64_t count = rng.between(2, 8); count > 0; --count)
        scenario.lines.push_back(makeLine(0, 1, rng));
    for (int site = 2; site < 2 + thirds; ++site) {
        for (std::int64_t count = rng.between(1, 2); count > 0; --count)
            scenario.lines.push_back(makeLine(site, static_cast<int>(rng.below(2)), rng));
    }
    for (std::int64_t count = rng.between(0, 2); count > 0; --count) {
        scenario.lines.push_back(makeLine(static_cast<int>(rng.below(2)), -1, rng));
        scenario.lines.back().isHostile = true;
    }
    const int slowest =
        std::min_element(scenario.lines.begin(), scenario.lines.end(), [](const auto& a, const auto& b) {
            return a.bitsPerSecond < b.bitsPerSecond;
        })->bitsPerSecond;
    constexpr int longestMessageS = 40;
    scenario.largestMessage = std::min(mostMessageBytes, slowest / 10 * longestMessageS);
    scenario.cutShare = rng.chance(0.1) ? 0 : rng.logBetween(0.1, 1);
    scenario.deathsPerHour = rng.chance(0.3) ? 0 : rng.logBetween(2, 60);
    scenario.powerShare = rng.oneOf({0.0, 0.3, 1.0});
    scenario.fullPerHour = rng.chance(0.5) ? 0 : rng.logBetween(2, 30);
    double mostPerHour = 0;
    for (const HubScenario::SitePlan& site : scenario.sites)
        mostPerHour = std::max(mostPerHour, site.messagesPerHour);
    scenario.mostMessages =
        40 + static_cast<qint64>(2 * mostPerHour * static_cast<double>(scenario.durationNs) / (3600.0 * nsPerS));
    if (rng.chance(0.35))
        addRogue(&scenario, rng);
    return scenario;
}

std::string describe(const HubScenario& scenario)
{
    char text[200];
    const auto hostile =
        std::count_if(scenario.lines.begin(), scenario.lines.end(), [](const auto& line) { return line.isHostile; });
    std::snprintf(text, sizeof(text),
                  "hub %llu: %d sites, %d lines, %d of them hostile, messages to %d bytes, %.0f %% of calls cut, "
                  "%.0f deaths and %.0f full disks an hour",
                  static_cast<unsigned long long>(scenario.seed), static_cast<int>(scenario.sites.size()),
                  static_cast<int>(scenario.lines.size()), static_cast<int>(hostile), scenario.largestMessage,
                  scenario.cutShare * 100, scenario.deathsPerHour, scenario.fullPerHour);
    return text;
}

} // namespace soak
