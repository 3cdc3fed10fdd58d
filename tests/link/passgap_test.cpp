// How long a channel goes without a pass, in times handed in.
#include "com/link/passgap.h"

#include <gtest/gtest.h>

TEST(PassGap, IsNothingBeforeTheSecondPass)
{
    PassGap gap;
    EXPECT_EQ(gap.us(), 0);
    gap.pass(5'000'000);
    EXPECT_EQ(gap.us(), 0);
}

TEST(PassGap, IsTheTimeBetweenTwoPasses)
{
    PassGap gap;
    gap.pass(0);
    gap.pass(12'000);
    EXPECT_EQ(gap.us(), 12'000);
}

TEST(PassGap, GrowsAtOnce)
{
    PassGap gap;
    gap.pass(0);
    gap.pass(12'000);
    gap.pass(12'000 + 90'000);
    EXPECT_EQ(gap.us(), 90'000);
}

// By 64,000 * 8 ms / 8 s = 64, and then by 63.
TEST(PassGap, FadesWithTimeWithinEightSeconds)
{
    PassGap gap;
    gap.pass(0);
    gap.pass(64'000);
    gap.pass(72'000);
    EXPECT_EQ(gap.us(), 63'936);
    gap.pass(80'000);
    EXPECT_EQ(gap.us(), 63'873);
}

TEST(PassGap, FadesNoFurtherThanTheLastOne)
{
    PassGap gap;
    gap.pass(0);
    gap.pass(64'000);
    gap.pass(64'000 + 63'500);
    EXPECT_EQ(gap.us(), 63'500);
}

TEST(PassGap, IsAtMost300Ms)
{
    PassGap gap;
    gap.pass(0);
    gap.pass(299'999);
    EXPECT_EQ(gap.us(), 299'999);
    gap.pass(299'999 + 3'600'000'000);
    EXPECT_EQ(gap.us(), 300'000);
    gap.pass(299'999 + 3'600'080'000);
    EXPECT_EQ(gap.us(), 297'000) << "fades from there";
}
