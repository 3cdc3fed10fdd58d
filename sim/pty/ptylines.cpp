// Modem control signals for pseudo-terminals. Linked into a program, or preloaded into one,
// this object stands before libc for a few calls, answers them for pty slaves that have a
// row in the signal table, and hands everything else on:
//   ioctl TIOCMGET, TIOCMSET, TIOCMBIS, TIOCMBIC   the modem control signals
//   ioctl TIOCOUTQ, write, writev, poll, ppoll, select, pselect, tcdrain, tcflush
//                                                  a driver's buffer of bounded depth
// Not covered: epoll, stdio and io_uring, which reach the kernel without these calls.
// Compiled without sanitizer instrumentation: it runs before any runtime is set up, and
// all it shares is atomic.
#undef _FORTIFY_SOURCE

#include "sim/pty/signaltable.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <termios.h>
#include <unistd.h>

#define PTYLINES_EXPORT __attribute__((visibility("default")))

namespace {

using sim::SignalRow;

constexpr long nsPerSecond = 1000000000;
constexpr long sliceNs = 1000000; // how soon a waiter for room sees that room opened
constexpr long mostWakeUpBytes = 1L << 20; // far above any depth
constexpr long longestSliceNs = 50000000; // where the line's pace tells that it takes long: it may be unplugged
constexpr unsigned programBits = TIOCM_DTR | TIOCM_RTS;
constexpr unsigned firstSlaveMajor = 136;
constexpr unsigned lastSlaveMajor = 143;
constexpr unsigned slavesPerMajor = 256;

// The next definition of a function of libc: that of a sanitizer, or libc's own.
// Resolving the same one twice does no harm.
template <typename Function>
class Next
{
public:
    explicit constexpr Next(const char* name) : m_name(name) {}

    Function* get()
    {
        void* function = m_function.load(std::memory_order_acquire);
        if (!function) {
            function = dlsym(RTLD_NEXT, m_name);
            if (!function)
                abort();
            m_function.store(function, std::memory_order_release);
        }
        return reinterpret_cast<Function*>(function);
    }

private:
    const char* m_name;
    std::atomic<void*> m_function{nullptr};
};

Next<int(int, unsigned long, ...)> nextIoctl("ioctl");
Next<ssize_t(int, const void*, size_t)> nextWrite("write");
Next<ssize_t(int, const iovec*, int)> nextWritev("writev");
Next<int(pollfd*, nfds_t, int)> nextPoll("poll");
Next<int(pollfd*, nfds_t, const timespec*, const sigset_t*)> nextPpoll("ppoll");
Next<int(int, fd_set*, fd_set*, fd_set*, timeval*)> nextSelect("select");
Next<int(int, fd_set*, fd_set*, fd_set*, const timespec*, const sigset_t*)> nextPselect("pselect");
Next<int(int)> nextTcdrain("tcdrain");
Next<int(int, int)> nextTcflush("tcflush");

// Looked up early, because write and poll may be called from a signal handler.
__attribute__((constructor)) void resolveAll()
{
    nextIoctl.get();
    nextWrite.get();
    nextWritev.get();
    nextPoll.get();
    nextPpoll.get();
    nextSelect.get();
    nextPselect.get();
    nextTcdrain.get();
    nextTcflush.get();
}

// The row of the pty slave behind fd, or null when fd is anything else. Asked anew each
// time, since descriptors are closed and reused behind our back.
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
    SignalRow* row = sim::signalRow(sim::findSignalTable(), number);
    errno = savedErrno;
    return row && row->owner.load() != 0 ? row : nullptr;
}

// A program that waits for room is woken when fewer bytes than this are left in the driver.
// 0: as soon as there is room for one byte. Linux's serial drivers wake at 256, so that a
// program is not woken for each byte that leaves; a measurement of processor time needs the
// same.
std::uint64_t wakeUpBytes()
{
    static const std::uint64_t bytes = [] {
        const char* text = getenv("PTYLINES_WAKEUP");
        const long level = text ? strtol(text, nullptr, 10) : 0;
        return static_cast<std::uint64_t>(level < 0 ? 0 : level < mostWakeUpBytes ? level : mostWakeUpBytes);
    }();
    return bytes;
}

bool hasRoom(const SignalRow& row)
{
    const std::uint64_t depth = static_cast<std::uint64_t>(row.depth.load());
    return row.outstanding() < (wakeUpBytes() > 0 && wakeUpBytes() < depth ? wakeUpBytes() : depth);
}

// How long a program that waits for room sleeps before it looks again: one slice. With a
// wake-up level it sleeps until the bytes above that level have left at the line's pace, so
// that looking costs little.
long roomSliceNs(const SignalRow& row)
{
    if (wakeUpBytes() == 0)
        return sliceNs;
    const long long bytesPerS = row.drainBytesPerS.load();
    const long long waiting = static_cast<long long>(row.outstanding());
    const long long above = waiting - static_cast<long long>(wakeUpBytes()) + 1;
    if (bytesPerS <= 0 || above <= 0)
        return sliceNs;
    const long long restNs = above * nsPerSecond / bytesPerS;
    return static_cast<long>(restNs < sliceNs ? sliceNs : restNs < longestSliceNs ? restNs : longestSliceNs);
}

long sooner(long a, long b)
{
    return a < b ? a : b;
}

void setProgramSignals(SignalRow& row, unsigned clear, unsigned set)
{
    std::uint32_t before = row.programSignals.load();
    std::uint32_t after;
    do {
        after = (before & ~clear) | set;
    } while (!row.programSignals.compare_exchange_weak(before, after));
    if ((before & TIOCM_DTR) && !(after & TIOCM_DTR))
        row.dtrDrops.fetch_add(1);
    row.programSets.fetch_add(1);
}

// Takes room for as many as possible of count bytes; 0 when there is none.
size_t reserve(SignalRow& row, size_t count)
{
    std::uint64_t before = row.written.load();
    for (;;) {
        const std::uint64_t depth = static_cast<std::uint64_t>(row.depth.load());
        const std::uint64_t waiting = row.outstanding();
        if (waiting >= depth)
            return 0;
        const size_t part = count < depth - waiting ? count : static_cast<size_t>(depth - waiting);
        if (row.written.compare_exchange_weak(before, before + part))
            return part;
    }
}

// One try at writing into the bounded buffer.
ssize_t writeBounded(SignalRow& row, int fd, const char* data, size_t count)
{
    const size_t part = reserve(row, count);
    if (part == 0) {
        errno = EAGAIN;
        return -1;
    }
    const ssize_t done = nextWrite.get()(fd, data, part);
    const size_t sent = done > 0 ? static_cast<size_t>(done) : 0;
    if (sent < part)
        row.written.fetch_sub(part - sent);
    return done;
}

bool pauseSlice(long forNs = sliceNs)
{
    const timespec slice{0, forNs};
    return nanosleep(&slice, nullptr) == 0;
}

// Nobody will make room any more: the modem was taken away, or its program was killed and
// could not say so.
bool isUnplugged(const SignalRow& row, int fd)
{
    pollfd asked{fd, 0, 0};
    const timespec now{0, 0};
    return row.owner.load() == 0 || nextPpoll.get()(&asked, 1, &now, nullptr) > 0;
}

// For a writer that found no room; false when a signal came.
bool pauseForRoom(const SignalRow& row, int fd)
{
    do {
        if (!pauseSlice(roomSliceNs(row)))
            return false;
    } while (wakeUpBytes() > 0 && !hasRoom(row) && !isUnplugged(row, fd));
    return true;
}

ssize_t writeSlave(SignalRow& row, int fd, const char* data, size_t count)
{
    if (count == 0)
        return nextWrite.get()(fd, data, 0);
    const int flags = fcntl(fd, F_GETFL);
    const bool blocking = flags >= 0 && !(flags & O_NONBLOCK);
    size_t sent = 0;
    for (;;) {
        const ssize_t done = writeBounded(row, fd, data + sent, count - sent);
        if (done > 0)
            sent += static_cast<size_t>(done);
        if (sent == count || (!blocking && done >= 0))
            return static_cast<ssize_t>(sent);
        const bool full = done < 0 && errno == EAGAIN && row.owner.load() != 0;
        if (done < 0 && (!blocking || !full))
            return sent > 0 ? static_cast<ssize_t>(sent) : -1;
        if (done < 0 && !pauseForRoom(row, fd))
            return sent > 0 ? static_cast<ssize_t>(sent) : -1; // errno is EINTR
        if (isUnplugged(row, fd)) // the kernel says why, if nothing went
            return sent > 0 ? static_cast<ssize_t>(sent) : nextWrite.get()(fd, data, count);
    }
}

// What the program flushes stays in the pty, because the kernel would drop an unknown part
// of it. The modem's side drops it by its place in the stream.
void discardOutput(SignalRow& row)
{
    row.discardedUpTo.store(row.written.load());
}

int flushSlave(SignalRow& row, int fd, int queue)
{
    if (queue != TCIFLUSH && queue != TCOFLUSH && queue != TCIOFLUSH)
        return nextTcflush.get()(fd, queue);
    if (queue != TCIFLUSH)
        discardOutput(row);
    return queue == TCOFLUSH ? 0 : nextTcflush.get()(fd, TCIFLUSH);
}

// A moment of the monotonic clock, or never.
class Deadline
{
public:
    explicit Deadline(const timespec* timeout)
    {
        if (!timeout)
            return;
        m_never = false;
        clock_gettime(CLOCK_MONOTONIC, &m_at);
        m_at.tv_sec += timeout->tv_sec;
        m_at.tv_nsec += timeout->tv_nsec;
        if (m_at.tv_nsec >= nsPerSecond) {
            m_at.tv_nsec -= nsPerSecond;
            ++m_at.tv_sec;
        }
    }

    // The wait until the deadline, but no longer than a slice; false once it has passed.
    bool slice(timespec* wait, long forNs) const
    {
        *wait = {0, forNs};
        if (m_never)
            return true;
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        long long left = (static_cast<long long>(m_at.tv_sec) - now.tv_sec) * nsPerSecond + m_at.tv_nsec - now.tv_nsec;
        if (left < 0)
            left = 0;
        if (left < forNs)
            *wait = {0, static_cast<long>(left)};
        return left > 0;
    }

private:
    bool m_never = true;
    timespec m_at{0, 0};
};

constexpr short writable = POLLOUT | POLLWRNORM | POLLWRBAND;

// The slave of an entry that asks for room where there is none; else null.
const SignalRow* fullRow(const pollfd& entry)
{
    if (!(entry.events & writable) || entry.fd < 0)
        return nullptr;
    const SignalRow* row = rowOf(entry.fd);
    return row && !hasRoom(*row) ? row : nullptr;
}

bool anyFull(const pollfd* fds, nfds_t count)
{
    for (nfds_t i = 0; i < count; ++i) {
        if (fullRow(fds[i]))
            return true;
    }
    return false;
}

// poll while some slave has no room: in slices, without asking for room where there is none.
int pollBounded(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask)
{
    constexpr nfds_t fewEntries = 64;
    pollfd few[fewEntries];
    pollfd* asked = count <= fewEntries ? few : static_cast<pollfd*>(malloc(count * sizeof(pollfd)));
    if (!asked) {
        errno = ENOMEM;
        return -1;
    }
    const Deadline deadline(timeout);
    int ready;
    bool more;
    do {
        long soonestNs = longestSliceNs;
        memcpy(asked, fds, count * sizeof(pollfd));
        for (nfds_t i = 0; i < count; ++i) {
            const SignalRow* full = fullRow(asked[i]);
            if (!full)
                continue;
            asked[i].events = static_cast<short>(asked[i].events & ~writable);
            soonestNs = sooner(soonestNs, roomSliceNs(*full));
        }
        timespec wait;
        more = deadline.slice(&wait, soonestNs);
        ready = nextPpoll.get()(asked, count, &wait, mask);
    } while (ready == 0 && more);
    if (ready >= 0) {
        for (nfds_t i = 0; i < count; ++i)
            fds[i].revents = asked[i].revents;
    }
    if (asked != few)
        free(asked);
    return ready;
}

bool anyFull(int count, const fd_set* writeSet)
{
    for (int fd = 0; writeSet && fd < count; ++fd) {
        if (FD_ISSET(fd, writeSet) && fullRow({fd, POLLOUT, 0}))
            return true;
    }
    return false;
}

int selectBounded(int count, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, const timespec* timeout,
                  const sigset_t* mask)
{
    const Deadline deadline(timeout);
    for (;;) {
        long soonestNs = longestSliceNs;
        fd_set askedRead, askedWrite = *writeSet, askedExcept;
        if (readSet)
            askedRead = *readSet;
        if (exceptSet)
            askedExcept = *exceptSet;
        for (int fd = 0; fd < count; ++fd) {
            const SignalRow* full = FD_ISSET(fd, &askedWrite) ? fullRow({fd, POLLOUT, 0}) : nullptr;
            if (!full)
                continue;
            FD_CLR(fd, &askedWrite);
            soonestNs = sooner(soonestNs, roomSliceNs(*full));
        }
        timespec wait;
        const bool more = deadline.slice(&wait, soonestNs);
        const int ready = nextPselect.get()(count, readSet ? &askedRead : nullptr, &askedWrite,
                                            exceptSet ? &askedExcept : nullptr, &wait, mask);
        if (ready == 0 && more)
            continue;
        if (ready >= 0) {
            *writeSet = askedWrite;
            if (readSet)
                *readSet = askedRead;
            if (exceptSet)
                *exceptSet = askedExcept;
        }
        return ready;
    }
}

} // namespace

extern "C" {

PTYLINES_EXPORT int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    switch (request) {
    case TIOCMGET:
        if (const SignalRow* row = rowOf(fd)) {
            *static_cast<int*>(argument) = static_cast<int>(row->modemSignals.load() | row->programSignals.load());
            return 0;
        }
        break;
    case TIOCMSET:
        if (SignalRow* row = rowOf(fd)) {
            setProgramSignals(*row, programBits, static_cast<unsigned>(*static_cast<int*>(argument)) & programBits);
            return 0;
        }
        break;
    case TIOCMBIS:
        if (SignalRow* row = rowOf(fd)) {
            setProgramSignals(*row, 0, static_cast<unsigned>(*static_cast<int*>(argument)) & programBits);
            return 0;
        }
        break;
    case TIOCMBIC:
        if (SignalRow* row = rowOf(fd)) {
            setProgramSignals(*row, static_cast<unsigned>(*static_cast<int*>(argument)) & programBits, 0);
            return 0;
        }
        break;
    case TIOCOUTQ:
        if (const SignalRow* row = rowOf(fd)) {
            *static_cast<int*>(argument) = static_cast<int>(row->outstanding());
            return 0;
        }
        break;
    case TCFLSH:
        if (SignalRow* row = rowOf(fd))
            return flushSlave(*row, fd, static_cast<int>(reinterpret_cast<intptr_t>(argument)));
        break;
    }
    return nextIoctl.get()(fd, request, argument);
}

PTYLINES_EXPORT ssize_t write(int fd, const void* data, size_t count)
{
    if (SignalRow* row = rowOf(fd))
        return writeSlave(*row, fd, static_cast<const char*>(data), count);
    return nextWrite.get()(fd, data, count);
}

PTYLINES_EXPORT ssize_t writev(int fd, const iovec* parts, int count)
{
    SignalRow* row = rowOf(fd);
    if (!row || count < 0)
        return nextWritev.get()(fd, parts, count);
    ssize_t sent = 0;
    for (int i = 0; i < count; ++i) {
        if (parts[i].iov_len == 0)
            continue;
        const ssize_t done = writeSlave(*row, fd, static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
        if (done < 0)
            return sent > 0 ? sent : -1;
        sent += done;
        if (static_cast<size_t>(done) < parts[i].iov_len)
            break;
    }
    return sent;
}

// libc's header declares the entries as written only, though their events are read.
#pragma GCC diagnostic push
#ifndef __clang__ // which does not know the warning
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

PTYLINES_EXPORT int poll(pollfd* fds, nfds_t count, int timeoutMs)
{
    if (!anyFull(fds, count))
        return nextPoll.get()(fds, count, timeoutMs);
    const timespec timeout{timeoutMs / 1000, (timeoutMs % 1000) * 1000000L};
    return pollBounded(fds, count, timeoutMs < 0 ? nullptr : &timeout, nullptr);
}

PTYLINES_EXPORT int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask)
{
    if (!anyFull(fds, count))
        return nextPpoll.get()(fds, count, timeout, mask);
    return pollBounded(fds, count, timeout, mask);
}

#pragma GCC diagnostic pop

// What programs built with _FORTIFY_SOURCE call instead.
PTYLINES_EXPORT int __poll_chk(pollfd* fds, nfds_t count, int timeoutMs, size_t size)
{
    if (size / sizeof(pollfd) < count)
        abort();
    return poll(fds, count, timeoutMs);
}

PTYLINES_EXPORT int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask, size_t size)
{
    if (size / sizeof(pollfd) < count)
        abort();
    return ppoll(fds, count, timeout, mask);
}

PTYLINES_EXPORT int select(int count, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, timeval* timeout)
{
    // Sets larger than an fd_set exist; they are left to the kernel.
    if (count > FD_SETSIZE || !anyFull(count, writeSet))
        return nextSelect.get()(count, readSet, writeSet, exceptSet, timeout);
    timespec wait{0, 0};
    if (timeout)
        wait = {timeout->tv_sec, timeout->tv_usec * 1000};
    return selectBounded(count, readSet, writeSet, exceptSet, timeout ? &wait : nullptr, nullptr);
}

PTYLINES_EXPORT int pselect(int count, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, const timespec* timeout,
                            const sigset_t* mask)
{
    if (count > FD_SETSIZE || !anyFull(count, writeSet))
        return nextPselect.get()(count, readSet, writeSet, exceptSet, timeout, mask);
    return selectBounded(count, readSet, writeSet, exceptSet, timeout, mask);
}

PTYLINES_EXPORT int tcdrain(int fd)
{
    if (const SignalRow* row = rowOf(fd)) {
        while (row->outstanding() > 0 && !isUnplugged(*row, fd)) {
            if (!pauseSlice())
                return -1; // errno is EINTR
        }
    }
    return nextTcdrain.get()(fd);
}

PTYLINES_EXPORT int tcflush(int fd, int queue) noexcept
{
    if (SignalRow* row = rowOf(fd))
        return flushSlave(*row, fd, queue);
    return nextTcflush.get()(fd, queue);
}

} // extern "C"
