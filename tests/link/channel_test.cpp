// The link channel over a port in memory: what it writes, repeats, and holds back.
#include "tests/link/channelfixture.h"

using namespace linktest;

// Writing

TEST_F(ChannelTest, IsAChannelOfType2)
{
    EXPECT_EQ(m_channel.type, 2);
}

TEST_F(ChannelTest, WriteCutsBlocksOfTenLessThanTheLimit)
{
    m_channel.write(QByteArray(1015, 'x'));
    read();
    const QList<CComPacket> packets = written();
    ASSERT_EQ(packets.size(), 2);
    EXPECT_EQ(packets[0].type, 0);
    EXPECT_EQ(packets[0].number, 1);
    EXPECT_EQ(packets[0].data, QByteArray(1014, 'x'));
    EXPECT_EQ(packets[0].bytes.size(), 1025);
    EXPECT_EQ(packets[1].number, 2);
    EXPECT_EQ(packets[1].data, "x");
    EXPECT_EQ(packets[1].bytes.size(), 12);
}

TEST_F(ChannelTest, WriteSendsTheReferenceImages)
{
    m_channel.write("A");
    read();
    EXPECT_TRUE(sameBytes(m_port.takeWritten(), fromHex("7c00010100a083414d46eca0")));
}

TEST_F(ChannelTest, WriteCutsASmallerPacketSize)
{
    gComSettings.packetSize = 32;
    m_channel.write(QByteArray(45, 'x'));
    read();
    const QList<CComPacket> packets = written();
    ASSERT_EQ(packets.size(), 3);
    EXPECT_EQ(packets[0].data.size(), 22);
    EXPECT_EQ(packets[2].data.size(), 1);
}

TEST_F(ChannelTest, WriteFollowsAPacketSizeThatChanges)
{
    m_channel.write(QByteArray(40, 'x'));
    gComSettings.packetSize = 30;
    EXPECT_EQ(m_channel.idealBlockSize(), 30);
    m_channel.write(QByteArray(40, 'x'));
    read();
    EXPECT_EQ(written().size(), 3);
}

TEST_F(ChannelTest, WriteCutsSingleBytesOfAnAbsurdPacketSize)
{
    for (const int packetSize : {10, 0, -5}) {
        gComSettings.packetSize = packetSize;
        m_channel.write("abc");
    }
    read();
    EXPECT_EQ(written().size(), 9);
}

TEST_F(ChannelTest, WriteOfNothingQueuesNothing)
{
    m_channel.write(QByteArray());
    m_channel.write("");
    read();
    EXPECT_TRUE(written().isEmpty());
    m_channel.write("A");
    read();
    EXPECT_EQ(writtenNumbers(), Numbers{1});
}

TEST_F(ChannelTest, WriteDoesNotTouchThePort)
{
    m_channel.write("A");
    EXPECT_EQ(m_port.bytesToWrite(), 0);
    EXPECT_TRUE(m_port.takeWritten().isEmpty());
}

TEST_F(ChannelTest, NumbersBeginWith1AndGoFrom255To0)
{
    gComSettings.packetSize = 12;
    m_channel.write(QByteArray(2 * 257, 'x'));
    read();
    EXPECT_EQ(writtenNumbers(), range(1, 257));
}

// The queue's limits

TEST_F(ChannelTest, IdealBlockSizeIsThePacketSize)
{
    EXPECT_EQ(m_channel.idealBlockSize(), 1024);
}

TEST_F(ChannelTest, IdealBlockSizeIs0WithMoreThan110Packets)
{
    writeSingles(110);
    EXPECT_EQ(m_channel.idealBlockSize(), 1024);
    m_channel.write("x");
    EXPECT_EQ(m_channel.idealBlockSize(), 0);
}

TEST_F(ChannelTest, IdealBlockSizeIs0WithMoreThan10240Bytes)
{
    m_channel.write(QByteArray(10240, 'x'));
    EXPECT_EQ(m_channel.idealBlockSize(), 1024);
    m_channel.write("x");
    EXPECT_EQ(m_channel.idealBlockSize(), 0);
}

TEST_F(ChannelTest, IdealBlockSizeTakesItsByteLimitFromTheSettings)
{
    setKey(QStringLiteral("Details/transportComMaxBytesInQueue"), 128);
    m_channel.write(QByteArray(128, 'x'));
    EXPECT_EQ(m_channel.idealBlockSize(), 1024);
    m_channel.write("x");
    EXPECT_EQ(m_channel.idealBlockSize(), 0);
}

TEST_F(ChannelTest, IdealBlockSizeCountsOnlyWhatIsUnconfirmed)
{
    m_channel.write(QByteArray(10241, 'x')); // 11 packets
    EXPECT_EQ(m_channel.idealBlockSize(), 0);
    receive(confirmationWire(fromHex("0b")));
    EXPECT_EQ(m_channel.idealBlockSize(), 1024);
}

TEST_F(ChannelTest, IdealBlockSizeIs0WhenTheNumbersAreUsedUp)
{
    writeSingles(125);
    receive(confirmationWire(numberRange(2, 125)));
    EXPECT_EQ(m_channel.idealBlockSize(), 1024); // next 126, first 1
    m_channel.write("x");
    EXPECT_EQ(m_channel.idealBlockSize(), 0);
    receive(confirmationWire(fromHex("01")));
    EXPECT_EQ(m_channel.idealBlockSize(), 1024);
}

// Sending

TEST_F(ChannelTest, AFullPacketIsSentOnlyWhenNothingWaitsInThePort)
{
    m_port.setRoom(0);
    m_channel.write(QByteArray(2 * 1014, 'x'));
    read();
    EXPECT_EQ(m_port.bytesToWrite(), 1025);
    read();
    EXPECT_EQ(m_port.bytesToWrite(), 1025);
    m_port.setRoom(-1);
    read();
    EXPECT_EQ(writtenNumbers(), (Numbers{1, 2}));
}

TEST_F(ChannelTest, APacketIsSentWhileTheRoomLastsAndNotBeyond)
{
    m_port.setRoom(0);
    for (int i = 0; i < 20; ++i)
        m_channel.write(QByteArray(89, 'x')); // 100 bytes each on the line
    read();
    EXPECT_EQ(m_port.bytesToWrite(), 1000);
}

TEST_F(ChannelTest, TheRoomIsThatOfTheSettings)
{
    setKey(maxBytesToWriteKey, 32);
    m_port.setRoom(0);
    m_channel.write(QByteArray(44, 'x')); // blocks of 22, 33 bytes each on the line
    m_channel.write("y");
    read();
    EXPECT_EQ(m_port.bytesToWrite(), 33);
    m_port.setRoom(-1);
    read();
    EXPECT_EQ(writtenNumbers(), (Numbers{1, 2, 3}));
}

TEST_F(ChannelTest, ANewPacketWithoutRoomWaits50MsAndStopsTheWalk)
{
    m_port.setRoom(0);
    m_channel.write(QByteArray(1014, 'x'));
    read();
    m_channel.write(QByteArray(1014, 'x'));
    m_channel.write("small");
    m_port.takeWriteWaits();
    const qint64 before = m_clock.nowMs();
    read();
    EXPECT_EQ(m_port.takeWriteWaits(), (QList<int>{10, 50}));
    EXPECT_EQ(m_clock.nowMs() - before, 10 + 10 + 50); // output, input, room
    EXPECT_EQ(m_port.bytesToWrite(), 1025); // the small one did not pass
}

TEST_F(ChannelTest, ARepeatWithoutRoomWaits100MsAndStopsTheWalk)
{
    m_port.setRoom(0);
    m_channel.write(QByteArray(1014, 'x'));
    m_channel.write("small");
    read();
    m_clock.advanceMs(2001);
    m_port.takeWriteWaits();
    read();
    EXPECT_EQ(m_port.takeWriteWaits(), (QList<int>{10, 100}));
    EXPECT_EQ(m_port.bytesToWrite(), 1025);
}

TEST_F(ChannelTest, EachWrittenPacketIsGivenTenMs)
{
    m_channel.write("a");
    m_channel.write("b");
    read();
    EXPECT_EQ(m_port.takeWriteWaits(), (QList<int>{10, 10}));
}

TEST_F(ChannelTest, NoTimeIsSpentOnOutputWhenNoneWaits)
{
    const qint64 before = m_clock.nowMs();
    read();
    EXPECT_EQ(m_port.takeWriteWaits(), QList<int>());
    EXPECT_EQ(m_port.takeReadWaits(), QList<int>{10});
    EXPECT_EQ(m_clock.nowMs() - before, 10);
}

TEST_F(ChannelTest, ReadTakesWhatArrivesWhileItWaits)
{
    m_port.injectOnWait(dataWire(1, "late"));
    EXPECT_EQ(read(), "late");
}

// Repeating

TEST_F(ChannelTest, ARepeatGoesOutAfterMoreThanTheIntervalWithTheSameBytes)
{
    m_channel.write("Hello");
    read();
    const QByteArray image = m_port.takeWritten();
    m_clock.advanceMs(1990); // a read takes 10 ms itself
    read();
    EXPECT_TRUE(m_port.takeWritten().isEmpty());
    readAfter(1);
    EXPECT_TRUE(sameBytes(m_port.takeWritten(), image));
    readAfter(1990);
    EXPECT_TRUE(m_port.takeWritten().isEmpty()); // counted from the last write
    readAfter(1);
    EXPECT_TRUE(sameBytes(m_port.takeWritten(), image));
}

TEST_F(ChannelTest, TheRepeatIntervalIsThatOfTheSettings)
{
    setKey(QStringLiteral("Details/transportComResendInterval"), 100);
    m_channel.write("Hello");
    read();
    m_clock.advanceMs(101);
    m_port.takeWritten();
    read();
    EXPECT_EQ(writtenNumbers(), Numbers{1});
}

TEST_F(ChannelTest, OnlyWhatIsDueIsRepeated)
{
    m_channel.write("a");
    read();
    m_clock.advanceMs(1000);
    m_channel.write("b");
    read();
    m_clock.advanceMs(1001);
    m_port.takeWritten();
    read();
    EXPECT_EQ(writtenNumbers(), Numbers{1});
}

TEST_F(ChannelTest, WhatIsConfirmedIsNotRepeated)
{
    m_channel.write("a");
    sendUnseen("b");
    m_clock.advanceMs(5000);
    receive(confirmationWire(fromHex("01")));
    EXPECT_EQ(writtenNumbers(), Numbers{2});
}

TEST_F(ChannelTest, AClockThatWasSetBackDoesNotStopTheRepeats)
{
    sendUnseen("a");
    m_clock.stepWallClockMs(-3600 * 1000);
    read();
    EXPECT_EQ(writtenNumbers(), Numbers{1});
    readAfter(1000);
    EXPECT_EQ(writtenNumbers(), Numbers());
    readAfter(1001);
    EXPECT_EQ(writtenNumbers(), Numbers{1});
}

// Confirmations that arrive

TEST_F(ChannelTest, AConfirmationIsReportedOnceForEachPacket)
{
    m_channel.write(QByteArray(1015, 'x'));
    read();
    receive(confirmationWire(fromHex("0102")));
    receive(confirmationWire(fromHex("0102")));
    EXPECT_EQ(reports(), (QStringList{QStringLiteral("sent 7 1014"), QStringLiteral("sent 7 1")}));
    m_port.takeWritten();
    readAfter(5000);
    EXPECT_TRUE(written().isEmpty());
}

TEST_F(ChannelTest, AConfirmationRemovesAPacketThatWasNeverSent)
{
    m_channel.write("abc");
    receive(fromHex("7c0100010024c201d41245b4"));
    EXPECT_EQ(reports(), QStringList{QStringLiteral("sent 7 3")});
    EXPECT_TRUE(m_port.takeWritten().isEmpty());
}

TEST_F(ChannelTest, AConfirmationOfUnknownNumbersIsIgnored)
{
    m_channel.write("a");
    receive(confirmationWire(fromHex("0002ff80")));
    EXPECT_TRUE(reports().isEmpty());
    EXPECT_EQ(writtenNumbers(), Numbers{1});
}

TEST_F(ChannelTest, AConfirmationWithoutNumbersIsIgnored)
{
    m_channel.write("a");
    receive(confirmationWire(QByteArray()));
    EXPECT_TRUE(reports().isEmpty());
}

TEST_F(ChannelTest, TheNumberOfAConfirmationMeansNothing)
{
    m_channel.write("a");
    receive(wire(ConfirmationPacket, 99, fromHex("01")));
    EXPECT_EQ(reports(), QStringList{QStringLiteral("sent 7 1")});
}

TEST_F(ChannelTest, PacketsOfOtherTypesAreIgnored)
{
    EXPECT_EQ(receive(wire(7, 1, "zz") + wire(255, 1, fromHex("01"))), QByteArray());
    readAfter(1000);
    EXPECT_TRUE(written().isEmpty());
    EXPECT_TRUE(reports().isEmpty());
    EXPECT_EQ(receive(dataWire(1, "a")), "a");
}

// The peer's gap

TEST_F(ChannelTest, NewPacketsStayWithin60OfTheOldestWhileThePeerHasAGap)
{
    writeSingles(50);
    read();
    receive(confirmationWire(numberRange(2, 49)));
    m_port.takeWritten();
    writeSingles(50);
    read();
    EXPECT_EQ(writtenNumbers(), range(51, 61));
    receive(confirmationWire(fromHex("01")));
    EXPECT_EQ(writtenNumbers(), range(62, 100));
}

TEST_F(ChannelTest, WithoutAGapTheWholeQueueGoesOut)
{
    writeSingles(112);
    read();
    EXPECT_EQ(writtenNumbers(), range(1, 112));
}

// 2048 bytes in blocks of 22: the first loss would show too late.
TEST_F(ChannelTest, WhereOneWriteMakesManyPacketsNewOnesStayWithin111OfTheOldest)
{
    setKey(maxBytesToWriteKey, 32);
    gComSettings.packetSize = 2048;
    m_channel.write(QByteArray(2048, 'a'));
    m_channel.write(QByteArray(2048, 'b'));
    read();
    QList<int> numbers = writtenNumbers();
    EXPECT_EQ(numbers.size(), 112);
    EXPECT_EQ(numbers.last(), 112);
    receive(confirmationWire(numberRange(1, 20)));
    numbers = writtenNumbers();
    EXPECT_EQ(numbers.size(), 20);
    EXPECT_EQ(numbers.last(), 132);
}

TEST_F(ChannelTest, AConfirmationOfAnOlderPacketOfTheNumberDoesNotHitOneHeldBack)
{
    setKey(maxBytesToWriteKey, 32);
    gComSettings.packetSize = 2048;
    m_channel.write(QByteArray(22 * 140, 'a'));
    read();
    ASSERT_EQ(writtenNumbers().last(), 112);
    receive(confirmationWire(numberRange(100, 140))); // of 100 to 112, and from 256 numbers ago
    receive(confirmationWire(numberRange(1, 99)));
    const QList<int> numbers = writtenNumbers();
    ASSERT_FALSE(numbers.isEmpty());
    EXPECT_EQ(numbers.first(), 113);
    EXPECT_EQ(numbers.last(), 140);
}

TEST_F(ChannelTest, PacketsAlreadySentAreRepeatedBeyondTheGapLimit)
{
    writeSingles(100);
    read();
    m_port.takeWritten();
    m_clock.advanceMs(2001);
    receive(confirmationWire(numberRange(2, 60)));
    EXPECT_EQ(writtenNumbers(), Numbers{1} + range(61, 100));
}

TEST_F(ChannelTest, NewPacketsWaitWhileThePeerMayExpectLessThanItHas)
{
    writeSingles(111);
    read();
    receive(confirmationWire(numberRange(2, 111)));
    m_clock.advanceMs(2001);
    writeSingles(14);
    m_port.takeWritten();
    read();
    EXPECT_EQ(writtenNumbers(), Numbers{1});
    // The peer has delivered 1 and may still expect 2: 122 would be too far ahead of that.
    receive(confirmationWire(fromHex("01")));
    EXPECT_EQ(writtenNumbers(), Numbers{112});
    // 112 has arrived behind everything else, so the peer has moved on.
    receive(confirmationWire(fromHex("70")));
    EXPECT_EQ(writtenNumbers(), range(113, 125));
}

// What went out under the same number a round before proves nothing.
TEST_F(ChannelTest, TheConfirmationOfAPacketThatWasNeverSentDoesNotShowThatThePeerHasMovedOn)
{
    for (int number = 1; number <= 256; ++number) {
        m_channel.write("x");
        read();
        receive(confirmationWire(QByteArray(1, static_cast<char>(number))));
    }
    writeSingles(111);
    read();
    receive(confirmationWire(numberRange(2, 111)));
    m_clock.advanceMs(2001);
    writeSingles(14);
    m_port.takeWritten();
    read();
    ASSERT_EQ(writtenNumbers(), Numbers{1});
    receive(confirmationWire(fromHex("0170"))); // 1, and 112 that waits
    EXPECT_EQ(writtenNumbers(), Numbers{113});
}
