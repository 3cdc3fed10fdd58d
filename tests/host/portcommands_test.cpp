// Ports as the program defines, lists and removes them, and the record that the plug-in reads.
#include "tests/host/programs.h"

#include <gtest/gtest.h>

using namespace hosttest;

TEST_F(Program, PortsAreDefinedListedChangedAndRemoved)
{
    const Installation installation(QStringLiteral("i"));
    const auto port = [&](const QStringList& arguments) {
        return installation.call(QStringList{QStringLiteral("port")} + arguments);
    };
    EXPECT_EQ(port({QStringLiteral("add"), QStringLiteral("ttyS0"), QStringLiteral("--baud"), QStringLiteral("9600"),
                    QStringLiteral("--init"), QStringLiteral("ATZ\\r")})
                  .status,
              0);
    // The bytes the plug-in reads.
    EXPECT_EQ(
        readAll(installation.root + QStringLiteral("/settings/channelCom.conf")).toHex(),
        QByteArray::fromHex("00000003 00000001 00000400 01 0000000A 00740074007900530030 0000000A 00410054005A005C0072"
                            "00002580 00000001 00000008 00000000 00000001")
            .toHex());
    EXPECT_EQ(
        port({QStringLiteral("add"), QStringLiteral("/dev/ttyUSB0"), QStringLiteral("--flow"), QStringLiteral("none"),
              QStringLiteral("--parity"), QStringLiteral("even"), QStringLiteral("--stop-bits"), QStringLiteral("2"),
              QStringLiteral("--data-bits"), QStringLiteral("7"), QStringLiteral("--disabled")})
            .status,
        0);
    EXPECT_EQ(port({QStringLiteral("packet-size"), QStringLiteral("512")}).status, 0);
    EXPECT_EQ(
        port({QStringLiteral("list")}).out,
        QStringLiteral(
            "ttyS0  9600 baud, 8 data bits, parity none, stop bits 1, flow control hardware, init string 'ATZ\\r'\n"
            "/dev/ttyUSB0  115200 baud, 7 data bits, parity even, stop bits 2, flow control none, init string "
            "'ATZ\\r', disabled\n"
            "packets of at most 512 bytes\n"));
    EXPECT_EQ(port({QStringLiteral("add"), QStringLiteral("ttyS0")}).status, 0) << "changes it";
    EXPECT_EQ(port({QStringLiteral("remove"), QStringLiteral("/dev/ttyUSB0")}).status, 0);
    EXPECT_EQ(port({QStringLiteral("remove"), QStringLiteral("/dev/ttyUSB0")}).status, 1);
    EXPECT_TRUE(port({QStringLiteral("list")}).out.startsWith(QStringLiteral("ttyS0  115200 baud")));
}

// Each word's value in the record is that of the serial port's enumeration.
TEST_F(Program, EveryWordOfAPortIsItsValueInTheRecord)
{
    const Installation installation(QStringLiteral("i"));
    struct Word
    {
        const char* option;
        const char* word;
        int offset;
        int value;
    }; // offset: from the record's end, in numbers
    const Word words[] = {{"--flow", "none", 4, 0},   {"--flow", "hardware", 4, 1}, {"--flow", "software", 4, 2},
                          {"--data-bits", "5", 3, 5}, {"--data-bits", "6", 3, 6},   {"--data-bits", "7", 3, 7},
                          {"--data-bits", "8", 3, 8}, {"--parity", "none", 2, 0},   {"--parity", "even", 2, 2},
                          {"--parity", "odd", 2, 3},  {"--parity", "space", 2, 4},  {"--parity", "mark", 2, 5},
                          {"--stop-bits", "1", 1, 1}, {"--stop-bits", "1.5", 1, 3}, {"--stop-bits", "2", 1, 2}};
    for (const Word& word : words) {
        ASSERT_EQ(installation
                      .call({QStringLiteral("port"), QStringLiteral("add"), QStringLiteral("ttyS0"),
                             QString::fromLatin1(word.option), QString::fromLatin1(word.word)})
                      .status,
                  0);
        const QByteArray record = readAll(installation.root + QStringLiteral("/settings/channelCom.conf"));
        QByteArray value = record.right(4 * word.offset).left(4).toHex();
        EXPECT_EQ(value, QByteArray::number(word.value, 16).rightJustified(8, '0')) << word.option << " " << word.word;
    }
}
