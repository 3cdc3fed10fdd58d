// RFC 6298 by hand, in microseconds: SRTT, RTTVAR and the time-out.
#include "com/link/roundtriptime.h"

#include <gtest/gtest.h>

namespace {

constexpr qint64 ms = 1000;
constexpr qint64 s = 1000 * ms;
constexpr qint64 unmeasured = 2 * s;

RoundTripTime after(std::initializer_list<qint64> samplesUs)
{
    RoundTripTime time;
    for (const qint64 sampleUs : samplesUs)
        time.take(sampleUs);
    return time;
}

} // namespace

TEST(RoundTripTime, WithoutASampleIsWhatTheSettingsSay)
{
    const RoundTripTime time;
    EXPECT_FALSE(time.isMeasured());
    EXPECT_EQ(time.timeoutUs(100 * ms, unmeasured), 2 * s) << "no pauses on top";
    EXPECT_EQ(time.timeoutUs(0, 9 * s), 8 * s);
}

// SRTT 100, RTTVAR 50: 100 + 4 * 50.
TEST(RoundTripTime, TheFirstSampleIsTakenWhole)
{
    const RoundTripTime time = after({100 * ms});
    EXPECT_TRUE(time.isMeasured());
    EXPECT_EQ(time.smoothedUs(), 100 * ms);
    EXPECT_EQ(time.timeoutUs(0, unmeasured), 300 * ms);
}

TEST(RoundTripTime, OneAndAHalfPassGapsComeOnTop)
{
    EXPECT_EQ(after({100 * ms}).timeoutUs(10 * ms, unmeasured), 315 * ms);
}

// RTTVAR 3/4 * 50 + 1/4 * |100 - 180| = 57.5, with the SRTT before it; SRTT 7/8 * 100 + 1/8 * 180 = 110.
TEST(RoundTripTime, FollowsALongerSample)
{
    const RoundTripTime time = after({100 * ms, 180 * ms});
    EXPECT_EQ(time.smoothedUs(), 110 * ms);
    EXPECT_EQ(time.timeoutUs(0, unmeasured), 340 * ms);
}

// RTTVAR the same, SRTT 7/8 * 100 + 1/8 * 20 = 90.
TEST(RoundTripTime, FollowsAShorterSample)
{
    const RoundTripTime time = after({100 * ms, 20 * ms});
    EXPECT_EQ(time.smoothedUs(), 90 * ms);
    EXPECT_EQ(time.timeoutUs(0, unmeasured), 320 * ms);
}

TEST(RoundTripTime, ASteadyLineStillGets20MsOfGrace)
{
    RoundTripTime time;
    for (int i = 0; i < 100; ++i)
        time.take(100 * ms);
    EXPECT_EQ(time.timeoutUs(0, unmeasured), 120 * ms);
    EXPECT_EQ(time.timeoutUs(10 * ms, unmeasured), 135 * ms);
}

TEST(RoundTripTime, ASampleOfNothingIsASample)
{
    const RoundTripTime time = after({0});
    EXPECT_TRUE(time.isMeasured());
    EXPECT_EQ(time.timeoutUs(0, unmeasured), 20 * ms);
}

TEST(RoundTripTime, TheTimeoutIsEightSecondsAtMostPausesIncluded)
{
    EXPECT_EQ(after({2600 * ms}).timeoutUs(0, unmeasured), 7800 * ms);
    EXPECT_EQ(after({2600 * ms}).timeoutUs(300 * ms, unmeasured), 8 * s);
    EXPECT_EQ(after({30 * s}).timeoutUs(0, unmeasured), 8 * s);
}

TEST(RoundTripTime, ADoubtfulFirstSampleIsTakenWhole)
{
    RoundTripTime time;
    time.takeDoubtful(2 * s);
    EXPECT_EQ(time.smoothedUs(), 2 * s);
    EXPECT_EQ(time.timeoutUs(0, unmeasured), 6 * s);
}

// Usual is 300, so 1200 at most: SRTT (7 * 100 + 1200) / 8, RTTVAR (3 * 50 + 1100) / 4.
TEST(RoundTripTime, ASampleIsClippedToFourTimesTheUsual)
{
    for (const qint64 sampleUs : {1200 * ms, 1201 * ms, 3600 * s}) {
        const RoundTripTime time = after({100 * ms, sampleUs});
        EXPECT_EQ(time.smoothedUs(), 237'500) << sampleUs;
        EXPECT_EQ(time.timeoutUs(0, unmeasured), 237'500 + 4 * 312'500) << sampleUs;
    }
}

// With the grace, the usual of nothing is 20 ms.
TEST(RoundTripTime, AnInstantLineIsNotClippedToNothing)
{
    EXPECT_EQ(after({0, 80 * ms}).smoothedUs(), 10 * ms);
    EXPECT_EQ(after({0, 800 * ms}).smoothedUs(), 10 * ms);
}

// Usual is 100 + 4 * 50 = 300, so 600 at most: SRTT (7 * 100 + 600) / 8, RTTVAR (3 * 50 + 500) / 4.
TEST(RoundTripTime, ADoubtfulSampleIsClippedToTwiceTheUsual)
{
    for (const qint64 sampleUs : {600 * ms, 601 * ms, 3600 * s}) {
        RoundTripTime time = after({100 * ms});
        time.takeDoubtful(sampleUs);
        EXPECT_EQ(time.smoothedUs(), 162'500) << sampleUs;
        EXPECT_EQ(time.timeoutUs(0, unmeasured), 162'500 + 4 * 162'500) << sampleUs;
    }
}

TEST(RoundTripTime, ASmallerDoubtfulSampleIsTakenAsItIs)
{
    RoundTripTime time = after({100 * ms});
    time.takeDoubtful(180 * ms);
    EXPECT_EQ(time.smoothedUs(), 110 * ms);
    EXPECT_EQ(time.timeoutUs(0, unmeasured), 340 * ms);
}
