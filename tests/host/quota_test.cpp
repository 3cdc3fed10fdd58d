// How much of the disk messages may take.
#include "tests/host/fakevolume.h"
#include "tests/host/inboxfixture.h"

using namespace host;
using namespace hosttest;
using namespace rig;

class Quota : public InboxFixture
{
protected:
    Quota()
    {
        limits.ofAbonent = {1000, 5, 100};
        limits.ofUnproved = {300, 3, 100};
        limits.ofAll = {3000, 8, 200};
    }

    ~Quota() override
    {
        fakeFreeBytes = -1;
        fakeFreeInodes = -1;
    }

    OfferFrame offer(qint64 bytes)
    {
        return offerOf(++m_lastId, QStringLiteral("f"), QByteArray(static_cast<int>(bytes), 'x'));
    }

    bool receives(MessageStore* store, const Peer& peer, qint64 bytes)
    {
        const OfferFrame one = offer(bytes);
        return receiveWhole(store, peer, one, QByteArray(static_cast<int>(bytes), 'x')).endsWith(QStringLiteral("/f"));
    }

    bool isTaken(MessageStore* store, const Peer& peer, qint64 bytes)
    {
        m_held.push_back(store->inbox().begin(peer, offer(bytes), &refused));
        return m_held.back() != nullptr;
    }

    void takeOut(const QString& key) { ASSERT_EQ(removeDirectory(paths.input.absoluteFilePath(key)), QString()); }

    InboxLimits limits;
    const Peer carol = provedPeer(QStringLiteral("Carol"));
    std::vector<std::unique_ptr<IncomingFile>> m_held;

private:
    quint64 m_lastId = 100;
};

TEST_F(Quota, AStubDoesNotSlipPastTheSizeLimit)
{
    limits.maxMessageBytes = 1000;
    limits.ofAbonent.bytes = 100000;
    const auto store = open(limits);
    const OfferFrame stub = offerOf(7, QStringLiteral("f"), QByteArray(10, 'x'));
    const auto file = store->inbox().begin(bob, stub, &refused);
    ASSERT_EQ(file->append(QByteArray(10, 'x')), QString());
    auto parts = store->inbox().parts(bob);
    OfferFrame grown = stub; // the same hash, and 5000 bytes all of a sudden
    grown.size = 5000;
    EXPECT_FALSE(resume(parts[0].get(), grown, 10, &refused));
    EXPECT_EQ(file->append("x"), QStringLiteral("more arrives than was announced"));
}

TEST_F(Quota, TheLimitOfTodayCountsForPartsOfYesterday)
{
    const QByteArray content(900, 'x');
    {
        const auto store = open(limits);
        ASSERT_EQ(
            store->inbox().begin(bob, offerOf(7, QStringLiteral("f"), content), &refused)->append(content.left(10)),
            QString());
    }
    limits.maxMessageBytes = 800;
    const auto store = open(limits);
    auto parts = store->inbox().parts(bob);
    ASSERT_EQ(parts.size(), 1u);
    EXPECT_FALSE(resume(parts[0].get(), offerOf(7, QStringLiteral("f"), content), 10, &refused));
    EXPECT_EQ(refused.code, RefusalCode::NotAllowed);
    EXPECT_EQ(refused.reason, QStringLiteral("it has 900 bytes, more than the 800 that are allowed here"));
}

TEST_F(Quota, TheDisksReserveIsAskedOnEachTakingUpAndWhileWriting)
{
    limits = InboxLimits();
    limits.keepFreeBytes = 1000000;
    const auto store = open(limits);
    const QByteArray content(4000000, 'x');
    const OfferFrame whole = offerOf(7, QStringLiteral("f"), content);
    fakeFreeBytes = 4999999;
    EXPECT_EQ(store->inbox().begin(bob, whole, &refused), nullptr);
    EXPECT_EQ(refused.code, RefusalCode::NoRoom);
    EXPECT_EQ(refused.reason, QStringLiteral("the disk is full: 4000000 bytes are needed, 3999999 are free"));
    EXPECT_EQ(partNames(), QStringList());
    fakeFreeBytes = 5000000;
    auto file = store->inbox().begin(bob, whole, &refused);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->append(content.left(1000)), QString());
    // Somebody else fills it now.
    fakeFreeBytes = 1000000;
    QString error;
    int pieces = 0;
    for (; pieces < 100 && error.isEmpty(); ++pieces)
        error = file->append(content.left(20000));
    EXPECT_EQ(error, QStringLiteral("the disk is full"));
    EXPECT_LE(pieces, 60) << "asked each MiB";
    file.reset();
    auto parts = store->inbox().parts(bob);
    EXPECT_FALSE(resume(parts[0].get(), whole, 1000, &refused));
    EXPECT_EQ(refused.reason, QStringLiteral("the disk is full: 3999000 bytes are needed, 0 are free"));
    fakeFreeBytes = 4999000;
    EXPECT_TRUE(resume(parts[0].get(), whole, 1000, &refused)) << qPrintable(refused.reason);
}

TEST_F(Quota, WhatWasPromisedToOneIsNotGivenToAnother)
{
    limits = InboxLimits();
    limits.keepFreeBytes = 0;
    const auto store = open(limits);
    fakeFreeBytes = 1000;
    EXPECT_TRUE(isTaken(store.get(), bob, 600));
    EXPECT_FALSE(isTaken(store.get(), carol, 600));
    EXPECT_TRUE(isTaken(store.get(), carol, 400));
}

// The same message once more, by a call that takes it over.
TEST_F(Quota, WhatWasPromisedToACallThatIsReplacedIsFree)
{
    limits = InboxLimits();
    limits.keepFreeBytes = 0;
    const auto store = open(limits);
    fakeFreeBytes = 1000;
    const OfferFrame one = offer(600);
    const auto earlier = store->inbox().begin(bob, one, &refused);
    ASSERT_TRUE(earlier) << qPrintable(refused.reason);
    EXPECT_TRUE(store->inbox().begin(bob, one, &refused)) << qPrintable(refused.reason);
}

TEST_F(Quota, AnUnprovedPeerLearnsNothingOfTheDisk)
{
    const auto store = open(limits);
    fakeFreeBytes = 0;
    EXPECT_FALSE(isTaken(store.get(), unprovedPeer('a'), 1));
    EXPECT_EQ(refused.code, RefusalCode::NoRoom);
    EXPECT_EQ(refused.reason, QStringLiteral("there is no room for it here"));
}

TEST_F(Quota, InodesOfTheVolumeHaveAReserve)
{
    const auto store = open(limits);
    fakeFreeInodes = limits.keepFreeInodes + inodesOfMessage - 1;
    EXPECT_FALSE(isTaken(store.get(), bob, 1));
    EXPECT_EQ(refused.code, RefusalCode::NoRoom);
    EXPECT_EQ(refused.reason, QStringLiteral("the disk is full: it holds no more files"));
    fakeFreeInodes = limits.keepFreeInodes + inodesOfMessage;
    EXPECT_TRUE(isTaken(store.get(), bob, 1));
}

TEST_F(Quota, EachAbonentHasItsOwnShare)
{
    const auto store = open(limits);
    EXPECT_TRUE(receives(store.get(), bob, 300));
    const Share one = store->inbox().usage().abonents.first().used;
    EXPECT_EQ(one.bytes, 300);
    EXPECT_EQ(one.messages, 1);
    EXPECT_EQ(one.inodes, inodesOfMessage);
    EXPECT_FALSE(isTaken(store.get(), bob, 701));
    EXPECT_EQ(refused.code, RefusalCode::NoRoom);
    EXPECT_EQ(refused.reason,
              QStringLiteral("too much from this sender waits in the inbox: there is room when it is taken out"));
    EXPECT_TRUE(isTaken(store.get(), bob, 700));
    EXPECT_FALSE(isTaken(store.get(), bob, 1)) << "what is being received counts as announced";
    EXPECT_TRUE(isTaken(store.get(), carol, 1000)) << "another's share is untouched";
}

TEST_F(Quota, WhatTheUserTakesOutIsFreeAtOnce)
{
    const auto store = open(limits);
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(receives(store.get(), bob, 0));
    EXPECT_FALSE(isTaken(store.get(), bob, 0)) << "five messages";
    takeOut(QStringLiteral("00000003"));
    EXPECT_TRUE(isTaken(store.get(), bob, 0));
    EXPECT_FALSE(isTaken(store.get(), bob, 0));
}

TEST_F(Quota, WhatStandsCountsAfterARestart)
{
    {
        const auto store = open(limits);
        for (int i = 0; i < 4; ++i)
            ASSERT_TRUE(receives(store.get(), bob, 0));
        EXPECT_TRUE(isTaken(store.get(), bob, 500));
        m_held.clear();
    }
    const auto store = open(limits);
    EXPECT_TRUE(receives(store.get(), bob, 0)) << "the part gives way";
    EXPECT_EQ(partNames(), QStringList());
    EXPECT_FALSE(isTaken(store.get(), bob, 0));
}

TEST_F(Quota, NothingGivesWayInVain)
{
    const auto store = open(limits);
    EXPECT_TRUE(isTaken(store.get(), bob, 500));
    m_held.clear();
    EXPECT_FALSE(isTaken(store.get(), bob, 1001));
    EXPECT_EQ(partNames().size(), 1);
}

TEST_F(Quota, InodesOfAnAbonentAreLimited)
{
    limits.ofAbonent.inodes = 2 * inodesOfMessage;
    const auto store = open(limits);
    EXPECT_TRUE(receives(store.get(), bob, 0));
    EXPECT_TRUE(receives(store.get(), bob, 0));
    EXPECT_FALSE(isTaken(store.get(), bob, 0));
    EXPECT_TRUE(isTaken(store.get(), carol, 0));
}

TEST_F(Quota, AllUnprovedPeersShareOneSmallPool)
{
    const auto store = open(limits);
    for (const char seed : {'a', 'b', 'c'})
        EXPECT_TRUE(isTaken(store.get(), unprovedPeer(seed), 0));
    EXPECT_FALSE(isTaken(store.get(), unprovedPeer('d'), 0));
    EXPECT_EQ(refused.reason, QStringLiteral("there is no room for it here")) << "it learns nothing";
    m_held.clear();
    EXPECT_FALSE(isTaken(store.get(), unprovedPeer('d'), 301));
    EXPECT_TRUE(isTaken(store.get(), unprovedPeer('d'), 300)) << "parts that nobody receives give way";
    EXPECT_TRUE(isTaken(store.get(), bob, 1000)) << "an abonent is not concerned";
}

// Each look is a walk through the whole inbox, under the lock of all sessions.
TEST_F(Quota, AStrangerDoesNotMakeTheInboxBeCountedForEachOffer)
{
    limits.strangersCountMs = 3600 * 1000;
    {
        const auto store = open(limits);
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(receives(store.get(), unprovedPeer('a'), 0));
        takeOut(QStringLiteral("00000001"));
        EXPECT_FALSE(isTaken(store.get(), unprovedPeer('b'), 0)) << "it was counted at the start";
        EXPECT_EQ(refused.code, RefusalCode::NoRoom);
        // An abonent learns at once what the user has taken out, and then so do they.
        for (int i = 0; i < 5; ++i)
            ASSERT_TRUE(receives(store.get(), bob, 0));
        EXPECT_FALSE(isTaken(store.get(), bob, 0));
        EXPECT_TRUE(isTaken(store.get(), unprovedPeer('b'), 0));
        EXPECT_FALSE(isTaken(store.get(), unprovedPeer('b'), 0));
        m_held.clear();
    }
    limits.strangersCountMs = 0;
    const auto store = open(limits);
    ASSERT_TRUE(receives(store.get(), unprovedPeer('a'), 0));
    takeOut(QStringLiteral("00000002"));
    EXPECT_TRUE(isTaken(store.get(), unprovedPeer('b'), 0)) << "counted again after that time";
}

TEST_F(Quota, AllTogetherAreLimited)
{
    limits.ofAll = {1000000, 7, 200};
    const auto store = open(limits);
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(receives(store.get(), bob, 0));
    ASSERT_TRUE(receives(store.get(), carol, 0));
    EXPECT_TRUE(isTaken(store.get(), carol, 0));
    EXPECT_FALSE(isTaken(store.get(), provedPeer(QStringLiteral("Dave")), 0));
    EXPECT_EQ(refused.reason, QStringLiteral("the inbox is full: there is room when messages are taken out"));
}

TEST_F(Quota, UsageIsSeenByAnotherProgram)
{
    const auto store = open(limits);
    ASSERT_TRUE(receives(store.get(), carol, 30));
    ASSERT_TRUE(receives(store.get(), unprovedPeer('a'), 20));
    const auto file = store->inbox().begin(bob, offer(200), &refused);
    ASSERT_EQ(file->append(QByteArray(50, 'x')), QString());
    fakeFreeBytes = 12345;
    fakeFreeInodes = 678;
    const InboxUsage usage = Inbox(paths.input, paths.incomplete, paths.receivedList, limits).usage();
    ASSERT_EQ(usage.abonents.size(), 2);
    QHash<QString, Share> of;
    for (const InboxUsage::AbonentShare& share : usage.abonents)
        of.insert(share.abonent, share.used);
    EXPECT_EQ(of.value(bob.abonent).messages, 1);
    EXPECT_EQ(of.value(bob.abonent).bytes, 50);
    EXPECT_EQ(of.value(carol.abonent).messages, 1);
    EXPECT_EQ(usage.unproved.messages, 1);
    EXPECT_EQ(usage.all.messages, 3);
    EXPECT_EQ(usage.all.inodes, 3 * inodesOfMessage);
    EXPECT_EQ(usage.all.bytes, 50 + 30 + 20);
    EXPECT_EQ(usage.limits.ofUnproved.bytes, 300);
    EXPECT_EQ(usage.room.freeBytes, 12345);
    EXPECT_EQ(usage.room.freeInodes, 678);
}
