#include "host/session/incomingmessages.h"
#include "rig/host/memorystore.h"
#include "rig/testroot.h"
#include "tests/host/impostor.h"
#include "tests/host/sessionexpectations.h"

#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;
using namespace rig;
using Kind = SessionEvent::Kind;

namespace {

// Counts what the messages say and tell.
class Control final : public SessionControl
{
public:
    void put(FrameType type, const QByteArray&) override { ++said[type]; }
    void tell(const SessionEvent& event) override { ++told[event.kind]; }
    void giveUp(const QString& reason) override { gaveUp.append(reason); }

    std::map<FrameType, int> said;
    std::map<SessionEvent::Kind, int> told;
    QStringList gaveUp;
};

class IncomingMessagesTest : public ::testing::Test
{
protected:
    IncomingMessagesTest()
    {
        stored.messageId = 7;
        stored.size = 3;
        stored.offset = 3;
        stored.sha256 = QByteArray(sha256Bytes, 'h');
        stored.fileName = QStringLiteral("f");
        store.storedHashes[stored.messageId] = stored.sha256;
        frame.type = FrameType::Offer;
        frame.payload = stored.encode();
    }

    // Of a message that was stored before: each is to be acknowledged again.
    void offer(int times)
    {
        for (int i = 0; i < times; ++i)
            messages.onOffer(frame);
    }

    Peer peer;
    MemoryStore store;
    Control control;
    OfferFrame stored;
    Frame frame;
    IncomingMessages messages{peer, &store, &control};
};

} // namespace

TEST_F(IncomingMessagesTest, AcknowledgementsThatNobodyTakesPileUp)
{
    offer(100000);
    EXPECT_FALSE(messages.hasPiledUp());
    EXPECT_FALSE(messages.nothingLeft());
    offer(1);
    EXPECT_TRUE(messages.hasPiledUp());
    EXPECT_EQ(control.gaveUp, QStringList());
}

TEST_F(IncomingMessagesTest, AThousandAcknowledgementsInAFrame)
{
    offer(2001);
    EXPECT_TRUE(messages.acknowledge());
    EXPECT_TRUE(messages.acknowledge());
    EXPECT_TRUE(messages.acknowledge());
    EXPECT_FALSE(messages.acknowledge());
    EXPECT_EQ(control.said[FrameType::Stored], 3);
    EXPECT_TRUE(messages.nothingLeft());
}

// What a call keeps to be settled at its end does not grow for ever.
TEST_F(IncomingMessagesTest, ACallHasAMillionAcknowledgementsAtMost)
{
    for (int i = 0; i < 20; ++i) {
        offer(50000);
        while (messages.acknowledge()) {
        }
    }
    EXPECT_FALSE(messages.hasPiledUp());
    offer(1);
    EXPECT_TRUE(messages.hasPiledUp());
}

// ---- in a session ----

TEST(IncomingMessages, ALostAcknowledgementDoesNotStoreTwiceNorSendAgain)
{
    LineOptions line;
    line.bytesPerStep = 1000;
    SessionPair pair(rig::seed(), line);
    const QByteArray content = randomBytes(50000, 4);
    pair.a.store.queue(QStringLiteral("f"), content);
    ASSERT_TRUE(pair.runUntil([&] { return pair.b.count(Kind::FileStored) == 1; }));
    ASSERT_EQ(pair.a.count(Kind::FileDelivered), 0);
    ASSERT_EQ(pair.a.store.outgoing.size(), 1u);

    pair.connect();
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.b.store.inbox.size(), 1u);
    EXPECT_TRUE(pair.a.store.outgoing.empty());
    EXPECT_EQ(pair.a.count(Kind::FileDelivered), 1);
    EXPECT_LT(pair.carriedBytes, 1000) << "told in the opening";
    EXPECT_TRUE(pair.b.store.unsettledIds.empty());
}

// The receiver has forgotten that the sender does not know, but not the message.
TEST(IncomingMessages, ARepeatedOfferIsAcknowledgedAgain)
{
    LineOptions line;
    line.bytesPerStep = 1000;
    SessionPair pair(rig::seed(), line);
    const QByteArray content = randomBytes(200000, 4);
    pair.a.store.queue(QStringLiteral("f"), content);
    ASSERT_TRUE(pair.runUntil([&] { return pair.b.count(Kind::FileStored) == 1; }));
    pair.b.store.unsettledIds.clear();
    pair.connect();
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    EXPECT_EQ(pair.b.store.inbox.size(), 1u);
    EXPECT_EQ(pair.b.count(Kind::FileDuplicate), 1);
    EXPECT_TRUE(pair.a.store.outgoing.empty());
    EXPECT_LT(pair.carriedBytes, 100000) << "the rest of the data was not sent";
}

TEST(IncomingMessages, SameIdWithOtherContentIsAnotherMessage)
{
    SessionPair pair(rig::seed());
    const quint64 id = pair.a.store.queue(QStringLiteral("f"), "new");
    pair.b.store.storedHashes[id] = QByteArray(32, 'o');
    ASSERT_TRUE(pair.runToEnd());
    expectInbox(pair.b.store, {{QStringLiteral("f"), "new"}});
}

TEST(IncomingMessages, APartThatDiffersIsSentFromTheBeginning)
{
    SessionPair pair(rig::seed());
    const QByteArray content = randomBytes(30000, 6);
    const quint64 id = pair.a.store.queue(QStringLiteral("f"), content);
    QByteArray other = content.left(20000);
    other[10000] = static_cast<char>(other.at(10000) ^ 1); // same length, one bit
    pair.b.store.standing[id] = other;
    ASSERT_TRUE(pair.runToEnd());
    expectInbox(pair.b.store, {{QStringLiteral("f"), content}});
    EXPECT_EQ(pair.b.last(Kind::FileBegun)->file.doneBytes, 0);
}

TEST(IncomingMessages, APartThatIsWholeNeedsNoData)
{
    SessionPair pair(rig::seed());
    const QByteArray content = randomBytes(30000, 6);
    const quint64 id = pair.a.store.queue(QStringLiteral("f"), content);
    pair.b.store.standing[id] = content;
    ASSERT_TRUE(pair.runToEnd());
    expectInbox(pair.b.store, {{QStringLiteral("f"), content}});
    EXPECT_LT(pair.carriedBytes, 1000);
}

TEST(IncomingMessages, APartLongerThanTheMessageIsNotTakenUp)
{
    SessionPair pair(rig::seed());
    const quint64 id = pair.a.store.queue(QStringLiteral("f"), "short");
    pair.b.store.standing[id] = "much too long";
    ASSERT_TRUE(pair.runToEnd());
    expectInbox(pair.b.store, {{QStringLiteral("f"), "short"}});
}

TEST(IncomingMessages, ALargePartIsHashedInSlices)
{
    SessionPair pair(rig::seed());
    const QByteArray content = randomBytes(9 * 1024 * 1024, 6);
    const quint64 id = pair.a.store.queue(QStringLiteral("f"), content);
    pair.b.store.standing[id] = content.left(content.size() - 1000);
    ASSERT_TRUE(pair.runToEnd());
    expectInbox(pair.b.store, {{QStringLiteral("f"), content}});
    EXPECT_LT(pair.carriedBytes, 3000);
}

TEST(IncomingMessages, ARefusedMessageStaysAndTheOthersGo)
{
    SessionPair pair(rig::seed());
    pair.b.store.refuseBegin = true;
    pair.b.store.beginRefusal.code = RefusalCode::NoRoom;
    pair.b.store.beginRefusal.reason = QStringLiteral("the disk is full");
    pair.a.store.queue(QStringLiteral("f"), randomBytes(50000, 1));
    pair.a.store.queue(QStringLiteral("g"), QByteArray());
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    EXPECT_EQ(pair.a.store.outgoing.size(), 2u);
    EXPECT_EQ(pair.a.store.failures, (QStringList{QStringLiteral("f: 'Боб' refused it: the disk is full"),
                                                  QStringLiteral("g: 'Боб' refused it: the disk is full")}));
    EXPECT_FALSE(pair.a.session->wasUseful());
}

TEST(IncomingMessages, AFullDiskInTheMiddleRefuses)
{
    LineOptions line;
    line.bytesPerStep = 500;
    SessionPair pair(rig::seed(), line);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(200000, 1));
    ASSERT_TRUE(pair.runUntil([&] { return pair.b.receivedBytes > 20000; }));
    pair.b.store.appendError = QStringLiteral("no space left");
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    EXPECT_EQ(pair.a.store.failures,
              (QStringList{
                  QStringLiteral("f: 'Боб' refused it: it could not be stored there; that side's journal tells why")}));
    EXPECT_LT(pair.carriedBytes, 100000) << "the rest was not sent";
    // Room again: the next call goes on.
    pair.b.store.appendError.clear();
    pair.connect(LineOptions());
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.b.store.inbox.size(), 1u);
    EXPECT_GT(pair.b.last(Kind::FileBegun)->file.doneBytes, 0);
}

TEST(IncomingMessages, NotStoredIsNotAcknowledged)
{
    SessionPair pair(rig::seed());
    pair.b.store.storeError = QStringLiteral("cannot rename");
    pair.a.store.queue(QStringLiteral("f"), "x");
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.a.store.outgoing.size(), 1u);
    EXPECT_EQ(pair.a.store.failures,
              (QStringList{
                  QStringLiteral("f: 'Боб' refused it: it could not be stored there; that side's journal tells why")}));
}

// Where things stand on this machine's disk is nobody else's business.
TEST(IncomingMessages, ARefusalNamesNoPlaceOfTheOtherMachine)
{
    for (QString rig::MemoryStore::*fault : {&rig::MemoryStore::appendError, &rig::MemoryStore::storeError}) {
        SessionPair pair(rig::seed());
        const QString error = QStringLiteral("cannot write /srv/station/input/1: permission denied");
        pair.b.store.*fault = error;
        pair.a.store.queue(QStringLiteral("f"), "x");
        ASSERT_TRUE(pair.runToEnd());
        EXPECT_EQ(pair.a.store.failures,
                  (QStringList{QStringLiteral(
                      "f: 'Боб' refused it: it could not be stored there; that side's journal tells why")}));
        EXPECT_EQ(pair.b.last(Kind::FileFailed)->text, error) << "our own user is told";
    }
}

// Neither where our files lie nor how much is taken here.
TEST(IncomingMessages, ARefusalTellsNothingOfOurDisk)
{
    for (const bool isProved : {true, false}) {
        for (const RefusalCode code : {RefusalCode::Failed, RefusalCode::NotAllowed, RefusalCode::NoRoom}) {
            SessionPair pair(rig::seed());
            if (!isProved)
                pair.b.directory.everybodyElse.clear();
            pair.b.directory.acceptsUnknown = true;
            Impostor peer(&pair.b, true);
            peer.sayHelloAndState();
            peer.hear();
            pair.b.store.refuseBegin = true;
            pair.b.store.beginRefusal.code = code;
            pair.b.store.beginRefusal.reason = QStringLiteral("cannot write /home/bob/x: 1000 bytes are allowed");
            peer.say(FrameType::Offer, peer.offer("abc").encode());
            const QVector<Frame> answers = peer.hear();
            ASSERT_GE(answers.size(), 1);
            RefusedFrame refused;
            ASSERT_TRUE(refused.decode(answers.first().payload));
            EXPECT_EQ(refused.reason,
                      !isProved ? QStringLiteral("it is not taken here")
                      : code == RefusalCode::Failed
                          ? QStringLiteral("it could not be stored there; that side's journal tells why")
                          : pair.b.store.beginRefusal.reason);
            EXPECT_EQ(pair.b.last(Kind::FileFailed)->text, pair.b.store.beginRefusal.reason) << "our operator is told";
        }
    }
}

TEST(IncomingMessages, AnUnprovedCallerMayNotFillTheJournalWithRefusals)
{
    SessionPair pair(rig::seed());
    pair.b.directory.everybodyElse.clear();
    pair.b.directory.acceptsUnknown = true;
    pair.b.store.refuseBegin = true;
    Impostor peer(&pair.b, true);
    peer.sayHelloAndState();
    for (int i = 0; i < 1000; ++i)
        peer.say(FrameType::Offer, peer.offer(QByteArray()).encode());
    EXPECT_EQ(pair.b.count(Kind::FileFailed), 20);
    peer.expectEnded(QStringLiteral("too much of what it offered was refused"));
}

TEST(IncomingMessages, DataWithoutOfferOrBeyondTheEnd)
{
    {
        SessionPair pair(rig::seed());
        Impostor peer(&pair.a);
        peer.sayHelloAndState();
        peer.say(FrameType::Data, "x");
        peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (data)"));
    }
    SessionPair pair(rig::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    peer.say(FrameType::Offer, peer.offer("abc").encode());
    peer.say(FrameType::Data, "abcd");
    peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (data)"));
    EXPECT_TRUE(pair.a.store.inbox.empty());
}

TEST(IncomingMessages, OfferInsideAnOffer)
{
    SessionPair pair(rig::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    peer.say(FrameType::Offer, peer.offer("abc").encode());
    peer.say(FrameType::Offer, peer.offer("abc").encode());
    peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (offer)"));
}

TEST(IncomingMessages, OffsetWhereNothingStands)
{
    SessionPair pair(rig::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    OfferFrame offer = peer.offer("abcdef");
    offer.offset = 3;
    peer.say(FrameType::Offer, offer.encode());
    peer.expectEnded(QStringLiteral("the other side takes a message up where none stands"));
}

TEST(IncomingMessages, WrongHashIsRefusedAndForgotten)
{
    SessionPair pair(rig::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    OfferFrame offer = peer.offer("abc");
    peer.say(FrameType::Offer, offer.encode());
    peer.hear();
    peer.say(FrameType::Data, "abd");
    const QVector<Frame> answers = peer.hear();
    ASSERT_GE(answers.size(), 1);
    EXPECT_EQ(answers.first().type, FrameType::Refused);
    RefusedFrame refused;
    ASSERT_TRUE(refused.decode(answers.first().payload));
    EXPECT_EQ(refused.code, RefusalCode::WrongHash);
    EXPECT_TRUE(pair.a.store.inbox.empty());
    EXPECT_TRUE(pair.a.store.standing.empty());
}

TEST(IncomingMessages, AnswersThatNobodyTakesDoNotPileUp)
{
    SessionPair pair(rig::seed());
    Impostor peer(&pair.a);
    pair.a.store.refuseBegin = true;
    pair.a.store.beginRefusal.code = RefusalCode::NoRoom;
    pair.a.store.beginRefusal.reason = QString(400, QLatin1Char('n'));
    peer.sayHelloAndState();
    for (int i = 0; i < 10000; ++i)
        peer.say(FrameType::Offer, peer.offer(QByteArray()).encode());
    peer.expectEnded(QStringLiteral("the other side takes no answers"));
}

TEST(IncomingMessages, AcknowledgementsThatNobodyTakesDoNotPileUp)
{
    SessionPair pair(rig::seed());
    Impostor peer(&pair.a);
    OfferFrame stored = peer.offer(QByteArray());
    pair.a.store.storedHashes[stored.messageId] = stored.sha256;
    peer.sayHelloAndState();
    for (int i = 0; i < 100001; ++i)
        peer.say(FrameType::Offer, stored.encode());
    peer.expectEnded(QStringLiteral("the other side takes no answers"));
}

TEST(IncomingMessages, ALongListOfStoredMessagesComesInSeveralFrames)
{
    SessionPair pair(rig::seed());
    for (int i = 0; i < 2500; ++i) {
        const quint64 id = pair.a.store.queue(QString::number(i), QByteArray::number(i));
        pair.b.store.storedHashes[id] = pair.a.store.outgoing.back().message.sha256;
        pair.b.store.unsettledIds.insert(id);
    }
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    EXPECT_TRUE(pair.b.store.inbox.empty());
    EXPECT_TRUE(pair.a.store.outgoing.empty());
    EXPECT_TRUE(pair.b.store.unsettledIds.empty());
}

// Settled while the call goes on: a break late in a long call does not list everything again.
TEST(IncomingMessages, AcknowledgementsAreSettledMeanwhile)
{
    LineOptions slow;
    slow.bytesPerStep = 30;
    SessionPair pair(rig::seed(), slow);
    for (int i = 0; i < 200; ++i)
        pair.a.store.queue(QString::number(i), randomBytes(200, 1));
    ASSERT_TRUE(pair.runUntil([&] { return pair.b.store.inbox.size() > 150; }));
    EXPECT_LT(pair.b.store.unsettledIds.size(), 130u);
    EXPECT_GT(pair.b.store.unsettledIds.size(), 0u);
}
