// Which settings of the link give the best goodput on a line, and how much that is. The rule and its
// arithmetic are in docs/tuning-derivation.md.
#pragma once

#include "com/formats/ccomsettings.h"

namespace tune {

// What an operator knows about a line.
struct LineFacts
{
    int rate = 0; // bit/s; a byte takes ten
    int delayMs = 0; // one way
    double bitErrorRate = 0; // of the bits on the line, 0 to below 1
    int bufferBytes = 4096; // written to the port and still in the driver or the modem, at most
};

constexpr int lowestRate = 300;
constexpr int highestRate = 10000000;
constexpr int longestDelayMs = 10000;
constexpr double highestBitErrorRate = 1e-2; // above it nothing useful gets through
constexpr int largestBufferBytes = 1 << 20;

// The link's settings: the packet size of channelCom.conf, and four keys of settings.ini.
// maxBytesToWrite is never less than packetSize, because it would cut the packets.
struct LinkProfile
{
    int packetSize = ChannelComSettings::defaultPacketSize; // bytes
    int maxBytesToWrite = 1024; // Details/transportComMaxBytesToWrite, bytes
    int maxBytesInQueue = 10240; // Details/transportComMaxBytesInQueue, bytes
    int resendIntervalMs = 2000; // Details/transportComResendInterval
    int confirmationIntervalMs = 500; // Details/transportComConfirmationInterval
};

bool operator==(const LinkProfile& left, const LinkProfile& right);

// Share of the line's bytes (rate / 10) that a long transfer gets, session included.
struct Goodput
{
    double oneWay = 0;
    double bothWays = 0; // each way, with both busy
};

// Facts outside the limits above count as the nearest limit. The result is always within the ranges of
// the keys.
LinkProfile recommendedProfile(const LineFacts& line);

// The goodput with recommendedProfile().
Goodput expectedGoodput(const LineFacts& line);

} // namespace tune
