// When a session wants its next turn, and that nothing is different if it has none before.
#include "rig/testroot.h"
#include "tests/host/sessionpair.h"

#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;
using namespace rig;

namespace {

struct Course
{
    const char* name;
    LineOptions line;
    std::function<void(SessionPair*)> prepare;
    std::function<void(SessionPair*)> eachStep = [](SessionPair*) {};
};

// All that can be seen of a course from outside: what was written when, and how it ended.
void runCourse(SessionPair* pair, const Course& course, bool sleeps)
{
    LineOptions line = course.line;
    line.stepMs = 1;
    line.sleeps = sleeps;
    course.prepare(pair);
    pair->connect(line);
    const auto isOver = [&] { return pair->a.session->isFinished() && pair->b.session->isFinished(); };
    while (!isOver() && pair->nowMs < 1000 * 1000) {
        course.eachStep(pair);
        pair->step();
    }
    EXPECT_TRUE(isOver()) << course.name;
}

LineOptions slowLine()
{
    LineOptions line;
    line.bytesPerStep = 1; // a step is a millisecond
    return line;
}

void bothSend(SessionPair* pair)
{
    pair->a.store.queue(QStringLiteral("f"), randomBytes(60000, 1));
    pair->b.store.queue(QStringLiteral("g"), randomBytes(3000, 2));
}

void rareHeartbeats(SessionPair* pair)
{
    pair->a.store.queue(QStringLiteral("f"), "content");
    pair->a.settings.heartbeatMs = pair->b.settings.heartbeatMs = 7700;
    pair->nowMs += 333; // so that what is done each second is not done when something else is
}

void silenceAfter9s(SessionPair* pair)
{
    pair->a.silent = pair->b.silent = pair->nowMs > 9000;
}

void stopAt(SessionPair* pair, qint64 ms)
{
    if (pair->nowMs == ms)
        pair->a.session->stop(QStringLiteral("stopped"), pair->nowMs);
}

void knowNobody(SessionPair* pair)
{
    pair->b.directory.names.clear();
    pair->b.directory.everybodyElse.clear();
}

std::vector<Course> transfers()
{
    LineOptions cut = slowLine();
    cut.cutAfterBytes = 40000;
    return {
        {"both send", slowLine(), bothSend},
        {"a fast line", {}, bothSend},
        {"the line breaks", cut, bothSend},
        {"a part is compared",
         {},
         [](SessionPair* pair) {
             const QByteArray content = randomBytes(9000000, 3); // several slices
             const quint64 id = pair->a.store.queue(QStringLiteral("f"), content);
             pair->b.store.standing[id] = content.left(8950000);
         }},
        {"kept by one host, then by the other", slowLine(), rareHeartbeats,
         [](SessionPair* pair) {
             pair->a.session->setKeepAlive(pair->nowMs < 31000);
             if (pair->nowMs == 30000)
                 pair->b.session->setKeepAlive(true);
             if (pair->nowMs == 35000)
                 pair->b.session->setKeepAlive(false);
         }},
    };
}

std::vector<Course> earlyEnds()
{
    return {
        {"nobody is heard any more", slowLine(), bothSend, silenceAfter9s},
        {"our host stops", slowLine(), bothSend, [](SessionPair* pair) { stopAt(pair, 9000); }},
        {"our host stops on a dead line", slowLine(), bothSend,
         [](SessionPair* pair) {
             silenceAfter9s(pair);
             stopAt(pair, 20000);
         }},
    };
}

std::vector<Course> strangers()
{
    return {
        {"the answer is slowed down", slowLine(),
         [](SessionPair* pair) {
             pair->b.settings.guard = std::make_shared<HandshakeGuard>([] { return qint64(0); });
             pair->b.settings.guard->failed();
         }},
        {"a stranger", slowLine(),
         [](SessionPair* pair) {
             knowNobody(pair);
             pair->b.directory.acceptsUnknown = true;
             pair->b.settings.strangerMs = 20000;
         },
         [](SessionPair* pair) { pair->b.session->setKeepAlive(true); }},
        {"a stranger who is refused", slowLine(), knowNobody},
        {"blocked while it is in", slowLine(), rareHeartbeats,
         [](SessionPair* pair) {
             pair->b.session->setKeepAlive(true);
             if (pair->nowMs == 20000)
                 pair->b.directory.blockedKeys.insert(testKey(1)->publicKey());
         }},
    };
}

std::vector<Course> courses()
{
    std::vector<Course> all = transfers();
    for (const std::vector<Course>& more : {earlyEnds(), strangers()})
        all.insert(all.end(), more.begin(), more.end());
    return all;
}

} // namespace

// What a host relies on that sleeps until the next turn.
TEST(SessionTurns, ASessionThatSleepsDoesTheSameAtTheSameTimes)
{
    for (const Course& course : courses()) {
        SessionPair awake(1);
        SessionPair sleepy(1);
        runCourse(&awake, course, false);
        runCourse(&sleepy, course, true);
        EXPECT_EQ(awake.nowMs, sleepy.nowMs) << course.name;
        EXPECT_TRUE(awake.said == sleepy.said) << course.name;
        for (const auto side : {&SessionPair::a, &SessionPair::b}) {
            EXPECT_EQ((awake.*side).session->end(), (sleepy.*side).session->end()) << course.name;
            EXPECT_EQ((awake.*side).events.size(), (sleepy.*side).events.size()) << course.name;
        }
    }
}

TEST(SessionTurns, TheSideThatAgreedToEndLeavesAtTheSameTime)
{
    Course course = courses().at(1);
    SessionPair whole(1);
    runCourse(&whole, course, false);
    ASSERT_FALSE(whole.said.back().byCaller) << "the last word is the answer to the wish to end";
    // The answer is lost, so that the caller does not hang up.
    const qint64 lostFromMs = whole.said.back().atMs;
    course.eachStep = [lostFromMs](SessionPair* pair) {
        pair->a.silent = pair->b.silent = pair->nowMs + 1 >= lostFromMs;
    };
    SessionPair awake(1);
    SessionPair sleepy(1);
    runCourse(&awake, course, false);
    runCourse(&sleepy, course, true);
    EXPECT_EQ(awake.b.session->end(), SessionEnd::Agreed);
    EXPECT_EQ(awake.nowMs, sleepy.nowMs);
    EXPECT_TRUE(awake.said == sleepy.said);
}

TEST(SessionTurns, ASessionWithNothingToSaySleepsFromHeartbeatToHeartbeat)
{
    LineOptions line;
    line.stepMs = 1;
    line.sleeps = true;
    SessionPair pair(rig::seed(), line);
    pair.a.session->setKeepAlive(true);
    ASSERT_TRUE(pair.runUntil([&] { return pair.nowMs >= 10000; }));
    const int before = pair.turns;
    ASSERT_TRUE(pair.runUntil([&] { return pair.nowMs >= 70000; }));
    // Each has 60 heartbeats to say, with a turn after each in which there is nothing more, and
    // 60 to hear, and asks 60 times whether the peer may stay.
    EXPECT_LE(pair.turns - before, 2 * 60 * 6);
    EXPECT_GE(pair.turns - before, 2 * 60);
}

TEST(SessionTurns, WhatIsToBeSaidIsToBeSaidNow)
{
    SessionPair pair(rig::seed());
    EXPECT_LE(pair.a.session->nextTurnMs(), pair.nowMs) << "the caller speaks first";
    pair.a.session->setKeepAlive(true);
    ASSERT_TRUE(pair.runUntil([&] { return pair.a.session->nextTurnMs() > pair.nowMs; }));
    pair.a.session->setKeepAlive(false);
    EXPECT_LE(pair.a.session->nextTurnMs(), pair.nowMs) << "it may have nothing left";
}
