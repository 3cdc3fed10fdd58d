#include "sim/pty/slaverow.h"

#include <cerrno>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace sim {

namespace {

constexpr unsigned firstSlaveMajor = 136;
constexpr unsigned lastSlaveMajor = 143;
constexpr unsigned slavesPerMajor = 256;

} // namespace

SignalRow* rowOf(int fd)
{
    struct stat status;
    const int savedErrno = errno;
    const bool known = fd >= 0 && fstat(fd, &status) == 0;
    errno = savedErrno;
    if (!known || !S_ISCHR(status.st_mode))
        return nullptr;
    const unsigned majorNumber = major(status.st_rdev);
    if (majorNumber < firstSlaveMajor || majorNumber > lastSlaveMajor)
        return nullptr;
    const int number = static_cast<int>((majorNumber - firstSlaveMajor) * slavesPerMajor + minor(status.st_rdev));
    SignalRow* row = signalRow(findSignalTable(), number);
    errno = savedErrno;
    return row && row->owner.load() != 0 ? row : nullptr;
}

} // namespace sim
