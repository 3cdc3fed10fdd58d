// For programs whose allocator is a sanitizer's, which must not be interposed and tells of
// its work instead.
#include "rig/allocations.h"

#include <cstddef>

// Of the sanitizers' allocator interface, whose header GCC does not bring. 0: not installed.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*, std::size_t),
                                                         void (*onFree)(const volatile void*));

namespace {

thread_local qint64 count = 0;

void countOne(const volatile void*, std::size_t)
{
    ++count;
}

void ignore(const volatile void*) {}

} // namespace

qint64 rig::allocationCount()
{
    static const bool isInstalled = __sanitizer_install_malloc_and_free_hooks(countOne, ignore) != 0;
    return isInstalled ? count : -1;
}
