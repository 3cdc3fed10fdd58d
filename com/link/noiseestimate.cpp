#include "com/link/noiseestimate.h"

#include "com/formats/packetlayout.h"

#include <algorithm>
#include <cmath>

namespace {

// So much is remembered at most; what is older counts half.
constexpr double mostLosses = 40;
constexpr double mostBytes = 4e6;

constexpr double mostLossesRemembered = 2; // from call to call
constexpr double mostBytesRemembered = 2e5;

constexpr int burstPackets = 4;

constexpr double longestOnLineS = 2; // of one packet, or nothing else gets through
// Packets that a round trip holds at the most, while those lost are still rare: the window of
// numbers must not end before the confirmations come.
constexpr double packetsPerRoundTrip = 14;
constexpr double rareLoss = 0.3;
constexpr double usPerS = 1e6;

} // namespace

void NoiseEstimate::confirmed(int wireBytes)
{
    m_bytes += wireBytes;
    forgetOld();
}

void NoiseEstimate::lost(int packets, qint64 wireBytes)
{
    if (packets >= burstPackets) {
        m_losses += 1;
    } else {
        m_losses += packets;
        m_bytes += static_cast<double>(wireBytes) / 2; // an error stops the count in the middle
    }
    forgetOld();
}

// Of a packet of w bytes, w - 11 are payload, and it arrives with the probability exp(-a w). Their
// product is largest where a w (w - 11) = 11, that is at the root below.
int NoiseEstimate::packetBytes(double bytesPerS, qint64 roundTripUs) const
{
    constexpr double overhead = packetlayout::maxOverhead;
    const double a = perByte();
    const double best = overhead / 2 + std::sqrt(overhead * overhead / 4 + overhead / a);
    const double roundTripBytes = bytesPerS * static_cast<double>(roundTripUs) / usPerS;
    const double least = std::min(roundTripBytes / packetsPerRoundTrip, rareLoss / a);
    const double size = std::min(std::max(best, least), bytesPerS > 0 ? longestOnLineS * bytesPerS : best);
    return static_cast<int>(std::max<double>(smallestPacketBytes, std::min(size, 65535.0)));
}

NoiseEstimate NoiseEstimate::startOfNextCall() const
{
    NoiseEstimate start;
    start.m_losses = std::min(m_losses, mostLossesRemembered);
    start.m_bytes = std::min(start.m_losses / perByte(), mostBytesRemembered);
    start.m_losses = start.m_bytes * perByte();
    return start;
}

void NoiseEstimate::forgetOld()
{
    if (m_losses <= mostLosses && m_bytes <= mostBytes)
        return;
    m_losses /= 2;
    m_bytes /= 2;
}
