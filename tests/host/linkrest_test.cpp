// Whether a host may leave the link alone for a while.
#include "host/channel/linkrest.h"

#include <gtest/gtest.h>

using namespace host;

namespace {

constexpr int intervalMs = 500;

// A link and the passes over it, every 10 ms.
class Link : public ::testing::Test
{
protected:
    void pass(int bytes)
    {
        m_nowMs += 10;
        rest.read(bytes, m_nowMs, m_nowMs);
    }
    void passesFor(int ms)
    {
        for (int i = 0; i < ms / 10; ++i)
            pass(0);
    }
    // Passes until it rests: how long that took.
    int restsAfterMs(int atMostMs = 10000)
    {
        int ms = 0;
        for (; !rest.isAtRest() && ms < atMostMs; ms += 10)
            pass(0);
        return ms;
    }

    qint64 confirmed = 7000; // of earlier calls
    LinkRest rest{SleepRules{100, intervalMs, [this] { return confirmed; }}, 0};

private:
    qint64 m_nowMs = 0;
};

} // namespace

TEST_F(Link, RestsWhileNothingHappens)
{
    pass(0);
    EXPECT_TRUE(rest.isAtRest());
}

TEST_F(Link, DoesNotRestBeforeAllThatWasWrittenIsConfirmed)
{
    rest.written(100);
    rest.written(200);
    passesFor(100000);
    EXPECT_FALSE(rest.isAtRest()) << "it may have to repeat";
    confirmed += 299;
    pass(0);
    EXPECT_FALSE(rest.isAtRest());
    confirmed += 1;
    pass(0);
    EXPECT_TRUE(rest.isAtRest());
}

// Confirmations are at least an interval apart.
TEST_F(Link, RestsOnceWhatCameInMustHaveBeenConfirmed)
{
    pass(20);
    EXPECT_EQ(restsAfterMs(), intervalMs + 10) << "the call has just begun: the link may wait for its interval";
    passesFor(intervalMs);
    pass(20);
    EXPECT_EQ(restsAfterMs(), 10) << "the last confirmation is older than the interval";
    pass(20);
    EXPECT_EQ(restsAfterMs(), intervalMs + 10) << "the next one has to wait";
    passesFor(300);
    pass(20);
    passesFor(300);
    pass(20);
    EXPECT_EQ(restsAfterMs(), intervalMs + 10) << "while packets keep coming";
}

TEST_F(Link, WhatEndedASleepMayBeTheBeginningOfAPacket)
{
    passesFor(2 * intervalMs);
    rest.woken();
    pass(0);
    EXPECT_FALSE(rest.isAtRest());
    pass(20); // the rest of it, confirmed at once
    EXPECT_EQ(restsAfterMs(), 10);
}

TEST_F(Link, APacketThatCameBeforeIsConfirmedAgain)
{
    passesFor(2 * intervalMs);
    rest.woken();
    pass(0);
    EXPECT_EQ(restsAfterMs(), intervalMs + 10);
}

TEST_F(Link, AConfirmationNeedsNoAnswer)
{
    passesFor(2 * intervalMs);
    rest.written(20);
    pass(0);
    EXPECT_FALSE(rest.isAtRest());
    confirmed += 20;
    rest.woken();
    pass(0);
    EXPECT_TRUE(rest.isAtRest());
}
