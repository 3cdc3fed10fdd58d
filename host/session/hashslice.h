// How much is hashed at once, so that the line is served meanwhile.
#pragma once

#include <QtGlobal>

namespace host {

constexpr qint64 hashSliceBytes = 2 * 1024 * 1024;

} // namespace host
