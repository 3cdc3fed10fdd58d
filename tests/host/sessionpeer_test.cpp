// Sessions with peers that do not keep to the protocol, or are not whom one takes them for.
#include "rig/testroot.h"
#include "tests/host/impostor.h"
#include "tests/host/sessionexpectations.h"

#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;
using namespace rig;
using Kind = SessionEvent::Kind;

TEST(SessionPeer, GarbageEndsTheSession)
{
    SessionPair pair(rig::seed());
    pair.a.session->takeOutput(1000, 1000);
    pair.a.session->receive("login: \r\n", 1000);
    EXPECT_EQ(pair.a.session->takeOutput(1000, 1000), QByteArray()) << "nothing is said to it";
    pair.a.session->advance(2000);
    EXPECT_EQ(pair.a.session->end(), SessionEnd::NotThisProtocol);
    EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("the other side does not speak this protocol"));
}

TEST(SessionPeer, RandomBytesNeverCrash)
{
    for (unsigned round = 0; round < 300; ++round) {
        SessionPair pair(rig::seed());
        Impostor peer(&pair.a);
        if (round % 2)
            peer.sayHelloAndState();
        pair.a.session->receive(randomBytes(5000, rig::seed() + round), 1000);
        EXPECT_TRUE(pair.a.store.inbox.empty());
        // A type and a length that may pass wait for their check; silence ends that.
        pair.a.session->advance(1000000);
        pair.a.session->advance(2000000);
        EXPECT_TRUE(pair.a.session->isFinished());
    }
}

// Well-formed frames in random order.
TEST(SessionPeer, RandomFramesNeverCrash)
{
    std::mt19937 random(rig::seed());
    for (unsigned round = 0; round < 500; ++round) {
        SessionPair pair(rig::seed());
        pair.a.store.queue(QStringLiteral("f"), randomBytes(5000, 1));
        Impostor peer(&pair.a);
        peer.sayHelloAndState();
        for (int i = 0; i < 30 && !pair.a.session->isFinished(); ++i) {
            const FrameType type = static_cast<FrameType>(2 + random() % 13);
            QByteArray payload;
            switch (random() % 3) {
            case 0: payload = peer.offer(randomBytes(static_cast<int>(random() % 20), random())).encode(); break;
            case 1: payload = encodeNumbers({random() % 3}); break;
            default: payload = randomBytes(static_cast<int>(random() % 60), random());
            }
            peer.say(type, payload);
            peer.hear();
            peer.now += 100;
            pair.a.session->advance(peer.now);
        }
        for (const InboxEntry& entry : pair.a.store.inbox)
            EXPECT_LE(entry.content.size(), 20);
    }
}

TEST(SessionPeer, OurOwnEchoIsNoPeer)
{
    SessionPair pair(rig::seed());
    pair.a.session->receive(pair.a.session->takeOutput(1000, 1000), 1000);
    pair.a.session->advance(2000);
    EXPECT_EQ(pair.a.session->end(), SessionEnd::NotThisProtocol);
    EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("the line gives back what is said on it"));
}

TEST(SessionPeer, ARefusedCallerIsToldWhatToDoAndNothingElse)
{
    using Cause = PeerDirectory::Verdict::Cause;
    const std::vector<std::tuple<Cause, SessionEnd, QString>> cases{
        {Cause::UnknownKey, SessionEnd::UnknownKey,
         QStringLiteral(
             "your key is not known here: give what \"transport-host key\" shows to the operator of this side")},
        {Cause::BlockedKey, SessionEnd::BlockedKey, QStringLiteral("your key is blocked here")},
        {Cause::Failed, SessionEnd::DirectoryFailed,
         QStringLiteral("your key cannot be looked up here just now: call again later")},
    };
    for (const auto& [cause, end, told] : cases) {
        SessionPair pair(rig::seed());
        pair.b.store.queue(QStringLiteral("secret"), "x");
        pair.b.directory.refusal = cause;
        ASSERT_TRUE(pair.runToEnd(5000));
        EXPECT_EQ(pair.b.session->end(), end);
        EXPECT_EQ(pair.b.session->endReason(), QStringLiteral("refused by the test"));
        EXPECT_EQ(pair.a.session->end(), SessionEnd::RefusedByPeer);
        EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("the other side ended the session: ") + told);
        EXPECT_EQ(pair.a.count(Kind::PeerNamed) + pair.b.count(Kind::PeerNamed), 0);
        EXPECT_TRUE(pair.a.store.inbox.empty());
    }
}

// On either side, whoever placed the call.
TEST(SessionPeer, WhoeverIsBlockedMeanwhileIsOutWithinASecond)
{
    for (const bool blocksCaller : {true, false}) {
        LineOptions line;
        line.bytesPerStep = 20;
        SessionPair pair(rig::seed(), line);
        SessionPair::Side& blocking = blocksCaller ? pair.b : pair.a;
        SessionPair::Side& blocked = blocksCaller ? pair.a : pair.b;
        blocked.store.queue(QStringLiteral("begun"), randomBytes(60000, rig::seed()));
        blocking.store.queue(QStringLiteral("kept"), randomBytes(60000, rig::seed()));
        ASSERT_TRUE(pair.runUntil([&] { return pair.nowMs > 15000; }));
        ASSERT_FALSE(blocking.session->isFinished());
        EXPECT_NEAR(blocking.directory.timesAsked, 14, 1) << "a look each second is enough";
        blocking.directory.blockedKeys.insert(testKey(blocksCaller ? 1 : 2)->publicKey());
        const qint64 blockedMs = pair.nowMs;
        // Within a second; from then on it only lets the reason get out, and takes nothing in.
        ASSERT_TRUE(pair.runUntil([&] { return blocking.session->isFinished(); }, 60000));
        EXPECT_LE(pair.nowMs - blockedMs, 1000 + blocking.settings.refusingMs + 2 * line.stepMs);
        EXPECT_EQ(blocking.session->end(), SessionEnd::BlockedKey);
        EXPECT_EQ(blocking.session->endReason(), QStringLiteral("blocked by the test"));
        ASSERT_TRUE(pair.runToEnd(60000));
        EXPECT_TRUE(blocking.store.inbox.empty());
        EXPECT_EQ(blocking.store.outgoing.size(), 1u) << "it stays queued";
        EXPECT_EQ(blocked.store.outgoing.size(), 1u);
        EXPECT_EQ(blocking.directory.called.isEmpty(), blocksCaller);
    }
}

// The last words of a session that is over say so, and why in one sentence.
TEST(SessionPeer, WhoeverIsBlockedMeanwhileIsToldSo)
{
    SessionPair pair(rig::seed());
    pair.a.session->setKeepAlive(true);
    pair.b.session->setKeepAlive(true);
    ASSERT_TRUE(pair.runUntil([&] { return pair.nowMs > 3000; }));
    pair.b.directory.blockedKeys.insert(testKey(1)->publicKey());
    ASSERT_TRUE(pair.runToEnd(2000));
    EXPECT_EQ(pair.a.session->end(), SessionEnd::StoppedByPeer);
    EXPECT_EQ(pair.a.session->endReason(),
              QStringLiteral("the other side ended the session: your key is blocked here"));
}

TEST(SessionPeer, WhoeverAnswersInsteadOfTheCalledOneLearnsNothing)
{
    SessionPair pair(rig::seed());
    pair.a.store.queue(QStringLiteral("secret"), "x");
    pair.a.directory.refusal = PeerDirectory::Verdict::Cause::WrongKey;
    ASSERT_TRUE(pair.runToEnd(5000));
    EXPECT_EQ(pair.a.directory.called, QStringLiteral("Боб"));
    EXPECT_EQ(pair.a.session->end(), SessionEnd::WrongKey);
    EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("refused by the test"));
    EXPECT_EQ(pair.b.session->end(), SessionEnd::ConnectionLost) << "it was not even told who called";
    EXPECT_EQ(pair.a.store.outgoing.size(), 1u);
}

// Whatever name it tells.
TEST(SessionPeer, ANameThatIsToldIsNotBelieved)
{
    SessionPair pair(rig::seed());
    pair.a.settings.abonentName = QStringLiteral("Боб");
    pair.connect();
    ASSERT_TRUE(pair.runToEnd(5000));
    EXPECT_EQ(pair.b.session->peerName(), QStringLiteral("Alice"));
    EXPECT_EQ(pair.b.session->peer().claimedName, QStringLiteral("Боб"));
    EXPECT_TRUE(pair.b.session->peer().isProved);
}

TEST(SessionPeer, AnUnprovedCallerLeavesMessagesAndGetsNothing)
{
    SessionPair pair(rig::seed());
    pair.b.directory.names.clear();
    pair.b.directory.everybodyElse.clear();
    pair.b.directory.acceptsUnknown = true;
    pair.a.store.queue(QStringLiteral("left"), "content");
    pair.b.store.queue(QStringLiteral("secret"), "x");
    ASSERT_TRUE(pair.runToEnd(60000));
    expectBothEndedWell(pair);
    expectInbox(pair.b.store, {{QStringLiteral("left"), "content"}});
    EXPECT_TRUE(pair.a.store.inbox.empty());
    EXPECT_EQ(pair.b.store.outgoing.size(), 1u);
    EXPECT_FALSE(pair.b.session->peer().isProved);
    EXPECT_EQ(pair.a.session->peer().claimedName, QString()) << "it is not even told a name";
}

TEST(SessionPeer, OurOwnKeyAtTheOtherEndIsNamed)
{
    SessionPair pair(rig::seed());
    pair.b.settings.identity = pair.a.settings.identity;
    pair.connect();
    ASSERT_TRUE(pair.runToEnd(5000));
    EXPECT_EQ(pair.a.session->end(), SessionEnd::SelfCall);
}

// A direction's frames, given back to who said them, at every moment of a session.
TEST(SessionPeer, WordsThatComeBackEndTheSession)
{
    for (int piece = 0; piece < 12; ++piece) {
        SessionPair pair(rig::seed());
        pair.a.store.queue(QStringLiteral("f"), randomBytes(5000, 3));
        QByteArray said;
        int pieces = 0;
        pair.b.tamper = [&](const QByteArray& bytes) {
            said = bytes;
            return bytes;
        };
        pair.a.tamper = [&](const QByteArray& bytes) { return pieces++ == piece ? said : bytes; };
        ASSERT_TRUE(pair.runToEnd(600 * 1000));
        pair.a.tamper = {};
        pair.b.tamper = {};
        pair.connect();
        ASSERT_TRUE(pair.runToEnd()) << piece;
        expectInbox(pair.b.store, {{QStringLiteral("f"), randomBytes(5000, 3)}});
        EXPECT_TRUE(pair.a.store.outgoing.empty()) << piece;
    }
}

TEST(SessionPeer, NothingBeforeHello)
{
    SessionPair pair(rig::seed());
    Impostor peer(&pair.a);
    peer.say(FrameType::State, StateFrame().encode());
    peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (opening)"));
}

TEST(SessionPeer, SecondHelloIsAViolation)
{
    SessionPair pair(rig::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    peer.hear();
    peer.sayHello();
    peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (opening)"));
}
