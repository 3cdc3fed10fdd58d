#include "host/installation/names.h"

#include <QTextCodec>
#include <QVector>

namespace host {

namespace {

// Direction marks and other format characters, which control the text and are not seen themselves.
// Allowed are the two joiners, which Persian words and composed pictures need, and the signs of Arabic,
// Syriac and Kaithi that are drawn.
bool isInvisibleFormat(uint character)
{
    if (QChar::category(character) != QChar::Other_Format)
        return false;
    const bool isJoiner = character == 0x200C || character == 0x200D;
    const bool isDrawn = (character >= 0x0600 && character <= 0x0605) || character == 0x06DD || character == 0x070F ||
                         character == 0x08E2 || character == 0x110BD || character == 0x110CD;
    return !isJoiner && !isDrawn;
}

// Control characters, direction marks, line separators, lone surrogates, non-characters: they are
// invisible or can make one name look like another.
bool isTreacherous(uint character)
{
    switch (QChar::category(character)) {
    case QChar::Other_Control:
    case QChar::Other_Surrogate:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph: return true;
    default: break;
    }
    const bool isNonCharacter = (character & 0xFFFE) == 0xFFFE || (character >= 0xFDD0 && character <= 0xFDEF);
    return isNonCharacter || isInvisibleFormat(character) || character == QChar::ReplacementCharacter;
}

QString fromCharacter(uint character)
{
    return QString::fromUcs4(&character, 1);
}

// Cuts between two characters, never inside one.
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
        safe += isTreacherous(character) || character == '/' || character == '\\' ? QStringLiteral("_")
                                                                                  : fromCharacter(character);
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
    const QString cut =
        cutToBytes(safe.left(safe.size() - extension.size()), maxSafeNameBytes - extension.toUtf8().size());
    return (cut + extension).trimmed(); // a blank may be at the end after the cut
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

QString escapedJson(const QString& json)
{
    QString escaped;
    for (const uint character : json.toUcs4()) {
        const QString text = fromCharacter(character);
        if (!isTreacherous(character) && QChar::category(character) != QChar::Other_Format) {
            escaped += text;
            continue;
        }
        for (const QChar unit : text)
            escaped += QStringLiteral("\\u%1").arg(unit.unicode(), 4, 16, QLatin1Char('0'));
    }
    return escaped;
}

void useUtf8Names()
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
}

} // namespace host
