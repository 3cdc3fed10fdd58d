#include "sim/modem/profile.h"

#include "sim/line/moments.h"

namespace sim {

Profile::Profile()
{
    at(EscapeByte) = '+';
    at(CarriageReturn) = '\r';
    at(LineFeed) = '\n';
    at(Backspace) = '\b';
    at(6) = 2;
    at(CarrierWaitSeconds) = 60;
    at(CommaPauseSeconds) = 2;
    at(9) = 6;
    at(10) = 14;
    at(11) = 95;
    at(GuardTime) = 50;
    at(25) = 5;
}

qint64 Profile::guardNs() const
{
    constexpr qint64 unitNs = nsPerSecond / 50;
    return at(GuardTime) * unitNs;
}

QByteArray Profile::toText() const
{
    QByteArray text = "E" + QByteArray::number(echo) + " Q" + QByteArray::number(quiet) + " V" +
                      QByteArray::number(verbose) + " X" + QByteArray::number(resultLevel) + " &C" +
                      QByteArray::number(carrierFollows) + " &D" + QByteArray::number(dtrAction);
    for (const int index : {0, 2, 3, 4, 5, 7, 8, 12})
        text += " S" + QByteArray::number(index) + "=" + QByteArray::number(at(index));
    return text;
}

} // namespace sim
