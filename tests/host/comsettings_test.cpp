#include "host/installation/comsettingswriter.h"

#include <gtest/gtest.h>

using namespace host;

namespace {

QByteArray bytes(const char* hex)
{
    return QByteArray::fromHex(hex);
}

// One port: ttyS0, ATZ\r as typed, 9600 baud, hardware flow control, 8 bits, no parity, one stop bit.
const QByteArray onePort =
    bytes("00000003 00000001 00000400 01 0000000A 00740074007900530030 0000000A 00410054005A005C0072"
          "00002580 00000001 00000008 00000000 00000001");

} // namespace

TEST(ComSettingsWriter, OnePort)
{
    ComSettingsRecord settings;
    ComPortRecord port;
    port.portName = QStringLiteral("ttyS0");
    port.initString = QStringLiteral("ATZ\\r");
    port.baudRate = 9600;
    settings.ports = {port};
    EXPECT_EQ(writeComSettings(settings).toHex(), onePort.toHex());
    ComSettingsRecord read;
    ASSERT_EQ(readComSettings(onePort, &read), QString());
    ASSERT_EQ(read.ports.size(), 1);
    EXPECT_EQ(read.packetSize, 1024);
    EXPECT_TRUE(read.ports.first().enabled);
    EXPECT_EQ(read.ports.first().portName, QStringLiteral("ttyS0"));
    EXPECT_EQ(read.ports.first().initString, QStringLiteral("ATZ\\r"));
    EXPECT_EQ(read.ports.first().baudRate, 9600);
    EXPECT_EQ(read.ports.first().flowControl, 1);
    EXPECT_EQ(read.ports.first().dataBits, 8);
    EXPECT_EQ(read.ports.first().parity, 0);
    EXPECT_EQ(read.ports.first().stopBits, 1);
}

TEST(ComSettingsWriter, EmptyListAndUnsetRecord)
{
    EXPECT_EQ(writeComSettings(ComSettingsRecord()).toHex(), bytes("00000003 00000000 00000400").toHex());
    ComSettingsRecord settings;
    ComPortRecord port;
    port.enabled = false;
    port.baudRate = port.flowControl = port.dataBits = port.parity = port.stopBits = -1;
    settings.ports = {port};
    EXPECT_EQ(
        writeComSettings(settings).toHex(),
        bytes("00000003 00000001 00000400 00 FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF FFFFFFFF").toHex());
}

TEST(ComSettingsWriter, Abonent)
{
    ComAbonentRecord abonent;
    EXPECT_EQ(writeComAbonent(abonent).toHex(), bytes("00000004 FFFFFFFF 00000000").toHex());
    abonent.phoneNumber = QStringLiteral("123");
    abonent.allowedPorts = QStringList{QStringLiteral("ttyS0"), QStringLiteral("ttyS1")};
    const QByteArray expected =
        bytes("00000004 00000006 003100320033 00000002 0000000A 00740074007900530030 0000000A 00740074007900530031");
    EXPECT_EQ(writeComAbonent(abonent).toHex(), expected.toHex());
    ComAbonentRecord read;
    ASSERT_EQ(readComAbonent(expected, &read), QString());
    EXPECT_EQ(read.phoneNumber, abonent.phoneNumber);
    EXPECT_EQ(read.allowedPorts, abonent.allowedPorts);
}

TEST(ComSettingsWriter, BadBytesAreRefusedAndChangeNothing)
{
    ComSettingsRecord settings;
    settings.packetSize = 77;
    for (int size = 0; size < onePort.size(); ++size)
        EXPECT_NE(readComSettings(onePort.left(size), &settings), QString()) << size;
    EXPECT_NE(readComSettings(bytes("00000002 00000000 00000400"), &settings), QString());
    EXPECT_NE(readComSettings(bytes("00000003 7FFFFFFF 00000400"), &settings), QString())
        << "two thousand million ports";
    EXPECT_EQ(settings.packetSize, 77);
    ComAbonentRecord abonent;
    EXPECT_NE(readComAbonent(QByteArray(), &abonent), QString());
    EXPECT_NE(readComAbonent(bytes("00000004 FFFFFFFF 7FFFFFFF"), &abonent), QString());
    EXPECT_NE(readComAbonent(bytes("00000003 FFFFFFFF 00000000"), &abonent), QString());
}
