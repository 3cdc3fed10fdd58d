#include "tests/common/failingchmod.h"

#include <atomic>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<bool> refuses{false};

} // namespace

// These stand before libc's in the program, for its libraries too.
extern "C" {

__attribute__((visibility("default"))) int chmod(const char* path, mode_t mode) noexcept
{
    if (refuses) {
        errno = EPERM;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fchmodat, AT_FDCWD, path, mode));
}

__attribute__((visibility("default"))) int fchmod(int file, mode_t mode) noexcept
{
    if (refuses) {
        errno = EPERM;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fchmod, file, mode));
}
}

namespace testsupport {

FailingChmod::FailingChmod()
{
    refuses = true;
}

FailingChmod::~FailingChmod()
{
    refuses = false;
}

} // namespace testsupport
