#include "rig/time/fibers.h"

#include "rig/time/virtualtime.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace rig {

namespace {

constexpr std::size_t stackBytes = 1 << 20; // touched pages only count
constexpr std::size_t guardBytes = 4096;

Fiber* running = nullptr; // not owned

} // namespace

class Fiber
{
public:
    Fiber(Fibers* owner, std::function<void()> body, const int* process)
        : m_owner(owner), m_body(std::move(body)), m_process(process)
    {
        m_stack = mmap(nullptr, stackBytes, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
        if (m_stack == MAP_FAILED)
            std::abort();
        mprotect(m_stack, guardBytes, PROT_NONE);
        getcontext(&m_context);
        m_context.uc_stack.ss_sp = m_stack;
        m_context.uc_stack.ss_size = stackBytes;
        m_context.uc_link = nullptr;
        makecontext(&m_context, &Fiber::enter, 0);
    }

    ~Fiber() { munmap(m_stack, stackBytes); }
    Fiber(const Fiber&) = delete;
    Fiber& operator=(const Fiber&) = delete;

    // From outside: until it sleeps, waits or has ended.
    void resume()
    {
        const int savedError = errno;
        running = this;
#if defined(__SANITIZE_ADDRESS__)
        __sanitizer_start_switch_fiber(&m_outerFakeStack, m_stack, stackBytes);
#endif
        swapcontext(&m_outer, &m_context);
#if defined(__SANITIZE_ADDRESS__)
        __sanitizer_finish_switch_fiber(m_outerFakeStack, nullptr, nullptr);
#endif
        running = nullptr;
        errno = savedError;
    }

    // From inside: back to whoever resumed it.
    void leave()
    {
        const int savedError = errno;
#if defined(__SANITIZE_ADDRESS__)
        __sanitizer_start_switch_fiber(hasEnded ? nullptr : &m_fakeStack, m_outerStack, m_outerStackBytes);
#endif
        swapcontext(&m_context, &m_outer);
#if defined(__SANITIZE_ADDRESS__)
        __sanitizer_finish_switch_fiber(m_fakeStack, &m_outerStack, &m_outerStackBytes);
#endif
        errno = savedError;
    }

    void dueAt(std::int64_t ns)
    {
        wakeNs = ns;
        order = m_owner->m_nextOrder++;
    }

    int process() const
    {
        return m_process ? *m_process : 0;
    }

    std::int64_t wakeNs = 0;
    std::uint64_t order = 0; // of those due at one time
    const void* waitsFor = nullptr; // a lock
    bool hasEnded = false;
    Fibers* owner() const
    {
        return m_owner;
    }

private:
    static void enter()
    {
        Fiber* self = running;
#if defined(__SANITIZE_ADDRESS__)
        __sanitizer_finish_switch_fiber(nullptr, &self->m_outerStack, &self->m_outerStackBytes);
#endif
        self->m_body();
        self->m_body = nullptr;
        self->hasEnded = true;
        self->leave();
        std::abort();
    }

    Fibers* const m_owner;
    std::function<void()> m_body;
    const int* m_process; // not owned
    void* m_stack = nullptr;
    ucontext_t m_context{};
    ucontext_t m_outer{};
#if defined(__SANITIZE_ADDRESS__)
    void* m_fakeStack = nullptr;
    void* m_outerFakeStack = nullptr;
    const void* m_outerStack = nullptr;
    std::size_t m_outerStackBytes = 0;
#endif
};

namespace {

Fibers* current = nullptr; // not owned

void sleepOf(std::int64_t ns)
{
    Fibers::sleepUntil(ns);
}

// Qt's mutexes come here once they are contended.
long lockCall(int* word, int operation, int value, bool* isOurs)
{
    *isOurs = false;
    switch (operation & ~FUTEX_PRIVATE_FLAG) {
    case FUTEX_WAIT:
        if (!running)
            return 0;
        *isOurs = true;
        if (__atomic_load_n(word, __ATOMIC_ACQUIRE) != value) {
            errno = EAGAIN;
            return -1;
        }
        running->waitsFor = word;
        running->leave();
        return 0;
    case FUTEX_WAKE:
        if (!current)
            return 0;
        *isOurs = true;
        return static_cast<long>(current->wake(word, value));
    }
    return 0;
}

} // namespace

Fibers::Fibers()
{
    current = this;
    setSleeper(&Fibers::isInFiber, &sleepOf);
}

Fibers::~Fibers()
{
    setSleeper(nullptr, nullptr);
    current = nullptr;
}

void Fibers::start(std::function<void()> body, const int* process)
{
    m_fibers.push_back(std::make_unique<Fiber>(this, std::move(body), process));
    m_fibers.back()->dueAt(nowNs());
}

Fiber* Fibers::nextDue() const
{
    Fiber* next = nullptr;
    for (const auto& fiber : m_fibers) {
        if (fiber->waitsFor)
            continue;
        if (!next || fiber->wakeNs < next->wakeNs || (fiber->wakeNs == next->wakeNs && fiber->order < next->order))
            next = fiber.get();
    }
    return next;
}

bool Fibers::runUntil(std::int64_t ns)
{
    for (;;) {
        Fiber* next = nextDue();
        if (!next && !m_fibers.empty()) {
            std::fprintf(stderr, "fibers: all wait for locks\n");
            std::abort();
        }
        if (!next || next->wakeNs > ns)
            break;
        sleepUntilNs(next->wakeNs);
        next->resume();
        if (next->hasEnded) {
            const auto isIt = [next](const std::unique_ptr<Fiber>& fiber) { return fiber.get() == next; };
            m_fibers.erase(std::find_if(m_fibers.begin(), m_fibers.end(), isIt));
        }
    }
    sleepUntilNs(ns);
    return !m_fibers.empty();
}

int Fibers::wake(const void* lock, int most)
{
    int woken = 0;
    for (const auto& fiber : m_fibers) {
        if (fiber->waitsFor == lock && woken < most) {
            fiber->waitsFor = nullptr;
            fiber->dueAt(nowNs());
            ++woken;
        }
    }
    return woken;
}

void Fibers::sleepUntil(std::int64_t ns)
{
    running->dueAt(ns);
    running->leave();
}

void Fibers::sleepFor(std::int64_t ns)
{
    sleepUntil(nowNs() + ns);
}

bool Fibers::isInFiber()
{
    return running != nullptr;
}

int Fibers::process()
{
    return running ? running->process() : 0;
}

} // namespace rig

// ---- what the C library is asked for in a fiber ----

#define INTERPOSED extern "C" __attribute__((visibility("default")))

INTERPOSED long syscall(long number, ...) noexcept
{
    static auto* const real = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
    if (number == SYS_futex) {
        bool isOurs = false;
        // A system call takes addresses as numbers. NOLINTNEXTLINE(performance-no-int-to-ptr)
        int* const word = reinterpret_cast<int*>(arguments[0]);
        const long result =
            rig::lockCall(word, static_cast<int>(arguments[1]), static_cast<int>(arguments[2]), &isOurs);
        if (isOurs)
            return result;
    }
    return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

INTERPOSED pid_t getpid() noexcept
{
    const int process = rig::Fibers::process();
    return process != 0 ? process : static_cast<pid_t>(syscall(SYS_getpid));
}
