// A key as somebody typed it: the result is the key whose text has these characters.
#include "fuzz/check.h"
#include "host/installation/keypair.h"
#include "host/installation/keytext.h"

#include <QString>

#include <cstdint>

using fuzz::require;

namespace {

// As keyText() writes it, without its dashes.
QString spelledOut(const QString& text)
{
    QString characters;
    for (const QChar character : text.toUpper()) {
        if (!character.isSpace() && character != QLatin1Char('-'))
            characters.append(character);
    }
    return characters.replace(QLatin1Char('O'), QLatin1Char('0'))
        .replace(QLatin1Char('I'), QLatin1Char('1'))
        .replace(QLatin1Char('L'), QLatin1Char('1'));
}

void checkText(const QString& text)
{
    QString error;
    const QByteArray key = host::keyFromText(text, &error);
    require(key.isEmpty() != error.isEmpty(), "a key, or what is wrong");
    if (key.isEmpty())
        return;
    require(host::isUsablePublicKey(key), "the key can be used");
    require(spelledOut(host::keyText(key)) == spelledOut(text), "the key is the text's");
}

void checkKey(const QByteArray& key)
{
    QString error;
    const QByteArray read = host::keyFromText(host::keyText(key), &error);
    require(read == (host::isUsablePublicKey(key) ? key : QByteArray()), "what was written is read");
    require(host::keyFingerprint(key).size() == 35, "a fingerprint is six groups of five");
}

} // namespace

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    checkText(QString::fromUtf8(bytes));
    if (bytes.size() == host::publicKeyBytes)
        checkKey(bytes);
    return 0;
}
