// Work handed from thread to thread: who does it, that it is done when the caller goes on, and
// that none is left behind.
#include "sim/exchange/taskqueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <poll.h>
#include <vector>

using sim::TaskQueue;

namespace {

constexpr int deadlineMs = 10000;

bool isAwake(const TaskQueue& queue, int waitMs = 0)
{
    pollfd entry{queue.wakeFd(), POLLIN, 0};
    return poll(&entry, 1, waitMs) > 0;
}

// A thread that serves a queue until it is deleted.
class Worker
{
public:
    explicit Worker(TaskQueue* queue) : m_queue(queue)
    {
        std::promise<void> attached;
        m_thread = std::thread([this, &attached] {
            m_queue->attach();
            attached.set_value();
            while (!m_stopping) {
                EXPECT_TRUE(isAwake(*m_queue, deadlineMs)) << "nobody woke the worker";
                m_queue->clearWake();
                m_queue->run();
            }
            m_queue->detach();
        });
        attached.get_future().wait();
    }

    ~Worker()
    {
        m_stopping = true;
        m_queue->wake();
        m_thread.join();
    }

    std::thread::id id() const { return m_thread.get_id(); }

private:
    TaskQueue* m_queue; // not owned
    std::atomic<bool> m_stopping{false};
    std::thread m_thread;
};

std::thread::id threadOfTask(TaskQueue& queue)
{
    std::thread::id id;
    queue.perform([&] { id = std::this_thread::get_id(); });
    return id;
}

TEST(TaskQueueTest, EachCallerDoesItsOwnWorkWhileThereIsNoWorker)
{
    TaskQueue queue;
    EXPECT_EQ(threadOfTask(queue), std::this_thread::get_id());
    EXPECT_FALSE(isAwake(queue));
    {
        Worker worker(&queue);
        EXPECT_EQ(threadOfTask(queue), worker.id());
    }
    EXPECT_EQ(threadOfTask(queue), std::this_thread::get_id());
}

TEST(TaskQueueTest, ATaskOfTheWorkerMayAskForAnother)
{
    TaskQueue queue;
    Worker worker(&queue);
    std::thread::id inner;
    queue.perform([&] { inner = threadOfTask(queue); });
    EXPECT_EQ(inner, worker.id());
}

TEST(TaskQueueTest, TheWorkerIsWokenOnceForWhatWaits)
{
    TaskQueue queue;
    EXPECT_FALSE(isAwake(queue));
    queue.wake();
    queue.wake();
    EXPECT_TRUE(isAwake(queue));
    queue.clearWake();
    EXPECT_FALSE(isAwake(queue));
}

TEST(TaskQueueTest, TasksOfManyThreadsRunOneAtATimeAlsoWhileTheWorkerComesAndGoes)
{
    constexpr int callers = 4;
    constexpr int workers = 20;
    TaskQueue queue;
    int count = 0; // plain on purpose: only the queue guards it
    std::atomic<bool> isRunning{false};
    std::atomic<int> overlaps{0};
    std::atomic<int> asked{0};
    std::atomic<int> unfinished{0};
    std::atomic<bool> stopping{false};
    const auto ask = [&] {
        bool done = false;
        queue.perform([&] {
            overlaps += isRunning.exchange(true);
            std::this_thread::yield();
            ++count;
            isRunning = false;
            done = true;
        });
        ++asked;
        unfinished += !done;
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < callers; ++i) {
        threads.emplace_back([&] {
            while (!stopping) {
                ask();
                // A mutex is not fair: without a pause the worker may not get it for minutes.
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        });
    }
    for (int i = 0; i < workers; ++i) {
        Worker worker(&queue);
        ask();
    }
    stopping = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(count, asked);
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(unfinished, 0);
}

// Or callers who ask without end would keep the worker from everything else.
TEST(TaskQueueTest, WhatComesWhileTasksRunWaitsForTheNextTurn)
{
    TaskQueue queue;
    queue.attach();
    std::atomic<int> done{0};
    std::thread second;
    std::thread first([&] {
        queue.perform([&] {
            queue.clearWake();
            second = std::thread([&] { queue.perform([&done] { ++done; }); });
            EXPECT_TRUE(isAwake(queue, deadlineMs));
            ++done;
        });
    });
    EXPECT_TRUE(isAwake(queue, deadlineMs));
    queue.run();
    EXPECT_EQ(done, 1);
    EXPECT_TRUE(isAwake(queue)) << "the next turn comes at once";
    queue.run();
    EXPECT_EQ(done, 2);
    first.join();
    second.join();
    queue.detach();
}

// The worker has seen the end already when the task comes: it must not wait for ever.
TEST(TaskQueueTest, WhatIsLeftIsDoneWhenTheWorkerGoes)
{
    TaskQueue queue;
    std::promise<void> attached;
    std::promise<std::thread::id> done;
    std::thread worker([&] {
        queue.attach();
        attached.set_value();
        EXPECT_TRUE(isAwake(queue, deadlineMs));
        queue.detach();
    });
    attached.get_future().wait();
    std::thread caller([&] { done.set_value(threadOfTask(queue)); });
    std::future<std::thread::id> result = done.get_future();
    const std::thread::id workerId = worker.get_id();
    ASSERT_EQ(result.wait_for(std::chrono::milliseconds(deadlineMs)), std::future_status::ready);
    EXPECT_EQ(result.get(), workerId);
    caller.join();
    worker.join();
}

} // namespace
