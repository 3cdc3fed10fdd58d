// How noisy a line is, and the packet size that suits it. Sizes were worked out apart from the code,
// by 5.5 + sqrt(30.25 + 11 / a), where a is the errors for each byte.
#include "com/link/noiseestimate.h"

#include <gtest/gtest.h>

namespace {

constexpr qint64 s = 1000 * 1000;

// As if so much had been seen: 0.5 losses and 2840 bytes are there at the beginning.
NoiseEstimate seen(int lost, int bytes)
{
    NoiseEstimate noise;
    noise.confirmed(bytes - 2840);
    for (int i = 0; i < lost; ++i)
        noise.lost(1, 0);
    return noise;
}

} // namespace

TEST(NoiseEstimate, BeginsBetweenCleanAndNoisy)
{
    EXPECT_DOUBLE_EQ(NoiseEstimate().perByte(), 0.5 / 2840);
}

TEST(NoiseEstimate, ConfirmedBytesMakeItLess)
{
    NoiseEstimate noise;
    noise.confirmed(1000);
    noise.confirmed(160);
    EXPECT_DOUBLE_EQ(noise.perByte(), 0.5 / 4000);
}

TEST(NoiseEstimate, ALostPacketIsOneErrorInTheMiddle)
{
    NoiseEstimate noise;
    noise.lost(1, 320);
    EXPECT_DOUBLE_EQ(noise.perByte(), 1.5 / 3000);
}

TEST(NoiseEstimate, ThreeInOrderAreThreeErrors)
{
    NoiseEstimate noise;
    noise.lost(3, 960);
    EXPECT_DOUBLE_EQ(noise.perByte(), 3.5 / 3320);
}

TEST(NoiseEstimate, FourInOrderOrMoreAreOneBurst)
{
    NoiseEstimate noise;
    noise.lost(4, 1280);
    EXPECT_DOUBLE_EQ(noise.perByte(), 1.5 / 2840);
    noise.lost(70, 22'400);
    EXPECT_DOUBLE_EQ(noise.perByte(), 2.5 / 2840);
}

TEST(NoiseEstimate, BeyondFortyLossesTheOldCountsHalf)
{
    NoiseEstimate noise;
    for (int i = 0; i < 39; ++i)
        noise.lost(1, 0);
    noise.confirmed(1160);
    EXPECT_DOUBLE_EQ(noise.perByte(), 39.5 / 4000) << "forty are not reached";
    noise.lost(1, 0); // 40.5 / 4000: now 20.25 / 2000
    noise.confirmed(2000);
    EXPECT_DOUBLE_EQ(noise.perByte(), 20.25 / 4000);
}

TEST(NoiseEstimate, BeyondFourMegabytesTheOldCountsHalf)
{
    NoiseEstimate noise;
    noise.confirmed(4'000'000 - 2840);
    noise.lost(1, 0);
    EXPECT_DOUBLE_EQ(noise.perByte(), 1.5 / 4'000'000) << "as many are not beyond";
    noise.confirmed(2); // 1.5 / 4,000,002: now 0.75 / 2,000,001
    noise.lost(1, 0);
    EXPECT_DOUBLE_EQ(noise.perByte(), 1.75 / 2'000'001);
}

TEST(NoiseEstimate, LostBytesCountTowardsTheHalvingToo)
{
    NoiseEstimate noise;
    noise.confirmed(4'000'000 - 2840);
    noise.lost(1, 20);
    noise.lost(1, 0);
    EXPECT_DOUBLE_EQ(noise.perByte(), 1.75 / 2'000'005);
}

// 30.5 losses in 3020 bytes: 2 in 198. 0.5 in 2 MB: 0.05 in 200,000.
TEST(NoiseEstimate, TheNextCallBeginsWithTheSameNoiseAndLittleWeight)
{
    NoiseEstimate noisy = seen(30, 3020).startOfNextCall();
    EXPECT_DOUBLE_EQ(noisy.perByte(), 30.5 / 3020);
    noisy.lost(1, 0);
    EXPECT_DOUBLE_EQ(noisy.perByte(), 3 / (2 * 3020 / 30.5));
    NoiseEstimate clean = seen(0, 2'000'000).startOfNextCall();
    EXPECT_DOUBLE_EQ(clean.perByte(), 0.5 / 2'000'000);
    clean.lost(1, 0);
    EXPECT_DOUBLE_EQ(clean.perByte(), 1.05 / 200'000);
}

TEST(NoiseEstimate, ACallThatSaidLittleIsRememberedAsItIs)
{
    NoiseEstimate next = NoiseEstimate().startOfNextCall();
    next.lost(1, 0);
    EXPECT_DOUBLE_EQ(next.perByte(), 1.5 / 2840);
}

// 255.52, 3322.1, 938.4, 302.0 and 38.96 before they are cut.
TEST(NoiseEstimate, ThePacketThatCarriesTheMost)
{
    EXPECT_EQ(NoiseEstimate().packetBytes(0, 0), 255);
    EXPECT_EQ(seen(0, 500'000).packetBytes(0, 0), 3322) << "1e-6";
    EXPECT_EQ(seen(0, 39'560).packetBytes(0, 0), 938);
    EXPECT_EQ(seen(1, 11'994).packetBytes(0, 0), 302);
    EXPECT_EQ(seen(30, 3020).packetBytes(0, 0), 38);
}

TEST(NoiseEstimate, APacketIsNeverSmallerThan32Bytes)
{
    EXPECT_EQ(seen(39, 2840).packetBytes(0, 0), 34);
    NoiseEstimate noise;
    for (int i = 0; i < 400; ++i)
        noise.lost(1, 0);
    EXPECT_EQ(noise.packetBytes(0, 0), NoiseEstimate::smallestPacketBytes);
    EXPECT_EQ(noise.packetBytes(1, 0), 32) << "however slow the line is";
}

TEST(NoiseEstimate, APacketFitsTheLengthField)
{
    EXPECT_EQ(seen(0, 1'000'000).packetBytes(2e6, 10 * s), 65535);
}

// 14 packets fill 100 ms of 100,000 bytes/s at 714 bytes each.
TEST(NoiseEstimate, APacketIsLargeEnoughForTheWindowToLastARoundTrip)
{
    EXPECT_EQ(NoiseEstimate().packetBytes(100'000, s / 10), 714);
    EXPECT_EQ(NoiseEstimate().packetBytes(10'000, s / 10), 255) << "71 would do";
}

// 0.3 errors in a packet: at 0.5 in 2840 bytes, 1704; here 2400.
TEST(NoiseEstimate, ButNotSoLargeThatManyAreLost)
{
    EXPECT_EQ(seen(0, 4000).packetBytes(1'000'000, s / 10), 2400);
    EXPECT_EQ(seen(0, 4000).packetBytes(1'000'000, 10 * s), 2400);
}

TEST(NoiseEstimate, APacketTakesTwoSecondsOfTheLineAtMost)
{
    EXPECT_EQ(NoiseEstimate().packetBytes(100, 0), 200);
    EXPECT_EQ(NoiseEstimate().packetBytes(100, 100 * s), 200) << "whatever the round trip needs";
    EXPECT_EQ(NoiseEstimate().packetBytes(16.5, 0), 33);
}
