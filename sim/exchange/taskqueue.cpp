#include "sim/exchange/taskqueue.h"

#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace sim {

TaskQueue::TaskQueue() : m_wakeFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

TaskQueue::~TaskQueue()
{
    ::close(m_wakeFd);
}

void TaskQueue::perform(const std::function<void()>& task)
{
    std::unique_lock<std::mutex> locker(m_mutex);
    if (m_worker == std::this_thread::get_id()) {
        locker.unlock();
        task();
        return;
    }
    if (m_worker == std::thread::id()) {
        task();
        return;
    }
    Task entry{&task, false};
    m_tasks.push_back(&entry);
    wake();
    m_taskDone.wait(locker, [&entry] { return entry.done; });
}

void TaskQueue::wake()
{
    const std::uint64_t one = 1;
    // Only a full counter refuses it, and then the worker wakes anyway.
    [[maybe_unused]] const ssize_t written = ::write(m_wakeFd, &one, sizeof(one));
}

void TaskQueue::attach()
{
    std::lock_guard<std::mutex> locker(m_mutex);
    m_worker = std::this_thread::get_id();
}

void TaskQueue::run()
{
    std::unique_lock<std::mutex> locker(m_mutex);
    // What comes meanwhile waits for the next turn, or callers who ask without end would keep
    // the worker from everything else.
    for (std::size_t left = m_tasks.size(); left > 0 && !m_tasks.empty(); --left) {
        Task* task = m_tasks.front();
        m_tasks.pop_front();
        // Unlocked, because a task may call perform().
        locker.unlock();
        (*task->work)();
        locker.lock();
        task->done = true;
        m_taskDone.notify_all();
    }
}

void TaskQueue::detach()
{
    std::unique_lock<std::mutex> locker(m_mutex);
    for (Task* task : m_tasks) {
        (*task->work)();
        task->done = true;
    }
    m_tasks.clear();
    m_worker = std::thread::id();
    m_taskDone.notify_all();
}

void TaskQueue::clearWake()
{
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(m_wakeFd, &count, sizeof(count));
}

} // namespace sim
