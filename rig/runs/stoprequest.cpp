#include "rig/runs/stoprequest.h"

#include <initializer_list>

namespace rig {

namespace {

volatile std::sig_atomic_t askedBy = 0;

void noteSignal(int number)
{
    askedBy = number;
}

} // namespace

StopRequest::StopRequest()
{
    askedBy = 0;
    sigset_t toNotice;
    sigemptyset(&toNotice);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        struct sigaction present = {};
        sigaction(number, nullptr, &present);
        if (present.sa_handler == SIG_IGN)
            continue;
        struct sigaction noticing = {};
        noticing.sa_handler = noteSignal;
        sigaction(number, &noticing, nullptr);
        sigaddset(&toNotice, number);
    }
    // Between two waits a signal would be seen too late: it comes in while waiting only.
    sigprocmask(SIG_BLOCK, &toNotice, &m_usualMask);
}

StopRequest::~StopRequest()
{
    sigprocmask(SIG_SETMASK, &m_usualMask, nullptr);
}

int StopRequest::poll(pollfd* entries, nfds_t count, int timeoutMs)
{
    if (isAsked())
        return -1;
    const timespec timeout{timeoutMs / 1000, timeoutMs % 1000 * 1000000L};
    return ppoll(entries, count, timeoutMs < 0 ? nullptr : &timeout, &m_usualMask);
}

bool StopRequest::isAsked() const
{
    return askedBy != 0;
}

void StopRequest::obey()
{
    if (!isAsked())
        return;
    std::signal(askedBy, SIG_DFL);
    sigset_t it;
    sigemptyset(&it);
    sigaddset(&it, askedBy);
    std::raise(askedBy);
    sigprocmask(SIG_UNBLOCK, &it, nullptr);
}

} // namespace rig
