// Times on the steady clock that a session is handed, in milliseconds.
#pragma once

#include <QtGlobal>

#include <limits>

namespace host {

constexpr qint64 never = std::numeric_limits<qint64>::max();

} // namespace host
