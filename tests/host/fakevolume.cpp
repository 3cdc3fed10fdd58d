#include "tests/host/fakevolume.h"

#include <dlfcn.h>
#include <sys/statvfs.h>

std::atomic<long long> hosttest::fakeFreeBytes{-1};
std::atomic<long long> hosttest::fakeFreeInodes{-1};

namespace {

template <typename Facts>
int pretend(int result, Facts* facts)
{
    if (result == 0 && hosttest::fakeFreeBytes >= 0) {
        facts->f_frsize = 1;
        facts->f_bavail = static_cast<fsblkcnt_t>(hosttest::fakeFreeBytes.load());
    }
    if (result == 0 && hosttest::fakeFreeInodes >= 0) {
        facts->f_files = 1000000;
        facts->f_favail = static_cast<fsfilcnt_t>(hosttest::fakeFreeInodes.load());
    }
    return result;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int statvfs(const char* path, struct statvfs* facts) noexcept
{
    static auto* const real = reinterpret_cast<int (*)(const char*, struct statvfs*)>(dlsym(RTLD_NEXT, "statvfs"));
    return pretend(real(path, facts), facts);
}

extern "C" __attribute__((visibility("default"))) int statvfs64(const char* path, struct statvfs64* facts) noexcept
{
    static auto* const real = reinterpret_cast<int (*)(const char*, struct statvfs64*)>(dlsym(RTLD_NEXT, "statvfs64"));
    return pretend(real(path, facts), facts);
}
