// Goodput of the link in simulated time: two sessions of the reference host over two
// channels over a simulated line, as fast as the machine can.
#pragma once

#include "rig/runs/channelsettings.h"
#include "tools/linkprofile.h"

#include <array>
#include <cstdint>
#include <string>

namespace rig::measure {

struct Course
{
    tune::LineFacts line;
    std::array<bool, 2> adaptive{}; // whether that end is
    double wayBackShare = 1; // of the rate, that the way from end 1 has
    bool hidesOutput = false; // the drivers tell nothing of what they have still to send
    int modemBytes = 0; // of a modem's own buffer, behind a port that is portShare times as fast as
    double portShare = 1; // the line
    bool flowControl = true;
    int retrainMs = 0; // now and then nothing is carried for so long
    bool wakesWhenLow = false; // the driver calls itself writable only when nearly empty
    std::array<std::int64_t, 2> bytes{}; // a file of so many from that end; 0: none
    int pauseMs = 0; // now and then a host does nothing for so long, as on a busy machine
    std::uint64_t seed = 1;
};

struct Outcome
{
    std::string error; // empty: all files arrived bit-exact
    std::array<double, 2> share{}; // of rate / 10, from that end, the session's opening counted
    std::array<double, 2> busy{}; // share of the time in which the line carried bytes from that end

    struct Moment
    {
        double seconds = 0; // since the connection stands
        std::array<std::int64_t, 2> bytes{}; // carried by then from that end, packets, repeats and confirmations
    };
    Moment bothProved; // each end has heard who the other is
    Moment firstOffer; // has arrived
};

rig::ChannelSettings channelSettings(const tune::LinkProfile& profile);

// Needs virtual time, started, and an application object; settings.ini holds the profile,
// which the channel reads once in a process: one course in a process. Sets the packet size.
Outcome run(const Course& course, const tune::LinkProfile& profile);

} // namespace rig::measure
