// The checksums against values computed independently of this code.
#include "com/formats/crc.h"
#include "rig/packetoracle.h"
#include "rig/randombytes.h"
#include "rig/testroot.h"
#include "tests/link/bytes.h"

#include <QByteArray>
#include <gtest/gtest.h>

#include <random>

using rig::drawBytes;

namespace {

quint16 header(const char* hex)
{
    const QByteArray bytes = fromHex(hex);
    return crc16(bytes.constData(), bytes.size());
}

quint32 expectedCrc32(const QByteArray& bytes)
{
    return rig::payloadCheck(bytes.constData(), static_cast<std::size_t>(bytes.size()));
}

// Bit by bit, from the definition of the polynomial: the rig has only the header's own check.
quint16 slowCrc16(const QByteArray& bytes)
{
    quint16 crc = 0xFFFF;
    for (const char byte : bytes) {
        crc = static_cast<quint16>(crc ^ (static_cast<uchar>(byte) << 8));
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<quint16>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
    }
    return crc;
}

} // namespace

TEST(Crc16Header, HasTheCatalogueCheckValue)
{
    EXPECT_EQ(crc16("123456789", 9), 0x29B1);
}

TEST(Crc16Header, GivesTheValuesOfHeadersOnTheLine)
{
    EXPECT_EQ(header("7c00000000"), 0x87A1);
    EXPECT_EQ(header("7c00010500"), 0x4F64);
    EXPECT_EQ(header("7c01000200"), 0x9777);
}

TEST(Crc16Header, TakesBytesOf80AndMoreAsSigned)
{
    EXPECT_EQ(header("7c00800000"), 0xD400);
    EXPECT_EQ(header("7c00ff0000"), 0x8489);
    EXPECT_EQ(header("7c0005c800"), 0xB6AA);
    EXPECT_EQ(header("7c00018000"), 0x7A41);
    EXPECT_EQ(header("7c0001f603"), 0xF6D8); // a full block of the default size
    EXPECT_EQ(header("80"), 0xA4DE);
    EXPECT_EQ(header("ff"), 0x7C20);
}

TEST(Crc16Header, IsTheInitialValueOfNoBytes)
{
    EXPECT_EQ(crc16("abc", 0), 0xFFFF);
    EXPECT_EQ(crc16("abc", -1), 0xFFFF);
}

TEST(Crc16Header, AgreesWithTheStandardBelow80)
{
    std::mt19937 random(rig::seed());
    for (int size = 0; size < 600; ++size) { // past several rounds of the widest stride
        const QByteArray bytes = drawBytes(size, [&] { return random() % 128; });
        ASSERT_EQ(crc16(bytes.constData(), bytes.size()), slowCrc16(bytes)) << bytes.toHex().constData();
    }
}

TEST(Crc16Class, IsTheStandardForAllBytes)
{
    EXPECT_EQ(Crc16::crc("123456789", 9), 0x29B1);
    const QByteArray header80 = fromHex("7c00800000");
    EXPECT_EQ(Crc16::crc(header80.constData(), 5), 0xBCFB);
    const QByteArray headerF6 = fromHex("7c0001f603");
    EXPECT_EQ(Crc16::crc(headerF6.constData(), 5), 0x3995);
    EXPECT_EQ(Crc16::crc("\x80", 1), 0x7078);
    EXPECT_EQ(Crc16::crc("\xff", 1), 0xFF00);
    EXPECT_EQ(Crc16::crc("abc", 0), 0xFFFF);
    EXPECT_EQ(Crc16::crc("abc", -1), 0xFFFF);

    std::mt19937 random(rig::seed());
    for (int size = 0; size < 600; ++size) { // past several rounds of the widest stride
        const QByteArray bytes = drawBytes(size, random);
        ASSERT_EQ(Crc16::crc(bytes.constData(), bytes.size()), slowCrc16(bytes)) << bytes.toHex().constData();
    }
}

TEST(Crc16Class, ChainsOverPieces)
{
    Crc16 crc;
    crc.addData("1234", 4);
    crc.addData("56789", 5);
    crc.addData("x", 0);
    crc.addData("x", -1);
    EXPECT_EQ(crc.value(), 0x29B1);

    Crc16 first;
    first.addData("1234", 4);
    Crc16 second(first.value());
    second.addData("56789", 5);
    EXPECT_EQ(second.value(), 0x29B1);
}

TEST(Crc32Payload, HasTheCatalogueCheckValue)
{
    EXPECT_EQ(crc32("123456789", 9), 0xCBF43926u);
    EXPECT_EQ(Crc32::crc("123456789", 9), 0xCBF43926u);
}

// zlib.crc32(bytes(range(256))) and of 1000 bytes 0xff.
TEST(Crc32Payload, TakesBytesUnsigned)
{
    QByteArray all;
    for (int i = 0; i < 256; ++i)
        all.append(static_cast<char>(i));
    EXPECT_EQ(crc32(all.constData(), all.size()), 0x29058C73u);
    const QByteArray ones(1000, '\xff');
    EXPECT_EQ(crc32(ones.constData(), ones.size()), 0xE0533230u);
}

TEST(Crc32Payload, IsZeroOfNoBytes)
{
    EXPECT_EQ(crc32("abc", 0), 0u);
    EXPECT_EQ(crc32("abc", -1), 0u);
    EXPECT_EQ(Crc32::crc("abc", 0), 0u);
    EXPECT_EQ(Crc32::crc("abc", -1), 0u);
}

// All lengths around the stride and all alignments.
TEST(Crc32Payload, AgreesWithTheDefinitionForAllLengthsAndAlignments)
{
    std::mt19937 random(rig::seed());
    for (int size = 0; size < 600; ++size) { // past several rounds of the widest stride
        const QByteArray padded = drawBytes(size + 16, random);
        const int offset = size % 16;
        const QByteArray bytes = padded.mid(offset, size);
        ASSERT_EQ(crc32(padded.constData() + offset, size), expectedCrc32(bytes)) << bytes.toHex().constData();
        ASSERT_EQ(Crc32::crc(padded.constData() + offset, size), expectedCrc32(bytes));
    }
}

TEST(Crc32Class, KeepsTheValueBeforeTheFinalInversion)
{
    Crc32 crc(0xFFFFFFFF);
    crc.addData("12345", 5);
    crc.addData("6789", 4);
    crc.addData("x", 0);
    crc.addData("x", -1);
    EXPECT_EQ(~crc.value(), 0xCBF43926u);
    EXPECT_EQ(crc.check(), 0xCBF43926u);
    EXPECT_EQ(Crc32().value(), 0xFFFFFFFFu);
    EXPECT_EQ(Crc32().check(), 0u);
}

TEST(Crc32Class, ChainsOverAnySplit)
{
    std::mt19937 random(rig::seed());
    const QByteArray bytes = drawBytes(300, random);
    for (int split = 0; split <= bytes.size(); ++split) {
        Crc32 crc;
        crc.addData(bytes.constData(), split);
        crc.addData(bytes.constData() + split, bytes.size() - split);
        ASSERT_EQ(crc.check(), expectedCrc32(bytes)) << "split at " << split;
    }
}
