// Threads of a simulation: stacks of their own in one thread of the machine. One runs until
// it sleeps or waits for a lock, so that every run with the same seed goes the same way, and
// the code under test (which sleeps through the clock of the simulation and locks through
// Qt's mutexes) meets whatever may happen between two of its system calls.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace rig {

class Fiber;

class Fibers
{
public:
    Fibers();
    ~Fibers(); // all must have ended, or they are leaked with what stands on their stacks
    Fibers(const Fibers&) = delete;
    Fibers& operator=(const Fibers&) = delete;

    // Runs body as a thread of its own, from the next runUntil() on. process: what getpid()
    // answers in it, 0 for the real one; read at every call.
    void start(std::function<void()> body, const int* process = nullptr);

    // Lets virtual time pass, and every fiber run that is due. False when all have ended.
    bool runUntil(std::int64_t ns);

    // In a fiber only.
    static void sleepUntil(std::int64_t ns);
    static void sleepFor(std::int64_t ns);

    static bool isInFiber();
    static int process(); // of the running fiber; 0: none

    // For the interposed functions: those that wait for the lock, the first ones first.
    int wake(const void* lock, int most);

private:
    friend class Fiber;
    Fiber* nextDue() const;

    std::vector<std::unique_ptr<Fiber>> m_fibers;
    std::uint64_t m_nextOrder = 0;
};

} // namespace rig
