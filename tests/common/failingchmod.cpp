#include "tests/common/failingchmod.h"

#include <atomic>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<bool> refuses{false};
std::function<void()> called;

int refusal()
{
    if (called)
        called();
    errno = EPERM;
    return -1;
}

} // namespace

// These stand before libc's in the program, for its libraries too.
extern "C" {

__attribute__((visibility("default"))) int chmod(const char* path, mode_t mode) noexcept
{
    if (refuses)
        return refusal();
    return static_cast<int>(syscall(SYS_fchmodat, AT_FDCWD, path, mode));
}

__attribute__((visibility("default"))) int fchmod(int file, mode_t mode) noexcept
{
    if (refuses)
        return refusal();
    return static_cast<int>(syscall(SYS_fchmod, file, mode));
}
}

namespace testsupport {

FailingChmod::FailingChmod(std::function<void()> onCall)
{
    called = std::move(onCall);
    refuses = true;
}

FailingChmod::~FailingChmod()
{
    refuses = false;
    called = nullptr;
}

} // namespace testsupport
