#include "tools/linkprofile.h"

#include "com/formats/packetlayout.h"
#include "com/link/linkrules.h"
#include "common/settingskeys.h"

#include <algorithm>
#include <cmath>

namespace tune {

namespace {

constexpr double bitsPerByteOnLine = 10;
constexpr double dataBitsPerByte = 8; // start and stop bits that noise changes have no effect

constexpr double overheadBytes = packetlayout::maxOverhead;
constexpr double largestPacket = 4096;

// A line is never as clean as its operator thinks.
constexpr double leastBitErrorRate = 1e-7;

// On a clean line a packet takes no longer than this, unless it has the smallest size.
constexpr double longestPacketS = 2;
constexpr double smallPacket = 1024;

// What the passes of both hosts add to each round trip.
constexpr double turnsS = 0.03;

constexpr double shortestConfirmationS = 0.05; // the lower limit of the key
constexpr double packetsPerConfirmation = 2;
constexpr double longestConfirmationS = 1;

// A round trip should be no more packets than this, or the window is too short for repeats.
constexpr double packetsPerRoundTrip = 14;

// With more wrong bits per packet than this, lost packets cost more than the waits of the window.
constexpr double mostNoisePerPacket = 0.3;

// The resend interval, as a multiple of the time that the line takes for all that may be unconfirmed.
// With less, packets are repeated that are still on their way, and such repeats cause more repeats;
// lines with both ways busy show it first.
constexpr double resendFactor = 1.8;
// If losses stop the window for much of the time, less is on its way than allowed, and a repeat that
// comes sooner lets the window move again. So the factor becomes smaller, but not below this.
constexpr double leastResendFactor = 1.3;
constexpr double standingThatCounts = 0.05;
constexpr double standingWeight = 2; // how fast the factor falls with the share of time beyond that
constexpr double cleanResendFactor = 1.25; // times the longest possible round trip

constexpr double leastQueue = 512; // bytes: room for what a session says besides its data
constexpr double leastToWrite = 512; // bytes: with one small packet a port's output would run empty
constexpr double leastToWriteS = 0.05; // time on the line: a fast line would run empty between two passes

// What may be unconfirmed in addition to the bytes of a round trip: one packet on its way in each
// direction, one in each driver, and two for hosts that are late.
constexpr double slackPackets = 6;

// Expected goodput, fitted to the simulated line: what remains beside the session's frames and
// opening; what remains with both ways busy, where confirmations wait behind data; and how many packets
// of a window decide how long it stands still.
constexpr double sessionShare = 0.998;
constexpr double bothWaysShare = 0.99;
constexpr double bothWaysLoss = 0.3; // of the share of lost packets
constexpr double packetsThatCount = 8;
constexpr int mostLosses = 40;

double bounded(double value, double least, double most)
{
    return std::max(least, std::min(most, value));
}

int inRange(double value, Setting setting)
{
    const SettingKey& key = settingKey(setting);
    return static_cast<int>(bounded(std::ceil(value), key.minimum, key.maximum));
}

// The facts in bytes and seconds.
struct Line
{
    explicit Line(const LineFacts& facts)
        : bytesPerS(bounded(facts.rate, lowestRate, highestRate) / bitsPerByteOnLine),
          delayS(bounded(facts.delayMs, 0, longestDelayMs) / 1000),
          noise(dataBitsPerByte * bounded(facts.bitErrorRate, leastBitErrorRate, highestBitErrorRate)),
          bufferBytes(bounded(facts.bufferBytes, 0, largestBufferBytes))
    {
    }

    double bytesPerS;
    double delayS;
    double noise; // wrong bits with effect, for each byte
    double bufferBytes;
};

// The size of the whole packet on the line at which the share of packets that survive, multiplied by the
// payload's share of a packet, is greatest.
double bestPacket(double noise)
{
    return overheadBytes / 2 + std::sqrt(overheadBytes * overheadBytes / 4 + overheadBytes / noise);
}

// On the slowest lines a round trip must be shorter than the longest resend interval.
double packetForResend(const Line& line)
{
    const double roundTripS = longestConfirmationS + turnsS + 2 * line.delayS;
    const double longestResendS = settingKey(Setting::DetailsTransportComResendInterval).maximum / 1000.0;
    return std::floor((longestResendS / resendFactor - roundTripS) * line.bytesPerS / slackPackets);
}

double packetFor(const Line& line)
{
    const double best = std::min(bestPacket(line.noise), std::max(smallPacket, longestPacketS * line.bytesPerS));
    // With a window of few bytes each loss would stop a fast line, or one with a long delay.
    const double confirmationS = std::max(shortestConfirmationS, packetsPerConfirmation * best / line.bytesPerS);
    const double roundTrip = line.bytesPerS * (confirmationS + turnsS + 2 * line.delayS);
    const double forWindow = std::min(roundTrip / packetsPerRoundTrip, mostNoisePerPacket / line.noise);
    return std::round(std::min({std::max(best, forWindow), packetForResend(line), largestPacket}));
}

// The share of the time in which new packets may be sent. The rest of the time a lost packet keeps the
// window where it is. Repeats get lost, too, and the packet of a window that needs the most tries
// decides.
double movingShare(double lost, double resendS, double roundTripS, double packetS)
{
    const double windowS = 60 * packetS;
    double waitingS = 0;
    double reached = 1 - std::pow(1 - lost, packetsThatCount); // that a packet is lost so many times
    double power = lost;
    for (int losses = 1; losses < mostLosses; ++losses) {
        power *= lost;
        const double next = 1 - std::pow(1 - power, packetsThatCount);
        waitingS += (reached - next) * std::max(0.0, losses * resendS + roundTripS - windowS);
        reached = next;
    }
    return windowS / (windowS + waitingS);
}

} // namespace

bool operator==(const LinkProfile& left, const LinkProfile& right)
{
    return left.packetSize == right.packetSize && left.maxBytesToWrite == right.maxBytesToWrite &&
           left.maxBytesInQueue == right.maxBytesInQueue && left.resendIntervalMs == right.resendIntervalMs &&
           left.confirmationIntervalMs == right.confirmationIntervalMs;
}

LinkProfile recommendedProfile(const LineFacts& facts)
{
    const Line line(facts);
    const double packet = packetFor(line);
    const double packetS = packet / line.bytesPerS;

    const double confirmationS = bounded(packetsPerConfirmation * packetS, shortestConfirmationS, longestConfirmationS);
    const double roundTripS = confirmationS + turnsS + 2 * line.delayS;
    const double roundTrip = roundTripS * line.bytesPerS;

    // Just enough to keep the line busy: the resend interval grows with it, and a packet that is lost
    // at the end of a call waits that long.
    const double unconfirmed = std::max(leastQueue + packet, roundTrip + slackPackets * packet);
    const double unconfirmedS = unconfirmed / line.bytesPerS;
    const double lost = 1 - std::exp(-line.noise * packet);
    const double moving = movingShare(lost, resendFactor * unconfirmedS, unconfirmedS, packetS);
    const double standing = std::max(0.0, 1 - moving - standingThatCounts);
    const double factor = std::max(leastResendFactor, resendFactor - standingWeight * standing);
    const double longestRoundTripS = 2 * (line.bufferBytes + packet) / line.bytesPerS + roundTripS;
    const double resendS = std::min(factor * unconfirmedS, cleanResendFactor * longestRoundTripS);

    LinkProfile profile;
    profile.packetSize = static_cast<int>(packet);
    const double toWrite = std::max({packet, leastToWrite, leastToWriteS * line.bytesPerS});
    profile.maxBytesToWrite = inRange(toWrite, Setting::DetailsTransportComMaxBytesToWrite);
    profile.maxBytesInQueue = inRange(unconfirmed - packet, Setting::DetailsTransportComMaxBytesInQueue);
    profile.resendIntervalMs = inRange(1000 * resendS, Setting::DetailsTransportComResendInterval);
    profile.confirmationIntervalMs = inRange(1000 * confirmationS, Setting::DetailsTransportComConfirmationInterval);
    return profile;
}

Goodput expectedGoodput(const LineFacts& facts)
{
    const Line line(facts);
    const LinkProfile profile = recommendedProfile(facts);
    const double noise = dataBitsPerByte * bounded(facts.bitErrorRate, 0, highestBitErrorRate);
    const double onLine = profile.packetSize + packetlayout::maxOverhead - packetlayout::blockReserve;
    const double packetS = onLine / line.bytesPerS;
    const double confirmed = std::max(1.0, profile.confirmationIntervalMs / 1000.0 / packetS);
    const double confirmationBytes = overheadBytes + confirmed;

    const double payload = (onLine - overheadBytes) / onLine;
    const double arriving = std::exp(-noise * onLine);
    const double repeatedInVain = noise * confirmationBytes; // what a lost confirmation listed
    const double roundTripS = (profile.maxBytesInQueue + profile.packetSize) / line.bytesPerS;
    const double moving = movingShare(1 - arriving, profile.resendIntervalMs / 1000.0, roundTripS, packetS);
    // At most so much is on its way, however long the delay is.
    const double mostS = (linkrules::maxPacketsInQueue + 1) * packetS;
    const double inFlight = std::min(1.0, mostS / (profile.confirmationIntervalMs / 1000.0 + 2 * line.delayS));

    Goodput goodput;
    goodput.oneWay = sessionShare * payload * arriving * moving * inFlight / (1 + repeatedInVain);
    goodput.bothWays = (bothWaysShare - bothWaysLoss * (1 - arriving)) * goodput.oneWay *
                       std::max(0.0, 1 - confirmationBytes / (confirmed * onLine));
    return goodput;
}

} // namespace tune
