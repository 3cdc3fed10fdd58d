#include "host/frame.h"
#include "host/sessionframes.h"
#include "tests/support/testroot.h"

#include <random>

#include <gtest/gtest.h>

using namespace host;

namespace {

// Made with python's zlib: crc32 over number (4 bytes big-endian) | type | length | payload of
// this frame and of all before it.
const QByteArray aliveAsFirst = QByteArray::fromHex("09000092bde4f1");
const QByteArray dataAsSecond = QByteArray::fromHex("040003616263ab4c85c9");
const QByteArray dataAsFirst = QByteArray::fromHex("040003616263a0cb1d5e");

} // namespace

TEST(Frame, BytesOnTheWire)
{
    FrameWriter writer;
    EXPECT_EQ(writer.write(FrameType::Alive, QByteArray()).toHex(), aliveAsFirst.toHex());
    EXPECT_EQ(writer.write(FrameType::Data, "abc").toHex(), dataAsSecond.toHex());
}

TEST(Frame, ReadsWhateverTheSplit)
{
    const QByteArray stream = aliveAsFirst + dataAsSecond;
    for (int split = 0; split <= stream.size(); ++split) {
        FrameReader reader;
        Frame frame;
        QVector<QByteArray> payloads;
        for (const QByteArray& piece : {stream.left(split), stream.mid(split)}) {
            reader.append(piece);
            while (reader.next(&frame) == FrameReader::Result::Frame)
                payloads.append(frame.payload);
        }
        EXPECT_EQ(payloads, (QVector<QByteArray>{QByteArray(), "abc"})) << split;
    }
}

TEST(Frame, AFrameOutOfItsTurnIsDamaged)
{
    FrameReader reader;
    Frame frame;
    reader.append(dataAsFirst + dataAsFirst);
    EXPECT_EQ(reader.next(&frame), FrameReader::Result::Frame);
    EXPECT_EQ(reader.next(&frame), FrameReader::Result::Damaged);
    EXPECT_EQ(reader.next(&frame), FrameReader::Result::Damaged) << "for good";
}

// After carrier loss a modem echoes what is still written to it. Our own words, coming back at
// the right moment, must not pass for the other side's, least of all "stored".
TEST(Frame, OwnFramesThatComeBackAreDamaged)
{
    FrameWriter own;
    FrameWriter other;
    FrameReader reader;
    Frame frame;
    (void)own.write(FrameType::Hello, "we");
    reader.append(other.write(FrameType::Hello, "they"));
    EXPECT_EQ(reader.next(&frame), FrameReader::Result::Frame);
    const QByteArray ownWords = own.write(FrameType::Stored, "\x01");
    EXPECT_NE(other.write(FrameType::Stored, "\x01"), ownWords);
    reader.append(ownWords);
    EXPECT_EQ(reader.next(&frame), FrameReader::Result::Damaged);
}

TEST(Frame, NoFlippedBitPasses)
{
    for (int bit = 0; bit < dataAsFirst.size() * 8; ++bit) {
        QByteArray bytes = dataAsFirst;
        bytes[bit / 8] = static_cast<char>(bytes.at(bit / 8) ^ (1 << (bit % 8)));
        FrameReader reader;
        Frame frame;
        reader.append(bytes);
        EXPECT_NE(reader.next(&frame), FrameReader::Result::Frame) << bit;
    }
}

TEST(Frame, AbsurdLengthAndUnknownTypeAreRefusedAtOnce)
{
    for (const char* header : {"044001", "04ffff", "000000", "100000", "ff0000"}) {
        FrameReader reader;
        Frame frame;
        reader.append(QByteArray::fromHex(header));
        EXPECT_EQ(reader.next(&frame), FrameReader::Result::Damaged) << header;
    }
}

TEST(Frame, LargestPayload)
{
    FrameWriter writer;
    FrameReader reader;
    Frame frame;
    const QByteArray payload(maxFramePayloadBytes, 'x');
    reader.append(writer.write(FrameType::Data, payload));
    ASSERT_EQ(reader.next(&frame), FrameReader::Result::Frame);
    EXPECT_EQ(frame.payload, payload);
}

TEST(SessionFrames, OfferTravelsWhole)
{
    OfferFrame offer;
    offer.messageId = 0x0123456789ABCDEFull;
    offer.size = 70000;
    offer.offset = 300;
    offer.sha256 = QByteArray(32, 'h');
    offer.modifiedSecs = 1700000000;
    offer.fileName = QString::fromUtf8("смета \xF0\x9F\x93\xA0.txt");
    OfferFrame read;
    ASSERT_TRUE(read.decode(offer.encode()));
    EXPECT_EQ(read.messageId, offer.messageId);
    EXPECT_EQ(read.size, offer.size);
    EXPECT_EQ(read.offset, offer.offset);
    EXPECT_EQ(read.sha256, offer.sha256);
    EXPECT_EQ(read.modifiedSecs, offer.modifiedSecs);
    EXPECT_EQ(read.fileName, offer.fileName);
    // id, 70000 and 300 in sevens, hash, time in sevens, name
    EXPECT_EQ(offer.encode().left(13).toHex(), QByteArray("0123456789abcdef" "f0a204" "ac02"));
}

TEST(SessionFrames, NoCutPayloadIsAccepted)
{
    HelloFrame hello;
    hello.installationId = QByteArray(16, 'i');
    hello.abonentName = QStringLiteral("Боб");
    StateFrame state;
    state.storedIds = {1, 2};
    state.parts = {{3, 1000, QByteArray(32, 'h')}};
    const QByteArray helloBytes = hello.encode();
    const QByteArray stateBytes = state.encode();
    for (int size = 0; size < helloBytes.size(); ++size)
        EXPECT_FALSE(HelloFrame().decode(helloBytes.left(size))) << size;
    for (int size = 0; size < stateBytes.size(); ++size)
        EXPECT_FALSE(StateFrame().decode(stateBytes.left(size))) << size;
    EXPECT_FALSE(HelloFrame().decode(helloBytes + 'x'));
    EXPECT_FALSE(StateFrame().decode(stateBytes + 'x'));
}

TEST(SessionFrames, AbsurdNumbersAreRefused)
{
    StateFrame state;
    EXPECT_FALSE(state.decode(QByteArray::fromHex("01ffffffffffffffffff01"))) << "2^64 - 1 identifiers";
    EXPECT_FALSE(StateFrame().decode(QByteArray::fromHex("01ffffffffffffffffffff01"))) << "a number of 77 bits";
    OfferFrame offer;
    offer.sha256 = QByteArray(32, 'h');
    offer.size = 10;
    offer.offset = 11;
    EXPECT_FALSE(OfferFrame().decode(offer.encode())) << "offset behind the end";
    offer.offset = 0;
    offer.size = maxMessageBytes + 1;
    EXPECT_FALSE(OfferFrame().decode(offer.encode()));
}

TEST(SessionFrames, BrokenUtf8IsRefused)
{
    OfferFrame offer;
    offer.sha256 = QByteArray(32, 'h');
    offer.fileName = QStringLiteral("a");
    EXPECT_TRUE(OfferFrame().decode(offer.encode()));
    for (const char* tail : {"\xFF", "\xC0\xAF", "\xED\xA0\x80", "\xF0\x9F"})
        EXPECT_FALSE(OfferFrame().decode(offer.encode() + tail));
}

TEST(SessionFrames, ReasonsAreCutBetweenCharacters)
{
    const QByteArray bytes = encodeReason(QString(1000, QChar(0x044F)));
    EXPECT_EQ(bytes.size(), maxReasonBytes);
    QString reason;
    ASSERT_TRUE(decodeReason(encodeReason(QLatin1Char('a') + QString(1000, QChar(0x044F))), &reason));
    EXPECT_EQ(reason, QLatin1Char('a') + QString(199, QChar(0x044F)));
}

TEST(SessionFrames, RandomPayloadsNeverCrash)
{
    std::mt19937 random(testsupport::seed());
    for (int i = 0; i < 20000; ++i) {
        QByteArray payload(static_cast<int>(random() % 80), Qt::Uninitialized);
        for (char& byte : payload)
            byte = static_cast<char>(random());
        HelloFrame hello;
        StateFrame state;
        OfferFrame offer;
        RefusedFrame refused;
        QVector<quint64> numbers;
        (void)hello.decode(payload);
        if (state.decode(payload)) {
            EXPECT_LE(state.parts.size(), StateFrame::maxParts);
        }
        if (offer.decode(payload)) {
            EXPECT_LE(offer.offset, offer.size);
        }
        (void)refused.decode(payload);
        (void)decodeNumbers(payload, &numbers);
    }
}
