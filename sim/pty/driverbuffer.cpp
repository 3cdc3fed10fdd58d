#include "sim/pty/driverbuffer.h"

#include "sim/pty/libccalls.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>

namespace sim {

namespace {

constexpr long sliceNs = 1000000; // how soon a waiter for room sees that room opened
constexpr long mostWakeUpBytes = 1L << 20; // far above any depth

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

// What the program flushes stays in the pty, because the kernel would drop an unknown part
// of it. The modem's side drops it by its place in the stream.
void discardOutput(SignalRow& row)
{
    row.discardedUpTo.store(row.written.load());
}

} // namespace

bool hasRoom(const SignalRow& row)
{
    const std::uint64_t depth = static_cast<std::uint64_t>(row.depth.load());
    return row.outstanding() < (wakeUpBytes() > 0 && wakeUpBytes() < depth ? wakeUpBytes() : depth);
}

long roomSliceNs(const SignalRow& row)
{
    if (wakeUpBytes() == 0)
        return sliceNs;
    const long long bytesPerS = row.drainBytesPerS.load();
    const long long waiting = static_cast<long long>(row.outstanding());
    const long long above = waiting - static_cast<long long>(wakeUpBytes()) + 1;
    if (bytesPerS <= 0 || above <= 0)
        return sliceNs;
    const long long restNs = above * nanosPerSecond / bytesPerS;
    return static_cast<long>(restNs < sliceNs ? sliceNs : restNs < longestSliceNs ? restNs : longestSliceNs);
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

int flushSlave(SignalRow& row, int fd, int queue)
{
    if (queue != TCIFLUSH && queue != TCOFLUSH && queue != TCIOFLUSH)
        return nextTcflush.get()(fd, queue);
    if (queue != TCIFLUSH)
        discardOutput(row);
    return queue == TCOFLUSH ? 0 : nextTcflush.get()(fd, TCIFLUSH);
}

bool waitUntilTaken(const SignalRow& row, int fd)
{
    while (row.outstanding() > 0 && !isUnplugged(row, fd)) {
        if (!pauseSlice())
            return false;
    }
    return true;
}

} // namespace sim
