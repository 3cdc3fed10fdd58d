#include "host/installation/keytext.h"

#include "host/installation/keypair.h"

#include <sodium.h>

namespace host {

namespace {

constexpr int fingerprintGroups = 6;
constexpr int bytesOfGroup = 5;
constexpr quint64 groupModulus = 100000;
constexpr int digitsOfGroup = 5;

constexpr int checkBytes = 3; // key and check together make a whole number of characters
constexpr int bitsOfCharacter = 5;
constexpr int textCharacters = (publicKeyBytes + checkBytes) * 8 / bitsOfCharacter;
static_assert((publicKeyBytes + checkBytes) * 8 % bitsOfCharacter == 0);
constexpr int charactersOfGroup = 8;

// Without I, L and O, which look like digits, and U, so that no rude words come about.
constexpr char alphabet[] = "0123456789ABCDEFGHJKMNPQRSTVWXYZ";

QByteArray sha256(const QByteArray& data)
{
    QByteArray hash(crypto_hash_sha256_BYTES, Qt::Uninitialized);
    crypto_hash_sha256(reinterpret_cast<unsigned char*>(hash.data()),
                       reinterpret_cast<const unsigned char*>(data.constData()),
                       static_cast<unsigned long long>(data.size()));
    return hash;
}

QByteArray checkOf(const QByteArray& publicKey)
{
    return sha256("transport-host key check" + publicKey).left(checkBytes);
}

// -1: this character cannot be in a key.
int valueOf(QChar character)
{
    switch (character.toUpper().unicode()) {
    case 'O': return 0;
    case 'I':
    case 'L': return 1;
    default: break;
    }
    const char letter = character.toUpper().toLatin1();
    for (int value = 0; letter != 0 && alphabet[value] != 0; ++value) {
        if (alphabet[value] == letter)
            return value;
    }
    return -1;
}

bool isPassedOver(QChar character)
{
    return character.isSpace() || character == QLatin1Char('-');
}

// To give a fingerprint in place of a key is a likely mistake.
bool looksLikeFingerprint(const QString& characters)
{
    if (characters.size() != fingerprintGroups * digitsOfGroup)
        return false;
    for (const QChar character : characters) {
        if (character < QLatin1Char('0') || character > QLatin1Char('9'))
            return false;
    }
    return true;
}

QString strangeCharacter(QChar character, int position)
{
    const QString shown = character.isPrint()
                              ? QStringLiteral("\"%1\"").arg(character)
                              : QStringLiteral("U+%1").arg(character.unicode(), 4, 16, QLatin1Char('0'));
    return QStringLiteral(
               "%1 (character %2) does not occur in a key: it consists of digits and Latin letters without U")
        .arg(shown, QString::number(position + 1));
}

// The characters without separators; sets *error if one of them cannot be in a key.
QString charactersOf(const QString& text, QString* error)
{
    QString characters;
    for (int position = 0; position < text.size(); ++position) {
        const QChar character = text.at(position);
        if (isPassedOver(character))
            continue;
        if (valueOf(character) < 0) {
            *error = strangeCharacter(character, position);
            return QString();
        }
        characters.append(character);
    }
    if (characters.isEmpty())
        *error = QStringLiteral("no key is given");
    else if (looksLikeFingerprint(characters))
        *error = QStringLiteral(
            "this is a key's fingerprint; the whole key is needed, as \"transport-host key\" shows it there");
    else if (characters.size() != textCharacters)
        *error = QStringLiteral("a key has %1 characters, this one has %2").arg(textCharacters).arg(characters.size());
    return characters;
}

} // namespace

QString keyFingerprint(const QByteArray& publicKey)
{
    const QByteArray hash = sha256("transport-host key fingerprint" + publicKey);
    QString text;
    for (int group = 0; group < fingerprintGroups; ++group) {
        quint64 number = 0;
        for (int position = 0; position < bytesOfGroup; ++position)
            number = number << 8 | static_cast<quint8>(hash.at(group * bytesOfGroup + position));
        if (group > 0)
            text += QLatin1Char('-');
        text += QString::number(number % groupModulus).rightJustified(digitsOfGroup, QLatin1Char('0'));
    }
    return text;
}

QString keyText(const QByteArray& publicKey)
{
    QString text;
    int written = 0;
    quint32 bits = 0;
    int bitCount = 0;
    for (const char byte : publicKey + checkOf(publicKey)) {
        bits = (bits << 8 | static_cast<quint8>(byte)) & 0xFFFF;
        for (bitCount += 8; bitCount >= bitsOfCharacter; ++written) {
            bitCount -= bitsOfCharacter;
            if (written > 0 && written % charactersOfGroup == 0)
                text += QLatin1Char('-');
            text += QLatin1Char(alphabet[(bits >> bitCount) & 0x1F]);
        }
    }
    return text;
}

QByteArray keyFromText(const QString& text, QString* error)
{
    error->clear();
    const QString characters = charactersOf(text, error);
    if (!error->isEmpty())
        return QByteArray();
    QByteArray bytes;
    quint32 bits = 0;
    int bitCount = 0;
    for (const QChar character : characters) {
        bits = (bits << bitsOfCharacter | static_cast<quint32>(valueOf(character))) & 0xFFFF;
        bitCount += bitsOfCharacter;
        if (bitCount >= 8) {
            bitCount -= 8;
            bytes.append(static_cast<char>(bits >> bitCount));
        }
    }
    const QByteArray key = bytes.left(publicKeyBytes);
    if (checkOf(key) != bytes.mid(publicKeyBytes))
        *error = QStringLiteral("the key does not pass its check: a character is wrong, or two are swapped");
    else if (!isUsablePublicKey(key))
        *error = QStringLiteral("this is no key that an installation can have");
    return error->isEmpty() ? key : QByteArray();
}

} // namespace host
