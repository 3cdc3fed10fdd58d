// How much an adaptive channel gives to its port, to the line and to its queue, and in packets of
// which size.
#include "tests/link/senderbed.h"

#include <gtest/gtest.h>

using namespace linktest;

namespace {

constexpr int of100Bytes = 89; // payload of a packet that takes 100 bytes

class AdaptivePace : public testing::Test
{
protected:
    // 100 bytes left at 10 ms and were confirmed after another 100: 1000 bytes/s, and nothing of it
    // ever seen in the port. Passes every 10 ms. Ends at 110 ms.
    void measure()
    {
        bed.write(1, of100Bytes);
        EXPECT_EQ(bed.pass(0), "new 1");
        EXPECT_EQ(bed.passesUntil(100), "");
        EXPECT_EQ(bed.pass(110, {1}), "");
    }

    SenderBed bed;
};

} // namespace

// The port

TEST_F(AdaptivePace, BeforeThereIsARateThePortGetsWhatTheSettingsSay)
{
    bed.port = {true, 0};
    bed.write(20, of100Bytes);
    bed.pass(0);
    EXPECT_EQ(bed.pendingBytes, 1100) << "the last one when there were less than 1024";
    SenderBed exact;
    exact.port = {true, 0};
    exact.write(20, 117); // 128 bytes on the wire
    exact.pass(0);
    EXPECT_EQ(exact.pendingBytes, 1024);
}

struct Pause
{
    int passEveryMs;
    int bytes; // of a port with 1000 bytes/s: in 1.5 pauses and 10 ms, 300 ms at most
};

class AdaptivePauses : public AdaptivePace, public testing::WithParamInterface<Pause>
{
};

TEST_P(AdaptivePauses, ThePortHoldsWhatItTakesUntilTheNextPass)
{
    bed.port = {true, 1000};
    bed.write(100, of100Bytes);
    bed.pass(0);
    for (int ms = GetParam().passEveryMs; ms < 1500; ms += GetParam().passEveryMs)
        bed.pass(ms);
    for (int ms = 1500; ms < 4000; ms += GetParam().passEveryMs) {
        bed.pass(ms);
        EXPECT_GT(bed.pendingBytes, GetParam().bytes) << ms;
        EXPECT_LE(bed.pendingBytes, GetParam().bytes + 100) << ms;
    }
}

INSTANTIATE_TEST_SUITE_P(Every, AdaptivePauses,
                         testing::Values(Pause{10, 25}, Pause{50, 85}, Pause{100, 160}, Pause{150, 235},
                                         Pause{300, 300}, Pause{500, 300}),
                         [](const auto& row) { return std::to_string(row.param.passEveryMs) + "Ms"; });

TEST_F(AdaptivePace, RepeatsWaitForRoomToo)
{
    bed.port = {true, 1000};
    bed.write(3, 85); // 96 bytes on the wire
    bed.pass(0);
    bed.passesUntil(500);
    EXPECT_EQ(bed.pass(510, {3}), "needed 2");
    EXPECT_EQ(bed.passesUntil(580), "") << "26 bytes are left, 25 would do";
    EXPECT_EQ(bed.pass(590), "needed 1");
}

// The line

// 2 * 1000 bytes/s * (100 ms and twice 10 and 20 ms) = 280; three packets of 258 make 1054. A port
// that never showed anything gets all that may go in one pass; it has left by the next.
TEST_F(AdaptivePace, WhatMayBeUnderWayFitsRateAndRoundTrip)
{
    measure();
    bed.write(30, of100Bytes);
    for (int i = 0; i < 11; ++i)
        EXPECT_NE(bed.pass(120 + 10 * i, {}, 1), "") << i;
    EXPECT_EQ(bed.passesUntil(400), "") << "1100 bytes have left";
    EXPECT_NE(bed.pass(410, {2}, 1), "") << "1000";
}

// The oldest one left at 130, so 445 or later.
TEST_F(AdaptivePace, AProbeLeavesToWhatWaitsItsPlace)
{
    measure();
    bed.write(30, of100Bytes);
    for (int i = 0; i < 11; ++i)
        bed.pass(120 + 10 * i, {}, 1);
    EXPECT_EQ(bed.passesUntil(440), "");
    EXPECT_EQ(bed.pass(450, {}, 2), "again 12, again 2") << "nothing empty: 13 waits";
}

TEST_F(AdaptivePace, OnAnEmptyLineAPacketOfAnySizeMayGo)
{
    measure();
    bed.port = {true, 0};
    bed.write(2, 60'000);
    EXPECT_EQ(bed.pass(120), "new 2");
    EXPECT_EQ(bed.pass(130), "");
    EXPECT_EQ(bed.pass(140, {2}), "new 3");
}

TEST_F(AdaptivePace, RepeatsWaitUntilTheyMayBeUnderWay)
{
    SenderBed small({1024, 1024, 300, 2000});
    small.write(10, of100Bytes);
    small.pass(0);
    small.pass(10);
    EXPECT_EQ(small.pass(2010), "empty 11, again 1, empty 12"); // from now on samples are doubtful
    EXPECT_EQ(small.pass(2100, {3}), "") << "2 is lost, but 814 bytes are under way, of 300";
    EXPECT_EQ(small.pass(2110, {4, 5, 6, 7, 8, 9, 10}), "needed 2, empty 13");
}

// A repeat went last, so something new goes before the next one, however long both had to wait.
TEST_F(AdaptivePace, ABatchThatWaitsHasNotBegun)
{
    SenderBed small({1024, 1024, 300, 2000});
    small.write(10, of100Bytes);
    small.pass(0);
    small.pass(10);
    small.write(1, of100Bytes);
    EXPECT_EQ(small.pass(2010), "again 10, again 1");
    EXPECT_EQ(small.pass(2100, {3}), "") << "2 is lost, but 800 bytes are under way, of 300";
    EXPECT_EQ(small.pass(2110, {4, 5, 6, 7, 8, 9, 10}), "new 11, needed 2, empty 12");
}

// 300 bytes in 2 s: 150 bytes/s; SRTT 1235.6 ms; 1.5 losses in 3190 bytes, so packets of 157. The
// queue is 1.5 * 150 bytes/s * (1235.6 + 40 ms) and eight of these.
TEST_F(AdaptivePace, ALostPacketCountsOnceWithWhatLeftTheLine)
{
    bed.write(3, of100Bytes);
    bed.pass(0);
    bed.passesUntil(1000);
    bed.pass(1010, {1}, 0);
    for (int ms = 1020; ms <= 2000; ms += 10)
        bed.pass(ms, {}, 0);
    bed.pass(2010, {3}, 0); // 2 is lost
    bed.pass(2020, {2}, 0); // its confirmation was
    EXPECT_EQ(bed.sender.mostQueuedBytes(), 287 + 8 * 157);
}

// The queue

TEST_F(AdaptivePace, TheQueueHoldsWhatTheSettingsSayUntilThereIsASample)
{
    EXPECT_EQ(bed.sender.mostQueuedBytes(), 10240);
    bed.port = {true, 1000};
    bed.write(3, of100Bytes);
    bed.pass(0);
    bed.passesUntil(100);
    EXPECT_EQ(bed.sender.mostQueuedBytes(), 10240) << "a rate is not enough";
}

// 1.5 * 1000 bytes/s * 140 ms = 210; eight packets of 258 make 2274.
TEST_F(AdaptivePace, TheQueueFitsRateAndRoundTrip)
{
    measure();
    EXPECT_EQ(bed.sender.packetBytes(), 258);
    EXPECT_EQ(bed.sender.mostQueuedBytes(), 2274);
}

// The port takes 10,000 bytes/s, the far end gets 1000: 1.5 * 2000 bytes/s * (1000 + 40 ms) = 3120.
// Packets are large enough for 14 to last a round trip at the port's rate: 714, less one.
TEST_F(AdaptivePace, BehindAFastPortTheQueueFitsTwiceTheLine)
{
    bed.port = {true, 10'000};
    bed.write(10, of100Bytes);
    bed.pass(0);
    bed.passesUntil(1000);
    bed.pass(1010, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    EXPECT_EQ(bed.sender.packetBytes(), 713);
    EXPECT_EQ(bed.sender.mostQueuedBytes(), 3120 + 8 * 713);
}

// A simulated line may answer within a microsecond, while a host that once slept counts 620 ms.
TEST_F(AdaptivePace, TheQueueOfAnEndlessRateHasAnEnd)
{
    bed.pass(0);
    bed.pass(400);
    bed.write(100, 1000);
    bed.steps(1000);
    bed.begin(400'001);
    bed.begin(400'002);
    QVector<quint8> all;
    for (quint8 number = 1; number <= 100; ++number)
        all.append(number);
    bed.confirm(all);
    EXPECT_EQ(bed.sender.mostQueuedBytes(), 30 * 1024) << "nor more than a pausing peer's driver keeps";
}

// Packet sizes

TEST_F(AdaptivePace, APacketFitsTheNoiseAndIsOneByteLongerThanTheSize)
{
    EXPECT_EQ(bed.sender.packetBytes(), 254);
    EXPECT_EQ(SenderBed({100, 1024, 10240, 2000}).sender.packetBytes(), 100) << "not beyond the setting";
}

TEST_F(AdaptivePace, APacketTakesTwoSecondsOfASlowLine)
{
    bed.write(1, of100Bytes);
    bed.pass(0);
    bed.pass(10);
    bed.pass(1010, {1}); // 100 bytes/s
    EXPECT_EQ(bed.sender.packetBytes(), 199);
}

TEST_F(AdaptivePace, APacketFitsTheNoiseOfTheLine)
{
    bed.write(60);
    bed.pass(0);
    bed.pass(10);
    bed.begin(20'000);
    QVector<quint8> odd;
    for (quint8 number = 1; number < 60; number += 2)
        odd.append(number);
    bed.confirm(odd); // 29 single losses: 29.5 in 2840 + 30 * 12 + 29 * 6 bytes
    EXPECT_DOUBLE_EQ(bed.sender.noise().perByte(), 29.5 / 3374);
    EXPECT_EQ(bed.sender.packetBytes(), 40) << "41.4 on the wire";
}
