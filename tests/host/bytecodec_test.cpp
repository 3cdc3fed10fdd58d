// Numbers and byte strings of the frames: what they look like, and what is refused.
#include "host/session/bytecodec.h"

#include <gtest/gtest.h>

#include <limits>

using namespace host;

namespace {

constexpr quint64 largest = std::numeric_limits<quint64>::max();

struct NumberRow
{
    quint64 value;
    const char* hex; // seven bits a byte, the lowest first
};

const NumberRow numberRows[] = {
    {0, "00"},
    {1, "01"},
    {127, "7f"},
    {128, "8001"}, // 0 + 1 * 128
    {300, "ac02"}, // 44 + 2 * 128
    {16383, "ff7f"},
    {16384, "808001"}, // 0 + 0 * 128 + 1 * 128^2
    {quint64(1) << 62, "808080808080808040"},
    {quint64(1) << 63, "80808080808080808001"},
    {largest, "ffffffffffffffffff01"},
};

QByteArray encoded(quint64 value)
{
    QByteArray bytes;
    putNumber(bytes, value);
    return bytes;
}

} // namespace

TEST(ByteCodec, NumbersTakeSevenBitsAByte)
{
    for (const NumberRow& row : numberRows) {
        EXPECT_EQ(encoded(row.value).toHex(), QByteArray(row.hex)) << row.value;
        ByteReader reader(QByteArray::fromHex(row.hex));
        EXPECT_EQ(reader.number(), row.value);
        EXPECT_TRUE(reader.ok()) << row.value;
        EXPECT_TRUE(reader.atEnd()) << row.value;
    }
}

TEST(ByteCodec, NumbersThatAreCutAreRefused)
{
    for (const NumberRow& row : numberRows) {
        const QByteArray whole = encoded(row.value);
        for (int size = 0; size < whole.size(); ++size) {
            ByteReader reader(whole.left(size));
            EXPECT_EQ(reader.number(), 0u) << row.value << ' ' << size;
            EXPECT_FALSE(reader.ok()) << row.value << ' ' << size;
        }
    }
}

TEST(ByteCodec, NumbersBeyond64BitsAreRefused)
{
    for (const char* hex : {"ffffffffffffffffff02", "ffffffffffffffffff81", "8080808080808080808001"}) {
        ByteReader reader(QByteArray::fromHex(hex) + "more");
        EXPECT_EQ(reader.number(), 0u) << hex;
        EXPECT_FALSE(reader.ok()) << hex;
    }
}

TEST(ByteCodec, FixedNumbersStandWithTheHighestByteFirst)
{
    QByteArray bytes;
    putU8(bytes, 0xFE);
    putU64(bytes, 0x0123456789ABCDEFull);
    EXPECT_EQ(bytes.toHex(), QByteArray("fe0123456789abcdef"));
    ByteReader reader(bytes);
    EXPECT_EQ(reader.u8(), 0xFE);
    EXPECT_EQ(reader.u64(), 0x0123456789ABCDEFull);
    EXPECT_TRUE(reader.ok());
    EXPECT_TRUE(reader.atEnd());
}

TEST(ByteCodec, BytesHaveTheirLengthBeforeThem)
{
    QByteArray bytes;
    putBytes(bytes, QByteArray());
    putBytes(bytes, QByteArray("a\0b", 3));
    putBytes(bytes, QByteArray(128, 'x'));
    EXPECT_EQ(bytes.left(7).toHex(), QByteArray("00036100628001"));
    ByteReader reader(bytes);
    EXPECT_EQ(reader.bytes(0), QByteArray());
    EXPECT_EQ(reader.bytes(3), QByteArray("a\0b", 3));
    EXPECT_EQ(reader.bytes(1000), QByteArray(128, 'x'));
    EXPECT_TRUE(reader.ok());
    EXPECT_TRUE(reader.atEnd());
}

TEST(ByteCodec, LengthsBeyondTheLimitOrTheEndAreRefused)
{
    struct Row
    {
        QByteArray bytes;
        int limit;
    };
    const Row rows[] = {
        {QByteArray("\x04"
                    "abcd"),
         3}, // all there, one more than is taken
        {QByteArray("\x04"
                    "abc"),
         10}, // one is missing
        {encoded(largest) + "abc", std::numeric_limits<int>::max()},
        {encoded(quint64(1) << 32) + "abc", std::numeric_limits<int>::max()}, // 0 in 32 bits
        {QByteArray(), 10},
    };
    for (const Row& row : rows) {
        ByteReader reader(row.bytes);
        EXPECT_EQ(reader.bytes(row.limit), QByteArray()) << row.bytes.toHex().constData();
        EXPECT_FALSE(reader.ok()) << row.bytes.toHex().constData();
    }
}

TEST(ByteCodec, TakesNoMoreThanThereIs)
{
    ByteReader reader("abc");
    EXPECT_EQ(reader.take(0), QByteArray());
    EXPECT_EQ(reader.take(2), QByteArray("ab"));
    EXPECT_FALSE(reader.atEnd());
    EXPECT_EQ(reader.rest(), QByteArray("c"));
    EXPECT_TRUE(reader.atEnd());
    EXPECT_EQ(reader.rest(), QByteArray());
    EXPECT_TRUE(reader.ok());
    for (const int count : {4, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        ByteReader other("abc");
        EXPECT_EQ(other.take(count), QByteArray()) << count;
        EXPECT_FALSE(other.ok()) << count;
    }
}

TEST(ByteCodec, AfterAFaultEveryReadGivesZero)
{
    ByteReader reader("abc");
    EXPECT_EQ(reader.u64(), 0u);
    ASSERT_FALSE(reader.ok());
    EXPECT_EQ(reader.u8(), 0);
    EXPECT_EQ(reader.u64(), 0u);
    EXPECT_EQ(reader.number(), 0u);
    EXPECT_EQ(reader.take(1), QByteArray());
    EXPECT_EQ(reader.bytes(10), QByteArray());
    EXPECT_EQ(reader.rest(), QByteArray());
    EXPECT_FALSE(reader.ok());
    EXPECT_FALSE(reader.atEnd()) << "what could not be read is still there";
}
