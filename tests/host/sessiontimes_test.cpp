#include "host/session/sessiontimes.h"
#include "rig/testroot.h"
#include "tests/host/impostor.h"
#include "tests/host/sessionpair.h"

#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;

namespace {

SessionSettings shortSettings()
{
    SessionSettings settings;
    settings.heartbeatMs = 1000;
    settings.aliveMs = 10000;
    settings.silenceMs = 120000;
    settings.stallMs = 600000;
    settings.openingMs = 60000;
    settings.uselessMs = 300000;
    settings.strangerMs = 900000;
    return settings;
}

constexpr qint64 begin = 5000;

class Times : public ::testing::Test
{
protected:
    SessionEnd endAt(const SessionTimes::Facts& facts, qint64 afterMs) const
    {
        const auto overdue = times.overdue(facts, begin + afterMs);
        EXPECT_EQ(overdue.has_value(), overdue && !overdue->reason.isEmpty());
        return overdue ? overdue->end : SessionEnd::None;
    }

    const SessionSettings settings = shortSettings();
    SessionTimes times{settings, begin};
};

} // namespace

TEST_F(Times, AHeartbeatEachSecondOfSilence)
{
    EXPECT_FALSE(times.isHeartbeatDue(false, begin + 999));
    EXPECT_TRUE(times.isHeartbeatDue(false, begin + 1000));
    times.sent(true, begin + 1000);
    EXPECT_FALSE(times.isHeartbeatDue(false, begin + 1999));
    EXPECT_TRUE(times.isHeartbeatDue(false, begin + 2000));
}

TEST_F(Times, SeldomWhileMuchComesButNotSoonAfterAFrame)
{
    times.sent(false, begin);
    times.sent(true, begin + 18000);
    EXPECT_TRUE(times.isHeartbeatDue(true, begin + 19999));
    EXPECT_FALSE(times.isHeartbeatDue(true, begin + 20000)) << "twenty seconds after the frame";
    EXPECT_FALSE(times.isHeartbeatDue(true, begin + 22999));
    EXPECT_TRUE(times.isHeartbeatDue(true, begin + 23000));
    EXPECT_TRUE(times.isHeartbeatDue(false, begin + 20000)) << "nothing more comes";
}

TEST_F(Times, SlowHeartbeatsStayBelowAThirdOfTheSilenceLimit)
{
    SessionSettings brief = shortSettings();
    brief.silenceMs = 9000;
    SessionTimes of(brief, begin);
    of.sent(true, begin + 20000);
    EXPECT_FALSE(of.isHeartbeatDue(true, begin + 22999));
    EXPECT_TRUE(of.isHeartbeatDue(true, begin + 23000));
}

TEST_F(Times, AProvedHeartbeatTenSecondsAfterTheLastFrame)
{
    times.sent(true, begin + 9999);
    EXPECT_FALSE(times.isAliveDue(begin + 9999));
    EXPECT_TRUE(times.isAliveDue(begin + 10000));
    times.saidAlive(begin + 10000);
    EXPECT_FALSE(times.isAliveDue(begin + 19999));
    times.sent(false, begin + 15000);
    EXPECT_FALSE(times.isAliveDue(begin + 24999));
    EXPECT_TRUE(times.isAliveDue(begin + 25000));
}

TEST_F(Times, Limits)
{
    SessionTimes::Facts opening;
    opening.isOpening = true;
    EXPECT_EQ(endAt(opening, 59999), SessionEnd::None);
    EXPECT_EQ(endAt(opening, 60000), SessionEnd::OpeningTimedOut);

    EXPECT_EQ(endAt({}, 119999), SessionEnd::None);
    EXPECT_EQ(endAt({}, 120000), SessionEnd::Silence);
    times.heard(begin + 250000);
    EXPECT_EQ(endAt({}, 299999), SessionEnd::None);
    EXPECT_EQ(endAt({}, 300000), SessionEnd::Useless);
    times.useful(begin + 1);
    EXPECT_EQ(endAt({}, 300000), SessionEnd::None);

    SessionTimes::Facts waiting;
    waiting.awaitsAcknowledgement = true;
    times.useful(begin);
    times.heard(begin + 590000);
    EXPECT_EQ(endAt(waiting, 599999), SessionEnd::None);
    EXPECT_EQ(endAt(waiting, 600000), SessionEnd::Stalled);

    SessionTimes::Facts stranger;
    stranger.isStranger = true;
    times.heard(begin + 890000);
    times.useful(begin + 890000);
    EXPECT_EQ(endAt(stranger, 899999), SessionEnd::None);
    EXPECT_EQ(endAt(stranger, 900000), SessionEnd::TimeUsedUp);
}

// The user is told the limit that was passed.
TEST_F(Times, ReasonsNameTheLimit)
{
    const auto reasonAt = [this](SessionTimes::Facts facts, qint64 afterMs) {
        const auto overdue = times.overdue(facts, begin + afterMs);
        return overdue ? overdue->reason.toStdString() : std::string();
    };
    SessionTimes::Facts facts;
    EXPECT_EQ(reasonAt(facts, 120000), "nothing was heard from the other side for 120 s");
    times.heard(begin + 900000);
    EXPECT_EQ(reasonAt(facts, 300000), "nothing of use came from the other side for 300 s");
    facts.awaitsAcknowledgement = true;
    EXPECT_EQ(reasonAt(facts, 600000), "the other side acknowledges nothing");
    facts.isOpening = true;
    EXPECT_EQ(reasonAt(facts, 60000), "the other side did not say who it is within 60 s");
    facts.isStranger = true;
    EXPECT_EQ(reasonAt(facts, 900000), "a peer that is not known here may stay for 900 s");
}

// Whatever was said when, and however late it is.
TEST_F(Times, TheNextHeartbeatIsTheFirstMomentAtWhichOneIsDue)
{
    for (const bool isMuchComing : {false, true}) {
        for (const qint64 saidMs : {0, 700, 18500, 19500}) {
            for (const qint64 sentMs : {0, 18999, 19001, 25000}) {
                SessionTimes of(settings, begin);
                of.sent(false, begin + saidMs);
                of.sent(true, begin + std::max(saidMs, sentMs));
                for (qint64 nowMs = begin + std::max(saidMs, sentMs); nowMs < begin + 60000; nowMs += 499) {
                    qint64 dueMs = nowMs;
                    while (!of.isHeartbeatDue(isMuchComing, dueMs))
                        ++dueMs;
                    ASSERT_EQ(std::max(nowMs, of.nextHeartbeatMs(isMuchComing, nowMs)), dueMs)
                        << isMuchComing << " " << saidMs << " " << sentMs << " " << nowMs;
                }
            }
        }
    }
}

TEST_F(Times, TheNextLimitIsTheOneThatIsReachedFirst)
{
    SessionTimes::Facts facts;
    EXPECT_EQ(times.nextLimitMs(facts), begin + 120000) << "silence";
    facts.isOpening = true;
    EXPECT_EQ(times.nextLimitMs(facts), begin + 60000) << "the opening";
    times.heard(begin + 1000000);
    times.useful(begin + 1000000);
    facts = {};
    facts.isStranger = true;
    EXPECT_EQ(times.nextLimitMs(facts), begin + 900000) << "the stranger's time";
    facts = {};
    times.heard(begin + 2000000);
    EXPECT_EQ(times.nextLimitMs(facts), begin + 1300000) << "nothing of use";
    facts.awaitsAcknowledgement = true;
    EXPECT_EQ(times.nextLimitMs(facts), begin + 1600000) << "a stall";
}

// ---- in a session ----

TEST(SessionTimes, ADeadConnectionEndsTheSession)
{
    LineOptions slow;
    slow.bytesPerStep = 100;
    SessionPair pair(testsupport::seed(), slow);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(100000, 1));
    ASSERT_TRUE(pair.runUntil([&] { return pair.b.receivedBytes > 5000; }));
    pair.a.silent = true;
    pair.b.wire.clear();
    const qint64 silentSinceMs = pair.nowMs;
    ASSERT_TRUE(pair.runUntil([&] { return pair.b.session->isFinished(); }));
    EXPECT_GE(pair.nowMs - silentSinceMs, 120000 - 100);
    EXPECT_LE(pair.nowMs - silentSinceMs, 120000 + 100);
    EXPECT_EQ(pair.b.session->endReason(), QStringLiteral("nothing was heard from the other side for 120 s"));
}

TEST(SessionTimes, ACallThatSaysNothingEnds)
{
    SessionPair pair(testsupport::seed());
    pair.a.settings.silenceMs = 5000;
    pair.connect();
    pair.b.silent = true;
    ASSERT_TRUE(pair.runUntil([&] { return pair.a.session->isFinished(); }, 6000));
    EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("nothing was heard from the other side for 5 s"));
}

TEST(SessionTimes, AWaitingSideSaysSomethingEachSecond)
{
    SessionPair pair(testsupport::seed());
    pair.a.session->setKeepAlive(true);
    ASSERT_TRUE(pair.runUntil([&] { return pair.nowMs > 5000; }));
    const qint64 before = pair.a.receivedBytes;
    const qint64 until = pair.nowMs + 10000;
    ASSERT_TRUE(pair.runUntil([&] { return pair.nowMs > until; }));
    EXPECT_EQ(pair.a.receivedBytes - before, 9 * frameFiller().size() + frameOverheadBytes)
        << "a filler each second, and every ten an Alive, which proves that it is the peer";
}

// With its confirmation each takes 3 % of a line of 9600 bit/s.
TEST(SessionTimes, ASideThatTakesAFileInSpeaksMoreRarely)
{
    LineOptions slow;
    slow.bytesPerStep = 10; // 1000 bytes/s
    SessionPair pair(testsupport::seed(), slow);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(60000, 1));
    const auto heardIn = [&](qint64 ms) {
        const qint64 before = pair.a.receivedBytes;
        const qint64 until = pair.nowMs + ms;
        EXPECT_TRUE(pair.runUntil([&] { return pair.nowMs > until; }));
        return pair.a.receivedBytes - before;
    };
    heardIn(5000);
    EXPECT_EQ(heardIn(10000), 9 * frameFiller().size() + frameOverheadBytes)
        << "as usual while what was said may stand behind a gap";
    heardIn(10000);
    EXPECT_EQ(heardIn(30000), 3 * (frameFiller().size() + frameOverheadBytes)) << "something every five seconds";
}

// As from a modem without carrier that echoes what is written to it.
TEST(SessionTimes, FillersAloneAreSilence)
{
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    pair.a.session->setKeepAlive(true);
    const qint64 beganMs = peer.now;
    while (!pair.a.session->isFinished() && peer.now - beganMs < 3600 * 1000) {
        peer.now += 500;
        pair.a.session->receive(frameFiller(), peer.now);
        pair.a.session->takeOutput(1000, peer.now);
        pair.a.session->advance(peer.now);
    }
    EXPECT_EQ(pair.a.session->end(), SessionEnd::Silence);
    EXPECT_NEAR(peer.now - beganMs, 120000, 1000);
}

TEST(SessionTimes, ALongTransferOutlivesAShortSilenceLimit)
{
    LineOptions slow;
    slow.bytesPerStep = 10; // 1000 bytes/s
    SessionPair pair(testsupport::seed(), slow);
    pair.a.settings.silenceMs = 4000;
    pair.b.settings.silenceMs = 4000;
    pair.connect();
    pair.a.store.queue(QStringLiteral("f"), randomBytes(60000, 1));
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.b.store.inbox.size(), 1u);
}

TEST(SessionTimes, NoHeartbeatWhileDataFlows)
{
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(100000, 1));
    peer.sayHelloAndState();
    int alive = 0;
    for (int i = 0; i < 100; ++i) {
        peer.now += 300;
        for (const Frame& frame : peer.hear(900))
            alive += frame.type == FrameType::Alive ? 1 : 0;
    }
    EXPECT_EQ(alive, 0);
}

TEST(SessionTimes, APeerThatOnlyHeartbeatsIsLeft)
{
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    pair.a.store.queue(QStringLiteral("f"), "x");
    peer.sayHelloAndState();
    peer.hear();
    for (int i = 0; i < 1000 && !pair.a.session->isFinished(); ++i) {
        peer.now += 1000;
        peer.say(FrameType::Alive);
        pair.a.session->takeOutput(100, peer.now);
        pair.a.session->advance(peer.now);
    }
    EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("the other side acknowledges nothing"));
    EXPECT_EQ(pair.a.store.outgoing.size(), 1u);
}

TEST(SessionTimes, AnOpeningThatNeverComesEnds)
{
    SessionPair pair(testsupport::seed());
    qint64 now = 1000;
    for (; !pair.a.session->isFinished() && now < 3600 * 1000; now += 1000) {
        // The first bytes of an opening, one more now and then: never whole.
        pair.a.session->receive(now == 1000 ? QByteArray("transport-host\x02"
                                                         "A\x40\x00",
                                                         18)
                                            : QByteArray(now % 50000 ? "" : "x"),
                                now);
        pair.a.session->takeOutput(100, now);
        pair.a.session->advance(now);
    }
    EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("the other side did not say who it is within 60 s"));
    EXPECT_NEAR(now - 1000, 60000, 2000);
}

TEST(SessionTimes, APeerThatOnlyHeartbeatsDoesNotHoldTheLine)
{
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    const qint64 beganMs = peer.now;
    const auto beatUntil = [&](qint64 ms) {
        while (!pair.a.session->isFinished() && peer.now - beganMs < ms) {
            peer.now += 1000;
            peer.say(FrameType::Alive);
            peer.say(FrameType::Continue);
            pair.a.session->takeOutput(1000, peer.now);
            pair.a.session->advance(peer.now);
        }
    };
    pair.a.session->setKeepAlive(true);
    beatUntil(1000 * 1000);
    EXPECT_FALSE(pair.a.session->isFinished()) << "our host keeps it";
    pair.a.session->setKeepAlive(false);
    beatUntil(24 * 3600 * 1000);
    EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("nothing of use came from the other side for 300 s"));
    EXPECT_NEAR(peer.now - beganMs, 1300 * 1000, 3000);
}

// Nor one that always has something else to say that comes to nothing.
TEST(SessionTimes, UselessFramesDoNotHoldTheLine)
{
    for (const bool offers : {false, true}) {
        SessionPair pair(testsupport::seed());
        Impostor peer(&pair.a);
        pair.a.store.refuseBegin = true;
        peer.sayHello();
        if (offers)
            peer.say(FrameType::State, StateFrame().encode());
        StateFrame more;
        more.isLast = false;
        const qint64 beganMs = peer.now;
        while (!pair.a.session->isFinished() && peer.now - beganMs < 3600 * 1000) {
            peer.now += 1000;
            if (offers)
                peer.say(FrameType::Offer, peer.offer(QByteArray()).encode());
            else
                peer.say(FrameType::State, more.encode());
            pair.a.session->takeOutput(1000, peer.now);
            pair.a.session->advance(peer.now);
        }
        EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("nothing of use came from the other side for 300 s"));
    }
}

TEST(SessionTimes, ALongUploadIsNotTakenForAStall)
{
    LineOptions slow;
    slow.bytesPerStep = 2; // 200 bytes/s: ten minutes
    SessionPair pair(testsupport::seed(), slow);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(120000, 1));
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.b.store.inbox.size(), 1u);
}

// One message is not acknowledged, and the peer says this and that and takes nothing more.
TEST(SessionTimes, WordsWithoutUseDoNotPutOffTheEndOfAStall)
{
    for (const bool takesMore : {true, false}) {
        SessionPair pair(testsupport::seed());
        pair.a.store.queue(QStringLiteral("first"), "x");
        pair.a.store.queue(QStringLiteral("second"), randomBytes(200000, 2));
        Impostor peer(&pair.a);
        peer.sayHelloAndState();
        peer.hear(takesMore ? 1 << 30 : 3000);
        const qint64 beganMs = peer.now;
        while (!pair.a.session->isFinished() && peer.now - beganMs < 3600 * 1000) {
            peer.now += 1000;
            peer.say(FrameType::Continue);
            if (takesMore)
                peer.hear();
            pair.a.session->advance(peer.now);
        }
        EXPECT_EQ(pair.a.session->end(), SessionEnd::Stalled) << takesMore;
        EXPECT_NEAR(peer.now - beganMs, 600000, 2000) << takesMore;
    }
}

TEST(SessionTimes, AnUnprovedCallerMayNotStayForEver)
{
    SessionPair pair(testsupport::seed());
    pair.b.directory.names.clear();
    pair.b.directory.everybodyElse.clear();
    pair.b.directory.acceptsUnknown = true;
    pair.b.session->setKeepAlive(true);
    pair.a.session->setKeepAlive(true);
    const qint64 beganMs = pair.nowMs;
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.b.session->end(), SessionEnd::TimeUsedUp);
    EXPECT_NEAR(pair.nowMs - beganMs, 900000, 2000);
}

// ---- turns ----

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

std::vector<Course> courses()
{
    const int bytesPerMs = 1;
    LineOptions slow;
    slow.bytesPerStep = bytesPerMs;
    LineOptions cut = slow;
    cut.cutAfterBytes = 40000;
    const auto bothSend = [](SessionPair* pair) {
        pair->a.store.queue(QStringLiteral("f"), randomBytes(60000, 1));
        pair->b.store.queue(QStringLiteral("g"), randomBytes(3000, 2));
    };
    const auto rareHeartbeats = [](SessionPair* pair) {
        pair->a.store.queue(QStringLiteral("f"), "content");
        pair->a.settings.heartbeatMs = pair->b.settings.heartbeatMs = 7700;
        pair->nowMs += 333; // so that what is done each second is not done when something else is
    };
    const auto guarded = [](SessionPair* pair) {
        pair->b.settings.guard = std::make_shared<HandshakeGuard>([] { return qint64(0); });
        pair->b.settings.guard->failed();
    };
    return {
        {"both send", slow, bothSend},
        {"a fast line", {}, bothSend},
        {"the line breaks", cut, bothSend},
        {"a part is compared",
         {},
         [](SessionPair* pair) {
             const QByteArray content = randomBytes(9000000, 3); // several slices
             const quint64 id = pair->a.store.queue(QStringLiteral("f"), content);
             pair->b.store.standing[id] = content.left(8950000);
         }},
        {"kept by one host, then by the other", slow, rareHeartbeats,
         [](SessionPair* pair) {
             pair->a.session->setKeepAlive(pair->nowMs < 31000);
             if (pair->nowMs == 30000)
                 pair->b.session->setKeepAlive(true);
             if (pair->nowMs == 35000)
                 pair->b.session->setKeepAlive(false);
         }},
        {"the answer is slowed down", slow, guarded},
        {"nobody is heard any more", slow, bothSend,
         [](SessionPair* pair) { pair->a.silent = pair->b.silent = pair->nowMs > 9000; }},
        {"our host stops", slow, bothSend,
         [](SessionPair* pair) {
             if (pair->nowMs == 9000)
                 pair->a.session->stop(QStringLiteral("stopped"), pair->nowMs);
         }},
        {"our host stops on a dead line", slow, bothSend,
         [](SessionPair* pair) {
             pair->a.silent = pair->b.silent = pair->nowMs > 9000;
             if (pair->nowMs == 20000)
                 pair->a.session->stop(QStringLiteral("stopped"), pair->nowMs);
         }},
        {"a stranger", slow,
         [](SessionPair* pair) {
             pair->b.directory.names.clear();
             pair->b.directory.everybodyElse.clear();
             pair->b.directory.acceptsUnknown = true;
             pair->b.settings.strangerMs = 20000;
         },
         [](SessionPair* pair) { pair->b.session->setKeepAlive(true); }},
        {"a stranger who is refused", slow,
         [](SessionPair* pair) {
             pair->b.directory.names.clear();
             pair->b.directory.everybodyElse.clear();
         }},
        {"blocked while it is in", slow, rareHeartbeats,
         [](SessionPair* pair) {
             pair->b.session->setKeepAlive(true);
             if (pair->nowMs == 20000)
                 pair->b.directory.blockedKeys.insert(testKey(1)->publicKey());
         }},
    };
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
    SessionPair pair(testsupport::seed(), line);
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
    SessionPair pair(testsupport::seed());
    EXPECT_LE(pair.a.session->nextTurnMs(), pair.nowMs) << "the caller speaks first";
    pair.a.session->setKeepAlive(true);
    ASSERT_TRUE(pair.runUntil([&] { return pair.a.session->nextTurnMs() > pair.nowMs; }));
    pair.a.session->setKeepAlive(false);
    EXPECT_LE(pair.a.session->nextTurnMs(), pair.nowMs) << "it may have nothing left";
}
