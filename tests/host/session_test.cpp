#include "host/session/session.h"
#include "rig/testroot.h"
#include "tests/host/sessionpair.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <malloc.h>

using namespace host;
using namespace hosttest;
using Kind = SessionEvent::Kind;

namespace {

QString hex(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.left(16).toHex());
}

void expectInbox(const MemoryStore& store, const std::vector<std::pair<QString, QByteArray>>& expected)
{
    ASSERT_EQ(store.inbox.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(store.inbox[i].fileName, expected[i].first);
        EXPECT_TRUE(store.inbox[i].content == expected[i].second)
            << i << " " << qPrintable(hex(store.inbox[i].content));
    }
}

void expectBothEndedWell(const SessionPair& pair)
{
    EXPECT_TRUE(pair.a.session->endedWell()) << qPrintable(pair.a.session->endReason());
    EXPECT_TRUE(pair.b.session->endedWell()) << qPrintable(pair.b.session->endReason());
}

// A peer whose frames are written by hand.
class Impostor
{
public:
    // isCaller: side waits for calls.
    explicit Impostor(SessionPair::Side* side, bool isCaller = false) : m_side(side), m_peer(isCaller) {}

    void sayHello(const QString& name = QStringLiteral("Mallory"))
    {
        HelloFrame hello;
        hello.abonentName = name;
        say(FrameType::Hello, hello.encode());
    }

    void sayHelloAndState()
    {
        sayHello();
        say(FrameType::State, StateFrame().encode());
    }

    void say(FrameType type, const QByteArray& payload = QByteArray())
    {
        if (!m_peer.isOpen()) {
            ASSERT_TRUE(m_peer.shakeHands(m_side->session.get(), now));
        }
        m_side->session->receive(m_peer.seal(type, payload), now);
    }

    // What the session says, frame by frame.
    QVector<Frame> hear(int mostBytes = 1 << 30)
    {
        QVector<Frame> frames;
        for (QByteArray piece; mostBytes > 0 && !(piece = m_side->session->takeOutput(500, now)).isEmpty();
             mostBytes -= piece.size())
            m_peer.append(piece);
        Frame frame;
        while (m_peer.next(&frame) == FrameReader::Result::Frame)
            frames.append(frame);
        return frames;
    }

    bool hears(FrameType type)
    {
        for (const Frame& frame : hear()) {
            if (frame.type == type)
                return true;
        }
        return false;
    }

    // After a violation: the session says why and ends in time.
    void expectEnded(const QString& reason)
    {
        EXPECT_TRUE(hears(FrameType::Stop));
        now += 1000;
        m_side->session->advance(now);
        EXPECT_TRUE(m_side->session->isFinished());
        EXPECT_FALSE(m_side->session->endedWell());
        EXPECT_EQ(m_side->session->endReason(), reason);
    }

    OfferFrame offer(const QByteArray& content, const QString& name = QStringLiteral("x"))
    {
        OfferFrame offer;
        offer.messageId = m_nextId++;
        offer.size = content.size();
        offer.sha256 = QCryptographicHash::hash(content, QCryptographicHash::Sha256);
        offer.fileName = name;
        return offer;
    }

    qint64 now = 1000;

private:
    SessionPair::Side* m_side; // not owned
    SealedPeer m_peer;
    quint64 m_nextId = 77;
};

} // namespace

// ---- whole sessions ----

TEST(Session, NothingToSendEndsAtOnce)
{
    SessionPair pair(testsupport::seed());
    ASSERT_TRUE(pair.runToEnd(1000));
    expectBothEndedWell(pair);
    EXPECT_EQ(pair.a.session->peerName(), QStringLiteral("Боб"));
    EXPECT_EQ(pair.b.session->peerName(), QStringLiteral("Alice"));
    EXPECT_FALSE(pair.a.session->wasUseful());
    EXPECT_FALSE(pair.b.session->wasUseful());
}

TEST(Session, FilesOfManySizesBothWaysAtOnce)
{
    SessionPair pair(testsupport::seed());
    std::vector<std::pair<QString, QByteArray>> fromA;
    std::vector<std::pair<QString, QByteArray>> fromB;
    for (const int size : {0, 1, 1023, 1024, 1025, 16384, 300000}) {
        fromA.emplace_back(QStringLiteral("a%1").arg(size),
                           randomBytes(size, testsupport::seed() + static_cast<unsigned>(size)));
        fromB.emplace_back(QStringLiteral("b%1").arg(size), randomBytes(size, 7 + static_cast<unsigned>(size)));
        pair.a.store.queue(fromA.back().first, fromA.back().second);
        pair.b.store.queue(fromB.back().first, fromB.back().second);
    }
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    expectInbox(pair.b.store, fromA);
    expectInbox(pair.a.store, fromB);
    EXPECT_TRUE(pair.a.store.outgoing.empty());
    EXPECT_TRUE(pair.b.store.outgoing.empty());
    EXPECT_TRUE(pair.a.session->wasUseful());
    EXPECT_TRUE(pair.b.session->wasUseful());
    EXPECT_TRUE(pair.a.store.unsettledIds.empty());
    EXPECT_TRUE(pair.b.store.unsettledIds.empty());
}

TEST(Session, BothDirectionsMoveTogether)
{
    LineOptions slow;
    slow.bytesPerStep = 115;
    SessionPair pair(testsupport::seed(), slow);
    pair.a.store.queue(QStringLiteral("a"), randomBytes(50000, 1));
    pair.b.store.queue(QStringLiteral("b"), randomBytes(50000, 2));
    ASSERT_TRUE(pair.runUntil([&] { return pair.a.receivedBytes > 25000; }));
    EXPECT_GT(pair.b.receivedBytes, 20000);
    ASSERT_TRUE(pair.runToEnd());
}

TEST(Session, NamesInAnyLanguage)
{
    SessionPair pair(testsupport::seed());
    const QStringList names = {QStringLiteral("Отчёт за май.txt"), QStringLiteral("報告書"),
                               QString::fromUtf8("\xF0\x9F\x93\xA0 fax \xF0\x9D\x94\x98"), QStringLiteral("تقرير"),
                               QString(255, QLatin1Char('n'))};
    for (const QString& name : names)
        pair.a.store.queue(name, name.toUtf8());
    ASSERT_TRUE(pair.runToEnd());
    ASSERT_EQ(pair.b.store.inbox.size(), static_cast<size_t>(names.size()));
    for (int i = 0; i < names.size(); ++i)
        EXPECT_EQ(pair.b.store.inbox[static_cast<size_t>(i)].fileName, names.at(i));
}

TEST(Session, AThousandSmallMessagesTakeNoRoundTripEach)
{
    SessionPair pair(testsupport::seed());
    for (int i = 0; i < 1000; ++i)
        pair.a.store.queue(QString::number(i), QByteArray::number(i));
    const qint64 beganMs = pair.nowMs;
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.b.store.inbox.size(), 1000u);
    EXPECT_LT(pair.nowMs - beganMs, 500) << "10 ms a step: a round trip each would take 20 s";
}

TEST(Session, FiftyMessagesEachWayUseNineTenthsOfTheLine)
{
    LineOptions line;
    line.bytesPerStep = 115; // 11,500 bytes/s
    SessionPair pair(testsupport::seed(), line);
    for (int i = 0; i < 50; ++i) {
        pair.a.store.queue(QStringLiteral("message %1.txt").arg(i), randomBytes(2000, static_cast<unsigned>(i)));
        pair.b.store.queue(QStringLiteral("message %1.txt").arg(i), randomBytes(2000, static_cast<unsigned>(i)));
    }
    const qint64 beganMs = pair.nowMs;
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_LE(pair.nowMs - beganMs, static_cast<qint64>(100000 / 11500.0 / 0.93 * 1000));
}

TEST(Session, ALargeFileCostsLessThanHalfAPercent)
{
    LineOptions line;
    line.bytesPerStep = 115;
    SessionPair pair(testsupport::seed(), line);
    pair.a.store.queue(QStringLiteral("big"), randomBytes(1000000, 1));
    const qint64 beganMs = pair.nowMs;
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_LE(pair.nowMs - beganMs, static_cast<qint64>(1000000 / 11500.0 / 0.995 * 1000));
}

TEST(Session, PiecesAreFullWhileThereIsEnough)
{
    SessionPair pair(testsupport::seed());
    pair.a.store.queue(QStringLiteral("x"), randomBytes(100000, 3));
    // Exchange the opening, then look at what comes.
    while (pair.b.receivedBytes < 200)
        pair.step();
    int full = 0;
    for (QByteArray piece; !(piece = pair.a.session->takeOutput(333, pair.nowMs)).isEmpty() && full < 50; ++full)
        EXPECT_EQ(piece.size(), 333);
    EXPECT_EQ(full, 50);
}

TEST(Session, AMessageQueuedMeanwhileGoesInTheSameCall)
{
    LineOptions slow;
    slow.bytesPerStep = 100;
    SessionPair pair(testsupport::seed(), slow);
    pair.b.store.queue(QStringLiteral("long"), randomBytes(20000, 1));
    ASSERT_TRUE(pair.runUntil([&] { return pair.a.receivedBytes > 5000; })); // A has said Finish long ago
    pair.a.store.queue(QStringLiteral("late"), "late");
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    EXPECT_EQ(pair.b.store.inbox.size(), 1u);
    EXPECT_EQ(pair.a.store.inbox.size(), 1u);
}

// Whatever the moment at which a message is queued, it goes now or stays for later.
TEST(Session, AMessageQueuedAtAnyMomentIsNotLost)
{
    for (int moment = 0; moment < 40; ++moment) {
        LineOptions slow;
        slow.bytesPerStep = 23;
        SessionPair pair(testsupport::seed() + static_cast<unsigned>(moment), slow);
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

// ---- broken calls ----

TEST(Session, ABrokenCallIsTakenUpWhereItStopped)
{
    LineOptions line;
    line.bytesPerStep = 1000;
    line.cutAfterBytes = 60000;
    SessionPair pair(testsupport::seed(), line);
    const QByteArray content = randomBytes(100000, 5);
    pair.a.store.queue(QStringLiteral("f"), content);
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_FALSE(pair.b.session->endedWell());
    EXPECT_EQ(pair.b.session->endReason(), QStringLiteral("the connection was lost"));
    EXPECT_TRUE(pair.b.store.inbox.empty()) << "only whole files";
    const qint64 stands = pair.b.store.standing.begin()->second.size();
    EXPECT_GT(stands, 60000 - 17000);

    line.cutAfterBytes = -1;
    pair.connect(line);
    ASSERT_TRUE(pair.runToEnd());
    expectInbox(pair.b.store, {{QStringLiteral("f"), content}});
    EXPECT_LT(pair.carriedBytes, 100000 - stands + 2000) << "only the rest was sent";
    EXPECT_EQ(pair.b.last(Kind::FileBegun)->file.doneBytes, stands);
    EXPECT_EQ(pair.a.last(Kind::FileBegun)->file.doneBytes, stands);
}

// Cut after every single byte: in the next call everything arrives, once, right.
TEST(Session, CutAtEveryByte)
{
    qint64 wholeBytes = 0;
    for (qint64 cut = 0; cut == 0 || cut <= wholeBytes; ++cut) {
        LineOptions line;
        line.bytesPerStep = 97;
        line.pieceBytes = 100;
        line.cutAfterBytes = cut == 0 ? -1 : cut; // first: how long is it?
        SessionPair pair(testsupport::seed() + static_cast<unsigned>(cut), line);
        const QByteArray one = randomBytes(300, 1);
        const QByteArray two = randomBytes(200, 2);
        pair.a.store.queue(QStringLiteral("one"), one);
        pair.a.store.queue(QStringLiteral("empty"), QByteArray());
        pair.b.store.queue(QStringLiteral("two"), two);
        ASSERT_TRUE(pair.runToEnd());
        if (cut == 0)
            wholeBytes = pair.carriedBytes;
        line.cutAfterBytes = -1;
        pair.connect(line);
        ASSERT_TRUE(pair.runToEnd()) << cut;
        expectBothEndedWell(pair);
        expectInbox(pair.b.store, {{QStringLiteral("one"), one}, {QStringLiteral("empty"), QByteArray()}});
        expectInbox(pair.a.store, {{QStringLiteral("two"), two}});
        EXPECT_TRUE(pair.a.store.outgoing.empty()) << cut;
        EXPECT_TRUE(pair.b.store.outgoing.empty()) << cut;
        EXPECT_TRUE(pair.a.store.unsettledIds.empty()) << cut;
        EXPECT_TRUE(pair.b.store.unsettledIds.empty()) << cut;
        EXPECT_EQ(pair.a.store.deliveredNames.size(), 2) << cut;
        if (testing::Test::HasFailure())
            return;
    }
    EXPECT_GT(wholeBytes, 700);
}

TEST(Session, ManyShortCallsCarryALongFile)
{
    SessionPair pair(testsupport::seed());
    const QByteArray content = randomBytes(60000, 9);
    pair.a.store.queue(QStringLiteral("f"), content);
    int calls = 0;
    while (pair.b.store.inbox.empty() && ++calls < 30) {
        LineOptions line;
        line.bytesPerStep = 500;
        line.cutAfterBytes = 7000;
        pair.connect(line);
        ASSERT_TRUE(pair.runToEnd());
    }
    expectInbox(pair.b.store, {{QStringLiteral("f"), content}});
    EXPECT_LE(calls, 14);
}

TEST(Session, ALostAcknowledgementDoesNotStoreTwiceNorSendAgain)
{
    LineOptions line;
    line.bytesPerStep = 1000;
    SessionPair pair(testsupport::seed(), line);
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
TEST(Session, ARepeatedOfferIsAcknowledgedAgain)
{
    LineOptions line;
    line.bytesPerStep = 1000;
    SessionPair pair(testsupport::seed(), line);
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

TEST(Session, SameIdWithOtherContentIsAnotherMessage)
{
    SessionPair pair(testsupport::seed());
    const quint64 id = pair.a.store.queue(QStringLiteral("f"), "new");
    pair.b.store.storedHashes[id] = QByteArray(32, 'o');
    ASSERT_TRUE(pair.runToEnd());
    expectInbox(pair.b.store, {{QStringLiteral("f"), "new"}});
}

TEST(Session, APartThatDiffersIsSentFromTheBeginning)
{
    SessionPair pair(testsupport::seed());
    const QByteArray content = randomBytes(30000, 6);
    const quint64 id = pair.a.store.queue(QStringLiteral("f"), content);
    QByteArray other = content.left(20000);
    other[10000] = static_cast<char>(other.at(10000) ^ 1); // same length, one bit
    pair.b.store.standing[id] = other;
    ASSERT_TRUE(pair.runToEnd());
    expectInbox(pair.b.store, {{QStringLiteral("f"), content}});
    EXPECT_EQ(pair.b.last(Kind::FileBegun)->file.doneBytes, 0);
}

TEST(Session, APartThatIsWholeNeedsNoData)
{
    SessionPair pair(testsupport::seed());
    const QByteArray content = randomBytes(30000, 6);
    const quint64 id = pair.a.store.queue(QStringLiteral("f"), content);
    pair.b.store.standing[id] = content;
    ASSERT_TRUE(pair.runToEnd());
    expectInbox(pair.b.store, {{QStringLiteral("f"), content}});
    EXPECT_LT(pair.carriedBytes, 1000);
}

TEST(Session, APartLongerThanTheMessageIsNotTakenUp)
{
    SessionPair pair(testsupport::seed());
    const quint64 id = pair.a.store.queue(QStringLiteral("f"), "short");
    pair.b.store.standing[id] = "much too long";
    ASSERT_TRUE(pair.runToEnd());
    expectInbox(pair.b.store, {{QStringLiteral("f"), "short"}});
}

TEST(Session, ALargePartIsHashedInSlices)
{
    SessionPair pair(testsupport::seed());
    const QByteArray content = randomBytes(9 * 1024 * 1024, 6);
    const quint64 id = pair.a.store.queue(QStringLiteral("f"), content);
    pair.b.store.standing[id] = content.left(content.size() - 1000);
    ASSERT_TRUE(pair.runToEnd());
    expectInbox(pair.b.store, {{QStringLiteral("f"), content}});
    EXPECT_LT(pair.carriedBytes, 3000);
}

// ---- time ----

TEST(Session, ADeadConnectionEndsTheSession)
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

TEST(Session, ACallThatSaysNothingEnds)
{
    SessionPair pair(testsupport::seed());
    pair.a.settings.silenceMs = 5000;
    pair.connect();
    pair.b.silent = true;
    ASSERT_TRUE(pair.runUntil([&] { return pair.a.session->isFinished(); }, 6000));
    EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("nothing was heard from the other side for 5 s"));
}

TEST(Session, AWaitingSideSaysSomethingEachSecond)
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
TEST(Session, ASideThatTakesAFileInSpeaksMoreRarely)
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
TEST(Session, FillersAloneAreSilence)
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

TEST(Session, ALongTransferOutlivesAShortSilenceLimit)
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

TEST(Session, NoHeartbeatWhileDataFlows)
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

TEST(Session, APeerThatOnlyHeartbeatsIsLeft)
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

TEST(Session, AnOpeningThatNeverComesEnds)
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

TEST(Session, APeerThatOnlyHeartbeatsDoesNotHoldTheLine)
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
TEST(Session, UselessFramesDoNotHoldTheLine)
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

TEST(Session, ALongUploadIsNotTakenForAStall)
{
    LineOptions slow;
    slow.bytesPerStep = 2; // 200 bytes/s: ten minutes
    SessionPair pair(testsupport::seed(), slow);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(120000, 1));
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.b.store.inbox.size(), 1u);
}

TEST(Session, ACutLosesATenthOfTheCallAtMost)
{
    LineOptions slow;
    slow.bytesPerStep = 3; // 300 bytes/s
    SessionPair pair(testsupport::seed(), slow);
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

// ---- keeping and stopping ----

TEST(Session, KeepAliveHoldsTheConnection)
{
    SessionPair pair(testsupport::seed());
    pair.b.session->setKeepAlive(true);
    EXPECT_FALSE(pair.runToEnd(60000));
    pair.b.session->setKeepAlive(false);
    ASSERT_TRUE(pair.runToEnd(3000));
    expectBothEndedWell(pair);
}

TEST(Session, KeepAliveAfterFinishTakesItBack)
{
    LineOptions slow;
    slow.bytesPerStep = 100;
    SessionPair pair(testsupport::seed(), slow);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(10000, 1));
    ASSERT_TRUE(pair.runUntil([&] { return pair.b.receivedBytes > 5000; }));
    pair.b.session->setKeepAlive(true);
    EXPECT_FALSE(pair.runToEnd(60000));
    EXPECT_EQ(pair.a.count(Kind::FileDelivered), 1);
}

TEST(Session, StopTellsThePeer)
{
    SessionPair pair(testsupport::seed());
    pair.a.session->setKeepAlive(true);
    pair.runUntil([&] { return pair.nowMs > 3000; });
    pair.a.session->stop(QStringLiteral("switched off"), pair.nowMs);
    ASSERT_TRUE(pair.runToEnd(2000));
    EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("switched off"));
    EXPECT_EQ(pair.b.session->endReason(), QStringLiteral("the other side ended the session: switched off"));
}

TEST(Session, StopEndsEvenWhenNothingCanBeSent)
{
    SessionPair pair(testsupport::seed());
    pair.a.session->stop(QStringLiteral("off"), 1000);
    pair.a.session->advance(1299);
    EXPECT_FALSE(pair.a.session->isFinished());
    pair.a.session->advance(1300);
    EXPECT_TRUE(pair.a.session->isFinished());
}

TEST(Session, EndingReleasesTheQueue)
{
    LineOptions line;
    line.bytesPerStep = 100;
    SessionPair pair(testsupport::seed(), line);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(10000, 1));
    ASSERT_TRUE(pair.runUntil([&] { return pair.b.receivedBytes > 3000; }));
    EXPECT_FALSE(pair.a.store.hasUnclaimed(provedPeer(QString())));
    pair.a.session->connectionLost();
    EXPECT_TRUE(pair.a.store.hasUnclaimed(provedPeer(QString())));
}

// ---- what goes wrong at either end ----

TEST(Session, ARefusedMessageStaysAndTheOthersGo)
{
    SessionPair pair(testsupport::seed());
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

TEST(Session, AFullDiskInTheMiddleRefuses)
{
    LineOptions line;
    line.bytesPerStep = 500;
    SessionPair pair(testsupport::seed(), line);
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

TEST(Session, NotStoredIsNotAcknowledged)
{
    SessionPair pair(testsupport::seed());
    pair.b.store.storeError = QStringLiteral("cannot rename");
    pair.a.store.queue(QStringLiteral("f"), "x");
    ASSERT_TRUE(pair.runToEnd());
    EXPECT_EQ(pair.a.store.outgoing.size(), 1u);
    EXPECT_EQ(pair.a.store.failures,
              (QStringList{
                  QStringLiteral("f: 'Боб' refused it: it could not be stored there; that side's journal tells why")}));
}

// Where things stand on this machine's disk is nobody else's business.
TEST(Session, ARefusalNamesNoPlaceOfTheOtherMachine)
{
    for (QString hosttest::MemoryStore::*fault :
         {&hosttest::MemoryStore::appendError, &hosttest::MemoryStore::storeError}) {
        SessionPair pair(testsupport::seed());
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

TEST(Session, AnUnreadableCopyStaysQueuedAndTheOthersGo)
{
    SessionPair pair(testsupport::seed());
    pair.a.store.queue(QStringLiteral("f"), "x");
    pair.a.store.openError = QStringLiteral("permission denied");
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    EXPECT_EQ(pair.a.store.failures, (QStringList{QStringLiteral("f: permission denied")}));
}

TEST(Session, ACopyThatGotShorterIsBrokenOff)
{
    SessionPair pair(testsupport::seed());
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

TEST(Session, ACopyThatChangedIsNeverAccepted)
{
    SessionPair pair(testsupport::seed());
    pair.a.store.queue(QStringLiteral("f"), randomBytes(50000, 1));
    pair.a.store.outgoing[0].content[100] = static_cast<char>(pair.a.store.outgoing[0].content[100] ^ 4);
    ASSERT_TRUE(pair.runToEnd());
    expectBothEndedWell(pair);
    EXPECT_TRUE(pair.b.store.inbox.empty());
    EXPECT_TRUE(pair.b.store.standing.empty()) << "what is wrong does not stand";
    EXPECT_EQ(pair.a.store.outgoing.size(), 1u);
    EXPECT_EQ(pair.a.count(Kind::FileBegun), 2) << "tried once more";
}

// A line that changes data without telling: the session ends, the file does not arrive wrong.
TEST(Session, ADamagedStreamEndsTheSessionAndTheNextCallGoesOn)
{
    for (unsigned round = 0; round < 30; ++round) {
        LineOptions line;
        line.bytesPerStep = 800;
        SessionPair pair(testsupport::seed() + round, line);
        const QByteArray content = randomBytes(30000, round);
        pair.a.store.queue(QStringLiteral("f"), content);
        const qint64 at = 100 + 900 * round;
        qint64 seen = 0;
        pair.b.tamper = [&](const QByteArray& piece) {
            QByteArray changed = piece;
            if (seen <= at && at < seen + piece.size())
                changed[static_cast<int>(at - seen)] =
                    static_cast<char>(changed.at(static_cast<int>(at - seen)) ^ 0x10);
            seen += piece.size();
            return changed;
        };
        ASSERT_TRUE(pair.runToEnd());
        EXPECT_FALSE(pair.b.session->endedWell());
        EXPECT_TRUE(pair.b.store.inbox.empty());
        pair.b.tamper = nullptr;
        pair.connect(LineOptions());
        ASSERT_TRUE(pair.runToEnd());
        expectInbox(pair.b.store, {{QStringLiteral("f"), content}});
    }
}

TEST(Session, BytesRepeatedOrLeftOutEndTheSession)
{
    for (const bool repeat : {true, false}) {
        LineOptions line;
        line.bytesPerStep = 800;
        SessionPair pair(testsupport::seed(), line);
        pair.a.store.queue(QStringLiteral("f"), randomBytes(30000, 1));
        qint64 seen = 0;
        pair.b.tamper = [&](const QByteArray& piece) {
            const bool here = seen < 10000 && seen + piece.size() >= 10000;
            seen += piece.size();
            return here ? (repeat ? piece + piece : QByteArray()) : piece;
        };
        ASSERT_TRUE(pair.runToEnd());
        EXPECT_EQ(pair.b.session->endReason(), QStringLiteral("the data arrives damaged"));
    }
}

// ---- hostile and foreign peers ----

TEST(SessionPeer, GarbageEndsTheSession)
{
    SessionPair pair(testsupport::seed());
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
        SessionPair pair(testsupport::seed());
        Impostor peer(&pair.a);
        if (round % 2)
            peer.sayHelloAndState();
        pair.a.session->receive(randomBytes(5000, testsupport::seed() + round), 1000);
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
    std::mt19937 random(testsupport::seed());
    for (unsigned round = 0; round < 500; ++round) {
        SessionPair pair(testsupport::seed());
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
    SessionPair pair(testsupport::seed());
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
        SessionPair pair(testsupport::seed());
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
        SessionPair pair(testsupport::seed(), line);
        SessionPair::Side& blocking = blocksCaller ? pair.b : pair.a;
        SessionPair::Side& blocked = blocksCaller ? pair.a : pair.b;
        blocked.store.queue(QStringLiteral("begun"), randomBytes(60000, testsupport::seed()));
        blocking.store.queue(QStringLiteral("kept"), randomBytes(60000, testsupport::seed()));
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
    SessionPair pair(testsupport::seed());
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
    SessionPair pair(testsupport::seed());
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
    SessionPair pair(testsupport::seed());
    pair.a.settings.abonentName = QStringLiteral("Боб");
    pair.connect();
    ASSERT_TRUE(pair.runToEnd(5000));
    EXPECT_EQ(pair.b.session->peerName(), QStringLiteral("Alice"));
    EXPECT_EQ(pair.b.session->peer().claimedName, QStringLiteral("Боб"));
    EXPECT_TRUE(pair.b.session->peer().isProved);
}

TEST(SessionPeer, AnUnprovedCallerLeavesMessagesAndGetsNothing)
{
    SessionPair pair(testsupport::seed());
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

// Neither where our files lie nor how much is taken here.
TEST(SessionPeer, ARefusalTellsNothingOfOurDisk)
{
    for (const bool isProved : {true, false}) {
        for (const RefusalCode code : {RefusalCode::Failed, RefusalCode::NotAllowed, RefusalCode::NoRoom}) {
            SessionPair pair(testsupport::seed());
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

TEST(SessionPeer, AnUnprovedCallerMayNotFillTheJournalWithRefusals)
{
    SessionPair pair(testsupport::seed());
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

// One message is not acknowledged, and the peer says this and that and takes nothing more.
TEST(SessionPeer, WordsWithoutUseDoNotPutOffTheEndOfAStall)
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

TEST(SessionPeer, AnUnprovedCallerMayNotStayForEver)
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

TEST(SessionPeer, OurOwnKeyAtTheOtherEndIsNamed)
{
    SessionPair pair(testsupport::seed());
    pair.b.settings.identity = pair.a.settings.identity;
    pair.connect();
    ASSERT_TRUE(pair.runToEnd(5000));
    EXPECT_EQ(pair.a.session->end(), SessionEnd::SelfCall);
}

// A direction's frames, given back to who said them, at every moment of a session.
TEST(SessionPeer, WordsThatComeBackEndTheSession)
{
    for (int piece = 0; piece < 12; ++piece) {
        SessionPair pair(testsupport::seed());
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
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    peer.say(FrameType::State, StateFrame().encode());
    peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (opening)"));
}

TEST(SessionPeer, SecondHelloIsAViolation)
{
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    peer.hear();
    peer.sayHello();
    peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (opening)"));
}

TEST(SessionPeer, DataWithoutOfferOrBeyondTheEnd)
{
    {
        SessionPair pair(testsupport::seed());
        Impostor peer(&pair.a);
        peer.sayHelloAndState();
        peer.say(FrameType::Data, "x");
        peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (data)"));
    }
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    peer.say(FrameType::Offer, peer.offer("abc").encode());
    peer.say(FrameType::Data, "abcd");
    peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (data)"));
    EXPECT_TRUE(pair.a.store.inbox.empty());
}

TEST(SessionPeer, OfferInsideAnOffer)
{
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    peer.say(FrameType::Offer, peer.offer("abc").encode());
    peer.say(FrameType::Offer, peer.offer("abc").encode());
    peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (offer)"));
}

TEST(SessionPeer, OffsetWhereNothingStands)
{
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    OfferFrame offer = peer.offer("abcdef");
    offer.offset = 3;
    peer.say(FrameType::Offer, offer.encode());
    peer.expectEnded(QStringLiteral("the other side takes a message up where none stands"));
}

TEST(SessionPeer, AcknowledgementOfWhatWasNotSent)
{
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    pair.a.store.queue(QStringLiteral("f"), "x");
    peer.sayHelloAndState();
    peer.say(FrameType::Stored, encodeNumbers({5}));
    peer.expectEnded(QStringLiteral("the other side acknowledged what was not sent"));
    EXPECT_EQ(pair.a.store.outgoing.size(), 1u);
}

TEST(SessionPeer, WrongHashIsRefusedAndForgotten)
{
    SessionPair pair(testsupport::seed());
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

TEST(SessionPeer, AnswersThatNobodyTakesDoNotPileUp)
{
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    pair.a.store.refuseBegin = true;
    pair.a.store.beginRefusal.code = RefusalCode::NoRoom;
    pair.a.store.beginRefusal.reason = QString(400, QLatin1Char('n'));
    peer.sayHelloAndState();
    for (int i = 0; i < 10000; ++i)
        peer.say(FrameType::Offer, peer.offer(QByteArray()).encode());
    peer.expectEnded(QStringLiteral("the other side takes no answers"));
}

TEST(SessionPeer, AcknowledgementsThatNobodyTakesDoNotPileUp)
{
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    OfferFrame stored = peer.offer(QByteArray());
    pair.a.store.storedHashes[stored.messageId] = stored.sha256;
    peer.sayHelloAndState();
    for (int i = 0; i < 100001; ++i)
        peer.say(FrameType::Offer, stored.encode());
    peer.expectEnded(QStringLiteral("the other side takes no answers"));
}

TEST(SessionPeer, StateAfterStateIsAViolation)
{
    SessionPair pair(testsupport::seed());
    Impostor peer(&pair.a);
    peer.sayHelloAndState();
    peer.say(FrameType::State, StateFrame().encode());
    peer.expectEnded(QStringLiteral("the other side does not keep to the protocol (state)"));
}

// State frames without end, all of them well-formed and about messages that we never had.
TEST(SessionPeer, StatesWithoutEndTakeNoMemory)
{
    SessionPair pair(testsupport::seed());
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

TEST(Session, ALongListOfStoredMessagesComesInSeveralFrames)
{
    SessionPair pair(testsupport::seed());
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
TEST(Session, AcknowledgementsAreSettledMeanwhile)
{
    LineOptions slow;
    slow.bytesPerStep = 30;
    SessionPair pair(testsupport::seed(), slow);
    for (int i = 0; i < 200; ++i)
        pair.a.store.queue(QString::number(i), randomBytes(200, 1));
    ASSERT_TRUE(pair.runUntil([&] { return pair.b.store.inbox.size() > 150; }));
    EXPECT_LT(pair.b.store.unsettledIds.size(), 130u);
    EXPECT_GT(pair.b.store.unsettledIds.size(), 0u);
}
