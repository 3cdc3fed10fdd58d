// Noise on the line: how many bits it hits, where, and from which seed.
#include "rig/testroot.h"
#include "sim/line/noise.h"

#include <QByteArray>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace sim;

namespace {

int bitsSet(char byte)
{
    int count = 0;
    for (int bit = 0; bit < 8; ++bit)
        count += (static_cast<unsigned char>(byte) >> bit) & 1;
    return count;
}

qint64 bitsSet(const QByteArray& bytes)
{
    qint64 count = 0;
    for (const char byte : bytes)
        count += bitsSet(byte);
    return count;
}

class BitErrorTest : public testing::TestWithParam<double>
{
};

TEST_P(BitErrorTest, FlipsAsManyAsItSays)
{
    constexpr int size = 250000;
    Noise noise(GetParam(), {}, 33600, rig::seed());
    QByteArray bytes(size, '\0');
    const qint64 flipped = noise.apply(bytes);
    EXPECT_EQ(flipped, bitsSet(bytes));
    const double expected = 8.0 * size * GetParam();
    const double sigma = std::sqrt(expected * (1 - GetParam()));
    EXPECT_NEAR(static_cast<double>(flipped), expected, 6 * sigma + 1e-9);
    // Every place in a byte is hit alike.
    for (int bit = 0; bit < 8; ++bit) {
        double hits = 0;
        for (const char byte : bytes)
            hits += (static_cast<unsigned char>(byte) >> bit) & 1;
        EXPECT_NEAR(hits, expected / 8, 6 * sigma / std::sqrt(8.0) + 1e-9) << bit;
    }
}

INSTANTIATE_TEST_SUITE_P(Rates, BitErrorTest, testing::Values(0.0, 1e-4, 1e-3, 1e-2, 0.3, 1.0));

TEST(NoiseTest, DependsOnTheSeedAndNotOnThePieces)
{
    const BurstSettings burst{0.1, 60, 0.5};
    QByteArray whole(20000, 'x');
    Noise(1e-3, burst, 33600, 7).apply(whole);
    Noise pieces(1e-3, burst, 33600, 7);
    std::mt19937 random(rig::seed());
    QByteArray joined;
    while (joined.size() < 20000) {
        QByteArray piece(qMin<int>(1 + static_cast<int>(random() % 300), 20000 - joined.size()), 'x');
        pieces.apply(piece);
        joined += piece;
    }
    EXPECT_EQ(joined, whole);
    QByteArray other(20000, 'x');
    Noise(1e-3, burst, 33600, 8).apply(other);
    EXPECT_NE(other, whole);
}

TEST(NoiseTest, BurstsAreAsLongAndAsFarApartAsTheySay)
{
    // One second at 10000 bit/s between bursts of 200 bits, in which every bit is hit.
    constexpr int size = 2000000;
    QByteArray bytes(size, '\0');
    Noise noise(0, {1.0, 200, 1.0}, 10000, rig::seed());
    const qint64 flipped = noise.apply(bytes);
    int bursts = 0;
    int longest = 0;
    int length = 0;
    for (const char byte : bytes) {
        if (byte == 0) {
            bursts += length > 0;
            length = 0;
        } else {
            ++length;
            longest = qMax(longest, length);
        }
    }
    const double expected = size * 10.0 / (10000 + 200);
    EXPECT_NEAR(bursts, expected, 6 * std::sqrt(expected));
    EXPECT_GE(longest, 20);
    // Of the 200 bits of each, eight in ten are data.
    EXPECT_NEAR(static_cast<double>(flipped) / bursts, 160, 8);
}

TEST(NoiseTest, BurstsHitTheShareTheySay)
{
    QByteArray bytes(1000000, '\0');
    Noise noise(0, {0.5, 1000, 0.25}, 20000, rig::seed());
    const double flipped = static_cast<double>(noise.apply(bytes));
    const double expected = 1e7 / (10000 + 1000) * 1000 * 0.25 * 0.8;
    EXPECT_NEAR(flipped, expected, expected * 0.2);
}

} // namespace
