// What a port remembers of its last call's noise.
#include "com/link/rememberednoise.h"

#include <gtest/gtest.h>

namespace {

// As after so many packets of 1000 bytes, and so many lost ones of no size.
NoiseEstimate noiseOf(int packets, int lost)
{
    NoiseEstimate noise;
    for (int i = 0; i < packets; ++i)
        noise.confirmed(1000);
    for (int i = 0; i < lost; ++i)
        noise.lost(1, 0);
    return noise;
}

} // namespace

TEST(RememberedNoise, IsThatOfANewLineAtFirst)
{
    EXPECT_DOUBLE_EQ(rememberedNoise(QStringLiteral("ttyS0")).perByte(), 0.5 / 2840);
}

TEST(RememberedNoise, IsKeptForEachPort)
{
    const NoiseEstimate noisy = noiseOf(20, 10);
    const NoiseEstimate clean = noiseOf(1000, 1);
    rememberNoise(QStringLiteral("ttyS0"), noisy);
    rememberNoise(QStringLiteral("ttyS1"), clean);
    EXPECT_DOUBLE_EQ(rememberedNoise(QStringLiteral("ttyS0")).perByte(), noisy.perByte());
    EXPECT_DOUBLE_EQ(rememberedNoise(QStringLiteral("ttyS1")).perByte(), clean.perByte());
}

// 10.5 losses in 22,840 bytes become 2 in 4350; four more would hardly move the first.
TEST(RememberedNoise, WeighsLittle)
{
    NoiseEstimate next = noiseOf(20, 10).startOfNextCall();
    const double before = next.perByte();
    for (int i = 0; i < 5; ++i)
        next.confirmed(1000);
    EXPECT_NEAR(next.perByte(), before * 4350 / 9350, before * 0.01);
}

// However long a clean call was, 200,000 bytes are the most that speak for the line.
TEST(RememberedNoise, OfALongCleanCallWeighsLittleToo)
{
    NoiseEstimate next = noiseOf(3000, 0).startOfNextCall();
    next.lost(1, 0);
    EXPECT_NEAR(next.perByte(), 1.0 / 200000, 1.0 / 200000 * 0.2);
}
