// What an adaptive channel repeats, in which order, and when, on a port that is always empty.
#include "tests/link/senderbed.h"

#include <gtest/gtest.h>

using namespace linktest;

namespace {

class AdaptiveRepeats : public testing::Test
{
protected:
    // First to last went out at 0 and have left the port.
    void send(int packets)
    {
        bed.write(packets);
        bed.pass(0);
        bed.pass(10);
    }

    // A round trip of 100 ms was seen, with passes every 10 ms: the time-out is
    // 100 + 4 * 50 + 1.5 * 10 = 315 ms. Ends at 110 ms.
    void measure()
    {
        bed.write(1);
        EXPECT_EQ(bed.pass(0), "new 1");
        EXPECT_EQ(bed.passesUntil(100), "");
        EXPECT_EQ(bed.pass(110, {1}), "");
    }

    SenderBed bed;
};

} // namespace

// Evidence

TEST_F(AdaptiveRepeats, ALossIsRepeatedWithTheNextConfirmation)
{
    bed.write(3);
    EXPECT_EQ(bed.pass(0), "new 1, new 2, new 3");
    EXPECT_EQ(bed.pass(100, {1, 3}), "needed 2, empty 4");
    EXPECT_EQ(bed.pass(110), "") << "one loss makes one repeat";
    EXPECT_EQ(bed.pass(120, {4}), "needed 2, empty 5") << "the repeat is lost too";
    EXPECT_EQ(bed.pass(130, {2, 5}), "");
}

TEST_F(AdaptiveRepeats, WhatIsConfirmedInOrderProvesNoLoss)
{
    send(4);
    EXPECT_EQ(bed.pass(100, {1}), "");
    EXPECT_EQ(bed.pass(110, {2, 3}), "");
    EXPECT_EQ(bed.pass(120, {4}), "");
}

TEST_F(AdaptiveRepeats, AConfirmationOfNothingThatWaitsProvesNothing)
{
    send(4);
    bed.begin(1'500'000);
    bed.confirm({77, 200});
    EXPECT_EQ(bed.steps(10), "");
    EXPECT_EQ(bed.pass(2010, {}, 2), "empty 5, again 1") << "nor does it end the silence";
}

// Whichever copy arrived: the first one went before packets 2 and 3.
TEST_F(AdaptiveRepeats, AProbeProvesNoLoss)
{
    send(3);
    EXPECT_EQ(bed.pass(2010), "empty 4, again 1, empty 5");
    EXPECT_EQ(bed.pass(2100, {1}), "");
}

TEST_F(AdaptiveRepeats, ANeededRepeatProvesTheLossOfWhatWentBeforeIt)
{
    send(3);
    EXPECT_EQ(bed.pass(100, {3}), "needed 2, needed 1, empty 4");
    EXPECT_EQ(bed.pass(200, {1}), "needed 2, empty 5") << "2 went before 1";
}

// Order

TEST_F(AdaptiveRepeats, RepeatsGoFromTheHighestNumberDownAheadOfNewPackets)
{
    send(5);
    bed.write(2);
    EXPECT_EQ(bed.pass(100, {5}), "needed 4, needed 3, needed 2, needed 1, new 6, new 7");
}

TEST_F(AdaptiveRepeats, FromTheHighestDownAroundTheWrap)
{
    bed.nextNumber = 254;
    send(4);
    EXPECT_EQ(bed.pass(100, {1}), "needed 0, needed 255, needed 254, empty 2");
}

TEST_F(AdaptiveRepeats, ABatchStaysAsItIsUntilItIsOut)
{
    send(8);
    EXPECT_EQ(bed.pass(100, {4}, 1), "needed 3");
    EXPECT_EQ(bed.pass(110, {8}), "needed 2, needed 1, empty 9, needed 7, needed 6, needed 5, empty 10");
}

TEST_F(AdaptiveRepeats, BetweenTwoBatchesGoesOneNewPacket)
{
    send(8);
    EXPECT_EQ(bed.pass(100, {4}, 2), "needed 3, needed 2");
    bed.write(2);
    EXPECT_EQ(bed.pass(110, {8}), "needed 1, new 9, needed 7, needed 6, needed 5, new 10");
}

TEST_F(AdaptiveRepeats, BetweenTwoBatchesGoesNothingNewIfTheWindowIsFull)
{
    send(8);
    EXPECT_EQ(bed.pass(100, {4}, 3), "needed 3, needed 2, needed 1");
    bed.limit = 7; // the oldest is 1, what comes next is 9
    EXPECT_EQ(bed.pass(110, {8}), "needed 7, needed 6, needed 5");
}

TEST_F(AdaptiveRepeats, BetweenTwoBatchesGoesNothingEmptyIfAPacketIsHeldBack)
{
    send(8);
    EXPECT_EQ(bed.pass(100, {4}, 3), "needed 3, needed 2, needed 1");
    bed.write(1);
    bed.limit = 7;
    EXPECT_EQ(bed.pass(110, {8}), "needed 7, needed 6, needed 5");
}

TEST_F(AdaptiveRepeats, NoNewPacketGoesFirstIfSomethingNewWentLast)
{
    send(4);
    bed.write(1);
    EXPECT_EQ(bed.pass(100, {2}), "needed 1, new 5");
    bed.write(1);
    EXPECT_EQ(bed.pass(110, {4}), "needed 3, new 6");
}

TEST_F(AdaptiveRepeats, WhatIsConfirmedMeanwhileLeavesTheBatch)
{
    send(5);
    EXPECT_EQ(bed.pass(100, {5}, 1), "needed 4");
    EXPECT_EQ(bed.pass(110, {2, 3}), "needed 1, empty 6");
}

TEST_F(AdaptiveRepeats, ABatchThatIsConfirmedWholeLeavesNothing)
{
    send(3);
    EXPECT_EQ(bed.pass(100, {3}, 0), "");
    EXPECT_EQ(bed.pass(110, {1, 2}), "");
}

// The packet that follows a repeat

TEST_F(AdaptiveRepeats, NothingFollowsARepeatOfTheNewestPacket)
{
    send(3);
    bed.limit = 0;
    EXPECT_EQ(bed.pass(100, {2}), "needed 1");
    EXPECT_EQ(bed.pass(110, {1}), "needed 3") << "it went before the repeat of 1";
    bed.limit = 111;
    EXPECT_EQ(bed.pass(120), "");
}

TEST_F(AdaptiveRepeats, AnEmptyPacketFollowsAsSoonAsItMay)
{
    send(2);
    bed.limit = 0;
    EXPECT_EQ(bed.pass(100, {2}), "needed 1");
    EXPECT_EQ(bed.pass(110), "");
    bed.limit = 2;
    EXPECT_EQ(bed.pass(120), "empty 3");
    EXPECT_EQ(bed.pass(130), "") << "once";
}

TEST_F(AdaptiveRepeats, AnEmptyPacketFollowsOnlyIntoAnEmptyPort)
{
    send(2);
    bed.port = {true, 12};
    EXPECT_EQ(bed.pass(100, {2}), "needed 1");
    EXPECT_EQ(bed.passesUntil(1080), "") << "12 bytes take a second";
    EXPECT_EQ(bed.pass(1200), "empty 3");
}

// Silence

TEST_F(AdaptiveRepeats, BeforeThereIsASampleTheFirstProbeWaitsForTheResendSetting)
{
    bed.write(2);
    EXPECT_EQ(bed.pass(0), "new 1, new 2");
    EXPECT_EQ(bed.pass(10), "");
    EXPECT_EQ(bed.pass(2009), "");
    EXPECT_EQ(bed.pass(2010), "empty 3, again 1, empty 4") << "the empty one, the oldest, and one to follow it";
}

TEST_F(AdaptiveRepeats, WithoutAnythingOutThereIsNoProbe)
{
    EXPECT_EQ(bed.passesUntil(10'000), "");
    bed.limit = -1;
    bed.write(1);
    EXPECT_EQ(bed.passesUntil(20'000), "") << "held back";
}

TEST_F(AdaptiveRepeats, WhereNothingEmptyMayGoTheNewestIsTheProbe)
{
    send(3);
    bed.limit = 2;
    EXPECT_EQ(bed.pass(2010), "again 3, again 1");
}

TEST_F(AdaptiveRepeats, NothingEmptyGoesIntoAQueueOf111)
{
    SenderBed fuller;
    fuller.write(111);
    fuller.pass(0);
    fuller.pass(10);
    EXPECT_EQ(fuller.pass(2010), "again 111, again 1");
    send(110);
    EXPECT_EQ(bed.pass(2010), "empty 111, again 1") << "now there are as many, so nothing follows";
}

TEST_F(AdaptiveRepeats, WhereAPacketIsHeldBackTheNewestThatWentOutIsTheProbe)
{
    send(3);
    bed.limit = 2;
    bed.write(4);
    EXPECT_EQ(bed.pass(2010), "again 3, again 1");
}

TEST_F(AdaptiveRepeats, ASinglePacketIsItsOwnProbe)
{
    send(1);
    bed.limit = 0;
    EXPECT_EQ(bed.pass(2010), "again 1");
}

TEST_F(AdaptiveRepeats, TheSecondHalfOfAProbeWaitsForNothing)
{
    send(3);
    EXPECT_EQ(bed.pass(2010, {}, 1), "empty 4");
    EXPECT_EQ(bed.pass(2011, {}, 1), "again 1");
}

TEST_F(AdaptiveRepeats, AnAnswerCancelsTheSecondHalfOfAProbe)
{
    send(3);
    EXPECT_EQ(bed.pass(2010, {}, 1), "empty 4");
    EXPECT_EQ(bed.pass(2011, {1}), "");
}

TEST_F(AdaptiveRepeats, AProbeWaitsUntilAllHasLeftThePort)
{
    bed.port = {true, 5};
    bed.write(2);
    EXPECT_EQ(bed.pass(0), "new 1, new 2");
    EXPECT_EQ(bed.passesUntil(4790), "") << "the first one left at 2.4 s, so it would be due at 4.4 s";
    EXPECT_EQ(bed.pass(4800), "empty 3, again 1");
}

TEST_F(AdaptiveRepeats, OnceMeasuredTheFirstProbeWaitsForTheTimeout)
{
    measure();
    bed.write(1);
    EXPECT_EQ(bed.pass(120), "new 2");
    EXPECT_EQ(bed.passesUntil(450), "450: empty 3, again 2, empty 4") << "left at 130, so 445 or later";
}

TEST_F(AdaptiveRepeats, AnyConfirmationMakesTheTimeoutShortAgain)
{
    measure();
    bed.write(2);
    bed.pass(120);
    EXPECT_EQ(bed.passesUntil(450), "450: empty 4, again 2, empty 5");
    bed.passesUntil(540);
    EXPECT_EQ(bed.pass(550, {4, 5}), "needed 3, needed 2, empty 6");
    // A sample of 90 ms: SRTT 98.75, RTTVAR 40, time-out 273.75; left at 560.
    EXPECT_EQ(bed.passesUntil(840), "840: empty 7, again 2, empty 8");
}

TEST_F(AdaptiveRepeats, TheFirstRoundsComeWithTheSecondProbe)
{
    send(2);
    EXPECT_EQ(bed.pass(2010, {}, 10), "empty 3, again 1, empty 4");
    EXPECT_EQ(bed.pass(2020), "");
    EXPECT_EQ(bed.pass(4020, {}, 9), "empty 5, again 1, again 5, again 4, again 3, again 2, again 1, again 5, again 4");
}

// Packets 2 to 4 may be held by the peer, which waits for 1 and delivers it alone.
TEST_F(AdaptiveRepeats, SomethingFollowsTheOldestPacketOfARoundThatEnded)
{
    send(4);
    bed.limit = 3;
    bed.pass(2010);
    bed.pass(2020);
    EXPECT_EQ(bed.pass(4020, {}, 6), "again 4, again 1, again 4, again 3, again 2, again 1");
    bed.limit = 4;
    EXPECT_EQ(bed.pass(4030, {2}), "empty 5");
}

TEST_F(AdaptiveRepeats, AConfirmationEndsARound)
{
    send(4);
    bed.limit = 3;
    EXPECT_EQ(bed.pass(2010), "again 4, again 1");
    EXPECT_EQ(bed.pass(2020), "");
    EXPECT_EQ(bed.pass(4020, {}, 4), "again 4, again 1, again 4, again 3");
    bed.limit = 2;
    EXPECT_EQ(bed.pass(4030, {1}), "") << "2 and 1 are not repeated"; // 4020 ms: a time-out of 12.5 s
    EXPECT_EQ(bed.pass(20'000), "again 4, again 2");
    EXPECT_EQ(bed.pass(20'010), "");
    EXPECT_EQ(bed.pass(40'000, {}, 4), "again 4, again 2, again 4, again 3") << "the next one begins anew";
}

TEST_F(AdaptiveRepeats, TheNextSilenceHasRoundsOfItsOwn)
{
    send(4);
    bed.limit = 3;
    bed.pass(2010);
    bed.pass(2020);
    bed.pass(4020);
    bed.pass(4030);
    const qint64 before = bed.repeatedBytes;
    bed.limit = 2;
    bed.pass(4040, {1}); // 4030 ms: a time-out of 12.6 s
    EXPECT_EQ(bed.pass(20'000), "again 4, again 2");
    EXPECT_EQ(bed.pass(20'010), "");
    bed.pass(40'000);
    EXPECT_GE(bed.repeatedBytes - before, 65546 + 4096);
}

// The last resort. Packets 1 to 12 leave at 300 ms; the probe at 2.3 s makes every sample doubtful,
// and the first one, 2300 ms, sets the time-out to 2300 + 4 * 1150 + 1.5 * 300 = 7350 ms.
TEST_F(AdaptiveRepeats, WhatNoOtherRuleCaughtGoesAgainAfterFourTimeouts)
{
    bed.write(12);
    bed.pass(0);
    bed.pass(300);
    EXPECT_EQ(bed.pass(2300), "empty 13, again 1, empty 14");
    bed.pass(2600, {1});
    for (int number = 2; number <= 9; ++number)
        EXPECT_EQ(bed.pass(2600 + (number - 1) * 3000, {number}), "") << "no silence";
    EXPECT_EQ(bed.pass(300 + 4 * 7350), "");
    EXPECT_EQ(bed.pass(300 + 4 * 7350 + 300), "again 12, again 11, again 10, empty 15")
        << "10 fills a gap, and is delivered alone";
}

// Samples

TEST_F(AdaptiveRepeats, AConfirmationIsOneSampleOfThePacketThatWaitedLongest)
{
    bed.write(1);
    bed.pass(0);
    bed.passesUntil(40);
    bed.write(1);
    EXPECT_EQ(bed.pass(50), "new 2");
    bed.passesUntil(100);
    EXPECT_EQ(bed.pass(110, {1, 2}), "");
    bed.write(1);
    EXPECT_EQ(bed.pass(120), "new 3");
    EXPECT_EQ(bed.passesUntil(450), "450: empty 4, again 3, empty 5") << "315 ms; with both samples 440";
}

// Packets 2 and 3 leave at 130. Their samples of 870 and 880 ms are doubtful: the first counts as
// 600, so SRTT and RTTVAR are 162.5 and the time-out is 827.5 ms; the second does not count.
TEST_F(AdaptiveRepeats, InASilenceOneDoubtfulSampleIsTaken)
{
    measure();
    bed.write(2);
    bed.pass(120);
    EXPECT_EQ(bed.passesUntil(990), "450: empty 4, again 2, empty 5");
    EXPECT_EQ(bed.pass(1000, {2}), "");
    EXPECT_EQ(bed.pass(1010, {3}), "");
    EXPECT_EQ(bed.passesUntil(1840), "1840: empty 6, again 4, empty 7") << "1010 + 827.5";
    // The next silence has one again, 1540 ms: SRTT 334.7, RTTVAR 466.25.
    EXPECT_EQ(bed.passesUntil(1990), "");
    EXPECT_EQ(bed.pass(2000, {4}), "");
    EXPECT_EQ(bed.passesUntil(4210), "");
    EXPECT_EQ(bed.pass(4220, {}, 2), "empty 8, again 5") << "2000 + 334.7 + 4 * 466.25 + 15";
}

// Noise

TEST_F(AdaptiveRepeats, SingleLossesAndConfirmedBytesTellTheNoise)
{
    send(6); // 12 bytes each
    bed.pass(100, {2, 4, 6}, 0);
    EXPECT_DOUBLE_EQ(bed.sender.noise().perByte(), (0.5 + 3) / (2840 + 3 * 12 + 3 * 6));
}

TEST_F(AdaptiveRepeats, FourLossesInOrderAreOneBurst)
{
    send(9);
    bed.pass(100, {4, 9}, 0); // 1 to 3, and 5 to 8
    EXPECT_DOUBLE_EQ(bed.sender.noise().perByte(), (0.5 + 3 + 1) / (2840 + 2 * 12 + 3 * 6));
}

TEST_F(AdaptiveRepeats, EachLostRepeatTellsMoreOfTheNoise)
{
    send(2);
    EXPECT_EQ(bed.pass(100, {2}), "needed 1, empty 3");
    bed.pass(200, {3}, 0);
    EXPECT_DOUBLE_EQ(bed.sender.noise().perByte(), (0.5 + 2) / (2840 + 12 + 6 + 7 + 6));
}
