#include "tools/linkprofile.h"

#include <algorithm>
#include <cmath>

#include "common/settingskeys.h"

namespace tune {

namespace {

constexpr double bitsPerByteOnLine = 10;
constexpr double dataBitsPerByte = 8; // of those that noise can damage with effect

constexpr double overheadBytes = 11; // of a packet's bytes on the line: header and checks
constexpr double smallestPacket = 64;
constexpr double largestPacket = 4096;

// No line is as clean as it is thought to be.
constexpr double leastBitErrorRate = 1e-7;

// What the two hosts' turns add to each round trip.
constexpr double turnsS = 0.03;

double bounded(double value, double least, double most)
{
    return std::max(least, std::min(most, value));
}

int inRange(double value, Setting setting)
{
    const SettingKey& key = settingKey(setting);
    return static_cast<int>(bounded(std::ceil(value), key.minimum, key.maximum));
}

} // namespace

bool operator==(const LinkProfile& left, const LinkProfile& right)
{
    return left.packetSize == right.packetSize && left.maxBytesToWrite == right.maxBytesToWrite
        && left.maxBytesInQueue == right.maxBytesInQueue && left.resendIntervalMs == right.resendIntervalMs
        && left.confirmationIntervalMs == right.confirmationIntervalMs;
}

LinkProfile recommendedProfile(const LineFacts& facts)
{
    const double bytesPerS = bounded(facts.rate, lowestRate, highestRate) / bitsPerByteOnLine;
    const double delayS = bounded(facts.delayMs, 0, longestDelayMs) / 1000;
    const double noise = dataBitsPerByte * bounded(facts.bitErrorRate, leastBitErrorRate, highestBitErrorRate);
    const double buffer = bounded(facts.bufferBytes, 0, largestBufferBytes);

    // (w - 11) / w * exp(-noise * w) is greatest here.
    const double best = overheadBytes / 2 + std::sqrt(overheadBytes * overheadBytes / 4 + overheadBytes / noise);
    const double packet = bounded(std::min(best, std::max(1024.0, bytesPerS)), smallestPacket, largestPacket);

    LinkProfile profile;
    profile.packetSize = static_cast<int>(std::lround(packet));
    profile.maxBytesToWrite = inRange(packet, Setting::DetailsTransportComMaxBytesToWrite);
    const double confirmationS = bounded(4 * packet / bytesPerS, 0.05, 1);
    profile.confirmationIntervalMs = inRange(1000 * confirmationS, Setting::DetailsTransportComConfirmationInterval);
    const double roundTripS = confirmationS + 2 * delayS + turnsS + packet / bytesPerS;
    const double queue = std::max(512.0, 2 * bytesPerS * roundTripS + 4 * packet);
    profile.maxBytesInQueue = inRange(queue, Setting::DetailsTransportComMaxBytesInQueue);
    const double waiting = std::min(queue, 2 * (buffer + packet));
    profile.resendIntervalMs =
        inRange(1250 * (waiting / bytesPerS + roundTripS), Setting::DetailsTransportComResendInterval);
    return profile;
}

Goodput expectedGoodput(const LineFacts& facts)
{
    const double noise = dataBitsPerByte * bounded(facts.bitErrorRate, 0, highestBitErrorRate);
    const double onLine = recommendedProfile(facts).packetSize + 1;
    const double share = (onLine - overheadBytes) / onLine * std::exp(-noise * onLine);
    return {share, share};
}

} // namespace tune
