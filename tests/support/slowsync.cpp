// A disk that takes its time, for a program that preloads this object: fsync() and fdatasync()
// return SLOWSYNC_MS milliseconds later. Waits that a signal breaks off are gone on with.
#include <cerrno>
#include <cstdlib>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace {

void wait()
{
    static const char* const text = getenv("SLOWSYNC_MS");
    const long ms = text ? atol(text) : 0;
    timespec left{ms / 1000, ms % 1000 * 1000000};
    const int savedError = errno;
    while (ms > 0 && nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    errno = savedError;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int fsync(int fd)
{
    wait();
    return static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" __attribute__((visibility("default"))) int fdatasync(int fd)
{
    wait();
    return static_cast<int>(syscall(SYS_fdatasync, fd));
}
