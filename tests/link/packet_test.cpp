// Packets byte by byte: making them, and cutting them out of what arrives.
#include "com/formats/crc.h"
#include "com/link/ccompacket.h"
#include "rig/testroot.h"
#include "tests/link/bytes.h"
#include "tests/link/messagecatcher.h"

#include <QByteArray>
#include <QStringList>
#include <gtest/gtest.h>

#include <functional>
#include <random>

namespace {

CComPacket packet(quint8 type, quint8 number, const QByteArray& data)
{
    CComPacket made;
    made.type = type;
    made.number = number;
    made.data = data;
    made.makePacket();
    return made;
}

QByteArray wire(quint8 type, quint8 number, const QByteArray& data)
{
    return packet(type, number, data).bytes;
}

QByteArray upTo(int end)
{
    QByteArray bytes;
    for (int i = 0; i < end; ++i)
        bytes.append(static_cast<char>(i));
    return bytes;
}

const QByteArray helloWire = fromHex("7c00010500644f48656c6c6fbb8ac44f");
const QByteArray aWire = fromHex("7c00010100a083414d46eca0");

struct Expected
{
    quint8 type;
    quint8 number;
    QByteArray data;
    QByteArray wire;
};

QList<Expected> referencePackets()
{
    return {
        {0, 1, "", fromHex("7c0001000091b0")},
        {0, 0, "", fromHex("7c00000000a187")},
        {0, 1, "A", aWire},
        {0, 1, "Hello", helloWire},
        {0, 128, "A", fromHex("7c0080010031e74154fd4088")},
        {0, 255, "A", fromHex("7c00ff0100b8b7411b3f6b26")},
        {1, 0, fromHex("01"), fromHex("7c0100010024c201d41245b4")},
        {1, 0, fromHex("03ff"), fromHex("7c01000200779703ffe40f6779")},
        {1, 0, fromHex("000102feff"), fromHex("7c01000500e00e000102feff47c723f4")},
        {0, 2, QByteArray(10, 'x'), fromHex("7c00020a000a06") + QByteArray(10, 'x') + fromHex("b631252d")},
        {0, 1, QByteArray(300, 'x'), fromHex("7c00012c013be3") + QByteArray(300, 'x') + fromHex("574d1d64")},
        {0, 1, QByteArray(1014, 'x'), fromHex("7c0001f603d8f6") + QByteArray(1014, 'x') + fromHex("cff23c02")},
        {0, 5, upTo(200), fromHex("7c0005c800aab6") + upTo(200) + fromHex("dc566434")},
        {1, 0, upTo(62).mid(1), fromHex("7c01003d00dc82") + upTo(62).mid(1) + fromHex("564ba013")},
        {7, 9, "zz", fromHex("7c070902007f2e7a7ad01b8446")},
    };
}

} // namespace

TEST(MakePacket, GivesTheReferenceImages)
{
    for (const Expected& expected : referencePackets())
        EXPECT_TRUE(sameBytes(wire(expected.type, expected.number, expected.data), expected.wire));
}

TEST(MakePacket, HasNoPayloadCheckWithoutPayload)
{
    EXPECT_EQ(wire(0, 1, "").size(), 7);
    EXPECT_EQ(wire(1, 0, "").size(), 7);
    EXPECT_EQ(wire(0, 1, "A").size(), 12);
}

TEST(MakePacket, ReplacesAnEarlierImage)
{
    CComPacket made = packet(0, 1, "Hello");
    made.data = "A";
    made.makePacket();
    EXPECT_TRUE(sameBytes(made.bytes, aWire));
}

TEST(MakePacket, BuildsTheImageInItsFinalSize)
{
    EXPECT_EQ(packet(0, 1, QByteArray(1014, 'x')).bytes.capacity(), 1025);
    EXPECT_EQ(packet(0, 1, "").bytes.capacity(), 7);
}

TEST(MakePacket, KeepsTheLow16BitsOfTheLength)
{
    const QByteArray bytes = wire(0, 1, QByteArray(65537, 'x'));
    EXPECT_TRUE(sameBytes(bytes.mid(3, 2), fromHex("0100")));
    EXPECT_EQ(bytes.size(), 65537 + 11);
}

TEST(MakePacket, MakesTheLargestPayloadReadable)
{
    QByteArray buffer = wire(0, 1, QByteArray(65535, '|'));
    EXPECT_TRUE(sameBytes(buffer.mid(3, 2), fromHex("ffff")));
    CComPacket read;
    ASSERT_TRUE(read.readPacket(&buffer));
    EXPECT_EQ(read.data, QByteArray(65535, '|'));
    EXPECT_TRUE(buffer.isEmpty());
}

TEST(Packet, SentTimeIsNotTouched)
{
    CComPacket made;
    EXPECT_EQ(made.sentTime, 0);
    made.sentTime = 5;
    made.data = "A";
    made.makePacket();
    EXPECT_EQ(made.sentTime, 5);
    QByteArray buffer = aWire;
    EXPECT_TRUE(made.readPacket(&buffer));
    EXPECT_EQ(made.sentTime, 5);
}

TEST(ReadPacket, ReadsTheReferenceImages)
{
    for (const Expected& expected : referencePackets()) {
        QByteArray buffer = expected.wire;
        CComPacket read;
        ASSERT_TRUE(read.readPacket(&buffer)) << expected.wire.toHex().constData();
        EXPECT_EQ(read.type, expected.type);
        EXPECT_EQ(read.number, expected.number);
        EXPECT_TRUE(sameBytes(read.data, expected.data));
        EXPECT_TRUE(sameBytes(read.bytes, expected.wire));
        EXPECT_TRUE(buffer.isEmpty());
    }
}

TEST(ReadPacket, LeavesLessThanAHeaderAlone)
{
    for (int size = 0; size <= 6; ++size) {
        QByteArray buffer(size, 'g');
        CComPacket read;
        EXPECT_FALSE(read.readPacket(&buffer));
        EXPECT_EQ(buffer, QByteArray(size, 'g'));
    }
}

TEST(ReadPacket, CutsGarbageToItsLastSixBytes)
{
    QByteArray buffer = "abcdefghijklmnopqrst";
    CComPacket read;
    EXPECT_FALSE(read.readPacket(&buffer));
    EXPECT_EQ(buffer, "opqrst");

    buffer = QByteArray(20, '|'); // start symbols, but no header
    EXPECT_FALSE(read.readPacket(&buffer));
    EXPECT_EQ(buffer, QByteArray(6, '|'));

    buffer = "1234567";
    EXPECT_FALSE(read.readPacket(&buffer));
    EXPECT_EQ(buffer, "234567");
}

TEST(ReadPacket, FindsAPacketWhoseFirstBytesWereKeptFromGarbage)
{
    QByteArray buffer = QByteArray(20, 'g') + aWire.left(6);
    CComPacket read;
    EXPECT_FALSE(read.readPacket(&buffer));
    EXPECT_TRUE(sameBytes(buffer, aWire.left(6)));
    buffer += aWire.mid(6);
    EXPECT_TRUE(read.readPacket(&buffer));
    EXPECT_EQ(read.data, "A");
}

TEST(ReadPacket, LeavesGarbageInFrontOfAnUnfinishedPacket)
{
    QByteArray buffer = fromHex("aabb7c00010500644f4865");
    CComPacket read;
    EXPECT_FALSE(read.readPacket(&buffer));
    EXPECT_TRUE(sameBytes(buffer, fromHex("aabb7c00010500644f4865")));
    buffer += fromHex("6c6c6fbb8ac44f");
    ASSERT_TRUE(read.readPacket(&buffer));
    EXPECT_TRUE(buffer.isEmpty());
    EXPECT_EQ(read.data, "Hello");
    EXPECT_TRUE(sameBytes(read.bytes, helloWire));
}

TEST(ReadPacket, WaitsForTheLastByte)
{
    QByteArray buffer = helloWire.left(helloWire.size() - 1);
    CComPacket read;
    EXPECT_FALSE(read.readPacket(&buffer));
    EXPECT_EQ(buffer.size(), helloWire.size() - 1);
    buffer += helloWire.right(1);
    EXPECT_TRUE(read.readPacket(&buffer));
}

TEST(ReadPacket, RemovesLeadingGarbageWithThePacket)
{
    QByteArray buffer = fromHex("aa") + aWire;
    CComPacket read;
    ASSERT_TRUE(read.readPacket(&buffer));
    EXPECT_TRUE(buffer.isEmpty());
    EXPECT_TRUE(sameBytes(read.bytes, aWire));

    buffer = fromHex("aabb") + fromHex("7c0001000091b0") + "rest";
    ASSERT_TRUE(read.readPacket(&buffer));
    EXPECT_EQ(buffer, "rest");
}

TEST(ReadPacket, TakesOnePacketAtATimeInOrder)
{
    QByteArray buffer = helloWire + fromHex("7c00000000a187") + aWire;
    CComPacket read;
    ASSERT_TRUE(read.readPacket(&buffer));
    EXPECT_EQ(read.data, "Hello");
    ASSERT_TRUE(read.readPacket(&buffer));
    EXPECT_EQ(read.number, 0);
    ASSERT_TRUE(read.readPacket(&buffer));
    EXPECT_EQ(read.data, "A");
    EXPECT_FALSE(read.readPacket(&buffer));
}

TEST(ReadPacket, LeavesNoPayloadOfThePacketBefore)
{
    QByteArray buffer = helloWire + fromHex("7c0001000091b0");
    CComPacket read;
    ASSERT_TRUE(read.readPacket(&buffer));
    ASSERT_TRUE(read.readPacket(&buffer));
    EXPECT_TRUE(read.data.isEmpty());
    EXPECT_TRUE(sameBytes(read.bytes, fromHex("7c0001000091b0")));
}

TEST(ReadPacket, RejectsTheStandardCheckOfAHeaderWithHighBytes)
{
    QByteArray buffer = fromHex("7c00800000fbbc");
    CComPacket read;
    EXPECT_FALSE(read.readPacket(&buffer));
    buffer = fromHex("7c0080000000d4");
    EXPECT_TRUE(read.readPacket(&buffer));
    EXPECT_EQ(read.number, 128);
}

TEST(ReadPacket, ResumesEightBytesBehindARejectedHeader)
{
    // One byte further on there would be data packet 1, if its start symbol counted.
    QByteArray buffer = fromHex("7c000207005670"
                                "7c0001000091b0"
                                "00000000");
    CComPacket read;
    EXPECT_FALSE(read.readPacket(&buffer));
    EXPECT_TRUE(sameBytes(buffer, fromHex("91b000000000")));
}

TEST(ReadPacket, FindsAPacketInsideARejectedPayload)
{
    QByteArray buffer = fromHex("7c000207005670"
                                "00"
                                "7c0001000091b0"
                                "000000");
    CComPacket read;
    ASSERT_TRUE(read.readPacket(&buffer));
    EXPECT_EQ(read.number, 1);
    EXPECT_TRUE(read.data.isEmpty());
    EXPECT_TRUE(sameBytes(buffer, fromHex("000000")));
}

TEST(ReadPacket, RemovesEverythingBeforeAScanThatStoppedBeyondItsEnd)
{
    QByteArray buffer = fromHex("7c00010100a0834100000000");
    CComPacket read;
    EXPECT_FALSE(read.readPacket(&buffer));
    EXPECT_TRUE(sameBytes(buffer, fromHex("00000000")));
}

TEST(ReadPacket, TellsOfACorruptPayloadOnTheDebugStreamOnly)
{
    const MessageCatcher catcher;
    QByteArray buffer = fromHex("7c00010100a0834100000000") + aWire;
    CComPacket read;
    ASSERT_TRUE(read.readPacket(&buffer));
    EXPECT_EQ(read.data, "A");
    EXPECT_TRUE(buffer.isEmpty());
    EXPECT_EQ(
        MessageCatcher::messages,
        QStringList{QStringLiteral("%1 Packet header received, but data is corrupted 0 1 1").arg(int(QtDebugMsg))});
}

TEST(ReadPacket, SaysNothingOfGarbageAndGoodPackets)
{
    const MessageCatcher catcher;
    QByteArray buffer = QByteArray("garbage||||garbage") + helloWire;
    CComPacket read;
    EXPECT_TRUE(read.readPacket(&buffer));
    EXPECT_TRUE(MessageCatcher::messages.isEmpty());
}

TEST(ReadPacket, LeavesTheBufferWholeWhenAnUnfinishedPacketFollowsACorruptOne)
{
    const MessageCatcher catcher;
    const QByteArray bytes = fromHex("7c00010100a0834100000000") + helloWire.left(10);
    QByteArray buffer = bytes;
    CComPacket read;
    EXPECT_FALSE(read.readPacket(&buffer));
    EXPECT_TRUE(sameBytes(buffer, bytes));
    buffer += helloWire.mid(10);
    EXPECT_TRUE(read.readPacket(&buffer));
    EXPECT_EQ(read.data, "Hello");
    EXPECT_TRUE(buffer.isEmpty());
}

TEST(ReadPacket, FindsAPacketThatCarriesPacketImagesAsPayload)
{
    QByteArray buffer = wire(0, 3, helloWire + aWire);
    CComPacket read;
    ASSERT_TRUE(read.readPacket(&buffer));
    EXPECT_TRUE(sameBytes(read.data, helloWire + aWire));
    EXPECT_TRUE(buffer.isEmpty());
}

TEST(Cut, TakesWhatTheBufferWouldLose)
{
    const QByteArray bytes = "gg" + aWire + "tail";
    CComPacket read;
    int end = -1;
    ASSERT_EQ(read.cut(bytes.constData(), bytes.size(), &end), CComPacket::Cut::Packet);
    EXPECT_EQ(end, 14);
    EXPECT_EQ(read.data, "A");
    EXPECT_EQ(read.cut(bytes.constData() + end, bytes.size() - end, &end), CComPacket::Cut::Nothing);
    EXPECT_EQ(end, 0);
}

TEST(Cut, LeavesThePayloadWhereItIs)
{
    const QByteArray bytes = helloWire;
    CComPacket cut;
    int end = 0;
    ASSERT_EQ(cut.cut(bytes.constData(), bytes.size(), &end), CComPacket::Cut::Packet);
    EXPECT_EQ(static_cast<const void*>(cut.data.constData()), bytes.constData() + 7);
    EXPECT_EQ(static_cast<const void*>(cut.bytes.constData()), bytes.constData());
}

TEST(ReadPacket, OwnsWhatItHasRead)
{
    QByteArray buffer = helloWire + "more";
    CComPacket read;
    ASSERT_TRUE(read.readPacket(&buffer));
    buffer.fill('x', 100);
    EXPECT_EQ(read.data, "Hello");
    EXPECT_TRUE(sameBytes(read.bytes, helloWire));
}

// Properties over random traffic.

class RandomTraffic : public testing::Test
{
protected:
    int draw(int limit) { return static_cast<int>(m_random() % static_cast<unsigned>(limit)); }

    QByteArray drawBytes(int size)
    {
        QByteArray bytes(size, '\0');
        for (char& byte : bytes)
            byte = draw(4) == 0 ? '|' : static_cast<char>(draw(256));
        return bytes;
    }

    // Garbage, packets whole, damaged and cut short.
    QByteArray drawTraffic(int pieces)
    {
        QByteArray traffic;
        for (int i = 0; i < pieces; ++i) {
            QByteArray bytes = wire(static_cast<quint8>(draw(3)), static_cast<quint8>(draw(256)), drawBytes(draw(60)));
            const int kind = draw(6);
            if (kind == 0)
                bytes = drawBytes(draw(30));
            else if (kind == 1)
                bytes[draw(bytes.size())] = static_cast<char>(draw(256));
            else if (kind == 2)
                bytes.chop(draw(bytes.size()));
            traffic += bytes;
        }
        return traffic;
    }

    // The images of all packets found when the bytes arrive cut at these positions.
    QList<QByteArray> cut(const QByteArray& bytes, const std::function<int()>& pieceSize)
    {
        QList<QByteArray> found;
        QByteArray buffer;
        for (int from = 0; from < bytes.size();) {
            const int size = pieceSize();
            buffer += bytes.mid(from, size);
            from += size;
            CComPacket read;
            while (read.readPacket(&buffer))
                found.append(read.bytes);
        }
        return found;
    }

    std::mt19937 m_random{rig::seed()};
};

TEST_F(RandomTraffic, IsCutIntoTheSamePacketsHoweverItArrives)
{
    const MessageCatcher silent;
    for (int round = 0; round < 60; ++round) {
        const QByteArray traffic = drawTraffic(25);
        const QList<QByteArray> whole = cut(traffic, [&] { return traffic.size(); });
        ASSERT_EQ(cut(traffic, [] { return 1; }), whole) << "round " << round;
        ASSERT_EQ(cut(traffic, [&] { return 1 + draw(100); }), whole) << "round " << round;
    }
}

TEST(FlippedBit, NoEmptyPacketSurvives)
{
    for (int number = 0; number < 256; ++number) {
        const QByteArray good = wire(0, static_cast<quint8>(number), "");
        for (int bit = 0; bit < good.size() * 8; ++bit) {
            QByteArray bad = good;
            bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ (1 << (bit % 8)));
            CComPacket read;
            ASSERT_FALSE(read.readPacket(&bad)) << number << " bit " << bit;
        }
    }
}

TEST_F(RandomTraffic, LosesNoWholePacketBehindGarbageWithoutStartSymbols)
{
    for (int round = 0; round < 30; ++round) {
        QByteArray traffic;
        QList<QByteArray> sent;
        for (int i = 0; i < 20; ++i) {
            sent.append(wire(0, static_cast<quint8>(i), drawBytes(draw(300))));
            traffic += QByteArray(draw(40), 'g') + sent.last();
        }
        ASSERT_EQ(cut(traffic, [&] { return 1 + draw(200); }), sent);
    }
}

TEST_F(RandomTraffic, NoPacketSurvivesAFlippedBit)
{
    const MessageCatcher silent;
    for (int round = 0; round < 20; ++round) {
        const QByteArray good =
            wire(static_cast<quint8>(draw(2)), static_cast<quint8>(draw(256)), drawBytes(1 + draw(40)));
        for (int bit = 0; bit < good.size() * 8; ++bit) {
            QByteArray bad = good;
            bad[bit / 8] = static_cast<char>(bad[bit / 8] ^ (1 << (bit % 8)));
            CComPacket read;
            QByteArray buffer = bad;
            ASSERT_FALSE(read.readPacket(&buffer)) << bad.toHex().constData() << " bit " << bit;
        }
    }
}

// readPacket restated directly from its steps, byte by byte, as the yardstick.
bool readByteByByte(QByteArray* buffer)
{
    const int size = buffer->size();
    if (size < 7)
        return false;
    int i = 0;
    while (i <= size - 7) {
        const char* at = buffer->constData() + i;
        const auto byte = [&](int offset) { return static_cast<quint32>(static_cast<uchar>(at[offset])); };
        if (byte(0) != 0x7C || crc16(at, 5) != (byte(5) | byte(6) << 8)) {
            ++i;
            continue;
        }
        const int length = static_cast<int>(byte(3) | byte(4) << 8);
        if (length == 0) {
            buffer->remove(0, i + 7);
            return true;
        }
        if (i + length + 11 > size)
            return false;
        const quint32 check =
            byte(7 + length) | byte(8 + length) << 8 | byte(9 + length) << 16 | byte(10 + length) << 24;
        if (crc32(at, 7 + length) == check) {
            buffer->remove(0, i + length + 11);
            return true;
        }
        i += 8;
    }
    buffer->remove(0, i);
    return false;
}

TEST_F(RandomTraffic, LeavesTheBytesThatAByteByByteScanLeaves)
{
    const MessageCatcher silent;
    for (int round = 0; round < 300; ++round) {
        QByteArray buffer = drawTraffic(1 + draw(5));
        QByteArray expectedBuffer = buffer;
        for (bool found = true; found;) {
            CComPacket read;
            found = read.readPacket(&buffer);
            ASSERT_EQ(found, readByteByByte(&expectedBuffer));
            ASSERT_TRUE(sameBytes(buffer, expectedBuffer));
        }
    }
}

TEST(Cut, PassesByWhatStandsInFrontOfAPacketThatIsNotComplete)
{
    const QByteArray corrupt = fromHex("7c00010100a0834100000000");
    const QByteArray bytes = "garbage" + corrupt + helloWire.left(10);
    CComPacket read;
    int end = -1;
    EXPECT_EQ(read.cut(bytes.constData(), bytes.size(), &end), CComPacket::Cut::Incomplete);
    EXPECT_EQ(end, bytes.size() - 10);
    const QByteArray whole = bytes.mid(end) + helloWire.mid(10);
    EXPECT_EQ(read.cut(whole.constData(), whole.size(), &end), CComPacket::Cut::Packet);
    EXPECT_EQ(end, helloWire.size());
    EXPECT_EQ(read.data, "Hello");
    EXPECT_EQ(read.cut(corrupt.constData(), corrupt.size(), &end), CComPacket::Cut::Nothing);
    EXPECT_EQ(end, 8);
    EXPECT_EQ(read.cut(corrupt.constData(), 6, &end), CComPacket::Cut::Nothing);
    EXPECT_EQ(end, 0);
}
