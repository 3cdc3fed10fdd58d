// Modem control signals for pseudo-terminals. Linked into a program, or preloaded into one,
// this object stands before libc for a few calls, answers them for pty slaves that have a
// row in the signal table, and hands everything else on:
//   ioctl TIOCMGET, TIOCMSET, TIOCMBIS, TIOCMBIC   the modem control signals
//   ioctl TIOCOUTQ, write, writev, poll, ppoll, select, pselect, tcdrain, tcflush
//                                                  a driver's buffer of bounded depth
// Not covered: epoll, stdio and io_uring, which reach the kernel without these calls.
// This and the files that it stands on are compiled without sanitizer instrumentation: they
// run before any runtime is set up, and all they share is atomic.
#undef _FORTIFY_SOURCE

#include "sim/pty/driverbuffer.h"
#include "sim/pty/libccalls.h"
#include "sim/pty/roomwait.h"
#include "sim/pty/slaverow.h"

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/uio.h>
#include <termios.h>
#include <unistd.h>

#define PTYLINES_EXPORT __attribute__((visibility("default")))

using namespace sim;

namespace {

constexpr unsigned programBits = TIOCM_DTR | TIOCM_RTS;

void setProgramSignals(SignalRow& row, unsigned clear, unsigned set)
{
    std::uint32_t before = row.programSignals.load();
    std::uint32_t after = before;
    do {
        after = (before & ~clear) | set;
    } while (!row.programSignals.compare_exchange_weak(before, after));
    if ((before & TIOCM_DTR) && !(after & TIOCM_DTR))
        row.dtrDrops.fetch_add(1);
    row.programSets.fetch_add(1);
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
        if (!waitUntilTaken(*row, fd))
            return -1;
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
