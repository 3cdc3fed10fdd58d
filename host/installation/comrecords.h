// The dial-up channel's records as this host reads and tells them: the channel's own format,
// and this program's words.
#pragma once

#include "com/formats/ccomsettings.h"

#include <QByteArray>
#include <QString>

namespace host {

// An error text, empty on success; the record is changed only on success.
[[nodiscard]] QString readRecord(const QByteArray& bytes, ChannelComSettings* settings);
[[nodiscard]] QString readRecord(const QByteArray& bytes, AbonentComSettings* abonent);

} // namespace host
