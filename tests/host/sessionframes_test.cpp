#include "host/session/sessionframes.h"
#include "rig/testroot.h"

#include <gtest/gtest.h>

#include <random>
#include <utility>

using namespace host;

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
    EXPECT_EQ(offer.encode().left(13).toHex(), QByteArray("0123456789abcdef"
                                                          "f0a204"
                                                          "ac02"));
}

TEST(SessionFrames, NoCutPayloadIsAccepted)
{
    StateFrame state;
    state.storedIds = {1, 2};
    state.parts = {{3, 1000, QByteArray(32, 'h')}};
    const QByteArray stateBytes = state.encode();
    for (int size = 0; size < stateBytes.size(); ++size)
        EXPECT_FALSE(StateFrame().decode(stateBytes.left(size))) << size;
    EXPECT_FALSE(StateFrame().decode(stateBytes + 'x'));
}

TEST(SessionFrames, ANameIsUtf8OfBoundedLength)
{
    HelloFrame hello;
    EXPECT_TRUE(hello.decode(QByteArray())) << "to a peer that is not proved";
    ASSERT_TRUE(hello.decode(QStringLiteral("Боб").toUtf8()));
    EXPECT_EQ(hello.abonentName, QStringLiteral("Боб"));
    EXPECT_TRUE(hello.decode(QByteArray(maxAbonentNameBytes, 'n')));
    EXPECT_FALSE(hello.decode(QByteArray(maxAbonentNameBytes + 1, 'n')));
    EXPECT_FALSE(hello.decode("\xD0"));
}

TEST(SessionFrames, AbsurdNumbersAreRefused)
{
    StateFrame state;
    EXPECT_FALSE(state.decode(QByteArray::fromHex("01ffffffffffffffffff01"))) << "2^64 - 1 identifiers";
    EXPECT_FALSE(StateFrame().decode(QByteArray::fromHex("01ffffffffffffffffffff01"))) << "a number of 77 bits";
    OfferFrame offer;
    offer.messageId = 1;
    offer.sha256 = QByteArray(32, 'h');
    offer.size = 10;
    offer.offset = 11;
    EXPECT_FALSE(OfferFrame().decode(offer.encode())) << "offset behind the end";
    offer.offset = 0;
    offer.size = maxMessageBytes + 1;
    EXPECT_FALSE(OfferFrame().decode(offer.encode()));
}

// A file may be dated before 1970, and the wire has no sign.
TEST(SessionFrames, AFileFromBefore1970IsDated1970)
{
    for (const auto& [modifiedSecs, readSecs] : {std::pair<qint64, qint64>(-1, 0), {0, 0}, {1, 1}}) {
        OfferFrame offer;
        offer.messageId = 1;
        offer.sha256 = QByteArray(32, 'h');
        offer.modifiedSecs = modifiedSecs;
        OfferFrame read;
        ASSERT_TRUE(read.decode(offer.encode())) << modifiedSecs;
        EXPECT_EQ(read.modifiedSecs, readSecs);
    }
}

// No message has it: it means "none" in every list of messages.
TEST(SessionFrames, TheIdentifierZeroIsRefused)
{
    for (const quint64 id : {quint64(0), quint64(1)}) {
        OfferFrame offer;
        offer.messageId = id;
        offer.sha256 = QByteArray(32, 'h');
        EXPECT_EQ(OfferFrame().decode(offer.encode()), id != 0);
        StateFrame stored;
        stored.storedIds = {5, id, 7};
        EXPECT_EQ(StateFrame().decode(stored.encode()), id != 0);
        StateFrame standing;
        standing.parts = {{5, 1000, QByteArray(32, 'h')}, {id, 1000, QByteArray(32, 'h')}};
        EXPECT_EQ(StateFrame().decode(standing.encode()), id != 0);
    }
}

TEST(SessionFrames, BrokenUtf8IsRefused)
{
    OfferFrame offer;
    offer.messageId = 1;
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
    std::mt19937 random(rig::seed());
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
