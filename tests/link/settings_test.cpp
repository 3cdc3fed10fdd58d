// The settings records against bytes written down by hand.
#include "com/formats/ccomsettings.h"
#include "com/formats/comsettings.h"
#include "com/link/currentcomsettings.h"
#include "rig/testroot.h"
#include "tests/link/bytes.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <gtest/gtest.h>

#include <functional>
#include <random>

namespace {

const QString damaged = QStringLiteral("Данные повреждены");

ComPortSettings firstPort()
{
    ComPortSettings port;
    port.enabled = true;
    port.portName = QStringLiteral("ttyS0");
    port.initString = QStringLiteral("ATZ\\r"); // five characters
    port.baudRate = 9600;
    port.flowControl = 1;
    port.dataBits = 8;
    port.parity = 0;
    port.stopBits = 1;
    return port;
}

const char onePortHead[] = "00000003 00000001 00000400";
const char portHex[] = "01 0000000A 00740074007900530030 0000000A 00410054005A005C0072"
                       "00002580 00000001 00000008 00000000 00000001";

QByteArray threePorts()
{
    return fromHex("00000003 00000003 00000400") + fromHex(portHex) + fromHex(portHex) + fromHex(portHex);
}

constexpr int portSize = 49;
constexpr int headSize = 12;

AbonentComSettings abonent(const QString& phoneNumber, const QStringList& allowedPorts)
{
    AbonentComSettings settings;
    settings.phoneNumber = phoneNumber;
    settings.allowedPorts = allowedPorts;
    return settings;
}

} // namespace

TEST(ComPortSettings, StartsWithoutValidLineParameters)
{
    const ComPortSettings port;
    EXPECT_FALSE(port.enabled);
    EXPECT_TRUE(port.portName.isNull());
    EXPECT_TRUE(port.initString.isNull());
    EXPECT_EQ(port.baudRate, -1);
    EXPECT_EQ(port.flowControl, -1);
    EXPECT_EQ(port.dataBits, -1);
    EXPECT_EQ(port.parity, -1);
    EXPECT_EQ(port.stopBits, -1);
}

TEST(ComPortSettings, EqualsOnlyWithAllFieldsEqual)
{
    const QList<std::function<void(ComPortSettings&)>> changes = {
        [](ComPortSettings& port) { port.enabled = false; },
        [](ComPortSettings& port) { port.portName += QLatin1Char('x'); },
        [](ComPortSettings& port) { port.initString += QLatin1Char('x'); },
        [](ComPortSettings& port) { ++port.baudRate; },
        [](ComPortSettings& port) { ++port.flowControl; },
        [](ComPortSettings& port) { ++port.dataBits; },
        [](ComPortSettings& port) { ++port.parity; },
        [](ComPortSettings& port) { ++port.stopBits; },
    };
    EXPECT_TRUE(firstPort() == firstPort());
    for (const auto& change : changes) {
        ComPortSettings port = firstPort();
        change(port);
        EXPECT_TRUE(port != firstPort());
    }
}

TEST(ChannelComSettings, StartsEmptyWithBlocksOf1024)
{
    EXPECT_TRUE(ChannelComSettings().ports.isEmpty());
    EXPECT_EQ(ChannelComSettings().packetSize, 1024);
    EXPECT_TRUE(gComSettings.ports.isEmpty());
    EXPECT_EQ(gComSettings.packetSize, 1024);
    EXPECT_EQ(currentPacketSize(), 1024);
}

TEST(ChannelComSettings, WritesOnePort)
{
    ChannelComSettings settings;
    settings.ports.append(firstPort());
    const QByteArray bytes = settings.toByteArray();
    EXPECT_EQ(bytes.size(), 61);
    EXPECT_TRUE(sameBytes(bytes, fromHex(onePortHead) + fromHex(portHex)));
}

TEST(ChannelComSettings, WritesADefaultPort)
{
    ChannelComSettings settings;
    settings.ports.append(ComPortSettings());
    EXPECT_TRUE(sameBytes(settings.toByteArray(), fromHex(onePortHead) + fromHex("00 FFFFFFFF FFFFFFFF") +
                                                      fromHex("FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF")));
}

TEST(ChannelComSettings, WritesAnEmptyList)
{
    EXPECT_TRUE(sameBytes(ChannelComSettings().toByteArray(), fromHex("00000003 00000000 00000400")));
}

TEST(ChannelComSettings, WritesTheInitStringAsItIsInMemory)
{
    ChannelComSettings settings;
    settings.ports.append(ComPortSettings());
    settings.ports[0].initString = QStringLiteral("A\r");
    EXPECT_TRUE(sameBytes(settings.toByteArray().mid(headSize + 5, 8), fromHex("00000004 0041 000D")));
}

TEST(ChannelComSettings, ReadsWhatAnEditorWrote)
{
    ChannelComSettings settings;
    EXPECT_EQ(settings.fromByteArray(fromHex(onePortHead) + fromHex(portHex)), QString());
    ASSERT_EQ(settings.ports.size(), 1);
    EXPECT_TRUE(settings.ports[0] == firstPort());
    EXPECT_EQ(settings.packetSize, 1024);
}

TEST(ChannelComSettings, SurvivesARoundTripWithNullAndEmptyStrings)
{
    ChannelComSettings settings;
    settings.packetSize = 77;
    settings.ports = {firstPort(), ComPortSettings(), firstPort()};
    settings.ports[2].portName = QStringLiteral("");
    settings.ports[2].initString = QString();
    ChannelComSettings read;
    EXPECT_EQ(read.fromByteArray(settings.toByteArray()), QString());
    EXPECT_EQ(read.packetSize, 77);
    ASSERT_TRUE(read.ports == settings.ports);
    EXPECT_TRUE(read.ports[1].portName.isNull());
    EXPECT_FALSE(read.ports[2].portName.isNull());
    EXPECT_TRUE(read.ports[2].initString.isNull());
}

TEST(ChannelComSettings, RefusesAnotherVersionWithoutPortsButWithItsPacketSize)
{
    ChannelComSettings settings;
    settings.ports.append(firstPort());
    settings.packetSize = 77;
    EXPECT_EQ(settings.fromByteArray(fromHex("00000002 00000001 00000400") + fromHex(portHex)),
              QStringLiteral("Версия настроек 2 не совпадает с текущей 3"));
    EXPECT_TRUE(settings.ports.isEmpty());
    EXPECT_EQ(settings.packetSize, 77);
}

TEST(ChannelComSettings, TakesLessThanFourBytesForVersion0)
{
    for (const char* hex : {"", "00", "000000"}) {
        ChannelComSettings settings;
        EXPECT_EQ(settings.fromByteArray(fromHex(hex)), QStringLiteral("Версия настроек 0 не совпадает с текущей 3"));
    }
}

TEST(ChannelComSettings, ShowsANegativeVersionInDecimal)
{
    ChannelComSettings settings;
    EXPECT_EQ(settings.fromByteArray(fromHex("FFFFFFFF")),
              QStringLiteral("Версия настроек -1 не совпадает с текущей 3"));
}

TEST(ChannelComSettings, GivesAllAnnouncedPortsOfCutData)
{
    // Cut between the name and the init string of the third port.
    ChannelComSettings settings;
    EXPECT_EQ(settings.fromByteArray(threePorts().left(headSize + 2 * portSize + 15)), damaged);
    ASSERT_EQ(settings.ports.size(), 3);
    EXPECT_TRUE(settings.ports[1] == firstPort());
    EXPECT_EQ(settings.ports[2].portName, QStringLiteral("ttyS0"));
    EXPECT_EQ(settings.ports[2].initString, QString());
    EXPECT_EQ(settings.ports[2].baudRate, 0);
    EXPECT_EQ(settings.ports[2].stopBits, 0);
}

TEST(ChannelComSettings, KeepsWhatWasReadBeforeACutBetweenFields)
{
    ChannelComSettings settings;
    EXPECT_EQ(settings.fromByteArray(threePorts().left(headSize + 2 * portSize + 1)), damaged);
    ASSERT_EQ(settings.ports.size(), 3);
    EXPECT_TRUE(settings.ports[2].enabled);
    EXPECT_TRUE(settings.ports[2].portName.isEmpty());
}

TEST(ChannelComSettings, FillsPortsBehindACutWithEmptyAndZero)
{
    ChannelComSettings settings;
    EXPECT_EQ(settings.fromByteArray(threePorts().left(headSize + portSize)), damaged);
    ASSERT_EQ(settings.ports.size(), 3);
    EXPECT_TRUE(settings.ports[0] == firstPort());
    for (int i = 1; i < 3; ++i) {
        EXPECT_FALSE(settings.ports[i].enabled);
        EXPECT_TRUE(settings.ports[i].portName.isEmpty());
        EXPECT_TRUE(settings.ports[i].initString.isEmpty());
        EXPECT_EQ(settings.ports[i].baudRate, 0);
        EXPECT_EQ(settings.ports[i].flowControl, 0);
        EXPECT_EQ(settings.ports[i].dataBits, 0);
        EXPECT_EQ(settings.ports[i].parity, 0);
        EXPECT_EQ(settings.ports[i].stopBits, 0);
    }
}

TEST(ChannelComSettings, ReadsNothingForACountOfZeroOrLess)
{
    for (const char* hex : {"00000003 FFFFFFFF 00000200", "00000003 00000000 00000200", "00000003 80000000 00000200"}) {
        ChannelComSettings settings;
        EXPECT_EQ(settings.fromByteArray(fromHex(hex)), QString());
        EXPECT_TRUE(settings.ports.isEmpty());
        EXPECT_EQ(settings.packetSize, 512);
    }
}

TEST(ChannelComSettings, DamagedDataCanZeroThePacketSize)
{
    ChannelComSettings settings;
    EXPECT_EQ(settings.fromByteArray(fromHex("00000003 00000003")), damaged);
    EXPECT_EQ(settings.packetSize, 0);
    EXPECT_EQ(settings.ports.size(), 3);
}

TEST(ChannelComSettings, IgnoresWhatFollows)
{
    ChannelComSettings settings;
    EXPECT_EQ(settings.fromByteArray(threePorts() + "garbage"), QString());
    EXPECT_EQ(settings.ports.size(), 3);
}

TEST(ChannelComSettings, TakesAnyNonZeroByteForTrue)
{
    QByteArray bytes = fromHex(onePortHead) + fromHex(portHex);
    bytes[headSize] = 2;
    ChannelComSettings settings;
    EXPECT_EQ(settings.fromByteArray(bytes), QString());
    EXPECT_TRUE(settings.ports[0].enabled);
}

TEST(ChannelComSettings, StopsAnAbsurdCountOfDamagedData)
{
    QElapsedTimer timer;
    timer.start();
    ChannelComSettings settings;
    EXPECT_EQ(settings.fromByteArray(fromHex("00000003 7FFFFFFF 00000400") + fromHex(portHex)), damaged);
    EXPECT_EQ(settings.ports.size(), 4096);
    EXPECT_TRUE(settings.ports[0] == firstPort());
    EXPECT_LT(timer.elapsed(), 5000);
}

TEST(ChannelComSettings, ReadsMoreThanTheDamagedLimitOfGoodData)
{
    ChannelComSettings settings;
    for (int i = 0; i < 5000; ++i)
        settings.ports.append(firstPort());
    ChannelComSettings read;
    EXPECT_EQ(read.fromByteArray(settings.toByteArray()), QString());
    EXPECT_EQ(read.ports.size(), 5000);

    // Damaged behind the limit: nothing is added to what was read.
    EXPECT_EQ(read.fromByteArray(settings.toByteArray().left(headSize + 4500 * portSize)), damaged);
    EXPECT_GE(read.ports.size(), 4500);
    EXPECT_LE(read.ports.size(), 4501);
}

TEST(ChannelComSettings, SurvivesAStringOfAbsurdLength)
{
    ChannelComSettings settings;
    EXPECT_EQ(settings.fromByteArray(fromHex(onePortHead) + fromHex("01 7FFFFFFE 0041")), damaged);
    EXPECT_EQ(settings.ports.size(), 1);
    EXPECT_EQ(settings.fromByteArray(fromHex(onePortHead) + fromHex("01 00000003 004100")), damaged); // odd
}

TEST(AbonentComSettings, WritesNumberAndPorts)
{
    const QByteArray bytes =
        abonent(QStringLiteral("123"), {QStringLiteral("ttyS0"), QStringLiteral("ttyS1")}).toByteArray();
    EXPECT_EQ(bytes.size(), 46);
    EXPECT_TRUE(sameBytes(bytes, fromHex("00000004 00000006 003100320033 00000002"
                                         "0000000A 00740074007900530030 0000000A 00740074007900530031")));
    EXPECT_TRUE(sameBytes(AbonentComSettings().toByteArray(), fromHex("00000004 FFFFFFFF 00000000")));
}

TEST(AbonentComSettings, SurvivesARoundTripWithNullAndEmptyStrings)
{
    const AbonentComSettings settings =
        abonent(QStringLiteral(""), {QString(), QStringLiteral(""), QStringLiteral("порт")});
    AbonentComSettings read = abonent(QStringLiteral("1"), {QStringLiteral("old")});
    EXPECT_EQ(read.fromByteArray(settings.toByteArray()), QString());
    EXPECT_FALSE(read.phoneNumber.isNull());
    EXPECT_EQ(read.allowedPorts, settings.allowedPorts);
    EXPECT_TRUE(read.allowedPorts[0].isNull());
    EXPECT_FALSE(read.allowedPorts[1].isNull());

    EXPECT_EQ(read.fromByteArray(fromHex("00000004 FFFFFFFF 00000000")), QString());
    EXPECT_TRUE(read.phoneNumber.isNull());
    EXPECT_TRUE(read.allowedPorts.isEmpty());
}

TEST(AbonentComSettings, IsLeftAloneByAnotherVersion)
{
    AbonentComSettings settings = abonent(QStringLiteral("1"), {QStringLiteral("ttyS0")});
    EXPECT_EQ(settings.fromByteArray(fromHex("00000003 00000000 00000000")),
              QStringLiteral("Версия настроек 3 не совпадает с текущей 4"));
    EXPECT_EQ(settings.phoneNumber, QStringLiteral("1"));
    EXPECT_EQ(settings.allowedPorts, QStringList{QStringLiteral("ttyS0")});
}

TEST(AbonentComSettings, TakesNoBytesForVersion0)
{
    AbonentComSettings settings;
    EXPECT_EQ(settings.fromByteArray(QByteArray()), QStringLiteral("Версия настроек 0 не совпадает с текущей 4"));
}

TEST(AbonentComSettings, HasNoAllowedPortsAfterDamage)
{
    const char twoOfThree[] = "00000004 00000002 0031 00000003 00000002 0061 00000002 0062";
    for (const char* hex : {
             twoOfThree,
             "00000004 00000002 0031 FFFFFFFF", // an absurd count
             "00000004 00000002 0031 FFFFFFFF 00000000", // with one string
             "00000004 00000002 0031", // no count
             "00000004 0000", // no number
             "00000004 00000003 003100 00000001 00000002 0061", // an odd length
             "00000004 00000002 0031 00000002 00000002 0061 0000FF", // a cut length
         }) {
        AbonentComSettings settings = abonent(QStringLiteral("1"), {QStringLiteral("ttyS0")});
        EXPECT_EQ(settings.fromByteArray(fromHex(hex)), damaged) << hex;
        EXPECT_TRUE(settings.allowedPorts.isEmpty()) << hex;
    }
}

TEST(AbonentComSettings, IgnoresWhatFollows)
{
    AbonentComSettings settings;
    EXPECT_EQ(settings.fromByteArray(abonent(QStringLiteral("5"), {}).toByteArray() + "garbage"), QString());
    EXPECT_EQ(settings.phoneNumber, QStringLiteral("5"));
}

TEST(SettingsRecords, TakeAnyBytesWithoutHarm)
{
    std::mt19937 random(rig::seed());
    for (int round = 0; round < 300; ++round) {
        QByteArray bytes = threePorts();
        bytes.truncate(4 + static_cast<int>(random() % static_cast<unsigned>(bytes.size() - 3)));
        for (int damage = 0; damage < 3 && bytes.size() > 4; ++damage)
            bytes[4 + static_cast<int>(random() % static_cast<unsigned>(bytes.size() - 4))] =
                static_cast<char>(random());
        ChannelComSettings channel;
        channel.fromByteArray(bytes);
        EXPECT_LE(channel.ports.size(), ChannelComSettings::maxPortsOfDamagedData);
        bytes[3] = 4;
        AbonentComSettings settings;
        settings.fromByteArray(bytes);
    }
}

TEST(CurrentComSettings, AreReplacedAsAWhole)
{
    ChannelComSettings settings;
    settings.ports.append(firstPort());
    settings.packetSize = 300;
    setCurrentComSettings(settings);
    EXPECT_EQ(currentPacketSize(), 300);
    EXPECT_EQ(gComSettings.packetSize, 300);
    ASSERT_EQ(gComSettings.ports.size(), 1);
    EXPECT_TRUE(gComSettings.ports[0] == firstPort());
}

TEST(UnescapeInitString, ReplacesTabReturnAndLineFeed)
{
    EXPECT_EQ(unescapeInitString(QStringLiteral("AT\\tZ\\r\\n")), QStringLiteral("AT\tZ\r\n"));
    EXPECT_EQ(unescapeInitString(QStringLiteral("ATZ\\r")), QStringLiteral("ATZ\r"));
}

TEST(UnescapeInitString, KnowsNoEscapeForTheBackslash)
{
    EXPECT_EQ(unescapeInitString(QStringLiteral("a\\\\n")), QStringLiteral("a\\\n"));
}

TEST(UnescapeInitString, LeavesOtherBackslashesAndCapitals)
{
    EXPECT_EQ(unescapeInitString(QStringLiteral("\\T\\R\\N\\x\\")), QStringLiteral("\\T\\R\\N\\x\\"));
    EXPECT_EQ(unescapeInitString(QString()), QString());
    EXPECT_EQ(unescapeInitString(QStringLiteral("\r")), QStringLiteral("\r"));
}
