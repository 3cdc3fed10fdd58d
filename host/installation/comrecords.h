// The records of the dial-up channel: in the channel's own format, with this program's words for what
// is wrong with them.
#pragma once

#include "com/formats/ccomsettings.h"

#include <QByteArray>
#include <QString>

namespace host {

// An error text, empty on success; the record is changed only on success.
[[nodiscard]] QString readRecord(const QByteArray& bytes, ChannelComSettings* settings);
[[nodiscard]] QString readRecord(const QByteArray& bytes, AbonentComSettings* abonent);

} // namespace host
