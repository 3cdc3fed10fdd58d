#include "sim/modem/dialstring.h"

namespace sim {

namespace {

bool isDialled(char symbol)
{
    return (symbol >= '0' && symbol <= '9') || (symbol >= 'A' && symbol <= 'D') || symbol == '*' || symbol == '#';
}

bool isPunctuation(char symbol)
{
    return QByteArray(" -()./+").contains(symbol);
}

} // namespace

DialString parseDialString(const QByteArray& text)
{
    DialString dial;
    for (int i = 0; i < text.size() && dial.valid; ++i) {
        const char symbol = text.at(i);
        if (isDialled(symbol)) {
            dial.number += QLatin1Char(symbol);
        } else if (symbol == ',') {
            ++dial.pauses;
        } else if (symbol == 'W') {
            dial.waitsForTone = true;
        } else if (symbol == '@') {
            dial.waitsForQuiet = true;
        } else if (symbol == 'T' || symbol == 'P') {
            dial.pulse = symbol == 'P';
        } else if (symbol == 'L') {
            dial.last = true;
        } else if (symbol == 'S') {
            const QByteArray digit = text.mid(i + 1, 1) == "=" ? text.mid(i + 2, 1) : QByteArray();
            dial.valid = digit >= "0" && digit <= "3";
            dial.stored = digit.toInt();
            i += 2;
        } else if (symbol == ';') {
            dial.staysInCommand = true;
            break;
        } else if (symbol != '!' && symbol != 'R' && !isPunctuation(symbol)) {
            // ! (flash) and R (originate in answer mode) mean nothing to this exchange.
            dial.valid = false;
        }
    }
    return dial;
}

QString normalizedNumber(const QString& number)
{
    QString digits;
    for (const QChar symbol : number.toUpper()) {
        if (isDialled(symbol.toLatin1()))
            digits += symbol;
    }
    return digits;
}

} // namespace sim
