// The link's rules: order of numbers, limits, what is due.
#include "com/link/linkrules.h"
#include "tests/link/bytes.h"

#include <QByteArray>
#include <gtest/gtest.h>

#include <climits>

using namespace linkrules;

namespace {

CComPacket numbered(int number)
{
    CComPacket packet;
    packet.number = static_cast<quint8>(number);
    return packet;
}

QList<CComPacket> packetsOf(const QList<int>& numbers)
{
    QList<CComPacket> packets;
    for (const int number : numbers)
        packets.append(numbered(number));
    return packets;
}

QList<int> numbersOf(const QList<CComPacket>& packets)
{
    QList<int> numbers;
    for (const CComPacket& packet : packets)
        numbers.append(packet.number);
    return numbers;
}

} // namespace

TEST(NumberLessThen, AgreesWithTheTable)
{
    const struct
    {
        int a, b;
        bool less;
    } table[] = {
        {1, 2, true},      {2, 1, false},    {5, 5, false},     {1, 120, true},    {1, 121, false}, {0, 119, true},
        {0, 120, false},   {136, 255, true}, {135, 255, false}, {136, 0, true},    {135, 0, false}, {137, 1, true},
        {136, 1, false},   {250, 4, true},   {4, 250, false},   {255, 0, true},    {0, 255, false}, {255, 119, true},
        {255, 120, false}, {200, 64, true},  {200, 65, false},  {238, 118, false},
    };
    for (const auto& row : table)
        EXPECT_EQ(numberLessThen(static_cast<quint8>(row.a), static_cast<quint8>(row.b)), row.less)
            << row.a << ' ' << row.b;
}

// 119 numbers lie ahead of 0 to 135 and, since the way around counts one less, 120 ahead of the rest.
TEST(NumberLessThen, HasAWindowOf119Or120)
{
    for (int a = 0; a < 256; ++a) {
        int ahead = 0;
        for (int b = 0; b < 256; ++b) {
            const bool less = numberLessThen(static_cast<quint8>(a), static_cast<quint8>(b));
            ahead += less ? 1 : 0;
            const bool backLess = numberLessThen(static_cast<quint8>(b), static_cast<quint8>(a));
            EXPECT_FALSE(less && backLess) << a << ' ' << b;
        }
        EXPECT_EQ(ahead, a <= 135 ? 119 : 120) << a;
    }
}

TEST(StepsFrom, GoesAroundTheWrap)
{
    EXPECT_EQ(stepsFrom(1, 1), 0);
    EXPECT_EQ(stepsFrom(255, 0), 1);
    EXPECT_EQ(stepsFrom(0, 255), 255);
    EXPECT_EQ(stepsFrom(250, 4), 10);
}

TEST(BlockSize, IsTenLessThanTheSmallerLimit)
{
    EXPECT_EQ(blockSize(1024, 1024), 1014);
    EXPECT_EQ(blockSize(500, 1024), 490);
    EXPECT_EQ(blockSize(1024, 32), 22);
}

TEST(BlockSize, IsNeverLessThanOne)
{
    for (const int packetSize : {11, 10, 9, 0, -1, INT_MIN + 100})
        EXPECT_EQ(blockSize(packetSize, 1024), 1) << packetSize;
    EXPECT_EQ(blockSize(12, 1024), 2);
}

TEST(MayQueueMore, AllowsUpTo110Packets)
{
    EXPECT_TRUE(mayQueueMore(110, 0, 10240, 1, 1));
    EXPECT_FALSE(mayQueueMore(111, 0, 10240, 1, 1));
}

TEST(MayQueueMore, AllowsUpToTheByteLimit)
{
    EXPECT_TRUE(mayQueueMore(1, 10240, 10240, 2, 1));
    EXPECT_FALSE(mayQueueMore(1, 10241, 10240, 2, 1));
}

TEST(MayQueueMore, KeepsTenNumbersFreeInEightBits)
{
    // 247 + 10 is 1, which stands before 120; in ints it would not.
    EXPECT_TRUE(mayQueueMore(1, 0, 10240, 246, 120));
    EXPECT_FALSE(mayQueueMore(1, 0, 10240, 247, 120));
    EXPECT_TRUE(mayQueueMore(1, 0, 10240, 126, 1));
    EXPECT_FALSE(mayQueueMore(1, 0, 10240, 127, 1));
    EXPECT_TRUE(mayQueueMore(0, 0, 10240, 127, 1)); // an empty queue has no first number
}

TEST(HasRoom, CountsTheRoomLeftUnlessNothingWaits)
{
    EXPECT_TRUE(hasRoom(1024, 0, 1025));
    EXPECT_FALSE(hasRoom(1024, 1, 1025));
    EXPECT_FALSE(hasRoom(1024, 1, 1024));
    EXPECT_TRUE(hasRoom(1024, 1, 1023));
    EXPECT_TRUE(hasRoom(1024, 24, 1000));
    EXPECT_FALSE(hasRoom(1024, 25, 1000));
    EXPECT_FALSE(hasRoom(32, 5000, 12));
}

TEST(IsRepeatDue, OnlyAfterMoreThanTheInterval)
{
    EXPECT_FALSE(isRepeatDue(5000, 5000, 2000));
    EXPECT_FALSE(isRepeatDue(7000, 5000, 2000));
    EXPECT_TRUE(isRepeatDue(7001, 5000, 2000));
}

TEST(IsRepeatDue, AtOnceWhenTheClockWasSetBack)
{
    EXPECT_TRUE(isRepeatDue(4999, 5000, 2000));
}

TEST(IsConfirmationDue, AfterTheIntervalOrWith61Numbers)
{
    EXPECT_FALSE(isConfirmationDue(100000, 0, 500));
    EXPECT_FALSE(isConfirmationDue(500, 60, 500));
    EXPECT_TRUE(isConfirmationDue(501, 1, 500));
    EXPECT_TRUE(isConfirmationDue(0, 61, 500));
}

TEST(ConfirmationPayload, IsPlainlyAscending)
{
    EXPECT_TRUE(sameBytes(confirmationPayload({255, 3}), fromHex("03ff")));
    EXPECT_TRUE(sameBytes(confirmationPayload({128, 127, 0, 255, 1}), fromHex("00017f80ff")));
}

TEST(NumbersText, IsDecimalInThePayloadsOrder)
{
    EXPECT_EQ(numbersText(fromHex("03ff")), QStringLiteral("3, 255"));
    EXPECT_EQ(numbersText(fromHex("ff0341")), QStringLiteral("255, 3, 65"));
    EXPECT_EQ(numbersText(fromHex("07")), QStringLiteral("7"));
    EXPECT_EQ(numbersText(QByteArray()), QString());
}

TEST(HasGap, SeesAMissingNumberInTheQueue)
{
    EXPECT_FALSE(hasGap({}));
    EXPECT_FALSE(hasGap(packetsOf({7})));
    EXPECT_FALSE(hasGap(packetsOf({7, 8, 9})));
    EXPECT_FALSE(hasGap(packetsOf({254, 255, 0, 1})));
    EXPECT_TRUE(hasGap(packetsOf({7, 9})));
    EXPECT_TRUE(hasGap(packetsOf({254, 255, 1})));
}

TEST(HasGap, IsNotMisledByAQueueLongerThanTheNumbers)
{
    QList<int> numbers;
    for (int i = 0; i < 300; ++i)
        numbers.append(i % 256);
    EXPECT_FALSE(hasGap(packetsOf(numbers)));
}

TEST(DropOvertaken, LeavesWhatIsExpectedOrAhead)
{
    QList<CComPacket> held = packetsOf({5, 6, 120});
    dropOvertaken(held, 5, 100);
    EXPECT_EQ(numbersOf(held), (QList<int>{5, 6, 120}));
}

TEST(DropOvertaken, GivesAnOvertakenPacketEightNumbersOfGrace)
{
    QList<CComPacket> held = packetsOf({5, 20});
    dropOvertaken(held, 13, 13);
    EXPECT_EQ(numbersOf(held), (QList<int>{5, 20}));
    dropOvertaken(held, 14, 14);
    EXPECT_EQ(numbersOf(held), QList<int>{20});

    held = packetsOf({252});
    dropOvertaken(held, 4, 4);
    EXPECT_EQ(numbersOf(held), QList<int>{252});
    dropOvertaken(held, 5, 5);
    EXPECT_TRUE(held.isEmpty());
}

TEST(DropOvertaken, FreesAStreamThatStandsStill)
{
    QList<CComPacket> held = packetsOf({5, 20});
    dropOvertaken(held, 6, 14); // 8 ahead
    EXPECT_EQ(numbersOf(held), (QList<int>{5, 20}));
    dropOvertaken(held, 6, 5); // behind, however far
    EXPECT_EQ(numbersOf(held), (QList<int>{5, 20}));
    dropOvertaken(held, 6, 15);
    EXPECT_EQ(numbersOf(held), QList<int>{20});

    held = packetsOf({250, 20});
    dropOvertaken(held, 251, 4); // 9 ahead, around the wrap
    EXPECT_EQ(numbersOf(held), QList<int>{20});
}

TEST(DropOvertaken, DropsWhatIsNeitherAheadNorBehind)
{
    QList<CComPacket> held = packetsOf({130});
    dropOvertaken(held, 1, 1); // 129 ahead is 127 behind
    EXPECT_TRUE(held.isEmpty());
}

TEST(Hold, SortsByNumberAcrossTheWrap)
{
    QList<CComPacket> held;
    for (const int number : {3, 254, 0, 255, 2})
        hold(held, numbered(number));
    EXPECT_EQ(numbersOf(held), (QList<int>{254, 255, 0, 2, 3}));
}

TEST(Hold, KeepsTheFirstOfANumber)
{
    QList<CComPacket> held;
    CComPacket first = numbered(3);
    first.data = "first";
    CComPacket second = numbered(3);
    second.data = "second";
    hold(held, first);
    hold(held, numbered(4));
    hold(held, second);
    ASSERT_EQ(numbersOf(held), (QList<int>{3, 4}));
    EXPECT_EQ(held[0].data, "first");
}
