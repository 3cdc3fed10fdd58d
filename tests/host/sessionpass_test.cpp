// How long a session sleeps between two passes over its channel.
#include "host/channel/sessionpass.h"
#include "rig/host/memorystore.h"
#include "rig/host/sealedpeer.h"
#include "rig/randombytes.h"
#include "tests/host/pipechannel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

using namespace host;
using namespace hosttest;
using namespace rig;

namespace {

constexpr int intervalMs = 50; // of confirmations
constexpr int hourMs = 3600 * 1000;

struct Side
{
    Side(int number, qint64* nowMs, int longestSleepMs)
    {
        SessionSettings settings;
        settings.abonentName = QString::number(number);
        settings.identity = testKey(number);
        directory.everybodyElse = QStringLiteral("peer");
        const SessionCall call{number == 1, directory.everybodyElse};
        session = std::make_unique<Session>(
            settings, call, &directory, store.forSessions(), [](const SessionEvent&) {}, *nowMs);
        pass = std::make_unique<SessionPass>(
            session.get(), &channel, 1024, [nowMs] { return *nowMs; },
            SleepRules{longestSleepMs, intervalMs, [this] { return channel.confirmedBytes; }});
    }

    MemoryStore store;
    TestDirectory directory;
    PipeChannel channel;
    std::unique_ptr<Session> session;
    std::unique_ptr<SessionPass> pass;
};

// Both have a pass each millisecond, or when their sleep is over, or when something came.
class Passes : public ::testing::Test
{
protected:
    void begin(int longestSleepMs)
    {
        a = std::make_unique<Side>(1, &m_nowMs, longestSleepMs);
        b = std::make_unique<Side>(2, &m_nowMs, longestSleepMs);
        PipeChannel::join(&a->channel, &b->channel);
        a->session->setKeepAlive(true);
    }

    void passOf(Side* side)
    {
        side->pass->rested();
        side->pass->readAll();
        side->session->advance(m_nowMs);
        side->pass->writeAll();
    }

    // The longest sleep that a asked for in that time.
    int longestSleepIn(int ms)
    {
        int longestMs = 0;
        for (const qint64 endMs = m_nowMs + ms; m_nowMs < endMs; ++m_nowMs) {
            passOf(a.get());
            passOf(b.get());
            longestMs = std::max(longestMs, a->pass->sleepMs());
        }
        return longestMs;
    }

    std::unique_ptr<Side> a;
    std::unique_ptr<Side> b;

private:
    qint64 m_nowMs = 0;
};

} // namespace

TEST_F(Passes, ASleepLastsUntilTheNextTurnAndNoLongerThanTheRulesSay)
{
    begin(hourMs);
    longestSleepIn(3000);
    const int longestMs = longestSleepIn(3000);
    EXPECT_LE(longestMs, 1000) << "the next heartbeat";
    EXPECT_GE(longestMs, 900);

    begin(100);
    longestSleepIn(3000);
    EXPECT_EQ(longestSleepIn(3000), 100);
}

TEST_F(Passes, WithoutRulesThereIsNoSleep)
{
    begin(0);
    EXPECT_EQ(longestSleepIn(5000), 0);
}

TEST_F(Passes, NoSleepWhileTheLinkWorks)
{
    begin(hourMs);
    longestSleepIn(3000);
    b->store.queue(QStringLiteral("f"), rig::randomBytes(100000, 1));
    for (passOf(b.get()); !b->channel.peer->incoming.isEmpty(); passOf(b.get())) {
        passOf(a.get());
        EXPECT_EQ(a->pass->sleepMs(), 0) << "something may have to be confirmed";
        EXPECT_EQ(b->pass->sleepMs(), 0) << "something may have to be repeated";
    }
}

TEST_F(Passes, NoSleepWhileTheSessionHasSomethingToDo)
{
    begin(hourMs);
    longestSleepIn(3000);
    while (a->pass->sleepMs() == 0)
        longestSleepIn(1);
    a->session->setKeepAlive(false);
    EXPECT_EQ(a->pass->sleepMs(), 0);
}
