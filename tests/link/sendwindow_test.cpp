// How far ahead new packets may be sent.
#include "com/link/sendwindow.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

QList<CComPacket> queueOf(const QList<int>& numbers)
{
    QList<CComPacket> queue;
    for (const int number : numbers) {
        CComPacket packet;
        packet.number = static_cast<quint8>(number);
        queue.append(packet);
    }
    return queue;
}

constexpr int unlimited = INT_MAX;

} // namespace

TEST(SendWindow, IsUnlimitedWithoutGapAndRepeats)
{
    SendWindow window;
    EXPECT_EQ(window.newPacketsLimit({}), unlimited);
    EXPECT_EQ(window.newPacketsLimit(queueOf({254, 255, 0, 1})), unlimited);
    for (int number = 1; number <= 100; ++number)
        window.noteSent(static_cast<quint8>(number), 1);
    window.noteConfirmed({1});
    EXPECT_EQ(window.newPacketsLimit(queueOf({2, 3, 4})), unlimited);
}

// 110 packets may wait when a host writes once more, and the peer takes 119.
TEST(SendWindow, Ends111BeyondTheOldestWhereOneWriteMakesMoreThanEightPackets)
{
    EXPECT_EQ(SendWindow::writeLimit(1024, 1014), unlimited);
    EXPECT_EQ(SendWindow::writeLimit(8 * 118, 118), unlimited);
    EXPECT_EQ(SendWindow::writeLimit(8 * 118 + 1, 118), 111);
    EXPECT_EQ(SendWindow::writeLimit(2048, 22), 111);
    EXPECT_EQ(SendWindow::writeLimit(9, 1), 111);
}

TEST(SendWindow, Ends60BeyondAGap)
{
    SendWindow window;
    EXPECT_EQ(window.newPacketsLimit(queueOf({1, 3})), 60);
    EXPECT_EQ(window.newPacketsLimit(queueOf({254, 255, 1})), 60);
}

TEST(SendWindow, Ends111BeyondTheLeastThatThePeerMayExpectAfterARepeat)
{
    SendWindow window;
    window.noteSent(1, 1);
    window.noteRepeated(1, 1);
    EXPECT_EQ(window.newPacketsLimit(queueOf({1, 2, 3})), 111);
    window.noteConfirmed({1});
    EXPECT_EQ(window.newPacketsLimit(queueOf({50, 51})), 62);
    EXPECT_EQ(window.newPacketsLimit(queueOf({112})), 0); // the oldest itself may go
    EXPECT_EQ(window.newPacketsLimit(queueOf({120})), 0);
    EXPECT_EQ(window.newPacketsLimit({}), unlimited);
}

TEST(SendWindow, IsTheSmallerOfBoth)
{
    SendWindow window;
    window.noteRepeated(1, 1);
    EXPECT_EQ(window.newPacketsLimit(queueOf({1, 3})), 60);
    EXPECT_EQ(window.newPacketsLimit(queueOf({101, 103})), 11);
}

TEST(SendWindow, MovesOnWithWhatConfirmationsProve)
{
    SendWindow window;
    for (int number = 1; number <= 40; ++number)
        window.noteSent(static_cast<quint8>(number), static_cast<quint8>(number <= 20 ? 1 : 15));
    window.noteRepeated(1, 1);
    window.noteRepeated(20, 15);
    window.noteConfirmed({10}); // was sent when 1 was the oldest: proves nothing new
    EXPECT_EQ(window.newPacketsLimit(queueOf({15, 16})), 97);
    window.noteConfirmed({30}); // was sent when all before 15 had arrived
    EXPECT_EQ(window.newPacketsLimit(queueOf({15, 16})), 111);
    window.noteConfirmed({12}); // comes late, and takes nothing back
    EXPECT_EQ(window.newPacketsLimit(queueOf({15, 16})), 111);
}

// 2 was sent once and confirmed after 1, so it arrived after 1: the peer has moved past 1, although
// a repeat of 1 was sent later.
TEST(SendWindow, MovesOnWhenARepeatProvesNeedless)
{
    SendWindow window;
    window.noteSent(1, 1);
    window.noteSent(2, 1);
    window.noteRepeated(1, 1);
    window.noteConfirmed({1});
    window.noteConfirmed({2});
    EXPECT_EQ(window.newPacketsLimit(queueOf({3})), 110);
}

TEST(SendWindow, EndsTheLagWhenRepeatsProveNeedless)
{
    SendWindow window;
    for (int number = 1; number <= 40; ++number)
        window.noteSent(static_cast<quint8>(number), 1);
    window.noteRepeated(1, 1);
    window.noteConfirmed({1, 2});
    EXPECT_EQ(window.newPacketsLimit(queueOf({3})), 109); // 2 may have arrived before the repeat of 1
    window.noteConfirmed({17});
    EXPECT_NE(window.newPacketsLimit(queueOf({3})), unlimited);
    window.noteConfirmed({18});
    EXPECT_EQ(window.newPacketsLimit(queueOf({3})), unlimited);
}

TEST(SendWindow, AConfirmationOfBothProvesNothingWithoutTheOrderOfSending)
{
    SendWindow window;
    window.noteSent(1, 1);
    window.noteSent(2, 1);
    window.noteRepeated(1, 1);
    window.noteSent(3, 1);
    window.noteConfirmed({1, 2}); // as after the loss of the first 1
    EXPECT_EQ(window.newPacketsLimit(queueOf({3})), 109);
    window.noteConfirmed({3}); // was sent behind the repeat
    EXPECT_EQ(window.newPacketsLimit(queueOf({4})), 110);
}

// The first 2 may have arrived before 1 did, and only its confirmation be lost.
TEST(SendWindow, ARepeatedPacketProvesNothingOfWhatWasRepeatedToo)
{
    SendWindow window;
    window.noteSent(1, 1);
    window.noteSent(2, 1);
    window.noteRepeated(1, 1);
    window.noteRepeated(2, 1);
    window.noteConfirmed({1});
    window.noteConfirmed({2});
    EXPECT_EQ(window.newPacketsLimit(queueOf({3})), 109);
}

TEST(SendWindow, IsUnlimitedAgainWhenAPacketSentBehindAllRepeatedOnesHasArrived)
{
    SendWindow window;
    window.noteSent(1, 1);
    window.noteRepeated(1, 1);
    window.noteSent(2, 1);
    window.noteConfirmed({1});
    window.noteConfirmed({2});
    EXPECT_NE(window.newPacketsLimit(queueOf({3})), unlimited);
    window.noteSent(18, 3);
    window.noteConfirmed({18});
    EXPECT_EQ(window.newPacketsLimit(queueOf({19})), unlimited);
}

TEST(SendWindow, StaysWhileAnOvertakenPacketMayKeepThePeerBack)
{
    SendWindow window;
    window.noteRepeated(1, 1);
    for (int number = 2; number <= 17; ++number) {
        window.noteSent(static_cast<quint8>(number), static_cast<quint8>(number));
        window.noteConfirmed({static_cast<quint8>(number)});
        EXPECT_EQ(window.newPacketsLimit(queueOf({number + 1})), 110) << number;
    }
    window.noteSent(18, 18);
    window.noteConfirmed({18});
    EXPECT_EQ(window.newPacketsLimit(queueOf({19})), unlimited);
}

TEST(SendWindow, CountsRepeatsOfLaterPacketsToo)
{
    SendWindow window;
    window.noteSent(1, 1);
    window.noteSent(5, 2);
    window.noteRepeated(1, 1);
    window.noteRepeated(4, 1);
    window.noteRepeated(2, 1);
    window.noteSent(40, 3);
    window.noteConfirmed({40}); // behind 1 and 2, but not behind 4
    EXPECT_NE(window.newPacketsLimit(queueOf({41})), unlimited);
    window.noteSent(41, 41);
    window.noteConfirmed({41});
    EXPECT_EQ(window.newPacketsLimit(queueOf({42})), unlimited);
}

TEST(SendWindow, GoesAroundTheWrap)
{
    SendWindow window;
    window.noteRepeated(250, 250);
    EXPECT_EQ(window.newPacketsLimit(queueOf({4, 5})), 101);
    window.noteSent(10, 255);
    window.noteConfirmed({10});
    EXPECT_EQ(window.newPacketsLimit(queueOf({11, 12})), 99);
    window.noteSent(11, 255);
    window.noteConfirmed({11});
    EXPECT_EQ(window.newPacketsLimit(queueOf({12, 13})), unlimited);
}

// 111 was first sent when 1 was the oldest, half the numbers ago: that proves nothing of what the
// peer expects since 130 was repeated.
TEST(SendWindow, ALongSentPacketDoesNotEndTheLag)
{
    SendWindow window;
    for (int number = 1; number <= 111; ++number)
        window.noteSent(static_cast<quint8>(number), 1);
    for (int number = 112; number <= 130; ++number)
        window.noteSent(static_cast<quint8>(number), 111);
    window.noteRepeated(111, 111);
    window.noteRepeated(130, 111);
    window.noteConfirmed({111});
    EXPECT_EQ(window.newPacketsLimit(queueOf({151, 152})), 71);
}

// The same wherever the numbers stand.
TEST(SendWindow, ALongSentPacketDoesNotEndTheLagAroundTheWrap)
{
    for (int shift = 0; shift < 256; ++shift) {
        const auto at = [shift](int number) { return static_cast<quint8>(number + shift); };
        SendWindow window;
        for (int number = 1; number <= 111; ++number)
            window.noteSent(at(number), at(1));
        for (int number = 112; number <= 150; ++number)
            window.noteSent(at(number), at(111));
        window.noteRepeated(at(111), at(111));
        window.noteRepeated(at(130), at(111));
        window.noteConfirmed({at(111)});
        EXPECT_EQ(window.newPacketsLimit(queueOf({at(151), at(152)})), 71) << shift;
        window.noteSent(at(151), at(131));
        window.noteConfirmed({at(151)});
        EXPECT_EQ(window.newPacketsLimit(queueOf({at(152)})), unlimited) << shift;
    }
}
