// The link channel over a port in memory: what it logs.
#include "tests/link/channelfixture.h"

using namespace linktest;

namespace {

const QString packetsKey = QStringLiteral("Debug/transportComPackets");
const QString dataKey = QStringLiteral("Debug/transportComData");

} // namespace

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
    readAfter(2001);
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
    const rig::VirtualClock clock;
    rig::FakeSerialPort port;
    rig::CallLog calls;
    rig::RecordingChannelsState state(&calls);
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
