// How fast a port takes output, from times and depths handed in.
#include "com/link/drainrate.h"

#include <gtest/gtest.h>

namespace {

constexpr qint64 ms = 1000;

// Busy since 0 with a full port; 40 bytes gone in the first 20 ms: 2000 bytes/s.
class MeasuredPort : public testing::Test
{
protected:
    MeasuredPort()
    {
        m_rate.look(0, 100'000, 100'000);
        goesOn(20 * ms, 40);
    }

    // The driver gives so many bytes away, and keeps some.
    void goesOn(qint64 forUs, qint64 bytes)
    {
        m_nowUs += forUs;
        m_pending -= bytes;
        look();
    }

    void runsDry(qint64 forUs, qint64 bytes)
    {
        m_written += bytes - m_pending; // what never went in need not go out
        m_pending = bytes;
        goesOn(forUs, bytes);
    }

    // So many bytes are written, after a look.
    void fill(qint64 bytes)
    {
        look();
        m_written += bytes;
        m_pending += bytes;
    }

    void look() { m_rate.look(m_nowUs, m_written, m_pending); }

    DrainRate m_rate;
    qint64 m_nowUs = 0;
    qint64 m_written = 100'000;
    qint64 m_pending = 100'000;
};

} // namespace

TEST(DrainRate, IsUnknownAtFirst)
{
    DrainRate rate;
    EXPECT_FALSE(rate.isMeasured());
    rate.look(0, 0, 0);
    rate.look(3600'000 * ms, 0, 0);
    EXPECT_FALSE(rate.isMeasured());
}

TEST(DrainRate, IsGuessedAfter20Ms)
{
    DrainRate rate;
    rate.look(0, 1000, 1000);
    rate.look(20 * ms - 1, 1000, 961);
    EXPECT_FALSE(rate.isMeasured());
    rate.look(20 * ms, 1000, 960);
    EXPECT_TRUE(rate.isMeasured());
    EXPECT_DOUBLE_EQ(rate.bytesPerS(), 2000);
}

TEST(DrainRate, CountsWhatWasWrittenBetweenTwoLooks)
{
    DrainRate rate;
    rate.look(0, 1000, 1000);
    rate.look(20 * ms, 3000, 2960);
    EXPECT_DOUBLE_EQ(rate.bytesPerS(), 2000);
}

TEST(DrainRate, DoesNotCountTheTimeInWhichThePortWasEmpty)
{
    DrainRate rate;
    rate.look(0, 0, 0);
    rate.look(5000 * ms, 1000, 1000);
    rate.look(5020 * ms, 1000, 960);
    EXPECT_DOUBLE_EQ(rate.bytesPerS(), 2000);
}

TEST(DrainRate, AFirstSampleOfAPortThatRanDryCounts)
{
    DrainRate rate;
    rate.look(0, 50, 50);
    rate.look(25 * ms, 50, 0);
    EXPECT_DOUBLE_EQ(rate.bytesPerS(), 2000);
}

TEST(DrainRate, OfAPortThatIsEmptyAtEachLookKnowsWhatItTookAtLeast)
{
    DrainRate rate;
    rate.look(0, 0, 0);
    rate.look(10 * ms, 1000, 0); // written right after the look before
    EXPECT_FALSE(rate.isMeasured());
    rate.look(20 * ms, 2000, 0);
    EXPECT_DOUBLE_EQ(rate.bytesPerS(), 100'000);
}

TEST(DrainRate, TheFastestSampleIsKept)
{
    DrainRate rate;
    EXPECT_EQ(rate.fastestBytesPerS(), 0);
    rate.look(0, 10'000, 10'000);
    rate.look(20 * ms, 10'000, 9960); // 2000 bytes/s
    rate.look(120 * ms, 10'000, 9560); // 4000
    rate.look(220 * ms, 10'000, 9460); // 1000
    EXPECT_DOUBLE_EQ(rate.fastestBytesPerS(), 4000);
    EXPECT_DOUBLE_EQ(rate.bytesPerS(), 2500 - 1500 / 4.0);
}

TEST_F(MeasuredPort, RunningDryDoesNotMakeItSlower)
{
    runsDry(100 * ms, 50);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000);
}

TEST_F(MeasuredPort, RunningDryRaisesItWhole)
{
    runsDry(100 * ms, 500);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 5000);
}

TEST_F(MeasuredPort, RunningDryOnceMakesItASampleOfAtLeast)
{
    runsDry(50 * ms, 50);
    fill(1000);
    goesOn(50 * ms, 50);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000);
    goesOn(100 * ms, 100);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 1750) << "but not the next one";
}

TEST_F(MeasuredPort, LaterSamplesTake100Ms)
{
    goesOn(99 * ms, 400);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000);
    goesOn(1 * ms, 0);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000 + (4000 - 2000) / 4.0);
}

TEST_F(MeasuredPort, EachSampleBeginsAfresh)
{
    goesOn(100 * ms, 200);
    goesOn(100 * ms, 200);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000);
}

TEST_F(MeasuredPort, BecomesSlowerByAQuarter)
{
    goesOn(100 * ms, 100);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000 - (2000 - 1000) / 4.0);
}

TEST_F(MeasuredPort, BusyTimeAddsUpOverManyLooks)
{
    for (int i = 0; i < 9; ++i)
        goesOn(10 * ms, 40);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000);
    goesOn(10 * ms, 40);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2500);
}

TEST_F(MeasuredPort, APauseAfterRunningDryIsNotCounted)
{
    runsDry(50 * ms, 50);
    m_nowUs += 10'000 * ms;
    fill(1000);
    goesOn(50 * ms, 450); // with the 50 ms before, 500 bytes in 100 ms
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 5000);
}

TEST_F(MeasuredPort, AStallDoesNotMakeItSlower)
{
    for (int i = 0; i < 30; ++i)
        goesOn(100 * ms, 0);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000);
    goesOn(100 * ms, 200);
    EXPECT_DOUBLE_EQ(m_rate.bytesPerS(), 2000) << "nor is its time counted later";
}
