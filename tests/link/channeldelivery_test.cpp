// The link channel over a port in memory: what it delivers and confirms.
#include "tests/link/channelfixture.h"
#include "tests/link/messagecatcher.h"

using namespace linktest;

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
    receiveOneByOne(1, 253);
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
    receiveOneByOne(1, 119);
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
    receiveOneByOne(4, 258);
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

// Confirming

TEST_F(ChannelTest, AConfirmationWaitsForMoreThanTheInterval)
{
    receiveNumbers({1}); // no wait: bytes are there
    readAfter(490); // 500 ms when it confirms
    EXPECT_TRUE(written().isEmpty());
    readAfter(1);
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
    readAfter(501);
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
    readAfter(600);
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
    readAfter(10000);
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
    sendUnseen("a");
    m_clock.advanceMs(2001);
    receive(confirmationWire(fromHex("01")));
    EXPECT_TRUE(m_port.takeWritten().isEmpty()); // else the repeat would have gone out
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
