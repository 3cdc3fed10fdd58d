// How much is hashed at once. Between two slices the session serves the line.
#pragma once

#include <QtGlobal>

namespace host {

constexpr qint64 hashSliceBytes = 2 * 1024 * 1024;

} // namespace host
