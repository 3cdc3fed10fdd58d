#include "host/names.h"

#include "host/sessionframes.h"

#include <QTextCodec>
#include <QVector>

namespace host {

namespace {

// Control characters, direction marks, line separators, lone surrogates, non-characters:
// invisible, or able to make one name look like another.
bool isTreacherous(uint character)
{
    switch (QChar::category(character)) {
    case QChar::Other_Control:
    case QChar::Other_Surrogate:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    default:
        break;
    }
    const bool isDirection = (character >= 0x202A && character <= 0x202E) || (character >= 0x2066 && character <= 0x2069) ||
                             character == 0x200E || character == 0x200F;
    const bool isNonCharacter = (character & 0xFFFE) == 0xFFFE || (character >= 0xFDD0 && character <= 0xFDEF);
    return isDirection || isNonCharacter || character == 0xFEFF ||
           character == QChar::ReplacementCharacter;
}

QString fromCharacter(uint character)
{
    return QString::fromUcs4(&character, 1);
}

// Cuts between characters.
QString cutToBytes(const QString& text, int maxBytes)
{
    QString result;
    int bytes = 0;
    for (const uint character : text.toUcs4()) {
        const QString one = fromCharacter(character);
        bytes += one.toUtf8().size();
        if (bytes > maxBytes)
            break;
        result += one;
    }
    return result;
}

constexpr int maxExtensionBytes = 32;

} // namespace

QString abonentKey(const QString& name)
{
    QString key;
    for (const uint character : name.toUcs4()) {
        if (QChar::isLetterOrNumber(character))
            key += fromCharacter(QChar::toCaseFolded(character));
    }
    return key;
}

bool isValidAbonentName(const QString& name)
{
    for (const uint character : name.toUcs4()) {
        if (isTreacherous(character))
            return false;
    }
    return name.toUtf8().size() <= maxAbonentNameBytes && name == name.trimmed() && !abonentKey(name).isEmpty();
}

QString safeFileName(const QString& name)
{
    QString safe;
    for (const uint character : name.toUcs4())
        safe += isTreacherous(character) || character == '/' || character == '\\' ? QStringLiteral("_") : fromCharacter(character);
    safe = safe.trimmed();
    if (safe.startsWith(QLatin1Char('.')))
        safe[0] = QLatin1Char('_');
    if (safe.isEmpty())
        return QStringLiteral("file");
    if (safe.toUtf8().size() <= maxSafeNameBytes)
        return safe;
    const int dot = safe.lastIndexOf(QLatin1Char('.'));
    QString extension = dot > 0 ? safe.mid(dot) : QString();
    if (extension.toUtf8().size() > maxExtensionBytes)
        extension.clear();
    return cutToBytes(safe.left(safe.size() - extension.size()), maxSafeNameBytes - extension.toUtf8().size()) + extension;
}

QString displayName(const QString& name)
{
    QString shown;
    for (const uint character : name.toUcs4()) {
        if (character == '\r')
            shown += QStringLiteral("\\r");
        else if (character == '\n')
            shown += QStringLiteral("\\n");
        else if (character == '\t')
            shown += QStringLiteral("\\t");
        else
            shown += isTreacherous(character) ? QStringLiteral("\uFFFD") : fromCharacter(character);
    }
    return shown;
}

void useUtf8Names()
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
}

} // namespace host
