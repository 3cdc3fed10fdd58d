// Work that any thread hands to one thread, the worker, which does it between other things.
// While there is no worker, each caller does its own work, one caller at a time.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace sim {

class TaskQueue
{
public:
    TaskQueue();
    ~TaskQueue();
    TaskQueue(const TaskQueue&) = delete;
    TaskQueue& operator=(const TaskQueue&) = delete;

    // Any thread: has the worker run task, and returns when it has. At once when the worker
    // itself asks, or when there is none; in the second case task must not call perform().
    void perform(const std::function<void()>& task);
    // Any thread: makes wakeFd() readable.
    void wake();

    // The calling thread becomes the worker.
    void attach();
    // The worker: runs what was handed over so far. What comes meanwhile makes wakeFd() readable.
    void run();
    // The worker: runs what is left and is the worker no longer.
    void detach();
    // For poll(): readable when there is something to run. Owned by the queue.
    int wakeFd() const { return m_wakeFd; }
    // The worker, when wakeFd() is readable.
    void clearWake();

private:
    struct Task
    {
        const std::function<void()>* work;
        bool done;
    };

    int m_wakeFd;
    std::mutex m_mutex; // guards all below
    std::condition_variable m_taskDone;
    std::deque<Task*> m_tasks;
    std::thread::id m_worker; // none while no thread is attached
};

} // namespace sim
