// The link channel over a port in memory, with the adaptive sender: the bytes
// that it writes.
#include "tests/link/channelfixture.h"

using namespace linktest;

namespace {

const QString adaptiveKey = QStringLiteral("Details/transportComAdaptive");

// As ChannelTest, for a channel that is adaptive or not.
class OneChannel
{
public:
    // By the settings.
    OneChannel() : m_channel(&m_port, &m_state, 0) {}
    explicit OneChannel(bool isAdaptive) : m_channel(&m_port, &m_state, 0, isAdaptive) {}

    void write(const QByteArray& data) { m_channel.write(data); }
    QByteArray read() { return m_channel.read(1 << 20); }

    // What a pass writes, with these bytes come in before it; the port is empty
    // again afterwards.
    QByteArray writtenAfter(const QByteArray& received)
    {
        m_port.inject(received);
        read();
        return flushed();
    }

    QByteArray writtenIn(int ms)
    {
        m_clock.advanceMs(ms - passMs);
        return writtenAfter(QByteArray());
    }

    // What the channel has given to the port goes to the line.
    QByteArray flushed()
    {
        m_port.setRoom(-1);
        return m_port.takeWritten();
    }

    rig::VirtualClock& clock() { return m_clock; }
    rig::FakeSerialPort& port() { return m_port; }
    CComChannel& channel() { return m_channel; }

private:
    static constexpr int passMs = 10; // that a pass waits for input

    rig::VirtualClock m_clock;
    rig::FakeSerialPort m_port;
    rig::CallLog m_calls;
    rig::RecordingChannelsState m_state{&m_calls};
    CComChannel m_channel;
};

class AdaptiveChannel : public testing::Test, public OneChannel
{
protected:
    AdaptiveChannel() : OneChannel(true) {}
};

// A known image: "A" as packet 1.
const QByteArray imageOfA = fromHex("7c00010100a083414d46eca0");

} // namespace

// Sending

TEST_F(AdaptiveChannel, AFirstPacketIsTheSameAsWithoutIt)
{
    write("A");
    EXPECT_TRUE(sameBytes(writtenAfter(QByteArray()), imageOfA));
}

TEST_F(AdaptiveChannel, ALostPacketIsRepeatedWithTheNextConfirmation)
{
    write("A");
    write("B");
    EXPECT_TRUE(sameBytes(writtenAfter(QByteArray()), imageOfA + dataWire(2, "B")));
    EXPECT_TRUE(sameBytes(writtenAfter(confirmationWire(fromHex("02"))), imageOfA));
}

TEST_F(AdaptiveChannel, AnEmptyPacketFollowsARepeatOnceThePortIsEmpty)
{
    write("A");
    write("B");
    writtenAfter(QByteArray());
    port().setRoom(0);
    port().inject(confirmationWire(fromHex("02")));
    read();
    read();
    EXPECT_EQ(port().bytesToWrite(), imageOfA.size());
    EXPECT_TRUE(sameBytes(flushed(), imageOfA));
    EXPECT_TRUE(sameBytes(writtenAfter(QByteArray()), dataWire(3, QByteArray())));
    EXPECT_TRUE(sameBytes(writtenAfter(confirmationWire(fromHex("0103"))), QByteArray()));
}

TEST_F(AdaptiveChannel, RepeatsGoFromTheHighestNumberDown)
{
    for (const char* const text : {"a", "b", "c", "d"})
        write(text);
    writtenAfter(QByteArray());
    write("e");
    port().inject(confirmationWire(fromHex("04")));
    read();
    QByteArray all = flushed();
    for (int pass = 0; pass < 3; ++pass)
        all += writtenIn(10);
    EXPECT_TRUE(sameBytes(all, dataWire(3, "c") + dataWire(2, "b") + dataWire(1, "a") + dataWire(5, "e")));
}

TEST_F(AdaptiveChannel, AnUnansweredPacketIsProbedForWithTheResendSetting)
{
    write("A");
    writtenAfter(QByteArray());
    EXPECT_TRUE(sameBytes(writtenIn(10), QByteArray())) << "the port is seen empty";
    EXPECT_TRUE(sameBytes(writtenIn(1990), QByteArray()));
    EXPECT_TRUE(sameBytes(writtenIn(10), dataWire(2, QByteArray()) + imageOfA));
}

TEST_F(AdaptiveChannel, AWallClockThatIsSetChangesNothing)
{
    write("A");
    writtenAfter(QByteArray());
    writtenIn(10);
    for (const qint64 stepMs : {-3600'000, 7200'000, -10'000'000}) {
        clock().stepWallClockMs(stepMs);
        EXPECT_TRUE(sameBytes(writtenIn(100), QByteArray())) << stepMs;
    }
    EXPECT_TRUE(sameBytes(writtenIn(1690), QByteArray()));
    EXPECT_TRUE(sameBytes(writtenIn(10), dataWire(2, QByteArray()) + imageOfA));
}

TEST_F(AdaptiveChannel, ThePacketSizeBeginsWithThatOfAHalfNoisyLine)
{
    EXPECT_EQ(channel().idealBlockSize(), 254);
    write(QByteArray(245, 'x'));
    const QList<CComPacket> packets = cutPackets(writtenAfter(QByteArray()));
    ASSERT_EQ(packets.size(), 2);
    EXPECT_EQ(packets.at(0).bytes.size(), 255) << "one byte more, as ever";
    EXPECT_EQ(packets.at(1).data.size(), 1);
}

// However little may be written at once by the settings, and however much one
// write brought.
TEST_F(AdaptiveChannel, NoNewPacketIsMoreThan111BeyondTheOldest)
{
    for (int i = 0; i < 150; ++i)
        write("x");
    QByteArray all;
    for (int pass = 0; pass < 50; ++pass)
        all += writtenIn(10);
    const QList<CComPacket> packets = cutPackets(all);
    ASSERT_EQ(packets.size(), 112);
    EXPECT_EQ(packets.last().number, 112);
}

// Confirming

TEST_F(AdaptiveChannel, AnIdleChannelConfirmsAtOnceAndSaysThePreviousNumbersAgain)
{
    EXPECT_TRUE(sameBytes(writtenAfter(dataWire(1, "a")), confirmationWire(fromHex("01"))));
    EXPECT_TRUE(sameBytes(writtenAfter(dataWire(2, "b") + dataWire(3, "c")), confirmationWire(fromHex("010203"))));
    EXPECT_TRUE(sameBytes(writtenAfter(dataWire(4, "d")), confirmationWire(fromHex("020304"))));
    EXPECT_TRUE(sameBytes(writtenIn(5000), QByteArray())) << "nothing is said without a reason";
}

TEST_F(AdaptiveChannel, AroundTheWrapTheNumbersAreThoseOfTheStream)
{
    for (int number = 1; number <= 254; ++number)
        writtenAfter(dataWire(number, "x"));
    EXPECT_TRUE(sameBytes(writtenAfter(dataWire(255, "x") + dataWire(0, "x")), confirmationWire(fromHex("00feff"))));
    EXPECT_TRUE(sameBytes(writtenAfter(dataWire(1, "x")), confirmationWire(fromHex("0001ff"))));
}

TEST_F(AdaptiveChannel, AConfirmationWaitsForThePortToBeEmptyButNotBeyondTheInterval)
{
    write("A");
    port().setRoom(0);
    read(); // 12 bytes stay in the port
    port().inject(dataWire(1, "x"));
    read();
    EXPECT_EQ(port().bytesToWrite(), 12);
    clock().advanceMs(500);
    read();
    EXPECT_TRUE(sameBytes(flushed(), imageOfA + confirmationWire(fromHex("01"))));
}

// What waits here is held back by the window: the queue is full.
TEST_F(AdaptiveChannel, WhileDataWaitsItConfirmsEvery1500BytesAheadOfTheData)
{
    for (int i = 0; i < 120; ++i)
        write("x");
    for (int pass = 0; pass < 30; ++pass)
        writtenIn(10);
    EXPECT_TRUE(sameBytes(writtenAfter(dataWire(1, QByteArray(1488, 'a'))), QByteArray())) << "1499 bytes";
    const QByteArray reply = writtenAfter(dataWire(2, QByteArray()) + confirmationWire(fromHex("01")));
    EXPECT_TRUE(reply.startsWith(confirmationWire(fromHex("0102")))) << reply.toHex().constData();
    EXPECT_EQ(cutPackets(reply).last().number, 113) << "and then the data";
}

// The switch

TEST(AdaptiveSwitch, IsOffByDefault)
{
    OneChannel channel;
    channel.write("A");
    channel.write("B");
    channel.writtenAfter(QByteArray());
    EXPECT_TRUE(sameBytes(channel.writtenAfter(confirmationWire(fromHex("02"))), QByteArray()));
    EXPECT_TRUE(sameBytes(channel.writtenIn(2001), imageOfA)) << "the clock alone repeats it";
    EXPECT_EQ(keyInFile(adaptiveKey).toInt(), 0);
    EXPECT_EQ(channel.channel().idealBlockSize(), 1024);
}

TEST(AdaptiveSwitch, TurnsItOn)
{
    setKey(adaptiveKey, 1);
    OneChannel channel;
    channel.write("A");
    channel.write("B");
    channel.writtenAfter(QByteArray());
    EXPECT_TRUE(sameBytes(channel.writtenAfter(confirmationWire(fromHex("02"))), imageOfA));
    EXPECT_EQ(keyInFile(adaptiveKey).toInt(), 1);
}

class AdaptiveSwitchRange : public testing::TestWithParam<const char*>
{
};

TEST_P(AdaptiveSwitchRange, IsReplacedBy0AndMeansOff)
{
    setKey(adaptiveKey, QString::fromLatin1(GetParam()));
    OneChannel channel;
    channel.write("A");
    channel.write("B");
    channel.writtenAfter(QByteArray());
    EXPECT_TRUE(sameBytes(channel.writtenAfter(confirmationWire(fromHex("02"))), QByteArray()));
    EXPECT_EQ(keyInFile(adaptiveKey).toString(), QStringLiteral("0"));
}

INSTANTIATE_TEST_SUITE_P(Of, AdaptiveSwitchRange, testing::Values("2", "-1", "on"),
                         [](const auto& row) { return "Value" + std::to_string(row.index); });
