// When to probe, and how much to repeat, while no confirmation comes.
#include "com/link/silence.h"

#include <gtest/gtest.h>

namespace {

constexpr qint64 ms = 1000;
constexpr qint64 timeout = 100 * ms;
constexpr qint64 setting = 2000 * ms;

bool isDueAt(const Silence& silence, qint64 nowUs, qint64 departedUs = 0)
{
    return silence.isProbeDue(nowUs, departedUs, timeout, setting);
}

// That many probes and no answer; the last at lastUs.
Silence unanswered(int probes, qint64 lastUs)
{
    Silence silence;
    for (int i = 0; i < probes; ++i)
        silence.probed(lastUs);
    return silence;
}

} // namespace

TEST(Silence, IsProbedAfterTheTimeoutFromTheLastDeparture)
{
    const Silence silence;
    EXPECT_FALSE(isDueAt(silence, 599'999, 500 * ms));
    EXPECT_TRUE(isDueAt(silence, 600'000, 500 * ms));
    EXPECT_EQ(silence.lastProbeUs(), -1);
}

TEST(Silence, IsProbedAfterTheTimeoutFromTheLastConfirmation)
{
    Silence silence;
    silence.confirmed(550 * ms);
    EXPECT_FALSE(isDueAt(silence, 649'999, 500 * ms));
    EXPECT_TRUE(isDueAt(silence, 650'000, 500 * ms));
}

TEST(Silence, WaitsTwiceAsLongAfterEachProbe)
{
    for (const auto& [probes, doubled] : {std::pair(1, 200 * ms), {2, 400 * ms}, {3, 800 * ms}, {4, 1600 * ms}}) {
        const Silence silence = unanswered(probes, 700 * ms);
        EXPECT_EQ(silence.lastProbeUs(), 700 * ms);
        EXPECT_FALSE(isDueAt(silence, 700 * ms + doubled - 1)) << probes;
        EXPECT_TRUE(isDueAt(silence, 700 * ms + doubled)) << probes;
    }
}

TEST(Silence, WaitsNoLongerThanTheSettingSays)
{
    for (const int probes : {5, 16, 17, 40, 64, 1000}) {
        const Silence silence = unanswered(probes, 0);
        EXPECT_FALSE(isDueAt(silence, setting - 1)) << probes;
        EXPECT_TRUE(isDueAt(silence, setting)) << probes;
    }
}

TEST(Silence, WaitsForTheTimeoutIfThatIsLongerThanTheSetting)
{
    for (const int probes : {0, 1, 7}) {
        const Silence silence = unanswered(probes, 0);
        EXPECT_FALSE(silence.isProbeDue(2999 * ms, 0, 3000 * ms, setting)) << probes;
        EXPECT_TRUE(silence.isProbeDue(3000 * ms, 0, 3000 * ms, setting)) << probes;
    }
}

TEST(Silence, CountsFromADepartureAfterTheProbe)
{
    const Silence silence = unanswered(1, 700 * ms);
    EXPECT_FALSE(isDueAt(silence, 949'999, 750 * ms));
    EXPECT_TRUE(isDueAt(silence, 950'000, 750 * ms));
}

TEST(Silence, EndsWithAnyConfirmation)
{
    Silence silence = unanswered(7, 700 * ms);
    silence.confirmed(750 * ms);
    EXPECT_FALSE(isDueAt(silence, 849'999));
    EXPECT_TRUE(isDueAt(silence, 850'000)) << "the first time-out again";
    EXPECT_FALSE(silence.mayRepeatAll(0));
    EXPECT_EQ(silence.lastProbeUs(), 700 * ms);
}

TEST(Silence, AllMayBeRepeatedFromTheSecondProbeOn)
{
    EXPECT_FALSE(unanswered(0, 0).mayRepeatAll(0));
    EXPECT_FALSE(unanswered(1, 0).mayRepeatAll(0));
    EXPECT_TRUE(unanswered(2, 0).mayRepeatAll(0));
    EXPECT_TRUE(unanswered(3, 0).mayRepeatAll(0));
}

// 65,535 bytes of payload and 11 around them are what a false header can make a receiver wait for.
TEST(Silence, AllIsRepeatedUntilAPeerIsOutOfAFalseHeader)
{
    Silence silence = unanswered(2, 0);
    silence.repeatedInRound(69'000, 0);
    silence.repeatedInRound(641, 0);
    EXPECT_TRUE(silence.mayRepeatAll(0));
    silence.repeatedInRound(1, 0);
    EXPECT_FALSE(silence.mayRepeatAll(0)) << "65,535 + 11 + 4096 bytes";
    silence.probed(0);
    EXPECT_FALSE(silence.mayRepeatAll(0)) << "in the same silence";
}

TEST(Silence, AfterAPauseAsLongAllMayBeRepeatedAgain)
{
    Silence silence = unanswered(2, 0);
    silence.repeatedInRound(60'000, 1000 * ms);
    silence.repeatedInRound(9'642, 5000 * ms);
    EXPECT_FALSE(silence.mayRepeatAll(9000 * ms)) << "four seconds are not over";
    EXPECT_TRUE(silence.mayRepeatAll(9000 * ms + 1));
    silence.repeatedInRound(69'641, 9001 * ms);
    EXPECT_TRUE(silence.mayRepeatAll(9001 * ms)) << "and as much";
    silence.repeatedInRound(1, 9101 * ms);
    EXPECT_FALSE(silence.mayRepeatAll(9201 * ms)) << "a tenth of a second, this time";
    EXPECT_TRUE(silence.mayRepeatAll(9201 * ms + 1));
}

TEST(Silence, TheNextOneMayRepeatAsMuchAgain)
{
    Silence silence = unanswered(2, 0);
    silence.repeatedInRound(69'642, 0);
    silence.confirmed(0);
    silence.probed(0);
    silence.probed(0);
    silence.repeatedInRound(69'641, 0);
    EXPECT_TRUE(silence.mayRepeatAll(0));
}
