// What one run with several lines does, drawn from a seed: installations, the lines between
// them, their disks, what is sent, and what goes wrong how often.
#pragma once

#include "rig/rng.h"
#include "rig/time/virtualtime.h"

#include <QtGlobal>

#include <cstdint>
#include <string>
#include <vector>

namespace soak {

struct HubScenario
{
    struct SitePlan
    {
        std::int64_t syncNs = 0; // about so long the disk takes for a sync
        std::int64_t callNs = 0; // and for any other change
        int tickMs = 100; // how often a session looks at its line
        std::int64_t maxMessageBytes = 0;
        double messagesPerHour = 0;
    };
    struct LinePlan
    {
        int ends[2] = {0, 1}; // sites; the second one of a hostile line is nobody's
        bool isHostile = false;
        bool isRogue = false; // and its caller is a known abonent, with another such line beside
        int bitsPerSecond = 9600;
        std::int64_t delayNs = 0;
    };

    std::uint64_t seed = 0;
    std::int64_t durationNs = 0; // with faults; a time without follows
    std::vector<SitePlan> sites;
    std::vector<LinePlan> lines;
    int largestMessage = 0;
    qint64 mostMessages = 0; // of one abonent in an inbox
    double cutShare = 0; // of the calls
    double deathsPerHour = 0; // of each site
    double powerShare = 0; // of the deaths: the whole machine
    double fullPerHour = 0;
};

HubScenario makeHubScenario(std::uint64_t seed);
std::string describe(const HubScenario& scenario);

} // namespace soak
