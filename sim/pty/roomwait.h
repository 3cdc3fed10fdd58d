// poll and select over slaves that may have no room for what the program wants to write.
#pragma once

#include <ctime>
#include <poll.h>
#include <signal.h>
#include <sys/select.h>

namespace sim {

// Whether some entry asks for room where there is none.
bool anyFull(const pollfd* fds, nfds_t count);
bool anyFull(int count, const fd_set* writeSet);

// As ppoll and pselect while some slave has no room: in slices, without asking for room where
// there is none. timeout null: none.
int pollBounded(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask);
int selectBounded(int count, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, const timespec* timeout,
                  const sigset_t* mask);

} // namespace sim
