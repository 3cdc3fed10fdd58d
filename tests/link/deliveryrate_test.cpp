// How fast the far end gets what it is sent, and how much may be on its way, in times handed in.
#include "com/link/deliveryrate.h"

#include <gtest/gtest.h>

namespace {

constexpr qint64 ms = 1000;
constexpr qint64 s = 1000 * ms;

class Delivery : public testing::Test
{
protected:
    // Alone on the line: leaves the driver at atUs, is confirmed roundTripUs later.
    void packet(qint64 atUs, qint64 roundTripUs, int bytes, bool hasMore = true)
    {
        const DeliveryRate::Start start = m_rate.start(atUs, true, hasMore);
        m_rate.settled(bytes);
        m_rate.confirmed(start, atUs + roundTripUs);
    }

    double mostUnderWay(qint64 nowUs) const { return m_rate.mostUnderWay(0, true, nowUs); }

    DeliveryRate m_rate;
};

} // namespace

TEST_F(Delivery, IsUnknownUntilAPacketIsConfirmed)
{
    EXPECT_FALSE(m_rate.isMeasured());
    m_rate.start(0, true, true);
    m_rate.settled(1000);
    EXPECT_FALSE(m_rate.isMeasured());
}

TEST_F(Delivery, IsWhatWasSettledSinceThePacketLeft)
{
    packet(7 * s, 500 * ms, 1000);
    EXPECT_TRUE(m_rate.isMeasured());
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000);
    EXPECT_EQ(m_rate.leastRoundTripUs(), 500 * ms);
}

// Three packets behind one another; the first two are confirmed together after 1 s.
TEST_F(Delivery, CountsAllThatWasSettledBetween)
{
    m_rate.start(0, true, true);
    const DeliveryRate::Start second = m_rate.start(100 * ms, false, true);
    const DeliveryRate::Start third = m_rate.start(200 * ms, false, true);
    m_rate.settled(1000);
    m_rate.settled(1000);
    m_rate.confirmed(second, 1000 * ms);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000) << "since the first one left, not the second";
    EXPECT_EQ(m_rate.leastRoundTripUs(), 900 * ms);
    m_rate.settled(1000);
    m_rate.confirmed(third, 1200 * ms);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2500) << "3000 bytes in 1.2 s";
}

TEST_F(Delivery, CountsFromTheLastConfirmationBeforeThePacketLeft)
{
    const DeliveryRate::Start first = m_rate.start(0, true, true);
    m_rate.settled(1000);
    m_rate.confirmed(first, 1000 * ms);
    const DeliveryRate::Start second = m_rate.start(1200 * ms, false, true);
    m_rate.settled(1000);
    m_rate.confirmed(second, 1500 * ms);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000) << "1000 bytes from 1.0 s to 1.5 s";
}

TEST_F(Delivery, APauseWithNothingOnTheWayIsNotCounted)
{
    packet(0, 1000 * ms, 1000);
    packet(9 * s, 500 * ms, 1000);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000);
}

TEST_F(Delivery, APacketThatNeverLeftSaysNothing)
{
    m_rate.settled(1000);
    m_rate.confirmed(DeliveryRate::Start(), 5 * s);
    EXPECT_FALSE(m_rate.isMeasured());
}

TEST_F(Delivery, NoTimeSaysNothing)
{
    packet(5 * s, 0, 1000);
    EXPECT_FALSE(m_rate.isMeasured());
}

TEST_F(Delivery, IsTheBestOfTenSeconds)
{
    packet(0, 500 * ms, 1500); // 3000 bytes/s
    packet(4 * s, 500 * ms, 1000); // 2000
    packet(7 * s, 500 * ms, 500); // 1000
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 3000);
    packet(10 * s, 500 * ms, 500); // confirmed ten seconds after the best
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 3000);
    packet(10 * s + 1, 500 * ms, 500);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000) << "the second best is still young";
    packet(14 * s + 1, 500 * ms, 250);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 1000);
}

TEST_F(Delivery, ABetterOneCountsAtOnceAndLonger)
{
    packet(0, 500 * ms, 1000);
    packet(9 * s, 500 * ms, 1500);
    packet(18 * s, 500 * ms, 100);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 3000);
}

TEST_F(Delivery, AHostWithLittleToSayOnlyRaisesIt)
{
    packet(0, 500 * ms, 1000);
    packet(30 * s, 500 * ms, 10, false);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000) << "not even after ten seconds";
    packet(40 * s, 500 * ms, 1500, false);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 3000);
}

TEST_F(Delivery, OfAHostWithLittleToSayTheFirstOneCounts)
{
    packet(0, 500 * ms, 10, false);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 20);
}

TEST_F(Delivery, AShorterRoundTripCountsAtOnce)
{
    packet(0, 500 * ms, 1000);
    packet(1 * s, 300 * ms, 600);
    packet(2 * s, 400 * ms, 800);
    EXPECT_EQ(m_rate.leastRoundTripUs(), 300 * ms);
}

// Epochs of ten seconds begin with the first confirmation, at 0.5 s.
TEST_F(Delivery, ALongerRoundTripCountsOnceTwoEpochsKnowNoShorterOne)
{
    packet(0, 500 * ms, 1000);
    packet(2 * s, 510 * ms, 1000);
    packet(10 * s, 510 * ms, 1000); // ends the first
    packet(15 * s, 510 * ms, 1000);
    EXPECT_EQ(m_rate.leastRoundTripUs(), 500 * ms);
    packet(20 * s, 510 * ms, 1000); // ends the second, at 20.51 s
    EXPECT_EQ(m_rate.leastRoundTripUs(), 500 * ms);
    packet(30 * s, 510 * ms, 1000); // 30.51 s: nothing of the first counts
    EXPECT_EQ(m_rate.leastRoundTripUs(), 510 * ms);
}

TEST_F(Delivery, TwiceOfWhatARoundTripCarriesMayBeUnderWay)
{
    packet(0, 500 * ms, 1000);
    EXPECT_DOUBLE_EQ(m_rate.mostUnderWay(0, true, 600 * ms), 2 * 2000 * 0.5);
    EXPECT_DOUBLE_EQ(m_rate.mostUnderWay(100 * ms, true, 600 * ms), 2 * 2000 * 0.6);
}

TEST_F(Delivery, ALineIsFullWhenThreeRoundTripsDidNotMakeItFaster)
{
    packet(0, 500 * ms, 1000);
    packet(1 * s, 500 * ms, 1249);
    packet(2 * s, 500 * ms, 1249);
    EXPECT_DOUBLE_EQ(mostUnderWay(3 * s), 2 * 2498 * 0.5) << "two are not three";
    packet(3 * s, 500 * ms, 1249);
    EXPECT_DOUBLE_EQ(m_rate.mostUnderWay(0, true, 4 * s), 1.25 * 2498 * 0.5);
    EXPECT_DOUBLE_EQ(m_rate.mostUnderWay(100 * ms, false, 4 * s), 8 * 2498 * 0.6);
}

TEST_F(Delivery, ALineThatBecomesFasterByAQuarterIsNotFull)
{
    packet(0, 500 * ms, 1000);
    packet(1 * s, 500 * ms, 1000);
    packet(2 * s, 500 * ms, 1000);
    packet(3 * s, 500 * ms, 1250);
    packet(4 * s, 500 * ms, 1250);
    packet(5 * s, 500 * ms, 1250);
    EXPECT_DOUBLE_EQ(mostUnderWay(6 * s), 2 * 2500 * 0.5);
    packet(6 * s, 500 * ms, 1250);
    EXPECT_DOUBLE_EQ(mostUnderWay(7 * s), 1.25 * 2500 * 0.5);
}

TEST_F(Delivery, AHostWithLittleToSayDoesNotFillALine)
{
    packet(0, 500 * ms, 1000);
    for (int i = 1; i < 10; ++i)
        packet(i * s, 500 * ms, 1000, false);
    EXPECT_DOUBLE_EQ(mostUnderWay(11 * s), 2 * 2000 * 0.5);
}

// Round trips of an epoch of 500 ms are all longer by a quarter and 50 ms: 675 is not, 676 is.
TEST_F(Delivery, AQueueThatGrewIsLetRunOff)
{
    packet(0, 500 * ms, 1000);
    packet(10 * s, 676 * ms, 1352); // ends the first epoch, in which there was a shorter one
    EXPECT_DOUBLE_EQ(mostUnderWay(10'700 * ms), 2 * 2000 * 0.5);
    packet(12 * s, 676 * ms, 1352);
    packet(20 * s, 676 * ms, 1352); // ends the second, at 20.676 s: none
    EXPECT_DOUBLE_EQ(mostUnderWay(20'676 * ms), 0.5 * 2000 * 0.5);
    EXPECT_DOUBLE_EQ(m_rate.mostUnderWay(100 * ms, true, 21'000 * ms), 0.5 * 2000 * 0.5) << "the pauses aside";
    EXPECT_DOUBLE_EQ(mostUnderWay(21'351 * ms), 0.5 * 2000 * 0.5);
    EXPECT_DOUBLE_EQ(mostUnderWay(21'352 * ms), 1.25 * 2000 * 0.5) << "676 ms later";
    EXPECT_DOUBLE_EQ(m_rate.mostUnderWay(0, false, 21'000 * ms), 8 * 2000 * 0.5) << "where nothing hides it";
}

TEST_F(Delivery, ALittleLongerIsNoQueue)
{
    packet(0, 500 * ms, 1000);
    packet(10 * s, 675 * ms, 1350);
    packet(20 * s, 675 * ms, 1350);
    EXPECT_DOUBLE_EQ(mostUnderWay(20'676 * ms), 2 * 2000 * 0.5);
}

TEST_F(Delivery, WhatRunsOffShowsTheOldRoundTripAgain)
{
    packet(0, 500 * ms, 1000);
    packet(10 * s, 800 * ms, 1600);
    packet(20 * s, 800 * ms, 1600); // 20.8 s: runs off
    packet(21 * s, 500 * ms, 1000);
    packet(31 * s, 800 * ms, 1600); // 31.8 s
    EXPECT_EQ(m_rate.leastRoundTripUs(), 500 * ms);
    EXPECT_DOUBLE_EQ(mostUnderWay(31'800 * ms), 1.25 * 2000 * 0.5) << "this epoch had a short one";
}

TEST_F(Delivery, ALongerWayIsBelievedAfterItHasRunOff)
{
    packet(0, 500 * ms, 1000);
    packet(10 * s, 800 * ms, 1600);
    packet(20 * s, 800 * ms, 1600);
    packet(30 * s, 800 * ms, 1600); // 30.8 s: runs off once more
    packet(40 * s + 800 * ms, 800 * ms, 1600);
    EXPECT_EQ(m_rate.leastRoundTripUs(), 800 * ms);
    EXPECT_DOUBLE_EQ(mostUnderWay(41'600 * ms), 1.25 * 2000 * 0.8);
}
