#include "common/global.h"
#include "common/storage.h"

#include <algorithm>
#include <limits>

namespace {

// Display units in steps of 1024, the largest first; the last is the bare unit.
struct Units
{
    QString tera;
    QString giga;
    QString mega;
    QString kilo;
    QString one; // with %1 for the number
};

// The decimal point is a point in every locale.
QString scaledText(qint64 value, qint64 divisor, const QString& unit)
{
    return QString::asprintf("%.1f ", double(value) / double(divisor)) + unit;
}

QString inUnits(qint64 value, const Units& units)
{
    if (value > 0xFFFFFFFFFF)
        return scaledText(value, qint64(1) << 40, units.tera);
    if (value > 0x3FFFFFFF)
        return scaledText(value, qint64(1) << 30, units.giga);
    if (value > 0xFFFFF)
        return scaledText(value, qint64(1) << 20, units.mega);
    if (value > 0x3FF)
        return scaledText(value, qint64(1) << 10, units.kilo);
    return units.one.arg(value);
}

bool isRussianLetter(QChar c)
{
    const ushort code = c.unicode();
    // А to я without a gap, and Ё and ё apart from them.
    return (code >= 0x0410 && code <= 0x044F) || code == 0x0401 || code == 0x0451;
}

bool isLatinLetterOrDigit(QChar c)
{
    const ushort code = c.unicode();
    return (code >= 'A' && code <= 'Z') || (code >= 'a' && code <= 'z') || (code >= '0' && code <= '9');
}

bool isForbiddenInFileName(QChar c)
{
    switch (c.unicode()) {
    case '"':
    case '<':
    case '>':
    case ':':
    case '\\':
    case '/':
    case '|':
    case '?':
    case '*': return true;
    }
    return false;
}

} // namespace

QString Global::sizeString(const qint64& bytes)
{
    return inUnits(bytes, {QStringLiteral("ТБайт"), QStringLiteral("ГБайт"), QStringLiteral("МБайт"),
                           QStringLiteral("КБайт"), QStringLiteral("%1 байт")});
}

QString Global::speedStringBits(const qint64& bytesPerSecond)
{
    qint64 bits = 0;
    if (__builtin_mul_overflow(bytesPerSecond, qint64(8), &bits))
        bits = bytesPerSecond > 0 ? std::numeric_limits<qint64>::max() : std::numeric_limits<qint64>::min();
    return inUnits(bits, {QStringLiteral("Тбит/с"), QStringLiteral("Гбит/с"), QStringLiteral("Мбит/с"),
                          QStringLiteral("Кбит/с"), QStringLiteral("%1 бит/с")});
}

QString Global::speedString(const qint64& bytesPerSecond)
{
    const QString bytes =
        inUnits(bytesPerSecond, {QStringLiteral("ТБайт/с"), QStringLiteral("ГБайт/с"), QStringLiteral("МБайт/с"),
                                 QStringLiteral("КБайт/с"), QStringLiteral("%1 байт/с")});
    return QStringLiteral("%1 (%2)").arg(bytes, speedStringBits(bytesPerSecond));
}

QString Global::timeStringSec(const qint64& seconds)
{
    if (seconds <= 59)
        return QStringLiteral("%1 сек.").arg(seconds);
    if (seconds <= 3599)
        return QStringLiteral("%1 м. %2 сек.").arg(seconds / 60).arg(seconds % 60);
    return QStringLiteral("%1 ч. %2 м.").arg(seconds / 3600).arg(seconds % 3600 / 60);
}

QString Global::declension(int n, const QString& one, const QString& few, const QString& many)
{
    // The remainders of negative numbers are negative, or 0: they take the form for many.
    const int lastTwo = n % 100;
    const int last = n % 10;
    if (lastTwo >= 10 && lastTwo <= 19)
        return many;
    if (last == 1)
        return one;
    if (last >= 2 && last <= 4)
        return few;
    return many;
}

QString Global::cut(const QString& text, int max)
{
    const QString ellipsis = QStringLiteral("...");
    max = qMax(0, max);
    // Cutting off as many characters as the points take would not make it shorter.
    if (text.length() - ellipsis.length() <= max)
        return text;
    return text.left(max) + ellipsis;
}

QString Global::filterName(QString name)
{
    const auto isUnwanted = [](QChar c) { return !isLatinLetterOrDigit(c) && !isRussianLetter(c); };
    name.truncate(int(std::remove_if(name.begin(), name.end(), isUnwanted) - name.begin()));
    return name.toLower();
}

QString Global::filterNotValidSymbols(QString name)
{
    // One pass from the left; text that comes together by a removal is not searched again. Written
    // by hand, because the logger needs it when static expressions are already destroyed.
    QString valid;
    valid.reserve(name.length());
    for (int i = 0; i < name.length(); ++i) {
        const bool pairOfPoints =
            name.at(i) == QLatin1Char('.') && i + 1 < name.length() && name.at(i + 1) == QLatin1Char('.');
        if (pairOfPoints)
            ++i;
        else if (!isForbiddenInFileName(name.at(i)))
            valid.append(name.at(i));
    }
    return valid;
}

QString Global::currentSystemUserName()
{
    // Never freed: logging continues while static objects are destroyed.
    static const QString* const name = new QString(QString::fromLocal8Bit(qgetenv("USER")));
    return *name;
}

qint64 Global::diskFreeSpace(const QString& path)
{
    return volumeSpace(path).freeBytes;
}
