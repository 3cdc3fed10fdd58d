// The link channel over a port in memory: which values of its settings it takes.
#include "tests/link/channelfixture.h"

using namespace linktest;

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
