// What this process holds, as the kernel and the allocator count it.
#pragma once

#include <QtGlobal>

namespace rig {

struct Resources
{
    int threads = 0;
    int descriptors = 0;
    qint64 heapBytes = 0; // allocated and not freed; by the sanitizer's count where one is linked
    qint64 residentBytes = 0; // of physical memory
};

Resources currentResources();

} // namespace rig
