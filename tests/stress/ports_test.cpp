// Ports in number: 256 in one process, and what starting and stopping leaves behind.
#include <cstdio>

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include "tests/stress/resources.h"
#include "tests/stress/stressbed.h"
#include "tests/support/deadline.h"

using testsupport::currentResources;
using testsupport::Resources;
using testsupport::SessionPlan;
using testsupport::StressBed;
using testsupport::waitFor;

namespace {

constexpr int deadlineMs = 240000; // of a step with all ports, under a sanitizer on a busy machine

sim::LineSettings fastLine()
{
    sim::LineSettings line;
    line.rateForward = line.rateBackward = 57600;
    return line;
}

void print(const char* what, const Resources& now, const Resources& before)
{
    std::printf("%-28s %4d threads, %4d descriptors, %7.2f MiB heap, %7.2f MiB resident\n", what, now.threads - before.threads,
                now.descriptors - before.descriptors, static_cast<double>(now.heapBytes - before.heapBytes) / (1 << 20),
                static_cast<double>(now.residentBytes - before.residentBytes) / (1 << 20));
}

} // namespace

TEST(Ports, TwoHundredAndFiftySixInOneProcess)
{
    constexpr int ports = 256;
    constexpr int calls = 32;
    constexpr qint64 bytesEachWay = 20000;
    SessionPlan plan;
    plan.bytesToSend = bytesEachWay;
    StressBed bed(ports, fastLine(), [plan] { return plan; });
    bed.inServer([] {}); // its event loop runs, and has the descriptors it needs
    const Resources before = currentResources();

    QElapsedTimer timer;
    timer.start();
    bed.start();
    ASSERT_TRUE(bed.waitForFree(ports, deadlineMs)) << bed.board.lines().join('\n').toStdString();
    std::printf("all %d ports free after %lld ms\n", ports, timer.elapsed());
    const Resources idle = currentResources();
    print("idle, more than without:", idle, before);
    EXPECT_EQ(idle.threads - before.threads, ports);
    // The device, and what the event loop of a thread holds.
    EXPECT_LE(idle.descriptors - before.descriptors, 4 * ports);

    timer.restart();
    constexpr int idleMs = 1000;
    ASSERT_TRUE(waitFor([&] { return timer.elapsed() >= idleMs; }));
    const Resources afterIdle = currentResources();
    std::printf("idle, with the exchange: %.2f of one core\n",
                static_cast<double>(afterIdle.cpuMs - idle.cpuMs) / static_cast<double>(timer.elapsed()));

    timer.restart();
    for (int i = 1; i <= calls; ++i)
        bed.call(ports / 2 + i, {bed.port(i)});
    ASSERT_TRUE(waitFor([&] { return bed.account.figures().withPeer == 2 * calls; }, deadlineMs))
        << bed.board.lines().join('\n').toStdString();
    EXPECT_EQ(bed.account.figures().running, 2 * calls);
    std::printf("%d calls stand after %lld ms\n", calls, timer.elapsed());
    const auto allIsThere = [&] {
        const std::vector<qint64> received = bed.account.receivedByRunning();
        return received.size() == 2 * calls && received.front() == bytesEachWay;
    };
    ASSERT_TRUE(waitFor(allIsThere, deadlineMs)) << bed.account.lines().join('\n').toStdString();
    std::printf("%lld bytes each way of each call after %lld ms\n", static_cast<long long>(bytesEachWay), timer.elapsed());
    print("in 32 calls, likewise:", currentResources(), before);
    EXPECT_EQ(bed.exchange.activeCalls(), calls);
    EXPECT_EQ(bed.board.countOf(QStringLiteral("Свободен")), ports - 2 * calls);

    timer.restart();
    qint64 afterLastStepMs = -1;
    bed.inServer([&] {
        bed.server->stop();
        afterLastStepMs = bed.board.msSinceLastRemoval();
    });
    std::printf("stopped after %lld ms, %lld ms after the last worker's step\n", timer.elapsed(), afterLastStepMs);
    EXPECT_EQ(bed.board.count(), 0);
    EXPECT_LT(afterLastStepMs, 1000);
    EXPECT_FALSE(bed.anyWasTerminated());
    EXPECT_EQ((bed.account.violations() + bed.board.violations()).join('\n').toStdString(), "");
    EXPECT_EQ(bed.account.figures().running, 0);
    ASSERT_TRUE(waitFor([&] { return currentResources().threads == before.threads; }));
    const Resources after = currentResources();
    print("stopped, likewise:", after, before);
    EXPECT_EQ(after.descriptors, before.descriptors);
}

// What a round leaves behind shows after several; what is made once does not.
TEST(Ports, StartingAndStoppingLeavesNothing)
{
    constexpr int ports = 64;
    constexpr int calls = 8;
    constexpr int firstRounds = 2;
    constexpr int callAgainMs = 20000;
    constexpr int rounds = 5;
    StressBed bed(ports, fastLine(), [] { return SessionPlan(); });
    const int threadsAlone = currentResources().threads;
    // An ended thread goes, with what the allocator keeps for it, a moment after its end is known.
    const auto allThreadsAreGone = [&] { return waitFor([&] { return currentResources().threads == threadsAlone; }); };
    const auto round = [&] {
        bed.start();
        ASSERT_TRUE(bed.waitForFree(ports, deadlineMs)) << bed.board.lines().join('\n').toStdString();
        const int before = bed.account.figures().withPeer;
        for (int i = 1; i <= calls; ++i)
            bed.call(ports / 2 + i, {bed.port(i)});
        QElapsedTimer sinceCalled;
        sinceCalled.start();
        const auto allStand = [&] {
            // On a machine that is busy a modem may give a call up, as a host knows it: again.
            for (int i = 1; sinceCalled.elapsed() > callAgainMs && i <= calls; ++i) {
                if (bed.board.isFree(bed.port(i)))
                    bed.call(ports / 2 + i, {bed.port(i)});
            }
            if (sinceCalled.elapsed() > callAgainMs)
                sinceCalled.restart();
            return bed.account.figures().withPeer >= before + 2 * calls;
        };
        ASSERT_TRUE(waitFor(allStand, deadlineMs))
            << bed.board.lines().join('\n').toStdString();
        bed.stopFromWithin();
        EXPECT_EQ(bed.board.count(), 0);
        bed.account.forgetEnded();
    };
    for (int i = 0; i < firstRounds; ++i)
        ASSERT_NO_FATAL_FAILURE(round());
    ASSERT_TRUE(allThreadsAreGone());
    const Resources before = currentResources();
    for (int i = 0; i < rounds; ++i)
        ASSERT_NO_FATAL_FAILURE(round());
    ASSERT_TRUE(allThreadsAreGone());
    const Resources after = currentResources();
    EXPECT_EQ(after.descriptors, before.descriptors);
    const qint64 grown = after.heapBytes - before.heapBytes;
    std::printf("%d rounds with %d ports: %lld bytes of heap more\n", rounds, ports, static_cast<long long>(grown));
    // The exchange keeps the statistics of every call; a worker that were left behind would
    // be more than this by itself.
    EXPECT_LT(grown, rounds * calls * 1024);
    EXPECT_FALSE(bed.anyWasTerminated());
    EXPECT_EQ((bed.account.violations() + bed.board.violations()).join('\n').toStdString(), "");
}
