#include "sim/pty/libccalls.h"

namespace sim {

NextCall<int(int, unsigned long, ...)> nextIoctl("ioctl");
NextCall<ssize_t(int, const void*, size_t)> nextWrite("write");
NextCall<ssize_t(int, const iovec*, int)> nextWritev("writev");
NextCall<int(pollfd*, nfds_t, int)> nextPoll("poll");
NextCall<int(pollfd*, nfds_t, const timespec*, const sigset_t*)> nextPpoll("ppoll");
NextCall<int(int, fd_set*, fd_set*, fd_set*, timeval*)> nextSelect("select");
NextCall<int(int, fd_set*, fd_set*, fd_set*, const timespec*, const sigset_t*)> nextPselect("pselect");
NextCall<int(int)> nextTcdrain("tcdrain");
NextCall<int(int, int)> nextTcflush("tcflush");

namespace {

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

} // namespace

} // namespace sim
