// The answers of a modem: one table of words and numbers.
#pragma once

#include <QByteArray>

namespace sim {

enum class ResultCode
{
    Ok,
    Connect,
    Ring,
    NoCarrier,
    Error,
    NoDialTone,
    Busy,
    NoAnswer
};

// As in "NO CARRIER".
QByteArray resultText(ResultCode code);
// As ATV0 answers.
int resultNumber(ResultCode code);
// The number of "CONNECT <speed>"; that of a plain CONNECT for a speed without one.
int connectNumber(int bitsPerSecond);

} // namespace sim
