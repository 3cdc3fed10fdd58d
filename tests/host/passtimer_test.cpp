// When a session has its next pass.
#include "host/channel/passtimer.h"
#include "rig/deadline.h"

#include <QSemaphore>
#include <QSocketNotifier>
#include <QThread>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <unistd.h>

using host::PassTimer;

namespace {

constexpr int hourMs = 3600 * 1000;

// A thread with an event loop, as a port's worker has one during a call.
class Worker : public QThread
{
public:
    explicit Worker(std::function<void(Worker*, bool wasWoken)> onPass) : m_onPass(std::move(onPass))
    {
        if (::pipe(m_pipe) != 0)
            ADD_FAILURE() << "no pipe";
        start();
        m_ready.acquire();
    }
    ~Worker() override
    {
        quit();
        wait();
        ::close(m_pipe[0]);
        ::close(m_pipe[1]);
    }

    void letAByteCome() { EXPECT_EQ(::write(m_pipe[1], "a", 1), 1); }
    PassTimer& timer() { return *m_timer; }

    std::atomic<int> passes{0};
    std::atomic<int> wakings{0};
    std::atomic<int> bytesTaken{0};

private:
    void run() override
    {
        QSocketNotifier notifier(m_pipe[0], QSocketNotifier::Read);
        connect(&notifier, &QSocketNotifier::activated, [this] {
            char byte = 0;
            EXPECT_EQ(::read(m_pipe[0], &byte, 1), 1);
            ++bytesTaken;
        });
        m_timer = std::make_unique<PassTimer>([this](bool wasWoken) {
            wakings += wasWoken ? 1 : 0;
            m_onPass(this, wasWoken);
            ++passes;
        });
        m_timer->start();
        m_ready.release();
        exec();
        m_timer.reset();
    }

    const std::function<void(Worker*, bool wasWoken)> m_onPass;
    int m_pipe[2] = {-1, -1};
    QSemaphore m_ready;
    std::unique_ptr<PassTimer> m_timer;
};

using rig::waitFor;

} // namespace

TEST(PassTimer, PassesFollowOneAnotherWithoutASleep)
{
    Worker worker([](Worker*, bool) {});
    EXPECT_TRUE(waitFor([&] { return worker.passes > 100; }));
    EXPECT_EQ(worker.wakings, 0);
}

TEST(PassTimer, ASleepIsOverWhenItsTimeIs)
{
    Worker worker([](Worker* self, bool) { self->timer().setSleep(20); });
    QElapsedTimer clock;
    clock.start();
    ASSERT_TRUE(waitFor([&] { return worker.passes >= 11; }));
    EXPECT_GE(clock.elapsed(), 9 * 20);
    EXPECT_EQ(worker.wakings, 0) << "the end of its own pass wakes nobody";
}

// The sleep would last for an hour.
TEST(PassTimer, WhatComesEndsASleep)
{
    Worker worker([](Worker* self, bool) { self->timer().setSleep(hourMs); });
    ASSERT_TRUE(waitFor([&] { return worker.passes >= 1; }));
    for (int wanted = 1; wanted <= 3; ++wanted) {
        const int passesBefore = worker.passes;
        worker.letAByteCome();
        EXPECT_TRUE(waitFor([&] { return worker.wakings >= wanted && worker.passes > passesBefore; }));
    }
}

TEST(PassTimer, AnotherThreadEndsASleep)
{
    Worker worker([](Worker* self, bool) { self->timer().setSleep(hourMs); });
    ASSERT_TRUE(waitFor([&] { return worker.passes >= 1; }));
    for (int wanted = 1; wanted <= 3; ++wanted) {
        worker.timer().wake();
        EXPECT_TRUE(waitFor([&] { return worker.wakings >= wanted; }));
    }
    EXPECT_EQ(worker.passes, 1 + worker.wakings);
}

TEST(PassTimer, AfterAWakingPassesFollowOneAnotherIfTheyLike)
{
    Worker worker([](Worker* self, bool wasWoken) { self->timer().setSleep(wasWoken ? 0 : hourMs); });
    ASSERT_TRUE(waitFor([&] { return worker.passes >= 1; }));
    worker.timer().wake();
    EXPECT_TRUE(waitFor([&] { return worker.passes >= 3; })) << "the woken one, and one without a sleep between";
}

TEST(PassTimer, StoppedItCallsNoMore)
{
    Worker worker([](Worker* self, bool) {
        self->timer().setSleep(hourMs);
        self->timer().stop();
    });
    ASSERT_TRUE(waitFor([&] { return worker.passes >= 1; }));
    for (int taken = 1; taken <= 3; ++taken) {
        worker.letAByteCome();
        EXPECT_TRUE(waitFor([&] { return worker.bytesTaken == taken; })) << "the loop goes on";
    }
    EXPECT_EQ(worker.passes, 1);
}
