// The handshake against a line and a peer that do what they like.
#include "tests/host/noisetools.h"

using host::NoiseCipher;
using host::NoiseHandshake;
using noisetools::Handshakes;
using Role = NoiseHandshake::Role;

namespace {

constexpr int messageCount = 3;

// Whoever reads message instead of the one with this number, has failed for good.
void expectRefused(int number, const QByteArray& message)
{
    Handshakes sides;
    ASSERT_NO_FATAL_FAILURE(sides.exchange(number));
    const QByteArray genuine = sides.writerOf(number).write("payload");
    NoiseHandshake& reader = sides.readerOf(number);
    QByteArray payload = "before";
    EXPECT_FALSE(reader.read(message, &payload));
    EXPECT_TRUE(payload.isEmpty());
    EXPECT_TRUE(reader.hasFailed());
    EXPECT_FALSE(reader.read(genuine, &payload)) << "the genuine one comes too late";
    EXPECT_FALSE(reader.isOurTurn());
    EXPECT_TRUE(reader.write("x").isEmpty());
    EXPECT_TRUE(reader.remotePublicKey().isEmpty());
    EXPECT_TRUE(reader.hash().isEmpty());
    EXPECT_FALSE(reader.takeSending().isUsable());
    EXPECT_FALSE(reader.takeReceiving().isUsable());
}

QByteArray genuineMessage(int number)
{
    Handshakes sides;
    sides.exchange(number);
    return sides.writerOf(number).write("payload");
}

// As expectRefused(), of what change makes of the genuine message of the same handshake.
template <typename Change>
void expectChangeRefused(int number, Change change)
{
    Handshakes sides;
    ASSERT_NO_FATAL_FAILURE(sides.exchange(number));
    const QByteArray genuine = sides.writerOf(number).write("payload");
    QByteArray payload;
    if (number == 0 && sides.responder.read(change(genuine), &payload)) {
        // Message 1 is in the clear: what was changed in it shows when the answer is read.
        const QByteArray answer = sides.responder.write("payload");
        EXPECT_FALSE(sides.initiator.read(answer, &payload));
        EXPECT_TRUE(sides.initiator.hasFailed());
        EXPECT_TRUE(sides.initiator.write("x").isEmpty());
        return;
    }
    NoiseHandshake& reader = sides.readerOf(number);
    EXPECT_TRUE(number == 0 || !reader.read(change(genuine), &payload));
    EXPECT_TRUE(reader.hasFailed());
    EXPECT_TRUE(reader.remotePublicKey().isEmpty());
    EXPECT_FALSE(reader.read(genuine, &payload)) << "the genuine one comes too late";
    EXPECT_FALSE(reader.isDone());
}

// Points that leave nothing of a secret, in every spelling of 32 bytes, and spellings that
// are not the one of their key. From the curve's published list of points of small order.
const QList<QByteArray>& unusableKeys()
{
    static const QList<QByteArray> keys{
        "0000000000000000000000000000000000000000000000000000000000000000",
        "0100000000000000000000000000000000000000000000000000000000000000",
        "e0eb7a7c3b41b8ae1656e3faf19fc46ada098deb9c32b1fd866205165f49b800",
        "5f9c95bca3508c24b1d0b1559c83ef5b04445cc4581c8e86d8224eddd09f1157",
        "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
        "edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
        "eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
        "0000000000000000000000000000000000000000000000000000000000000080",
        "0100000000000000000000000000000000000000000000000000000000000080",
        "efffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f", // 2, written as 2^255 - 17
        "0900000000000000000000000000000000000000000000000000000000000080", // 9 with the unused bit
        "ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff",
    };
    return keys;
}

} // namespace

TEST(Noise, BothSidesEndWithTheSame)
{
    Handshakes sides;
    EXPECT_TRUE(sides.initiator.isOurTurn());
    EXPECT_FALSE(sides.responder.isOurTurn());
    ASSERT_NO_FATAL_FAILURE(sides.exchange(2));
    EXPECT_EQ(sides.initiator.remotePublicKey(), sides.respondersIdentity->publicKey());
    EXPECT_TRUE(sides.responder.remotePublicKey().isEmpty());
    EXPECT_TRUE(sides.initiator.hash().isEmpty());
    ASSERT_NO_FATAL_FAILURE(sides.exchange(3));
    EXPECT_EQ(sides.responder.remotePublicKey(), sides.initiatorsIdentity->publicKey());
    EXPECT_TRUE(sides.initiator.isDone());
    EXPECT_TRUE(sides.responder.isDone());
    EXPECT_EQ(sides.initiator.hash().size(), 32);
    EXPECT_EQ(sides.initiator.hash(), sides.responder.hash());

    NoiseCipher sending = sides.initiator.takeSending();
    NoiseCipher receiving = sides.responder.takeReceiving();
    QByteArray plain;
    EXPECT_TRUE(receiving.open(sending.seal("there"), &plain));
    EXPECT_EQ(plain, "there");
    EXPECT_FALSE(sides.initiator.takeSending().isUsable()) << "twice the same counter with the same key";
}

TEST(Noise, LengthsAreAsSaid)
{
    Handshakes sides;
    ASSERT_NO_FATAL_FAILURE(sides.exchange(messageCount));
    for (int number = 0; number < messageCount; ++number)
        EXPECT_EQ(sides.messages.at(number).size(), host::noiseMessageBytes[number] + 1);
}

TEST(Noise, EveryByteCounts)
{
    for (int number = 0; number < messageCount; ++number) {
        const int size = genuineMessage(number).size();
        for (int position = 0; position < size; ++position) {
            SCOPED_TRACE(testing::Message() << "message " << number << ", byte " << position);
            const char bit = static_cast<char>(1 << (position % 8));
            expectChangeRefused(number, [&](QByteArray message) {
                message[position] = static_cast<char>(message.at(position) ^ bit);
                return message;
            });
        }
    }
}

TEST(Noise, EveryLengthButTheRightOneIsRefused)
{
    for (int number = 0; number < messageCount; ++number) {
        const int size = genuineMessage(number).size();
        for (int length = 0; length < size; ++length) {
            SCOPED_TRACE(testing::Message() << "message " << number << ", cut to " << length);
            expectChangeRefused(number, [&](const QByteArray& message) { return message.left(length); });
        }
        for (const int more : {1, 16, 32, 65535}) {
            SCOPED_TRACE(testing::Message() << "message " << number << ", longer by " << more);
            expectChangeRefused(number, [&](const QByteArray& message) { return message + QByteArray(more, '\0'); });
        }
    }
}

TEST(Noise, MessagesOfOtherHandshakesAreRefused)
{
    // The first may open any handshake.
    for (int number = 1; number < messageCount; ++number) {
        SCOPED_TRACE(number);
        expectRefused(number, genuineMessage(number));
    }
}

TEST(Noise, AnEarlierMessageAgainIsRefused)
{
    for (int number = 1; number < messageCount; ++number) {
        for (int other = 0; other < number; ++other) {
            SCOPED_TRACE(testing::Message() << other << " instead of " << number);
            Handshakes sides;
            ASSERT_NO_FATAL_FAILURE(sides.exchange(number));
            const QByteArray genuine = sides.writerOf(number).write("payload");
            QByteArray payload;
            EXPECT_FALSE(sides.readerOf(number).read(sides.messages.at(other), &payload));
            EXPECT_FALSE(sides.readerOf(number).read(genuine, &payload));
        }
    }
}

TEST(Noise, OneReadsNotWhatItWrote)
{
    Handshakes sides;
    const QByteArray first = sides.initiator.write("payload that is long enough to be an answer, were it not our own, "
                                                   "with a key in the clear at its beginning");
    QByteArray payload;
    EXPECT_FALSE(sides.initiator.read(first, &payload));
    EXPECT_TRUE(sides.initiator.hasFailed());

    Handshakes others;
    ASSERT_NO_FATAL_FAILURE(others.exchange(1));
    EXPECT_FALSE(others.responder.read(others.responder.write("payload"), &payload));
    EXPECT_TRUE(others.responder.hasFailed());
}

TEST(Noise, OutOfTurnNothingGoes)
{
    Handshakes early;
    EXPECT_TRUE(early.responder.write("x").isEmpty());
    EXPECT_TRUE(early.responder.hasFailed());

    Handshakes twice;
    EXPECT_FALSE(twice.initiator.write("x").isEmpty());
    EXPECT_TRUE(twice.initiator.write("x").isEmpty());
    EXPECT_TRUE(twice.initiator.hasFailed());

    QByteArray payload;
    Handshakes crossed;
    const QByteArray first = crossed.initiator.write("x");
    EXPECT_FALSE(crossed.initiator.read(Handshakes().initiator.write("x"), &payload)) << "two that both call";
    EXPECT_TRUE(crossed.responder.read(first, &payload));
    EXPECT_FALSE(crossed.responder.read(first, &payload));

    Handshakes done;
    ASSERT_NO_FATAL_FAILURE(done.exchange(messageCount));
    EXPECT_FALSE(done.initiator.isOurTurn());
    EXPECT_FALSE(done.responder.isOurTurn());
    EXPECT_TRUE(done.responder.write("x").isEmpty());
    EXPECT_FALSE(done.responder.isDone());
    EXPECT_FALSE(done.responder.takeSending().isUsable());
}

TEST(Noise, ThePrologueIsPartOfIt)
{
    for (const QByteArray& other : {QByteArray(), QByteArray("prologue "), QByteArray("Prologue")}) {
        Handshakes sides("prologue", other);
        QByteArray payload;
        ASSERT_TRUE(sides.responder.read(sides.initiator.write("x"), &payload));
        EXPECT_FALSE(sides.initiator.read(sides.responder.write("x"), &payload)) << other.toStdString();
        EXPECT_TRUE(sides.initiator.hasFailed());
    }
}

TEST(Noise, UnusableKeysAreRefused)
{
    for (const QByteArray& text : unusableKeys()) {
        SCOPED_TRACE(text.toStdString());
        const QByteArray key = QByteArray::fromHex(text);
        ASSERT_EQ(key.size(), 32);
        EXPECT_FALSE(host::isUsablePublicKey(key));
        EXPECT_TRUE(host::KeyPair::generate().agree(key).isEmpty());
        expectRefused(0, key + "payload");
        expectRefused(1, key + genuineMessage(1).mid(32));
    }
    EXPECT_TRUE(host::isUsablePublicKey(host::KeyPair::generate().publicKey()));
    EXPECT_TRUE(host::isUsablePublicKey(QByteArray(1, 9) + QByteArray(31, 0)));
    EXPECT_FALSE(host::isUsablePublicKey(host::KeyPair::generate().publicKey().left(31)));
    EXPECT_FALSE(host::isUsablePublicKey(QByteArray()));
}

TEST(Noise, NoHandshakeIsLikeAnother)
{
    auto identity = noisetools::newIdentity();
    NoiseHandshake one(Role::Initiator, "p", identity);
    NoiseHandshake two(Role::Initiator, "p", identity);
    EXPECT_NE(one.write("x"), two.write("x"));
    Handshakes first;
    Handshakes second;
    ASSERT_NO_FATAL_FAILURE(first.exchange(messageCount));
    ASSERT_NO_FATAL_FAILURE(second.exchange(messageCount));
    EXPECT_NE(first.initiator.hash(), second.initiator.hash());
}

TEST(Noise, WhatDoesNotFitIsNotWritten)
{
    QByteArray payload;
    Handshakes sides;
    const QByteArray longest(host::maxNoiseMessageBytes - host::noiseMessageBytes[1], 'x');
    for (int number = 0; number < messageCount; ++number) {
        const QByteArray message = sides.writerOf(number).write(longest);
        EXPECT_EQ(message.size(), longest.size() + host::noiseMessageBytes[number]);
        ASSERT_TRUE(sides.readerOf(number).read(message, &payload));
        EXPECT_EQ(payload, longest);
    }
    Handshakes others;
    EXPECT_TRUE(others.initiator.write(longest + 'x').isEmpty());
    EXPECT_TRUE(others.initiator.hasFailed());
}
