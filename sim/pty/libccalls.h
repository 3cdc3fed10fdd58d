// The functions of libc that stand behind those of the ptylines object.
#pragma once

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/types.h>
#include <sys/uio.h>

namespace sim {

// The next definition of a function of libc: that of a sanitizer, or libc's own.
// Resolving the same one twice does no harm.
template <typename Function>
class NextCall
{
public:
    explicit constexpr NextCall(const char* name) : m_name(name) {}

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

extern NextCall<int(int, unsigned long, ...)> nextIoctl;
extern NextCall<ssize_t(int, const void*, size_t)> nextWrite;
extern NextCall<ssize_t(int, const iovec*, int)> nextWritev;
extern NextCall<int(pollfd*, nfds_t, int)> nextPoll;
extern NextCall<int(pollfd*, nfds_t, const timespec*, const sigset_t*)> nextPpoll;
extern NextCall<int(int, fd_set*, fd_set*, fd_set*, timeval*)> nextSelect;
extern NextCall<int(int, fd_set*, fd_set*, fd_set*, const timespec*, const sigset_t*)> nextPselect;
extern NextCall<int(int)> nextTcdrain;
extern NextCall<int(int, int)> nextTcflush;

} // namespace sim
