// When an adaptive channel confirms, and what it says twice.
#include "com/link/confirmationpace.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using Numbers = QList<quint8>;

constexpr bool idle = true;
constexpr bool busy = false;

Numbers sorted(const QSet<quint8>& set)
{
    Numbers numbers = set.values();
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

class Pace : public testing::Test
{
protected:
    // Packets first to last arrive in order, and are confirmed.
    Numbers inOrder(int first, int last, bool isWayIdle)
    {
        for (int number = first; number <= last; ++number)
            arrived(number, number);
        return take(isWayIdle);
    }

    void arrived(int number, int expected, int wireBytes = 100)
    {
        m_pace.arrived(static_cast<quint8>(number), static_cast<quint8>(expected), wireBytes);
        m_numbers.insert(static_cast<quint8>(number));
    }

    Numbers take(bool isWayIdle, double noisePerByte = 0)
    {
        return sorted(m_pace.take(std::exchange(m_numbers, {}), isWayIdle, noisePerByte));
    }

    ConfirmationPace m_pace;
    QSet<quint8> m_numbers; // to be confirmed
};

} // namespace

TEST_F(Pace, IsDueAtOnceWithAnEmptyPortAndNothingToSend)
{
    arrived(1, 1, 7);
    EXPECT_TRUE(m_pace.isDue(false, 0));
    EXPECT_FALSE(m_pace.isDue(false, 1));
    EXPECT_FALSE(m_pace.isDue(true, 0));
}

TEST_F(Pace, IsDueEvery1500BytesWhileDataWaits)
{
    arrived(1, 1, 1000);
    arrived(2, 2, 499);
    EXPECT_FALSE(m_pace.isDue(true, 0));
    arrived(3, 3, 1);
    EXPECT_TRUE(m_pace.isDue(true, 0));
    EXPECT_TRUE(m_pace.isDue(true, 4000)) << "behind what the port holds";
    take(busy);
    EXPECT_FALSE(m_pace.isDue(true, 0));
    arrived(4, 4, 1499);
    EXPECT_FALSE(m_pace.isDue(true, 0)) << "counts from the last confirmation";
}

TEST_F(Pace, RepeatsOfThePeerCountTowardsThe1500Bytes)
{
    arrived(1, 1, 750);
    arrived(1, 2, 750);
    EXPECT_TRUE(m_pace.isDue(true, 0));
}

TEST_F(Pace, OnAnIdleWayThePreviousNumbersAreSaidAgain)
{
    EXPECT_EQ(inOrder(1, 3, idle), (Numbers{1, 2, 3}));
    EXPECT_EQ(inOrder(4, 5, idle), (Numbers{1, 2, 3, 4, 5}));
    EXPECT_EQ(inOrder(6, 6, idle), (Numbers{4, 5, 6})) << "but not a third time";
}

TEST_F(Pace, OnABusyWayOnlyWhatIsNewIsSaid)
{
    inOrder(1, 3, busy);
    EXPECT_EQ(inOrder(4, 5, busy), (Numbers{4, 5}));
    EXPECT_EQ(inOrder(6, 6, idle), (Numbers{4, 5, 6})) << "what was said before it comes again";
}

// Two numbers in 11 + 2 * 2 bytes, packets of 100 bytes: 15 * 100 * a > 1.
TEST_F(Pace, OnANoisyBusyWayTheyAreSaidAgainIfARepeatWouldTakeMore)
{
    inOrder(1, 3, busy);
    arrived(4, 4);
    arrived(5, 5);
    EXPECT_EQ(take(busy, 0.999 / 1500), (Numbers{4, 5}));
    arrived(6, 6);
    arrived(7, 7);
    EXPECT_EQ(take(busy, 1.001 / 1500), (Numbers{4, 5, 6, 7}));
}

TEST_F(Pace, WhatARepeatTakesIsTheMeanOfThePacketsSinceTheLastTime)
{
    inOrder(1, 3, busy);
    arrived(4, 4, 900); // of the next two the mean is 550
    arrived(5, 5, 200);
    EXPECT_EQ(take(busy, 1.001 / (15 * 550)), (Numbers{1, 2, 3, 4, 5}));
    arrived(6, 6, 40);
    arrived(7, 7, 60); // 50
    EXPECT_EQ(take(busy, 1.001 / (15 * 550)), (Numbers{6, 7}));
}

TEST_F(Pace, NumbersThatWereSaidAloneAreWorthNothing)
{
    EXPECT_EQ(sorted(m_pace.take({5}, busy, 1)), Numbers{5}) << "no packet arrived: no division by none";
}

TEST_F(Pace, NumbersMoreThan60BehindTheHighestAreNotSaidAgain)
{
    inOrder(1, 3, idle);
    for (int number = 4; number <= 61; ++number)
        arrived(number, number);
    const Numbers told = take(idle);
    ASSERT_EQ(told.size(), 60);
    EXPECT_EQ(told.first(), 2) << "61 - 59";
    EXPECT_EQ(told.last(), 61);
}

TEST_F(Pace, TheHighestMayBeAheadOfAGap)
{
    inOrder(1, 2, idle);
    arrived(61, 3);
    EXPECT_EQ(take(idle), (Numbers{2, 61}));
    arrived(3, 3);
    EXPECT_EQ(take(idle), (Numbers{3, 61})) << "the highest stays";
}

// With numbers compared as they stand, 1 would pass for one of the next round.
TEST_F(Pace, ARepeatOfTheLastRoundDoesNotPassForTheNextOne)
{
    int expected = 1;
    for (; expected <= 240; ++expected)
        arrived(expected, expected);
    take(idle);
    arrived(130, 241); // far behind: the peer missed its confirmation
    EXPECT_EQ(take(idle).size(), 61) << "it, and 181 to 240";
    arrived(241, 241);
    EXPECT_EQ(take(idle), Numbers{241}) << "130 is more than 60 behind";
}

TEST_F(Pace, NumbersWrap)
{
    for (int place = 1; place <= 250; ++place)
        arrived(place, place);
    take(idle);
    for (int place = 251; place <= 254; ++place)
        arrived(place, place);
    take(busy);
    arrived(255, 255);
    arrived(256, 256);
    arrived(257, 257);
    EXPECT_EQ(take(idle), (Numbers{0, 1, 251, 252, 253, 254, 255}));
    arrived(258, 258);
    EXPECT_EQ(take(idle), (Numbers{0, 1, 2, 255}));
}

TEST_F(Pace, MoreThan60BehindTheHighestAroundTheWrap)
{
    for (int place = 1; place <= 200; ++place)
        arrived(place, place);
    take(busy);
    arrived(201, 201);
    arrived(202, 202);
    take(busy);
    for (int place = 203; place <= 261; ++place)
        arrived(place, place);
    const Numbers told = take(idle);
    EXPECT_EQ(told.size(), 60) << "202 to 261, that is 5";
    EXPECT_TRUE(told.contains(202));
    EXPECT_FALSE(told.contains(201));
}

TEST_F(Pace, HundredsOfRoundsKeepTheirPlaces)
{
    for (int place = 1; place < 256 * 300; ++place)
        inOrder(place, place, busy);
    EXPECT_EQ(inOrder(256 * 300, 256 * 300, idle), (Numbers{0, 255}));
}
