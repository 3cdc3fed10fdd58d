#include "host/program/sizeoption.h"

#include "host/session/sessionframes.h"

#include <algorithm>

namespace host {

std::optional<qint64> sizeFromText(const QString& text)
{
    const QString letters = QStringLiteral("KMGT");
    QString digits = text.toUpper();
    const int letter = digits.isEmpty() ? -1 : letters.indexOf(digits.back());
    if (letter >= 0)
        digits.chop(1);
    const bool isNumber = !digits.isEmpty() && std::all_of(digits.cbegin(), digits.cend(), [](QChar character) {
        return character >= QLatin1Char('0') && character <= QLatin1Char('9');
    });
    bool ok = false;
    const qint64 number = digits.toLongLong(&ok);
    const qint64 unit = Q_INT64_C(1) << (10 * (letter + 1));
    if (!isNumber || !ok || number > maxMessageBytes / unit)
        return std::nullopt;
    return number * unit;
}

} // namespace host
