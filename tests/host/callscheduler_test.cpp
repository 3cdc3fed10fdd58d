#include "host/calls/callscheduler.h"

#include <gtest/gtest.h>

using namespace host;

namespace {

const QString bob = QStringLiteral("Bob");
const QString carol = QStringLiteral("Carol");

// Pauses that can be told apart: +10 and halved.
CallRules rules()
{
    CallRules rules;
    rules.lengthen = [](int* timeout) { *timeout += 10; };
    rules.shorten = [](int* timeout) { *timeout /= 2; };
    rules.unitMs = 1000;
    rules.outcomeTimeoutMs = 60000;
    rules.beginTimeoutMs = 7000;
    return rules;
}

QString next(CallScheduler& scheduler, qint64 nowMs)
{
    return scheduler.nextCall(nowMs).value_or(QString());
}

} // namespace

TEST(CallScheduler, CallsAtOnceThoseForWhomMessagesWait)
{
    CallScheduler scheduler(rules());
    EXPECT_EQ(next(scheduler, 0), QString());
    scheduler.setWaiting({bob, carol});
    EXPECT_EQ(next(scheduler, 0), bob);
    scheduler.callPlaced(bob, 0);
    EXPECT_EQ(next(scheduler, 0), carol) << "one call to each at a time";
    scheduler.callPlaced(carol, 0);
    EXPECT_EQ(next(scheduler, 0), QString());
    EXPECT_TRUE(scheduler.isCalling(bob));
}

TEST(CallScheduler, FailedCallsAreRepeatedAfterGrowingPauses)
{
    CallScheduler scheduler(rules());
    scheduler.setWaiting({bob});
    qint64 now = 0;
    for (int k = 1; k <= 3; ++k) {
        ASSERT_EQ(next(scheduler, now), bob);
        scheduler.callPlaced(bob, now);
        now += 5000;
        scheduler.notConnected(bob, now);
        EXPECT_EQ(scheduler.failedCalls(bob), k);
        EXPECT_EQ(scheduler.pauseLeftMs(bob, now), k * 10000);
        EXPECT_EQ(next(scheduler, now + k * 10000 - 1), QString());
        now += k * 10000;
    }
    EXPECT_EQ(next(scheduler, now), bob);
}

TEST(CallScheduler, AUsefulCallShortensThePause)
{
    CallScheduler scheduler(rules());
    scheduler.setWaiting({bob});
    for (int k = 0; k < 2; ++k) {
        scheduler.callPlaced(bob, 0);
        scheduler.notConnected(bob, 0);
    }
    scheduler.callPlaced(bob, 30000);
    scheduler.connected(bob, 1);
    EXPECT_TRUE(scheduler.isConnectedTo(QStringLiteral("BOB")));
    EXPECT_EQ(next(scheduler, 90000), QString()) << "who is connected is not called";
    scheduler.disconnected(bob, 1, true, 100000);
    EXPECT_EQ(scheduler.pauseLeftMs(bob, 100000), 10000);
    EXPECT_EQ(scheduler.failedCalls(bob), 0);
}

TEST(CallScheduler, AUselessConnectionCountsAsFailed)
{
    CallScheduler scheduler(rules());
    scheduler.setWaiting({bob});
    scheduler.callPlaced(bob, 0);
    scheduler.connected(bob, 1);
    scheduler.disconnected(bob, 1, false, 1000);
    EXPECT_EQ(scheduler.failedCalls(bob), 1);
    EXPECT_EQ(scheduler.pauseLeftMs(bob, 1000), 10000);
}

// The channel tells both: not connected for the called one, disconnected for the other.
TEST(CallScheduler, AnotherPartyAnswers)
{
    CallScheduler scheduler(rules());
    scheduler.setWaiting({bob});
    scheduler.callPlaced(bob, 0);
    scheduler.connected(carol, 1);
    EXPECT_TRUE(scheduler.isCalling(bob));
    scheduler.notConnected(bob, 1000);
    scheduler.disconnected(carol, 1, true, 1000);
    EXPECT_EQ(scheduler.failedCalls(bob), 1);
    EXPECT_FALSE(scheduler.hasConnections());
}

TEST(CallScheduler, ACallWithoutOutcomeFailsInTime)
{
    CallScheduler scheduler(rules());
    scheduler.setWaiting({bob});
    scheduler.callPlaced(bob, 0);
    scheduler.callBegun(bob);
    EXPECT_EQ(next(scheduler, 59999), QString());
    EXPECT_EQ(scheduler.failedCalls(bob), 0);
    EXPECT_EQ(next(scheduler, 60000), QString());
    EXPECT_EQ(scheduler.failedCalls(bob), 1);
    EXPECT_EQ(next(scheduler, 70000), bob);
    scheduler.notConnected(bob, 70000);
    EXPECT_EQ(scheduler.failedCalls(bob), 1) << "a late word about the first call";
}

TEST(CallScheduler, TheyCallWhileWePause)
{
    CallScheduler scheduler(rules());
    scheduler.setWaiting({bob});
    scheduler.callPlaced(bob, 0);
    scheduler.notConnected(bob, 0);
    scheduler.connected(bob, 3);
    EXPECT_EQ(next(scheduler, 20000), QString());
    scheduler.setWaiting({});
    scheduler.disconnected(bob, 3, true, 20000);
    scheduler.setWaiting({bob});
    EXPECT_EQ(next(scheduler, 20000), bob) << "all was sent: a new message starts afresh";
}

// Data that the channel cannot read, a port that went down before it dialled.
TEST(CallScheduler, ACallThatNoPortBeginsFailsSoon)
{
    CallScheduler scheduler(rules());
    scheduler.setWaiting({bob});
    scheduler.callPlaced(bob, 0);
    EXPECT_EQ(next(scheduler, 6999), QString());
    EXPECT_EQ(scheduler.failedCalls(bob), 0);
    EXPECT_EQ(next(scheduler, 7000), QString());
    EXPECT_EQ(scheduler.failedCalls(bob), 1);
    scheduler.callPlaced(bob, 20000);
    scheduler.callBegun(bob);
    EXPECT_EQ(next(scheduler, 79999), QString());
    EXPECT_EQ(scheduler.failedCalls(bob), 1) << "of this one a port has told";
}

TEST(CallScheduler, ACallThatLostItsPortIsMadeAgainAtOnceAndOnce)
{
    CallScheduler scheduler(rules());
    scheduler.setWaiting({bob});
    scheduler.callPlaced(bob, 0);
    scheduler.callBegun(bob);
    scheduler.callLost(bob, 3000);
    EXPECT_EQ(scheduler.failedCalls(bob), 0) << "nothing was learnt about Bob";
    EXPECT_EQ(next(scheduler, 3000), bob);
    scheduler.callPlaced(bob, 3000);
    scheduler.callLost(bob, 4000);
    EXPECT_EQ(scheduler.failedCalls(bob), 1);
    EXPECT_EQ(next(scheduler, 13999), QString());
    EXPECT_EQ(next(scheduler, 14000), bob);
    scheduler.callPlaced(bob, 14000);
    scheduler.notConnected(bob, 15000);
    scheduler.callLost(bob, 15000);
    EXPECT_EQ(scheduler.failedCalls(bob), 2) << "its outcome was told";
}

// Its port was taken away: no signal tells of the end, and the pause is nobody's fault.
TEST(CallScheduler, AConnectionThatLostItsPortHoldsNobodyBack)
{
    CallScheduler scheduler(rules());
    scheduler.setWaiting({bob});
    scheduler.callPlaced(bob, 0);
    scheduler.connected(bob, 1);
    EXPECT_EQ(next(scheduler, 1000), QString());
    scheduler.connectionLost(1);
    EXPECT_FALSE(scheduler.isConnectedTo(bob));
    EXPECT_FALSE(scheduler.hasConnections());
    EXPECT_EQ(next(scheduler, 1000), bob);
    EXPECT_EQ(scheduler.failedCalls(bob), 0);
}
