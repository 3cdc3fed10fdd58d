// What goes out, over a line in memory: how much of the line it uses, and what becomes of bad copies.
#include "host/session/outgoingmessages.h"
#include "rig/testroot.h"
#include "tests/host/impostor.h"
#include "tests/host/sessionexpectations.h"

#include <gtest/gtest.h>

#include <malloc.h>

using namespace host;
using namespace hosttest;
using namespace rig;
using Kind = SessionEvent::Kind;

TEST(OutgoingMessages, AThousandSmallMessagesTakeNoRoundTripEach)
{
    SessionPair pair(rig::seed());
    for (int i = 0; i < 1000; ++i)
        pair.a.store.queue(QString::number(i), QByteArray::number(i));
    const qint64 beganMs = pair.nowMs;
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.b.store.inbox.size(), 1000u);
    EXPECT_LT(pair.nowMs - beganMs, 500) << "10 ms a step: a round trip each would take 20 s";
}

TEST(OutgoingMessages, FiftyMessagesEachWayUseNineTenthsOfTheLine)
{
    LineOptions line;
    line.bytesPerStep = 115; // 11,500 bytes/s
    SessionPair pair(rig::seed(), line);
    for (int i = 0; i < 50; ++i) {
        pair.a.store.queue(QStringLiteral("message %1.txt").arg(i), randomBytes(2000, static_cast<unsigned>(i)));
        pair.b.store.queue(QStringLiteral("message %1.txt").arg(i), randomBytes(2000, static_cast<unsigned>(i)));
    }
    const qint64 beganMs = pair.nowMs;
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_LE(pair.nowMs - beganMs, static_cast<qint64>(100000 / 11500.0 / 0.93 * 1000));
}

TEST(OutgoingMessages, ALargeFileCostsLessThanHalfAPercent)
{
    LineOptions line;
    line.bytesPerStep = 115;
    SessionPair pair(rig::seed(), line);
    pair.a.store.queue(QStringLiteral("big"), randomBytes(1000000, 1));
    const qint64 beganMs = pair.nowMs;
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_LE(pair.nowMs - beganMs, static_cast<qint64>(1000000 / 11500.0 / 0.995 * 1000));
}

TEST(OutgoingMessages, PiecesAreFullWhileThereIsEnough)
{
    SessionPair pair(rig::seed());
    pair.a.store.queue(QStringLiteral("x"), randomBytes(100000, 3));
    // Exchange the opening, then look at what comes.
    while (pair.b.receivedBytes < 200)
        pair.step();
    int full = 0;
    for (QByteArray piece; !(piece = pair.a.session->takeOutput(333, pair.nowMs)).isEmpty() && full < 50; ++full)
        EXPECT_EQ(piece.size(), 333);
    EXPECT_EQ(full, 50);
}

TEST(OutgoingMessages, AMessageQueuedMeanwhileGoesInTheSameCall)
{
    LineOptions slow;
    slow.bytesPerStep = 100;
    SessionPair pair(rig::seed(), slow);
    pair.b.store.queue(QStringLiteral("long"), randomBytes(20000, 1));
    ASSERT_TRUE(pair.runUntil([&] { return pair.a.receivedBytes > 5000; })); // A has said Finish long ago
    pair.a.store.queue(QStringLiteral("late"), "late");
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    EXPECT_EQ(pair.b.store.inbox.size(), 1u);
    EXPECT_EQ(pair.a.store.inbox.size(), 1u);
}

// Whatever the moment at which a message is queued, it goes now or stays for later.
TEST(OutgoingMessages, AMessageQueuedAtAnyMomentIsNotLost)
{
    for (int moment = 0; moment < 40; ++moment) {
        LineOptions slow;
        slow.bytesPerStep = 23;
        SessionPair pair(rig::seed() + static_cast<unsigned>(moment), slow);
        for (int i = 0; i < moment; ++i)
            pair.step();
        MemoryStore& sender = moment % 2 ? pair.a.store : pair.b.store;
        MemoryStore& receiver = moment % 2 ? pair.b.store : pair.a.store;
        sender.queue(QStringLiteral("late"), "late");
        ASSERT_TRUE(pair.runToEnd());
        EXPECT_EQ(receiver.inbox.size() + sender.outgoing.size(), 1u) << moment;
        if (receiver.inbox.empty()) {
            pair.connect(LineOptions());
            ASSERT_TRUE(pair.runToEnd());
            EXPECT_EQ(receiver.inbox.size(), 1u);
        }
    }
}

TEST(OutgoingMessages, ACutLosesATenthOfTheCallAtMost)
{
    LineOptions slow;
    slow.bytesPerStep = 3; // 300 bytes/s
    SessionPair pair(rig::seed(), slow);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(100000, 1));
    for (int i = 0; i < 5000; ++i) {
        const auto found = pair.b.store.standing.begin();
        const qint64 stands = found == pair.b.store.standing.end() ? 0 : found->second.size();
        EXPECT_LT(pair.b.receivedBytes - stands, 1300 + stands / 10) << "a cut loses no more";
        pair.step();
        if (testing::Test::HasFailure())
            return;
    }
}

TEST(OutgoingMessages, AnUnreadableCopyStaysQueuedAndTheOthersGo)
{
    SessionPair pair(rig::seed());
    pair.a.store.queue(QStringLiteral("f"), "x");
    pair.a.store.openError = QStringLiteral("permission denied");
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    EXPECT_EQ(pair.a.store.failures, (QStringList{QStringLiteral("f: permission denied")}));
}

TEST(OutgoingMessages, ACopyThatGotShorterIsBrokenOff)
{
    SessionPair pair(rig::seed());
    pair.a.store.queue(QStringLiteral("f"), randomBytes(50000, 1));
    pair.a.store.outgoing[0].content.truncate(30000);
    pair.a.store.queue(QStringLiteral("g"), "g");
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    expectInbox(pair.b.store, {{QStringLiteral("g"), "g"}});
    ASSERT_EQ(pair.a.store.failures.size(), 1);
    EXPECT_TRUE(
        pair.a.store.failures.first().startsWith(QStringLiteral("f: the queued copy cannot be read to its end")));
}

TEST(OutgoingMessages, ACopyThatChangedIsNeverAccepted)
{
    SessionPair pair(rig::seed());
    pair.a.store.queue(QStringLiteral("f"), randomBytes(50000, 1));
    pair.a.store.outgoing[0].content[100] = static_cast<char>(pair.a.store.outgoing[0].content[100] ^ 4);
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    EXPECT_TRUE(pair.b.store.inbox.empty());
    EXPECT_TRUE(pair.b.store.standing.empty()) << "what is wrong does not stand";
    EXPECT_EQ(pair.a.store.outgoing.size(), 1u);
    EXPECT_EQ(pair.a.count(Kind::FileBegun), 2) << "tried once more";
}

TEST(OutgoingMessages, AcknowledgementOfWhatWasNotSent)
{
    SessionPair pair(rig::seed());
    Impostor peer(&pair.a);
    pair.a.store.queue(QStringLiteral("f"), "x");
    peer.sayHelloAndState();
    peer.say(FrameType::Stored, encodeNumbers({5}));
    peer.expectEnded(QStringLiteral("the other side acknowledged what was not sent"));
    EXPECT_EQ(pair.a.store.outgoing.size(), 1u);
}

TEST(OutgoingMessages, StateAfterStateIsAViolation)
{
    SessionPair pair(rig::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    peer.say(FrameType::State, StateFrame().encode());
    peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (state)"));
}

// State frames without end, all of them well-formed and about messages that we never had.
TEST(OutgoingMessages, StatesWithoutEndTakeNoMemory)
{
    SessionPair pair(rig::seed());
    Impostor peer(&pair.a);
    peer.sayHello();
    peer.hear();
    StateFrame state;
    state.isLast = false;
    quint64 id = 1;
    const size_t before = mallinfo2().uordblks;
    for (int frame = 0; frame < 500; ++frame) {
        state.storedIds.clear();
        state.parts.clear();
        for (int i = 0; i < StateFrame::maxStoredIds; ++i)
            state.storedIds.append(++id);
        for (int i = 0; i < StateFrame::maxParts; ++i)
            state.parts.append({++id, 100, QByteArray(32, static_cast<char>(i))});
        peer.say(FrameType::State, state.encode());
    }
    EXPECT_FALSE(pair.a.session->isFinished());
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(mallinfo2().uordblks, before + 200 * 1024) << "of 5 MB on the wire";
#else
    Q_UNUSED(before)
#endif
}
