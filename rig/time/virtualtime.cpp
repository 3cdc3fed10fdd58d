#include "rig/time/virtualtime.h"

#include "rig/time/processclock.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#define INTERPOSED extern "C" __attribute__((visibility("default")))

namespace {

using namespace rig;

// Looking at the clock takes this long, so that a loop that only looks at the clock ends.
constexpr std::int64_t lookNs = 200;

struct OpenDevice
{
    std::string path;
    SerialDevice* device = nullptr; // not owned
    int fd = -1;
    termios settings = {};
};

World* world = nullptr; // not owned
bool (*sleeperIsMeant)() = nullptr;
void (*sleeper)(std::int64_t ns) = nullptr;
FileCalls* fileCalls = nullptr; // not owned
std::array<OpenDevice, 8> devices;

OpenDevice* deviceOf(int fd)
{
    if (fd < 0 || !isClockStarted())
        return nullptr;
    for (OpenDevice& open : devices) {
        if (open.fd == fd)
            return &open;
    }
    return nullptr;
}

// The monotonic clock has run for a while when the program starts, as on any machine.
constexpr std::int64_t monotonicOffsetNs = 1000 * nsPerS;

void jumpTo(std::int64_t ns)
{
    moveClockToNs(ns);
    if (world)
        world->advanceTo(clockNs());
}

int realPoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* signals)
{
    timespec copy = timeout ? *timeout : timespec{};
    return static_cast<int>(syscall(SYS_ppoll, fds, count, timeout ? &copy : nullptr, signals, _NSIG / 8));
}

// Fills in what is ready among the simulated devices; returns how many.
int lookAtDevices(pollfd* fds, nfds_t count, bool* others)
{
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i) {
        const OpenDevice* open = deviceOf(fds[i].fd);
        if (!open) {
            *others = *others || fds[i].fd >= 0;
            continue;
        }
        fds[i].revents = 0;
        if ((fds[i].events & POLLIN) && open->device->readable())
            fds[i].revents |= POLLIN;
        if ((fds[i].events & POLLOUT) && open->device->writable())
            fds[i].revents |= POLLOUT;
        ready += fds[i].revents != 0;
    }
    return ready;
}

int lookAtOthers(pollfd* fds, nfds_t count)
{
    constexpr nfds_t mostFds = 64;
    if (count > mostFds) {
        std::fprintf(stderr, "virtual time: too many descriptors to wait for\n");
        std::abort();
    }
    pollfd copy[mostFds];
    for (nfds_t i = 0; i < count; ++i) {
        copy[i] = fds[i];
        if (deviceOf(fds[i].fd))
            copy[i].fd = -1;
    }
    const timespec atOnce{};
    const int ready = realPoll(copy, count, &atOnce, nullptr);
    for (nfds_t i = 0; i < count; ++i) {
        if (copy[i].fd >= 0)
            fds[i].revents = copy[i].revents;
    }
    return ready;
}

int virtualPoll(pollfd* fds, nfds_t count, std::int64_t timeoutNs)
{
    const std::int64_t start = lookAtClockNs();
    const std::int64_t deadline = timeoutNs > never - start ? never : start + timeoutNs;
    jumpTo(start);
    bool others = false;
    int ready = lookAtDevices(fds, count, &others);
    if (others) {
        // Only this thread could make them ready, so once is enough.
        const int otherReady = lookAtOthers(fds, count);
        if (otherReady < 0)
            return otherReady;
        ready += otherReady;
    }
    while (ready == 0 && nowNs() < deadline) {
        const std::int64_t next = std::min(deadline, world ? world->nextEventNs() : never);
        if (next == never) {
            std::fprintf(stderr, "virtual time: a wait for something that never happens\n");
            std::abort();
        }
        jumpTo(next);
        ready = lookAtDevices(fds, count, &others);
    }
    return ready;
}

std::int64_t timeoutOf(const timespec* timeout)
{
    return timeout ? toNs(*timeout) : never;
}

template <typename... Arguments>
int realCall(long number, Arguments... arguments)
{
    return static_cast<int>(syscall(number, arguments...));
}

int openDevice(OpenDevice* open)
{
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0)
        return fd;
    open->fd = fd;
    open->settings = {};
    open->settings.c_cflag = CS8 | CREAD | B9600;
    return fd;
}

int openPath(const char* path, int flags, mode_t mode)
{
    if (isClockStarted() && std::strncmp(path, devicePrefix, sizeof(devicePrefix) - 1) == 0) {
        for (OpenDevice& open : devices) {
            if (open.device && open.path == path)
                return openDevice(&open);
        }
        errno = ENOENT;
        return -1;
    }
    return fileCalls ? fileCalls->open(path, flags, mode) : realCall(SYS_openat, AT_FDCWD, path, flags, mode);
}

bool needsMode(int flags)
{
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE;
}

int deviceControl(OpenDevice* open, unsigned long request, void* argument)
{
    int* number = static_cast<int*>(argument);
    switch (request) {
    case TIOCMGET: *number = open->device->modemLines(); return 0;
    case TIOCOUTQ: *number = static_cast<int>(open->device->bytesToWrite()); return 0;
    case FIONREAD: *number = static_cast<int>(open->device->bytesToRead()); return 0;
    case TIOCEXCL:
    case TIOCNXCL:
    case TIOCMSET:
    case TIOCMBIS:
    case TIOCMBIC: return 0;
    }
    errno = ENOTTY;
    return -1;
}

int virtualSleep(std::int64_t ns)
{
    const std::int64_t until = lookAtClockNs() + std::max<std::int64_t>(ns, 0);
    if (sleeper && sleeperIsMeant())
        sleeper(until);
    else
        sleepUntilNs(until);
    return 0;
}

} // namespace

void rig::startVirtualTime(std::int64_t wallClockMs)
{
    setNanosleep(virtualSleep);
    startClock({monotonicOffsetNs, wallClockMs * nsPerMs, lookNs});
}

std::int64_t rig::nowNs()
{
    return clockNs();
}

std::int64_t rig::wallClockOffsetNs()
{
    return wallOffsetNs();
}

void rig::stepWallClock(std::int64_t ms)
{
    stepWallClockNs(ms * nsPerMs);
}

void rig::setWorld(World* newWorld)
{
    world = newWorld;
}

void rig::sleepUntilNs(std::int64_t ns)
{
    while (nowNs() < ns)
        jumpTo(std::min(ns, world ? world->nextEventNs() : never));
}

void rig::setSleeper(bool (*isMeant)(), void (*sleepUntil)(std::int64_t ns))
{
    sleeperIsMeant = isMeant;
    sleeper = sleepUntil;
}

void rig::setFileCalls(FileCalls* calls)
{
    fileCalls = calls;
}

void rig::setDevice(const char* path, SerialDevice* device)
{
    for (OpenDevice& open : devices) {
        if (open.device ? open.path == path : device != nullptr) {
            open.path = path;
            open.device = device;
            open.fd = -1;
            return;
        }
    }
    if (device) {
        std::fprintf(stderr, "virtual time: too many devices\n");
        std::abort();
    }
}

// --- waiting ---

INTERPOSED int clock_nanosleep(clockid_t id, int flags, const timespec* duration, timespec* rest)
{
    if (!isClockStarted() || measuresWork(id))
        return realCall(SYS_clock_nanosleep, id, flags, duration, rest) < 0 ? errno : 0;
    return virtualSleep(toNs(*duration) - ((flags & TIMER_ABSTIME) ? shownNs(id) : 0));
}

INTERPOSED int usleep(useconds_t us)
{
    const timespec duration = toTimespec(us * std::int64_t(1000));
    return nanosleep(&duration, nullptr);
}

INTERPOSED unsigned sleep(unsigned s)
{
    const timespec duration = toTimespec(s * nsPerS);
    nanosleep(&duration, nullptr);
    return 0;
}

INTERPOSED int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* signals)
{
    if (!isClockStarted())
        return realPoll(fds, count, timeout, signals);
    return virtualPoll(fds, count, timeoutOf(timeout));
}

INTERPOSED int poll(pollfd* fds, nfds_t count, int timeoutMs)
{
    const timespec timeout = toTimespec(std::max(timeoutMs, 0) * nsPerMs);
    return ppoll(fds, count, timeoutMs < 0 ? nullptr : &timeout, nullptr);
}

INTERPOSED int __poll_chk(pollfd* fds, nfds_t count, int timeoutMs, std::size_t)
{
    return poll(fds, count, timeoutMs);
}

INTERPOSED int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* signals, std::size_t)
{
    return ppoll(fds, count, timeout, signals);
}

INTERPOSED int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout)
{
    if (!isClockStarted())
        return realCall(SYS_select, count, readable, writable, exceptional, timeout);
    pollfd fds[64];
    nfds_t used = 0;
    for (int fd = 0; fd < count; ++fd) {
        const bool forReading = readable && FD_ISSET(fd, readable);
        const bool forWriting = writable && FD_ISSET(fd, writable);
        if ((forReading || forWriting) && used < 64)
            fds[used++] = {fd, static_cast<short>((forReading ? POLLIN : 0) | (forWriting ? POLLOUT : 0)), 0};
    }
    const std::int64_t timeoutNs = timeout ? timeout->tv_sec * nsPerS + timeout->tv_usec * 1000 : never;
    const int result = virtualPoll(fds, used, timeoutNs);
    for (fd_set* set : {readable, writable, exceptional}) {
        if (set && result >= 0)
            FD_ZERO(set);
    }
    int ready = 0;
    for (nfds_t i = 0; i < used && result > 0; ++i) {
        if (fds[i].revents & POLLIN) {
            FD_SET(fds[i].fd, readable);
            ++ready;
        }
        if (fds[i].revents & POLLOUT) {
            FD_SET(fds[i].fd, writable);
            ++ready;
        }
    }
    return result < 0 ? result : ready;
}

// --- the simulated devices ---

INTERPOSED int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = needsMode(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openPath(path, flags, mode);
}

INTERPOSED int open64(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = needsMode(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openPath(path, flags, mode);
}

INTERPOSED int close(int fd)
{
    if (OpenDevice* open = deviceOf(fd))
        open->fd = -1;
    return fileCalls ? fileCalls->close(fd) : realCall(SYS_close, fd);
}

INTERPOSED ssize_t read(int fd, void* data, std::size_t size)
{
    OpenDevice* open = deviceOf(fd);
    if (!open)
        return syscall(SYS_read, fd, data, size);
    jumpTo(lookAtClockNs());
    const std::size_t taken = open->device->read(static_cast<char*>(data), size);
    if (taken > 0 || size == 0)
        return static_cast<ssize_t>(taken);
    errno = EAGAIN;
    return -1;
}

INTERPOSED ssize_t write(int fd, const void* data, std::size_t size)
{
    OpenDevice* open = deviceOf(fd);
    if (!open)
        return fileCalls ? fileCalls->write(fd, data, size) : syscall(SYS_write, fd, data, size);
    jumpTo(lookAtClockNs());
    const std::size_t taken = open->device->write(static_cast<const char*>(data), size);
    jumpTo(nowNs());
    if (taken > 0 || size == 0)
        return static_cast<ssize_t>(taken);
    errno = EAGAIN;
    return -1;
}

INTERPOSED int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    if (OpenDevice* open = deviceOf(fd))
        return deviceControl(open, request, argument);
    return realCall(SYS_ioctl, fd, request, argument);
}

// The settings functions reach the kernel below the C library's ioctl, so they are
// answered here too; for other terminals they go the kernel's way.

INTERPOSED int tcgetattr(int fd, termios* settings) noexcept
{
    if (const OpenDevice* open = deviceOf(fd)) {
        *settings = open->settings;
        return 0;
    }
    errno = ENOTTY; // no other terminal in these programs
    return -1;
}

INTERPOSED int tcsetattr(int fd, int, const termios* settings) noexcept
{
    if (OpenDevice* open = deviceOf(fd)) {
        open->settings = *settings;
        return 0;
    }
    errno = ENOTTY;
    return -1;
}

INTERPOSED int tcflush(int fd, int queue) noexcept
{
    OpenDevice* open = deviceOf(fd);
    if (!open) {
        errno = ENOTTY;
        return -1;
    }
    if (queue != TCOFLUSH)
        open->device->flushInput();
    if (queue != TCIFLUSH)
        open->device->flushOutput();
    return 0;
}

INTERPOSED int tcsendbreak(int fd, int) noexcept
{
    if (deviceOf(fd))
        return 0;
    errno = ENOTTY;
    return -1;
}
