// Being told to end from outside, noticed where the program waits, so that it can take down
// what it has built before it does.
#pragma once

#include <csignal>
#include <poll.h>

namespace rig {

class StopRequest
{
public:
    // From now on SIGINT, SIGTERM, SIGHUP and SIGPIPE only ask; those that are ignored stay
    // so. At most one object at a time, in a program of one thread.
    StopRequest();
    ~StopRequest();
    StopRequest(const StopRequest&) = delete;
    StopRequest& operator=(const StopRequest&) = delete;

    // As poll(), but -1 at once when the program is asked to stop. timeoutMs: -1: forever.
    int poll(pollfd* entries, nfds_t count, int timeoutMs);
    // Seen only while in poll().
    bool isAsked() const;
    // When all is taken down: ends the process by the signal that asked. Returns when none did.
    void obey();

private:
    sigset_t m_usualMask;
};

} // namespace rig
