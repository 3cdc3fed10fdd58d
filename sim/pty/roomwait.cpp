#include "sim/pty/roomwait.h"

#include "sim/pty/driverbuffer.h"
#include "sim/pty/libccalls.h"
#include "sim/pty/slaverow.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace sim {

namespace {

long sooner(long a, long b)
{
    return a < b ? a : b;
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
        if (m_at.tv_nsec >= nanosPerSecond) {
            m_at.tv_nsec -= nanosPerSecond;
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
        long long left =
            (static_cast<long long>(m_at.tv_sec) - now.tv_sec) * nanosPerSecond + m_at.tv_nsec - now.tv_nsec;
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

} // namespace

bool anyFull(const pollfd* fds, nfds_t count)
{
    for (nfds_t i = 0; i < count; ++i) {
        if (fullRow(fds[i]))
            return true;
    }
    return false;
}

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
    int ready = 0;
    bool more = false;
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

} // namespace sim
