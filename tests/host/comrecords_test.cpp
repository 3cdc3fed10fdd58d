// The channel's records as the host reads them. The format itself is held in settings_test.
#include "host/installation/comrecords.h"

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

// Number 123, through ttyS0 and ttyS1.
const QByteArray abonentBytes =
    bytes("00000004 00000006 003100320033 00000002 0000000A 00740074007900530030 0000000A 00740074007900530031");

const QString damaged = QStringLiteral("the data is damaged");

QString version(int found, int known)
{
    return QStringLiteral("the format has version %1, this program knows version %2").arg(found).arg(known);
}

} // namespace

TEST(ComRecords, ReadsPortsAndPacketSize)
{
    ChannelComSettings settings;
    ASSERT_EQ(readRecord(onePort, &settings), QString());
    ASSERT_EQ(settings.ports.size(), 1);
    EXPECT_EQ(settings.packetSize, 1024);
    EXPECT_EQ(settings.ports.first().portName, QStringLiteral("ttyS0"));
    EXPECT_EQ(settings.toByteArray().toHex(), onePort.toHex());
}

TEST(ComRecords, ReadsAnAbonent)
{
    AbonentComSettings abonent;
    ASSERT_EQ(readRecord(abonentBytes, &abonent), QString());
    EXPECT_EQ(abonent.phoneNumber, QStringLiteral("123"));
    EXPECT_EQ(abonent.allowedPorts, (QStringList{QStringLiteral("ttyS0"), QStringLiteral("ttyS1")}));
    EXPECT_EQ(abonent.toByteArray().toHex(), abonentBytes.toHex());
}

TEST(ComRecords, BadSettingsAreToldAndChangeNothing)
{
    ChannelComSettings settings;
    settings.packetSize = 77;
    for (int size = 0; size < onePort.size(); ++size)
        EXPECT_EQ(readRecord(onePort.left(size), &settings), size < 4 ? version(0, 3) : damaged) << size;
    EXPECT_EQ(readRecord(bytes("00000002 00000000 00000400"), &settings), version(2, 3));
    EXPECT_EQ(readRecord(bytes("00000003 7FFFFFFF 00000400"), &settings), damaged) << "two thousand million ports";
    EXPECT_EQ(settings.packetSize, 77);
    EXPECT_TRUE(settings.ports.isEmpty());
}

TEST(ComRecords, ABadAbonentIsToldAndChangesNothing)
{
    AbonentComSettings abonent;
    abonent.phoneNumber = QStringLiteral("7");
    for (int size = 0; size < abonentBytes.size(); ++size)
        EXPECT_EQ(readRecord(abonentBytes.left(size), &abonent), size < 4 ? version(0, 4) : damaged) << size;
    EXPECT_EQ(readRecord(bytes("00000004 FFFFFFFF 7FFFFFFF"), &abonent), damaged);
    EXPECT_EQ(readRecord(bytes("00000004 FFFFFFFF FFFFFFFF"), &abonent), damaged) << "a negative count";
    EXPECT_EQ(readRecord(bytes("00000003 FFFFFFFF 00000000"), &abonent), version(3, 4));
    EXPECT_EQ(abonent.phoneNumber, QStringLiteral("7"));
}
