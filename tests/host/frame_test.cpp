#include "host/session/frame.h"

#include <QVector>
#include <gtest/gtest.h>

#include <utility>

using namespace host;

namespace {

// Sealed with python's cryptography: ChaCha20Poly1305 under the key 00 01 .. 1f, the nonce four
// zero bytes and the frame's number (8, little-endian), over type | payload.
const QByteArray aliveAsFirst = QByteArray::fromHex("00111103a35bf338ddc490f59158a027cbfecd");
const QByteArray dataAsSecond = QByteArray::fromHex("00149b36913c563cf1932a72426bcbc1d7c2369916a2");
const QByteArray dataAsFirst = QByteArray::fromHex("00141cd9205241203ba24c4d46abe61d18510d61c7ef");
const QByteArray typeZeroAsFirst = QByteArray::fromHex("001118859d5e9a1553197450870695dd2f5950");
const QByteArray typeSixteenAsFirst = QByteArray::fromHex("0011089bce578aaf4558235c0dc265ab49f84a");

NoiseCipher cipher(int firstByte = 0)
{
    startCryptography();
    SecretBytes key(noiseKeyBytes);
    for (int i = 0; i < noiseKeyBytes; ++i)
        key.data()[i] = static_cast<unsigned char>(firstByte + i);
    return NoiseCipher(std::move(key));
}

} // namespace

TEST(Frame, BytesOnTheWire)
{
    FrameWriter writer(cipher());
    EXPECT_EQ(writer.write(FrameType::Alive, QByteArray()).toHex(), aliveAsFirst.toHex());
    EXPECT_EQ(writer.write(FrameType::Data, "abc").toHex(), dataAsSecond.toHex());
}

TEST(Frame, AFrameIsAppendedOrNothingIs)
{
    FrameWriter writer(cipher());
    QByteArray output = "before";
    writer.append(FrameType::Alive, QByteArray(), &output);
    writer.append(FrameType::Data, "abc", &output);
    EXPECT_EQ(output, "before" + aliveAsFirst + dataAsSecond);
    FrameWriter without;
    without.append(FrameType::Data, "abc", &output);
    EXPECT_EQ(output, "before" + aliveAsFirst + dataAsSecond);
}

TEST(Frame, ReadsWhateverTheSplit)
{
    const QByteArray stream = aliveAsFirst + dataAsSecond;
    for (int split = 0; split <= stream.size(); ++split) {
        FrameReader reader(cipher());
        Frame frame;
        QVector<QByteArray> payloads;
        for (const QByteArray& piece : {stream.left(split), stream.mid(split)}) {
            reader.append(piece);
            while (reader.next(&frame) == FrameReader::Result::Frame) {
                payloads.append(frame.payload);
                payloads.last().detach();
            }
        }
        EXPECT_EQ(payloads, (QVector<QByteArray>{QByteArray(), "abc"})) << split;
    }
}

TEST(Frame, AFrameOutOfItsTurnIsDamaged)
{
    for (const QByteArray& second : {dataAsFirst, aliveAsFirst}) {
        FrameReader reader(cipher());
        Frame frame;
        reader.append(dataAsFirst + second + dataAsSecond);
        EXPECT_EQ(reader.next(&frame), FrameReader::Result::Frame);
        EXPECT_EQ(reader.next(&frame), FrameReader::Result::Damaged);
        EXPECT_EQ(reader.next(&frame), FrameReader::Result::Damaged) << "for good";
    }
    FrameReader reader(cipher());
    Frame frame;
    reader.append(dataAsSecond);
    EXPECT_EQ(reader.next(&frame), FrameReader::Result::Damaged) << "the first is missing";
}

// After carrier loss a modem echoes what is still written to it.
TEST(Frame, FramesOfAnotherKeyAreDamaged)
{
    FrameWriter own(cipher(1));
    FrameReader reader(cipher());
    Frame frame;
    reader.append(own.write(FrameType::Stored, "\x01"));
    EXPECT_EQ(reader.next(&frame), FrameReader::Result::Damaged);
}

TEST(Frame, WithoutAKeyNothingIsWrittenOrOpened)
{
    FrameWriter writer;
    EXPECT_FALSE(writer.isUsable());
    EXPECT_EQ(writer.write(FrameType::Alive, QByteArray()), QByteArray());
    FrameReader reader;
    Frame frame;
    reader.append(aliveAsFirst);
    EXPECT_EQ(reader.next(&frame), FrameReader::Result::Damaged);
}

TEST(Frame, NoFlippedBitPasses)
{
    for (int bit = 0; bit < dataAsFirst.size() * 8; ++bit) {
        QByteArray bytes = dataAsFirst;
        bytes[bit / 8] = static_cast<char>(bytes.at(bit / 8) ^ (1 << (bit % 8)));
        FrameReader reader(cipher());
        Frame frame;
        reader.append(bytes);
        EXPECT_NE(reader.next(&frame), FrameReader::Result::Frame) << bit;
    }
}

TEST(Frame, AbsurdLengthsAreRefusedAtOnce)
{
    for (const char* length : {"0001", "0010", "4012", "ffff"}) {
        FrameReader reader(cipher());
        Frame frame;
        reader.append(QByteArray::fromHex(length));
        EXPECT_EQ(reader.next(&frame), FrameReader::Result::Damaged) << length;
    }
}

TEST(Frame, FillersArePassedBy)
{
    for (int split = 0; split <= 6 + aliveAsFirst.size(); ++split) {
        const QByteArray stream = frameFiller() + frameFiller() + aliveAsFirst + frameFiller();
        FrameReader reader(cipher());
        Frame frame;
        int frames = 0;
        for (const QByteArray& piece : {stream.left(split), stream.mid(split)}) {
            reader.append(piece);
            while (reader.next(&frame) == FrameReader::Result::Frame)
                ++frames;
        }
        EXPECT_EQ(frames, 1) << split;
        EXPECT_FALSE(reader.isInFrame()) << split;
    }
    FrameReader reader(cipher());
    Frame frame;
    reader.append(frameFiller() + aliveAsFirst.left(2));
    EXPECT_EQ(reader.next(&frame), FrameReader::Result::None);
    EXPECT_TRUE(reader.isInFrame());
}

TEST(Frame, UnknownTypesAreRefused)
{
    for (const QByteArray& bytes : {typeZeroAsFirst, typeSixteenAsFirst}) {
        FrameReader reader(cipher());
        Frame frame;
        reader.append(bytes);
        EXPECT_EQ(reader.next(&frame), FrameReader::Result::Damaged) << bytes.toHex().constData();
    }
}

TEST(Frame, LargestPayload)
{
    FrameWriter writer(cipher());
    FrameReader reader(cipher());
    Frame frame;
    const QByteArray payload(maxFramePayloadBytes, 'x');
    reader.append(writer.write(FrameType::Data, payload));
    ASSERT_EQ(reader.next(&frame), FrameReader::Result::Frame);
    EXPECT_EQ(frame.payload, payload);
}
