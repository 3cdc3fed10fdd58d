#include "rig/allocations.h"

#include <cstddef>
#include <cstdlib>
#include <dlfcn.h>

namespace {

thread_local qint64 count = 0;

template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

qint64 rig::allocationCount()
{
    return count;
}

#define INTERPOSED extern "C" __attribute__((visibility("default")))

INTERPOSED void* malloc(std::size_t size)
{
    static auto* const real = next<void*(std::size_t)>("malloc");
    ++count;
    return real(size);
}

INTERPOSED void* calloc(std::size_t number, std::size_t size)
{
    static auto* const real = next<void*(std::size_t, std::size_t)>("calloc");
    ++count;
    return real(number, size);
}

INTERPOSED void* realloc(void* block, std::size_t size)
{
    static auto* const real = next<void*(void*, std::size_t)>("realloc");
    ++count;
    return real(block, size);
}
