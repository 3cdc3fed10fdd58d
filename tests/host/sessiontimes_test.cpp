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

// As the table in docs/reference-host.md has them.
TEST_F(Times, WhatAHostDecidesUnlessItIsTold)
{
    const SessionSettings standard;
    EXPECT_EQ(standard.heartbeatMs, 1000);
    EXPECT_EQ(standard.aliveMs, 10000);
    EXPECT_EQ(standard.openingMs, 60000);
    EXPECT_EQ(standard.silenceMs, 120000);
    EXPECT_EQ(standard.uselessMs, 300000);
    EXPECT_EQ(standard.stallMs, 600000);
    EXPECT_EQ(standard.strangerMs, 900000);
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
    for (const bool hasMuchToReceive : {false, true}) {
        for (const qint64 saidMs : {0, 700, 18500, 19500}) {
            for (const qint64 sentMs : {0, 18999, 19001, 25000}) {
                SessionTimes of(settings, begin);
                of.sent(false, begin + saidMs);
                of.sent(true, begin + std::max(saidMs, sentMs));
                for (qint64 nowMs = begin + std::max(saidMs, sentMs); nowMs < begin + 60000; nowMs += 499) {
                    qint64 dueMs = nowMs;
                    while (!of.isHeartbeatDue(hasMuchToReceive, dueMs))
                        ++dueMs;
                    ASSERT_EQ(std::max(nowMs, of.nextHeartbeatMs(hasMuchToReceive, nowMs)), dueMs)
                        << hasMuchToReceive << " " << saidMs << " " << sentMs << " " << nowMs;
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
    SessionPair pair(rig::seed(), slow);
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
    SessionPair pair(rig::seed());
    pair.a.settings.silenceMs = 5000;
    pair.connect();
    pair.b.silent = true;
    ASSERT_TRUE(pair.runUntil([&] { return pair.a.session->isFinished(); }, 6000));
    EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("nothing was heard from the other side for 5 s"));
}

TEST(SessionTimes, AWaitingSideSaysSomethingEachSecond)
{
    SessionPair pair(rig::seed());
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
    SessionPair pair(rig::seed(), slow);
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
    SessionPair pair(rig::seed());
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
    SessionPair pair(rig::seed(), slow);
    pair.a.settings.silenceMs = 4000;
    pair.b.settings.silenceMs = 4000;
    pair.connect();
    pair.a.store.queue(QStringLiteral("f"), randomBytes(60000, 1));
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.b.store.inbox.size(), 1u);
}

TEST(SessionTimes, NoHeartbeatWhileDataFlows)
{
    SessionPair pair(rig::seed());
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
    SessionPair pair(rig::seed());
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
    SessionPair pair(rig::seed());
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
    SessionPair pair(rig::seed());
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
        SessionPair pair(rig::seed());
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
    SessionPair pair(rig::seed(), slow);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(120000, 1));
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.b.store.inbox.size(), 1u);
}

// One message is not acknowledged, and the peer says this and that and takes nothing more.
TEST(SessionTimes, WordsWithoutUseDoNotPutOffTheEndOfAStall)
{
    for (const bool takesMore : {true, false}) {
        SessionPair pair(rig::seed());
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
    SessionPair pair(rig::seed());
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
