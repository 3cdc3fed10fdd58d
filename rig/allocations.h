// How often a program asks for memory: by malloc(), calloc() and realloc(), and with them by new
// and by Qt's byte arrays and strings. A realloc() counts whether or not the block moves; what asks
// for an alignment of its own does not, since not every sanitizer tells of it.
#pragma once

#include <QtGlobal>

namespace rig {

// Of the calling thread since some moment before the first call; to be compared with a later one.
qint64 allocationCount();

} // namespace rig
