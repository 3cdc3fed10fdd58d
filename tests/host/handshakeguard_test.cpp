#include "host/session/handshakeguard.h"

#include <gtest/gtest.h>

using host::HandshakeGuard;

TEST(HandshakeGuard, AnswersLaterWithEachFailureUpToABound)
{
    qint64 now = 1000;
    HandshakeGuard guard([&now] { return now; });
    EXPECT_EQ(guard.answerDelayMs(), 0);
    for (const int delayMs : {500, 1000, 2000, 4000, 8000, 8000, 8000}) {
        guard.failed();
        EXPECT_EQ(guard.answerDelayMs(), delayMs);
    }
    EXPECT_EQ(guard.failures(), 7);
}

TEST(HandshakeGuard, ForgetsOneFailureAMinute)
{
    qint64 now = 1000;
    HandshakeGuard guard([&now] { return now; });
    for (int i = 0; i < 100; ++i)
        guard.failed();
    now += HandshakeGuard::forgetMs - 1;
    EXPECT_EQ(guard.answerDelayMs(), HandshakeGuard::maxDelayMs);
    now += 1 + 2 * HandshakeGuard::forgetMs;
    EXPECT_EQ(guard.answerDelayMs(), 2000) << "three of the six that are remembered";
    now += 3 * HandshakeGuard::forgetMs;
    EXPECT_EQ(guard.answerDelayMs(), 0);
    EXPECT_EQ(guard.failures(), 100) << "told in status for as long as the host runs";
}
