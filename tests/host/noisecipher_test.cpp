// Sealed messages: each opens once, in its turn, unchanged, and after anything else nothing does.
#include "tests/host/noisetools.h"

#include <limits>

using host::NoiseCipher;
using host::SecretBytes;

namespace {

struct Ends
{
    NoiseCipher sending;
    NoiseCipher receiving;

    explicit Ends(quint64 nextNonce = 0)
    {
        SecretBytes key = noisetools::copyOf(host::KeyPair::generate().secretKey());
        sending = NoiseCipher(noisetools::copyOf(key), nextNonce);
        receiving = NoiseCipher(std::move(key), nextNonce);
    }
};

void expectRefused(Ends& ends, const QByteArray& sealed, const QByteArray& genuineNext)
{
    QByteArray plain = "before";
    EXPECT_FALSE(ends.receiving.open(sealed, &plain));
    EXPECT_TRUE(plain.isEmpty());
    EXPECT_FALSE(ends.receiving.isUsable());
    EXPECT_FALSE(ends.receiving.open(genuineNext, &plain)) << "the genuine one comes too late";
    EXPECT_TRUE(plain.isEmpty());
}

} // namespace

TEST(NoiseCipher, OpensInOrder)
{
    Ends ends;
    for (int size : {0, 1, 15, 16, 17, 1024, host::maxNoiseMessageBytes - host::noiseTagBytes}) {
        const QByteArray plain(size, 'x');
        const QByteArray sealed = ends.sending.seal(plain);
        ASSERT_EQ(sealed.size(), size + host::noiseTagBytes);
        QByteArray opened;
        ASSERT_TRUE(ends.receiving.open(sealed, &opened));
        ASSERT_EQ(opened, plain);
    }
}

TEST(NoiseCipher, TheSameIsNeverSealedToTheSame)
{
    Ends ends;
    EXPECT_NE(ends.sending.seal("same"), ends.sending.seal("same"));
    EXPECT_FALSE(ends.sending.seal("same").contains("same"));
}

TEST(NoiseCipher, EveryBitCounts)
{
    const int size = Ends().sending.seal("some bytes").size();
    for (int bit = 0; bit < size * 8; ++bit) {
        Ends ends;
        const QByteArray sealed = ends.sending.seal("some bytes");
        QByteArray changed = sealed;
        changed[bit / 8] = static_cast<char>(changed.at(bit / 8) ^ (1 << (bit % 8)));
        SCOPED_TRACE(bit);
        expectRefused(ends, changed, sealed);
    }
}

TEST(NoiseCipher, CutExtendedSkippedRepeatedSwappedIsRefused)
{
    for (int length = 0; length < 26; ++length) {
        Ends ends;
        const QByteArray sealed = ends.sending.seal("some bytes");
        ASSERT_EQ(sealed.size(), 26);
        expectRefused(ends, sealed.left(length), sealed);
    }
    {
        Ends ends;
        const QByteArray sealed = ends.sending.seal("some bytes");
        expectRefused(ends, sealed + '\0', sealed);
    }
    {
        Ends ends;
        const QByteArray first = ends.sending.seal("first");
        const QByteArray second = ends.sending.seal("second");
        expectRefused(ends, second, first);
    }
    {
        Ends ends;
        QByteArray plain;
        const QByteArray first = ends.sending.seal("first");
        ASSERT_TRUE(ends.receiving.open(first, &plain));
        expectRefused(ends, first, ends.sending.seal("second"));
    }
    {
        Ends ends;
        const QByteArray first = ends.sending.seal("first");
        expectRefused(ends, first + ends.sending.seal("second"), first);
    }
}

TEST(NoiseCipher, OneDirectionIsNotTheOther)
{
    noisetools::Handshakes sides;
    ASSERT_NO_FATAL_FAILURE(sides.exchange(3));
    NoiseCipher sending = sides.initiator.takeSending();
    NoiseCipher receiving = sides.initiator.takeReceiving();
    QByteArray plain;
    EXPECT_FALSE(receiving.open(sending.seal("echoed"), &plain));
}

TEST(NoiseCipher, AssociatedBytesArePartOfIt)
{
    Ends ends;
    QByteArray plain;
    EXPECT_TRUE(ends.receiving.open(ends.sending.seal("text", "with"), &plain, "with"));
    EXPECT_FALSE(ends.receiving.open(ends.sending.seal("text", "with"), &plain, "witH"));
}

TEST(NoiseCipher, InPlaceTheBytesAreTheSame)
{
    const SecretBytes key = noisetools::copyOf(host::KeyPair::generate().secretKey());
    NoiseCipher copying(noisetools::copyOf(key));
    NoiseCipher sending(noisetools::copyOf(key));
    NoiseCipher receiving(noisetools::copyOf(key));
    QByteArray bytes = "text" + QByteArray(host::noiseTagBytes, 'x') + "behind";
    ASSERT_TRUE(sending.sealInPlace(bytes.data(), 4, "with"));
    EXPECT_EQ(bytes, copying.seal("text", "with") + "behind");
    ASSERT_TRUE(receiving.openInPlace(bytes.data(), 4 + host::noiseTagBytes, "with"));
    EXPECT_TRUE(bytes.startsWith("text"));
    EXPECT_TRUE(bytes.endsWith("behind"));

    const QByteArray next = sending.seal("second");
    bytes = next;
    bytes[0] = static_cast<char>(bytes.at(0) ^ 1);
    EXPECT_FALSE(receiving.openInPlace(bytes.data(), bytes.size()));
    bytes = next;
    EXPECT_FALSE(receiving.openInPlace(bytes.data(), bytes.size())) << "the genuine one comes too late";
    EXPECT_FALSE(receiving.isUsable());
}

TEST(NoiseCipher, WhatCannotBeSealedInPlaceStaysAsItIs)
{
    NoiseCipher none;
    QByteArray bytes(20, 'x');
    EXPECT_FALSE(none.sealInPlace(bytes.data(), 4));
    EXPECT_EQ(bytes, QByteArray(20, 'x'));
}

// The counter's last value belongs to nobody.
TEST(NoiseCipher, EndsWhereTheCounterEnds)
{
    constexpr quint64 last = std::numeric_limits<quint64>::max();
    Ends ends(last - 1);
    const QByteArray sealed = ends.sending.seal("the last one");
    QByteArray plain;
    ASSERT_FALSE(sealed.isEmpty());
    EXPECT_TRUE(ends.receiving.open(sealed, &plain));
    EXPECT_TRUE(ends.sending.seal("one too many").isEmpty());
    EXPECT_FALSE(ends.sending.isUsable());
    EXPECT_FALSE(ends.receiving.open(sealed, &plain));
    EXPECT_FALSE(ends.receiving.isUsable());
}

TEST(NoiseCipher, WithoutAKeyNothingGoes)
{
    NoiseCipher none;
    QByteArray plain = "before";
    EXPECT_TRUE(none.seal("x").isEmpty());
    EXPECT_FALSE(none.open(QByteArray(16, '\0'), &plain));
    EXPECT_TRUE(plain.isEmpty());

    Ends ends;
    NoiseCipher moved = std::move(ends.sending);
    EXPECT_FALSE(ends.sending.isUsable());
    EXPECT_TRUE(ends.receiving.open(moved.seal("x"), &plain));
    moved.wipe();
    EXPECT_TRUE(moved.seal("x").isEmpty());
}

TEST(NoiseCipher, WhatDoesNotFitIsNotSealed)
{
    Ends ends;
    EXPECT_TRUE(ends.sending.seal(QByteArray(host::maxNoiseMessageBytes - host::noiseTagBytes + 1, 'x')).isEmpty());
    QByteArray plain;
    EXPECT_TRUE(ends.receiving.open(ends.sending.seal("x"), &plain)) << "and no number was used for it";
    expectRefused(ends, QByteArray(host::maxNoiseMessageBytes + 1, 'x'), ends.sending.seal("x"));
}
