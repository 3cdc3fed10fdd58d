// Keys that people read out and type. The expected texts were computed with Python's hashlib from
// the public keys of RFC 7748, section 6.1.
#include "host/installation/keypair.h"
#include "host/installation/keytext.h"

#include <gtest/gtest.h>

namespace {

const QByteArray firstKey = QByteArray::fromHex("8520f0098930a754748b7ddcb43ef75a0dbf3a0d26381af4eba4a98eaa9b4e6a");
const QByteArray secondKey = QByteArray::fromHex("de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f");
const QString firstText = QStringLiteral("GMGF02C9-62KN8X4B-FQEB8FQQ-B86VYEGD-4RW1NX7B-MJMRXAMV-9SNE56A1");
const QString secondText = QStringLiteral("VTFDPZBV-FQ0V9MTV-C71ESS1N-6WZR6GY8-BDW6EKDD-ZHZ18VW8-5D7YGFSV");
const QString alphabet = QStringLiteral("0123456789ABCDEFGHJKMNPQRSTVWXYZ");

void expectRefused(const QString& text, const QString& reason)
{
    QString error;
    EXPECT_TRUE(host::keyFromText(text, &error).isEmpty()) << text.toStdString();
    EXPECT_TRUE(error.contains(reason)) << text.toStdString() << ": " << error.toStdString();
}

void expectRead(const QString& text, const QByteArray& key)
{
    QString error = QStringLiteral("before");
    EXPECT_EQ(host::keyFromText(text, &error).toHex(), key.toHex()) << text.toStdString();
    EXPECT_EQ(error, QString());
}

} // namespace

TEST(KeyText, IsAsComputedElsewhere)
{
    EXPECT_EQ(host::keyText(firstKey), firstText);
    EXPECT_EQ(host::keyText(secondKey), secondText);
    EXPECT_EQ(host::keyFingerprint(firstKey), QStringLiteral("43371-55605-66432-67297-52564-30029"));
    EXPECT_EQ(host::keyFingerprint(secondKey), QStringLiteral("08317-71851-19330-54622-33141-74576"));
}

TEST(KeyText, IsReadAsPeopleTypeIt)
{
    expectRead(firstText, firstKey);
    expectRead(secondText, secondKey);
    expectRead(firstText.toLower(), firstKey);
    expectRead(QString(firstText).remove(QLatin1Char('-')), firstKey);
    expectRead(QStringLiteral("  ") + QString(firstText).replace(QLatin1Char('-'), QLatin1String(" \n")) +
                   QStringLiteral("\t-"),
               firstKey);
    expectRead(
        QString(firstText).replace(QLatin1Char('0'), QLatin1Char('O')).replace(QLatin1Char('1'), QLatin1Char('l')),
        firstKey);
    expectRead(
        QString(firstText).replace(QLatin1Char('0'), QLatin1Char('o')).replace(QLatin1Char('1'), QLatin1Char('I')),
        firstKey);
}

TEST(KeyText, EveryOtherCharacterShows)
{
    for (int position = 0; position < firstText.size(); ++position) {
        if (firstText.at(position) == QLatin1Char('-'))
            continue;
        for (const QChar other : alphabet) {
            if (other == firstText.at(position))
                continue;
            QString text = firstText;
            text[position] = other;
            expectRefused(text, QStringLiteral("check"));
        }
    }
}

TEST(KeyText, SwappedCharactersShow)
{
    for (int position = 0; position + 1 < firstText.size(); ++position) {
        if (firstText.at(position) == firstText.at(position + 1) ||
            firstText.mid(position, 2).contains(QLatin1Char('-')))
            continue;
        QString text = firstText;
        text[position] = firstText.at(position + 1);
        text[position + 1] = firstText.at(position);
        expectRefused(text, QStringLiteral("swapped"));
    }
}

TEST(KeyText, SaysWhatIsWrong)
{
    const QString strange =
        QStringLiteral(" does not occur in a key: it consists of digits and Latin letters without U");
    const auto expectReason = [](const QString& text, const QString& reason) {
        QString error;
        EXPECT_TRUE(host::keyFromText(text, &error).isEmpty()) << text.toStdString();
        EXPECT_EQ(error, reason);
    };
    expectReason(QString(), QStringLiteral("no key is given"));
    expectReason(QStringLiteral(" -- "), QStringLiteral("no key is given"));
    expectReason(firstText.chopped(1), QStringLiteral("a key has 56 characters, this one has 55"));
    expectReason(firstText + QStringLiteral("0"), QStringLiteral("a key has 56 characters, this one has 57"));
    expectReason(QStringLiteral("GMGFU2"), QStringLiteral("\"U\" (character 5)") + strange);
    // Looks the same, and is of another alphabet.
    expectReason(QStringLiteral("GMGF02C9-62\u041A"), QStringLiteral("\"\u041A\" (character 12)") + strange);
    expectReason(QStringLiteral("GM\u0007"), QStringLiteral("U+0007 (character 3)") + strange);
    expectReason(QStringLiteral("GM") + QChar(0), QStringLiteral("U+0000 (character 3)") + strange);
    expectReason(host::keyFingerprint(firstKey),
                 QStringLiteral("this is a key's fingerprint; the whole key is needed, as \"transport-host key\" shows "
                                "it there"));
    expectReason(QStringLiteral("00000000-00000000-00000000-00000000-00000000-00000000-0006GN5S"),
                 QStringLiteral("this is no key that an installation can have"));
    expectReason(QString(firstText).replace(0, 1, QStringLiteral("H")),
                 QStringLiteral("the key does not pass its check: a character is wrong, or two are swapped"));
}

TEST(KeyText, IsTheSameAfterwards)
{
    for (int i = 0; i < 200; ++i) {
        const QByteArray key = host::KeyPair::generate().publicKey();
        expectRead(host::keyText(key), key);
        EXPECT_EQ(host::keyText(key).size(), 62);
        EXPECT_EQ(host::keyFingerprint(key).size(), 35);
    }
}
