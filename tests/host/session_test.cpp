#include "host/session/session.h"
#include "rig/testroot.h"
#include "tests/host/sessionexpectations.h"

#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;
using namespace rig;
using Kind = SessionEvent::Kind;

// ---- whole sessions ----

TEST(Session, NothingToSendEndsAtOnce)
{
    SessionPair pair(rig::seed());
    ASSERT_TRUE(pair.runToEnd(1000));
    expectBothEndedWell(pair);
    EXPECT_EQ(pair.a.session->peerName(), QStringLiteral("Боб"));
    EXPECT_EQ(pair.b.session->peerName(), QStringLiteral("Alice"));
    EXPECT_FALSE(pair.a.session->wasUseful());
    EXPECT_FALSE(pair.b.session->wasUseful());
}

TEST(Session, FilesOfManySizesBothWaysAtOnce)
{
    SessionPair pair(rig::seed());
    std::vector<std::pair<QString, QByteArray>> fromA;
    std::vector<std::pair<QString, QByteArray>> fromB;
    for (const int size : {0, 1, 1023, 1024, 1025, 16384, 300000}) {
        fromA.emplace_back(QStringLiteral("a%1").arg(size),
                           randomBytes(size, rig::seed() + static_cast<unsigned>(size)));
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
    SessionPair pair(rig::seed(), slow);
    pair.a.store.queue(QStringLiteral("a"), randomBytes(50000, 1));
    pair.b.store.queue(QStringLiteral("b"), randomBytes(50000, 2));
    ASSERT_TRUE(pair.runUntil([&] { return pair.a.receivedBytes > 25000; }));
    EXPECT_GT(pair.b.receivedBytes, 20000);
    ASSERT_TRUE(pair.runToEnd());
}

TEST(Session, NamesInAnyLanguage)
{
    SessionPair pair(rig::seed());
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

// ---- broken calls ----

TEST(Session, ABrokenCallIsTakenUpWhereItStopped)
{
    LineOptions line;
    line.bytesPerStep = 1000;
    line.cutAfterBytes = 60000;
    SessionPair pair(rig::seed(), line);
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
        SessionPair pair(rig::seed() + static_cast<unsigned>(cut), line);
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
    SessionPair pair(rig::seed());
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

// ---- keeping and stopping ----

TEST(Session, KeepAliveHoldsTheConnection)
{
    SessionPair pair(rig::seed());
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
    SessionPair pair(rig::seed(), slow);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(10000, 1));
    ASSERT_TRUE(pair.runUntil([&] { return pair.b.receivedBytes > 5000; }));
    pair.b.session->setKeepAlive(true);
    EXPECT_FALSE(pair.runToEnd(60000));
    EXPECT_EQ(pair.a.count(Kind::FileDelivered), 1);
}

TEST(Session, StopTellsThePeer)
{
    SessionPair pair(rig::seed());
    pair.a.session->setKeepAlive(true);
    pair.runUntil([&] { return pair.nowMs > 3000; });
    pair.a.session->stop(QStringLiteral("switched off"), pair.nowMs);
    ASSERT_TRUE(pair.runToEnd(2000));
    EXPECT_EQ(pair.a.session->endReason(), QStringLiteral("switched off"));
    EXPECT_EQ(pair.b.session->endReason(), QStringLiteral("the other side ended the session: switched off"));
}

TEST(Session, StopEndsEvenWhenNothingCanBeSent)
{
    SessionPair pair(rig::seed());
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
    SessionPair pair(rig::seed(), line);
    pair.a.store.queue(QStringLiteral("f"), randomBytes(10000, 1));
    ASSERT_TRUE(pair.runUntil([&] { return pair.b.receivedBytes > 3000; }));
    EXPECT_FALSE(pair.a.store.hasUnclaimed(provedPeer(QString())));
    pair.a.session->connectionLost();
    EXPECT_TRUE(pair.a.store.hasUnclaimed(provedPeer(QString())));
}

// ---- what goes wrong at either end ----

// A line that changes data without telling: the session ends, the file does not arrive wrong.
TEST(Session, ADamagedStreamEndsTheSessionAndTheNextCallGoesOn)
{
    for (unsigned round = 0; round < 30; ++round) {
        LineOptions line;
        line.bytesPerStep = 800;
        SessionPair pair(rig::seed() + round, line);
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
        SessionPair pair(rig::seed(), line);
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
