// The link channel over a port in memory: sending, repeating, confirming, delivering.
#include "common/functiondebug.h"
#include "tests/link/channelfixture.h"
#include "tests/link/messagecatcher.h"

using namespace linktest;

namespace {

using Numbers = QList<int>;

const QString packetsKey = QStringLiteral("Debug/transportComPackets");
const QString dataKey = QStringLiteral("Debug/transportComData");
const QString maxBytesToWriteKey = QStringLiteral("Details/transportComMaxBytesToWrite");

Numbers range(int first, int last)
{
    Numbers numbers;
    for (int number = first; number <= last; ++number)
        numbers.append(number % 256);
    return numbers;
}

} // namespace

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
    for (int i = 0; i < 110; ++i)
        m_channel.write("x");
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
    for (int i = 1; i <= 125; ++i)
        m_channel.write("x");
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
    m_clock.advanceMs(1);
    read();
    EXPECT_TRUE(sameBytes(m_port.takeWritten(), image));
    m_clock.advanceMs(1990);
    read();
    EXPECT_TRUE(m_port.takeWritten().isEmpty()); // counted from the last write
    m_clock.advanceMs(1);
    read();
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
    m_channel.write("b");
    read();
    m_port.takeWritten();
    m_clock.advanceMs(5000);
    receive(confirmationWire(fromHex("01")));
    EXPECT_EQ(writtenNumbers(), Numbers{2});
}

TEST_F(ChannelTest, AClockThatWasSetBackDoesNotStopTheRepeats)
{
    m_channel.write("a");
    read();
    m_port.takeWritten();
    m_clock.stepWallClockMs(-3600 * 1000);
    read();
    EXPECT_EQ(writtenNumbers(), Numbers{1});
    m_clock.advanceMs(1000);
    read();
    EXPECT_EQ(writtenNumbers(), Numbers());
    m_clock.advanceMs(1001);
    read();
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
    m_clock.advanceMs(5000);
    read();
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
    m_clock.advanceMs(1000);
    read();
    EXPECT_TRUE(written().isEmpty());
    EXPECT_TRUE(reports().isEmpty());
    EXPECT_EQ(receive(dataWire(1, "a")), "a");
}

// Delivering

TEST_F(ChannelTest, PacketsInOrderAreDeliveredAndReported)
{
    EXPECT_EQ(receive(dataWire(1, "Hello, ") + dataWire(2, "world")), "Hello, world");
    EXPECT_EQ(reports(), (QStringList{QStringLiteral("received 7 7"), QStringLiteral("received 7 5")}));
}

TEST_F(ChannelTest, APacketIsDeliveredHoweverItIsSplit)
{
    const QByteArray bytes = "noise" + dataWire(1, "Hello");
    QByteArray received;
    for (const char byte : bytes)
        received += receive(QByteArray(1, byte));
    EXPECT_EQ(received, "Hello");
}

TEST_F(ChannelTest, ReadTakesNoMoreThanAskedFor)
{
    m_port.inject(dataWire(1, "0123456789"));
    EXPECT_EQ(m_channel.read(4), "0123");
    EXPECT_EQ(m_channel.read(0), QByteArray());
    EXPECT_EQ(m_channel.read(-1), QByteArray());
    EXPECT_EQ(m_channel.read(100), "456789");
    EXPECT_EQ(m_channel.read(100), QByteArray());
}

TEST_F(ChannelTest, ExpectedNumbersGoFrom255To0)
{
    for (int number = 1; number <= 256; ++number)
        ASSERT_EQ(receiveNumbers({number % 256}), QByteArray(1, static_cast<char>(number)));
    EXPECT_EQ(receiveNumbers({1}), fromHex("01"));
}

TEST_F(ChannelTest, ThePacketThatFillsAGapDoesNotReleaseTheHeldOnes)
{
    EXPECT_EQ(receiveNumbers({2, 1}), fromHex("01"));
    EXPECT_EQ(receiveNumbers({3}), fromHex("0203"));
}

TEST_F(ChannelTest, HeldPacketsMoveOnWithTheNextOneAhead)
{
    EXPECT_EQ(receiveNumbers({3}), QByteArray());
    EXPECT_EQ(receiveNumbers({1, 2}), fromHex("0102"));
    EXPECT_EQ(receiveNumbers({4}), fromHex("0304"));
}

TEST_F(ChannelTest, ADuplicateOfAHeldPacketReleasesTheHeldOnesToo)
{
    EXPECT_EQ(receiveNumbers({3, 2, 1}), fromHex("01"));
    EXPECT_EQ(receiveNumbers({3}), fromHex("0203"));
}

TEST_F(ChannelTest, HeldPacketsAreSorted)
{
    EXPECT_EQ(receiveNumbers({5, 3, 4, 2, 1}), fromHex("01"));
    EXPECT_EQ(receiveNumbers({6}), fromHex("0203040506"));
}

TEST_F(ChannelTest, HeldPacketsAreSortedAcrossTheWrap)
{
    for (int number = 1; number <= 253; ++number)
        receiveNumbers({number});
    EXPECT_EQ(receiveNumbers({1, 255, 0, 254}), fromHex("fe"));
    EXPECT_EQ(receiveNumbers({2}), fromHex("ff000102"));
}

TEST_F(ChannelTest, ADuplicateOfAHeldPacketIsConfirmedButNotHeldTwice)
{
    m_clock.advanceMs(600);
    EXPECT_EQ(receiveNumbers({3}), QByteArray());
    m_clock.advanceMs(600);
    m_port.takeWritten();
    EXPECT_EQ(receiveNumbers({3}), QByteArray());
    EXPECT_EQ(writtenConfirmations(), QList<QByteArray>{fromHex("03")});
    EXPECT_EQ(receiveNumbers({1, 2, 4}), fromHex("01020304"));
}

TEST_F(ChannelTest, AHeldPacketIsReportedOnlyWhenItIsDelivered)
{
    receiveNumbers({2});
    EXPECT_TRUE(reports().isEmpty());
    receiveNumbers({1});
    EXPECT_EQ(reports().size(), 1);
    receiveNumbers({3});
    EXPECT_EQ(reports().size(), 3);
}

TEST_F(ChannelTest, APacketDeliveredBeforeIsDroppedButConfirmedAgain)
{
    m_clock.advanceMs(600);
    EXPECT_EQ(receiveNumbers({1, 2}), fromHex("0102"));
    EXPECT_EQ(writtenConfirmations(), QList<QByteArray>{fromHex("0102")});
    m_clock.advanceMs(600);
    EXPECT_EQ(receiveNumbers({1}), QByteArray());
    EXPECT_EQ(writtenConfirmations(), QList<QByteArray>{fromHex("01")});
    EXPECT_EQ(reports().size(), 2);
}

TEST_F(ChannelTest, APacketTooFarAheadIsDroppedButConfirmed)
{
    m_clock.advanceMs(600);
    EXPECT_EQ(receiveNumbers({200, 121}), QByteArray());
    EXPECT_EQ(writtenConfirmations(), QList<QByteArray>{fromHex("79c8")});
    EXPECT_EQ(receiveNumbers({1, 2}), fromHex("0102"));
    for (int number = 3; number <= 122; ++number)
        ASSERT_EQ(receiveNumbers({number}), QByteArray(1, static_cast<char>(number))); // not held
}

TEST_F(ChannelTest, TheLastNumberOfTheWindowIsHeld)
{
    receiveNumbers({120});
    for (int number = 1; number <= 119; ++number)
        receiveNumbers({number});
    EXPECT_EQ(receiveNumbers({121}), fromHex("7879"));
}

TEST_F(ChannelTest, AnEmptyDataPacketTakesANumberButDeliversNothing)
{
    EXPECT_EQ(receive(dataWire(1, "a") + dataWire(2, "") + dataWire(3, "c")), "ac");
    EXPECT_EQ(reports().at(1), QStringLiteral("received 7 0"));
}

// Overtaken held packets

TEST_F(ChannelTest, AnOvertakenHeldPacketDoesNotComeBackWithTheNextRoundOfNumbers)
{
    receive(dataWire(3, "old"));
    EXPECT_EQ(receive(dataWire(1, "a") + dataWire(2, "b")), "ab");
    EXPECT_EQ(receive(dataWire(3, "c")), "c"); // its own repeat, in order: the held copy is overtaken
    for (int number = 4; number <= 258; ++number)
        receiveNumbers({number % 256});
    // 3 of the new round is missing; 4 must wait for it.
    EXPECT_EQ(receive(dataWire(4, "new 4")), QByteArray());
    EXPECT_EQ(receive(dataWire(3, "new 3")), "new 3");
    EXPECT_EQ(receive(dataWire(5, "new 5")), "new 4new 5");
}

TEST_F(ChannelTest, AnOvertakenHeldPacketDoesNotBlockTheOnesBehindItForGood)
{
    receiveNumbers({3});
    EXPECT_EQ(receiveNumbers({1, 2, 3}), fromHex("010203"));
    receiveNumbers({5}); // behind the overtaken 3
    EXPECT_EQ(receiveNumbers({4}), fromHex("04"));
    // 5 is confirmed and never comes again.
    EXPECT_EQ(receiveNumbers(range(6, 13)), QByteArray());
    EXPECT_EQ(receiveNumbers({14}), numberRange(5, 14));
}

TEST_F(ChannelTest, AnOvertakenHeldPacketKeepsItsPlaceInAShortExchange)
{
    receiveNumbers({3});
    EXPECT_EQ(receiveNumbers({1, 2, 3}), fromHex("010203"));
    EXPECT_EQ(receiveNumbers({5, 4, 6}), fromHex("04"));
}

// The peer's gap

TEST_F(ChannelTest, NewPacketsStayWithin60OfTheOldestWhileThePeerHasAGap)
{
    for (int i = 1; i <= 50; ++i)
        m_channel.write("x");
    read();
    receive(confirmationWire(numberRange(2, 49)));
    m_port.takeWritten();
    for (int i = 51; i <= 100; ++i)
        m_channel.write("x");
    read();
    EXPECT_EQ(writtenNumbers(), range(51, 61));
    receive(confirmationWire(fromHex("01")));
    EXPECT_EQ(writtenNumbers(), range(62, 100));
}

TEST_F(ChannelTest, WithoutAGapTheWholeQueueGoesOut)
{
    for (int i = 1; i <= 112; ++i)
        m_channel.write("x");
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
    for (int i = 1; i <= 100; ++i)
        m_channel.write("x");
    read();
    m_port.takeWritten();
    m_clock.advanceMs(2001);
    receive(confirmationWire(numberRange(2, 60)));
    EXPECT_EQ(writtenNumbers(), Numbers{1} + range(61, 100));
}

TEST_F(ChannelTest, NewPacketsWaitWhileThePeerMayExpectLessThanItHas)
{
    for (int i = 1; i <= 111; ++i)
        m_channel.write("x");
    read();
    receive(confirmationWire(numberRange(2, 111)));
    m_clock.advanceMs(2001);
    for (int i = 112; i <= 125; ++i)
        m_channel.write("x");
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
    for (int i = 1; i <= 111; ++i)
        m_channel.write("x");
    read();
    receive(confirmationWire(numberRange(2, 111)));
    m_clock.advanceMs(2001);
    for (int i = 112; i <= 125; ++i)
        m_channel.write("x");
    m_port.takeWritten();
    read();
    ASSERT_EQ(writtenNumbers(), Numbers{1});
    receive(confirmationWire(fromHex("0170"))); // 1, and 112 that waits
    EXPECT_EQ(writtenNumbers(), Numbers{113});
}

// Confirming

TEST_F(ChannelTest, AConfirmationWaitsForMoreThanTheInterval)
{
    receiveNumbers({1}); // no wait: bytes are there
    m_clock.advanceMs(490);
    read(); // 500 ms when it confirms
    EXPECT_TRUE(written().isEmpty());
    m_clock.advanceMs(1);
    read();
    EXPECT_TRUE(written().size() == 1);
}

TEST_F(ChannelTest, TheConfirmationIntervalIsThatOfTheSettings)
{
    setKey(QStringLiteral("Details/transportComConfirmationInterval"), 50);
    m_clock.advanceMs(51);
    receiveNumbers({1});
    EXPECT_EQ(writtenConfirmations(), QList<QByteArray>{fromHex("01")});
}

TEST_F(ChannelTest, TheConfirmationIntervalCountsFromConstruction)
{
    m_clock.advanceMs(600);
    receive(dataWire(1, "A"));
    EXPECT_TRUE(sameBytes(m_port.takeWritten(), fromHex("7c0100010024c201d41245b4")));
}

TEST_F(ChannelTest, TheConfirmationIntervalIsCountedAfreshAfterEachConfirmation)
{
    m_clock.advanceMs(600);
    receiveNumbers({1});
    EXPECT_EQ(written().size(), 1);
    m_clock.advanceMs(500);
    receiveNumbers({2});
    EXPECT_EQ(written().size(), 0);
    m_clock.advanceMs(501);
    read();
    EXPECT_EQ(writtenConfirmations(), QList<QByteArray>{fromHex("02")});
}

TEST_F(ChannelTest, SixtyOneNumbersAreConfirmedAtOnce)
{
    receiveNumbers(range(1, 60));
    EXPECT_TRUE(written().isEmpty());
    receiveNumbers({61});
    const QByteArray bytes = m_port.takeWritten();
    EXPECT_EQ(bytes.size(), 72);
    EXPECT_TRUE(sameBytes(bytes.left(7), fromHex("7c01003d00dc82")));
    EXPECT_TRUE(sameBytes(bytes.right(4), fromHex("564ba013")));
    m_clock.advanceMs(600);
    read();
    EXPECT_TRUE(written().isEmpty()); // each only once
}

TEST_F(ChannelTest, ANumberThatArrivedTwiceIsConfirmedOnce)
{
    m_clock.advanceMs(600);
    receiveNumbers({1, 1, 1});
    EXPECT_EQ(writtenConfirmations(), QList<QByteArray>{fromHex("01")});
}

TEST_F(ChannelTest, AConfirmationListsItsNumbersPlainlyAscending)
{
    m_clock.advanceMs(600);
    receiveNumbers({255, 3});
    EXPECT_TRUE(sameBytes(m_port.takeWritten(), fromHex("7c0100020077970"
                                                        "3ffe40f6779")));
}

TEST_F(ChannelTest, NothingToConfirmSendsNothing)
{
    m_clock.advanceMs(10000);
    read();
    EXPECT_TRUE(m_port.takeWritten().isEmpty());
}

TEST_F(ChannelTest, AConfirmationNeedsNoRoomAndIsWrittenAfterAStoppedWalk)
{
    m_port.setRoom(0);
    m_channel.write(QByteArray(2 * 1014, 'x'));
    m_clock.advanceMs(600);
    receiveNumbers({1});
    EXPECT_EQ(m_port.bytesToWrite(), 1025 + 12);
}

TEST_F(ChannelTest, InputIsHandledBeforeOutput)
{
    m_channel.write("a");
    read();
    m_port.takeWritten();
    m_clock.advanceMs(2001);
    receive(confirmationWire(fromHex("01")));
    EXPECT_TRUE(m_port.takeWritten().isEmpty()); // else the repeat would have gone out
}

// Log

TEST_F(ChannelTest, LogsDataPacketsReadAndWritten)
{
    setKey(packetsKey, true);
    m_channel.write("A");
    receive(dataWire(1, "Hello"));
    EXPECT_EQ(logLines(), (QStringList{
                              QStringLiteral("CComChannel: Прочитан пакет с данными - номер 1, размер 5, crc bb8ac44f"),
                              QStringLiteral("CComChannel: Запись пакета с данными - номер 1, размер 1, crc 4d46eca0"),
                          }));
}

TEST_F(ChannelTest, LogsARepeatWithAFinalPointAndNoCheck)
{
    setKey(packetsKey, true);
    m_channel.write("Hello");
    read();
    m_clock.advanceMs(2001);
    read();
    EXPECT_EQ(logLines().last(), QStringLiteral("CComChannel: Запись пакета с данными (повтор) - номер 1, размер 5."));
}

TEST_F(ChannelTest, LogsConfirmationsWithTheirNumbersInDecimal)
{
    setKey(packetsKey, true);
    m_clock.advanceMs(600);
    receive(confirmationWire(fromHex("ff0341")) + dataWire(255, "x") + dataWire(3, "y"));
    const QStringList lines = logLines();
    EXPECT_EQ(lines.first(), QStringLiteral("CComChannel: Прочитан пакет с подтверждениями - номера 255, 3, 65"));
    EXPECT_EQ(lines.last(), QStringLiteral("CComChannel: Запись пакета с подтверждением - номера 3, 255"));
}

TEST_F(ChannelTest, LogsTheBytesReadAndWritten)
{
    setKey(dataKey, true);
    m_channel.write("A");
    receive("\x01|Z");
    m_clock.advanceMs(2001);
    receive(dataWire(1, "A"));
    EXPECT_EQ(logLines(), (QStringList{
                              QStringLiteral("CComChannel: Чтение: 017c5a"),
                              QStringLiteral("CComChannel: Запись: 7c00010100a083414d46eca0"),
                              QStringLiteral("CComChannel: Чтение: 7c00010100a083414d46eca0"),
                              QStringLiteral("CComChannel: Запись: 7c00010100a083414d46eca0"),
                              QStringLiteral("CComChannel: Запись: 7c0100010024c201d41245b4"),
                          }));
}

TEST_F(ChannelTest, LogsNoEmptyReading)
{
    setKey(dataKey, true);
    read();
    EXPECT_TRUE(logLines().isEmpty());
}

TEST_F(ChannelTest, LogsNothingByDefaultAndWritesTheKeysDefaults)
{
    m_channel.write("A");
    receive(dataWire(1, "A"));
    EXPECT_TRUE(logLines().isEmpty());
    EXPECT_EQ(keyInFile(dataKey).toString(), QStringLiteral("false"));
    EXPECT_EQ(keyInFile(packetsKey).toString(), QStringLiteral("false"));
}

TEST_F(ChannelTest, AReadingWithoutInputWritesTheDataKeysDefault)
{
    read();
    EXPECT_EQ(keyInFile(dataKey).toString(), QStringLiteral("false"));
}

TEST(ChannelLog, FullTracingDoesNotSwitchOnTheLinesWithKeysOfTheirOwn)
{
    setKey(QStringLiteral("Debug/all"), true);
    const testsupport::VirtualClock clock;
    testsupport::FakeSerialPort port;
    testsupport::CallLog calls;
    testsupport::RecordingChannelsState state(&calls);
    CComChannel channel(&port, &state, 7);
    port.inject(dataWire(1, "Hello") + confirmationWire(fromHex("01")));
    channel.read(100);
    QStringList lines = logLines();
    lines.erase(
        std::remove_if(lines.begin(), lines.end(),
                       [](const QString& line) { return line.startsWith(QStringLiteral("_CFunctionDebug: ")); }),
        lines.end());
    EXPECT_EQ(lines,
              QStringList{QStringLiteral("CComChannel: Прочитан пакет с данными - номер 1, размер 5, crc bb8ac44f")});
}

// Settings

TEST_F(ChannelTest, DefaultsAreWrittenIntoTheSettings)
{
    m_channel.write("A");
    m_channel.idealBlockSize();
    read();
    EXPECT_EQ(keyInFile(maxBytesToWriteKey).toInt(), 1024);
    EXPECT_EQ(keyInFile(QStringLiteral("Details/transportComMaxBytesInQueue")).toInt(), 10240);
    EXPECT_EQ(keyInFile(QStringLiteral("Details/transportComResendInterval")).toInt(), 2000);
    EXPECT_EQ(keyInFile(QStringLiteral("Details/transportComConfirmationInterval")).toInt(), 500);
}

struct KeyValue
{
    const char* name;
    const char* value;
    int inFileAfterwards;
};

void PrintTo(const KeyValue& row, std::ostream* stream)
{
    *stream << row.name << '=' << row.value;
}

class KeyRange : public ChannelTest, public testing::WithParamInterface<KeyValue>
{
};

TEST_P(KeyRange, IsKept)
{
    const QString key = QStringLiteral("Details/transportCom") + QLatin1String(GetParam().name);
    setKey(key, QString::fromLatin1(GetParam().value));
    m_channel.write("A");
    m_channel.idealBlockSize();
    read();
    EXPECT_EQ(keyInFile(key).toInt(), GetParam().inFileAfterwards);
}

constexpr KeyValue keyValues[] = {
    {"MaxBytesToWrite", "31", 1024},
    {"MaxBytesToWrite", "20", 1024},
    {"MaxBytesToWrite", "32", 32},
    {"MaxBytesToWrite", "32768", 32768},
    {"MaxBytesToWrite", "32769", 1024},
    {"MaxBytesToWrite", "abc", 1024},
    {"MaxBytesInQueue", "127", 10240},
    {"MaxBytesInQueue", "128", 128},
    {"MaxBytesInQueue", "1048576", 1048576},
    {"MaxBytesInQueue", "1048577", 10240},
    {"ResendInterval", "99", 2000},
    {"ResendInterval", "100", 100},
    {"ResendInterval", "60000", 60000},
    {"ResendInterval", "60001", 2000},
    {"ConfirmationInterval", "49", 500},
    {"ConfirmationInterval", "50", 50},
    {"ConfirmationInterval", "30000", 30000},
    {"ConfirmationInterval", "30001", 500},
};

INSTANTIATE_TEST_SUITE_P(Channel, KeyRange, testing::ValuesIn(keyValues),
                         [](const auto& row) { return std::string(row.param.name) + "_" + row.param.value; });

TEST_F(ChannelTest, AnUnusableLimitCountsAsTheDefault)
{
    setKey(maxBytesToWriteKey, 31);
    m_channel.write(QByteArray(1015, 'x'));
    read();
    EXPECT_EQ(written().size(), 2);
}

TEST_F(ChannelTest, ALargerLimitDoesNotExceedThePacketSize)
{
    setKey(maxBytesToWriteKey, 32768);
    m_channel.write(QByteArray(1015, 'x'));
    read();
    EXPECT_EQ(written().size(), 2);
}

TEST_F(ChannelTest, TheLargestBlocksFitTheLengthField)
{
    setKey(maxBytesToWriteKey, 32768);
    gComSettings.packetSize = INT_MAX;
    m_channel.write(QByteArray(40000, 'x'));
    read();
    const QList<CComPacket> packets = written();
    ASSERT_EQ(packets.size(), 2);
    EXPECT_EQ(packets[0].data.size(), 32758);
}

// Otherwise a peer could make the buffer, and each look through it, grow without end.
TEST_F(ChannelTest, LooksOnceAtADamagedPacketWhileTheNextIsIncomplete)
{
    const MessageCatcher catcher;
    QByteArray damaged = dataWire(1, "one");
    damaged[9] = static_cast<char>(damaged.at(9) ^ 1);
    const QByteArray next = dataWire(1, QByteArray(200, 'n'));
    EXPECT_TRUE(receive(damaged + next.left(20)).isEmpty());
    EXPECT_TRUE(receive(next.mid(20, 20)).isEmpty());
    EXPECT_EQ(receive(next.mid(40)), QByteArray(200, 'n'));
    EXPECT_EQ(MessageCatcher::messages.count(
                  QStringLiteral("%1 Packet header received, but data is corrupted 0 1 3").arg(int(QtDebugMsg))),
              1);
}
