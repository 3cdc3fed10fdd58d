// When three escape bytes in a connection's data mean the escape.
#include "sim/line/moments.h"
#include "sim/modem/escapewatch.h"

#include <QByteArray>
#include <gtest/gtest.h>

using namespace sim;

namespace {

constexpr qint64 guardNs = nsPerSecond;

class EscapeWatchTest : public testing::Test
{
protected:
    EscapeWatchTest() { watch.start(0); }

    void waitMs(qint64 ms) { nowNs += ms * nsPerMs; }
    // A millisecond apart, as on a line of 9600 bit/s.
    void send(const QByteArray& bytes, int escapeByte = '+')
    {
        for (const char byte : bytes) {
            watch.add(byte, escapeByte, guardNs, nowNs);
            waitMs(1);
        }
    }
    // When the escape takes effect, in milliseconds behind the last byte; -1: never.
    qint64 dueMs() const
    {
        const qint64 due = watch.dueNs(guardNs);
        return due < 0 ? -1 : (due - (nowNs - nsPerMs)) / nsPerMs;
    }

    EscapeWatch watch;
    qint64 nowNs = 0;
};

} // namespace

TEST_F(EscapeWatchTest, ThreeBetweenTwoGuardTimes)
{
    waitMs(1000);
    send("++");
    EXPECT_EQ(dueMs(), -1);
    send("+");
    EXPECT_EQ(dueMs(), 1000);
}

TEST_F(EscapeWatchTest, TheGuardTimeBeforeThemCountsFromTheLastByteOrTheBeginning)
{
    waitMs(999);
    send("+++");
    EXPECT_EQ(dueMs(), -1) << "the connection has just begun";
    send("x");
    waitMs(998); // one has passed with the byte
    send("+++");
    EXPECT_EQ(dueMs(), -1);
    send("x");
    waitMs(999);
    send("+++");
    EXPECT_EQ(dueMs(), 1000);
}

TEST_F(EscapeWatchTest, WhatFollowsMakesThemData)
{
    for (const char* bytes : {"+++x", "++++", "+x+", "++x+"}) {
        waitMs(1000);
        send(bytes);
        EXPECT_EQ(dueMs(), -1) << bytes;
    }
}

TEST_F(EscapeWatchTest, SlowOnesBeginAnewEachTime)
{
    for (int i = 0; i < 3; ++i) {
        waitMs(1000);
        send("+");
        EXPECT_EQ(dueMs(), -1) << "each has a guard time before it and is the first";
    }
    send("++");
    EXPECT_EQ(dueMs(), 1000);
}

// S12 = 0: three in a row, with no pause at all, are the escape at once.
TEST_F(EscapeWatchTest, WithoutGuardTimes)
{
    for (const char byte : QByteArray("x++"))
        watch.add(byte, '+', 0, nowNs);
    EXPECT_EQ(watch.dueNs(0), -1);
    watch.add('+', '+', 0, nowNs);
    EXPECT_EQ(watch.dueNs(0), nowNs);
}

TEST_F(EscapeWatchTest, TheByteIsThatOfTheRegister)
{
    waitMs(1000);
    send("###", '#');
    EXPECT_EQ(dueMs(), 1000);
    watch.reset();
    EXPECT_EQ(dueMs(), -1);
    for (const int noEscape : {128, 255}) {
        waitMs(1000);
        send(QByteArray(3, static_cast<char>(noEscape)), noEscape);
        EXPECT_EQ(dueMs(), -1) << noEscape;
    }
    waitMs(1000);
    send(QByteArray(3, '\x7F'), 127);
    EXPECT_EQ(dueMs(), 1000);
}

TEST_F(EscapeWatchTest, AConnectionThatGoesOnBeginsAnew)
{
    waitMs(1000);
    send("++");
    watch.start(nowNs);
    send("+");
    EXPECT_EQ(dueMs(), -1);
}
