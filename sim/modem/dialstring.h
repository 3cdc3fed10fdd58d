// What follows ATD: a number and the modifiers of dialling.
#pragma once

#include <QByteArray>
#include <QString>

namespace sim {

struct DialString
{
    QString number; // digits, *, # and A to D only
    int pauses = 0; // commas, of S8 seconds each
    bool waitsForTone = false; // W: no dial tone is told apart whatever X says
    bool waitsForQuiet = false; // @: no answer is told apart whatever X says
    bool staysInCommand = false; // a semicolon at the end
    bool pulse = false;
    bool last = false; // L: the last number again
    int stored = -1; // S=n: the number stored by &Zn=
    bool valid = true;
};

// text: upper case, without blanks.
DialString parseDialString(const QByteArray& text);

// The digits of a telephone number, without the punctuation people write in it.
QString normalizedNumber(const QString& number);

} // namespace sim
