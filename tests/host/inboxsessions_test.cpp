// Several sessions at one inbox: whose a part is at each moment, whoever comes in between.
#include "tests/host/inboxfixture.h"
#include "tests/host/sessionpair.h"
#include "tests/support/systemcalls.h"

using namespace host;
using namespace hosttest;
using namespace rig;
using testsupport::SystemCall;
using testsupport::SystemCallWatch;

class InboxSessions : public InboxFixture
{
protected:
    const QByteArray content = randomBytes(900, 1);
    const OfferFrame offer = offerOf(7, QStringLiteral("f"), content);
};

// Between any two steps of storing that hold no lock, another session tries all it can.
TEST_F(InboxSessions, APartThatIsBeingStoredBelongsToNobody)
{
    const auto store = open();
    const auto file = store->inbox().begin(bob, offer, &refused);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->append(content), QString());
    auto earlier = store->inbox().parts(bob); // as a session that has already hashed it
    ASSERT_EQ(earlier.size(), 1u);
    int tries = 0;
    QString place;
    {
        const std::string incomplete = paths.incomplete.absolutePath().toStdString();
        SystemCallWatch watch(incomplete + '/', [&](SystemCall& call) {
            if (call.name != "fsync" && call.name != "rename")
                return 0;
            if (call.name == "rename" && call.target.find("/input/") != std::string::npos)
                return 0; // the last step, under the lock
            ++tries;
            RefusedFrame why;
            EXPECT_EQ(store->inbox().begin(bob, offer, &why), nullptr);
            EXPECT_EQ(why.reason, QStringLiteral("another call is just putting it into the inbox"));
            EXPECT_EQ(store->inbox().begin(bob, offerOf(7, QStringLiteral("g"), "other"), &why), nullptr);
            EXPECT_FALSE(resume(earlier[0].get(), offer, 100, &why));
            EXPECT_EQ(why.reason, QStringLiteral("another call is just putting it into the inbox"));
            EXPECT_TRUE(store->inbox().parts(bob).empty());
            earlier[0]->discard();
            return 0;
        });
        EXPECT_EQ(file->store(offer, &place), QString());
    }
    EXPECT_GE(tries, 3) << "content, record, its renaming";
    EXPECT_EQ(readAll(place), content);
    EXPECT_TRUE(store->inbox().isStored(bob, 7, offer.sha256));
    EXPECT_FALSE(resume(earlier[0].get(), offer, 100, &refused));
    EXPECT_EQ(readAll(place), content) << "the inbox's file is nobody's part";
}

TEST_F(InboxSessions, AStaleHashResumesNothing)
{
    const auto store = open();
    const auto first = store->inbox().begin(bob, offer, &refused);
    ASSERT_EQ(first->append(content.left(400)), QString());
    auto stale = store->inbox().parts(bob);
    ASSERT_EQ(stale.size(), 1u);
    // Another session begins the file anew, with other content up to the same place.
    const auto second = store->inbox().begin(bob, offer, &refused);
    ASSERT_TRUE(second);
    ASSERT_EQ(second->append(QByteArray(400, 'x')), QString());
    OfferFrame rest = offer;
    rest.offset = 400;
    EXPECT_FALSE(stale[0]->resume(rest, &refused));
    EXPECT_EQ(refused.code, RefusalCode::WrongHash) << "the sender begins anew";
    EXPECT_EQ(refused.reason, QStringLiteral("what stood of it has changed meanwhile"));
    EXPECT_EQ(second->append("y"), QString()) << "and takes nothing away";
}

TEST_F(InboxSessions, AShorterPartIsNotFilledUp)
{
    const auto store = open();
    ASSERT_EQ(store->inbox().begin(bob, offer, &refused)->append(content.left(300)), QString());
    auto parts = store->inbox().parts(bob);
    ASSERT_EQ(parts.size(), 1u);
    ASSERT_TRUE(QFile::resize(paths.incomplete.absoluteFilePath(QStringLiteral("00000001/f")), 200));
    EXPECT_FALSE(resume(parts[0].get(), offer, 300, &refused));
    EXPECT_EQ(refused.code, RefusalCode::WrongHash) << "the sender begins anew";
    EXPECT_EQ(readAll(paths.incomplete.absoluteFilePath(QStringLiteral("00000001/f"))), content.left(200));
}

TEST_F(InboxSessions, APartOfAnotherFileIsNotGoneOnWith)
{
    const auto store = open();
    ASSERT_EQ(store->inbox().begin(bob, offer, &refused)->append(content.left(300)), QString());
    OfferFrame grown = offer; // the same hash, which only the whole would belie
    grown.size += 100;
    for (const OfferFrame& other : {offerOf(7, QStringLiteral("f"), randomBytes(900, 2)),
                                    offerOf(7, QStringLiteral("f"), content + 'x'), grown}) {
        auto parts = store->inbox().parts(bob);
        ASSERT_EQ(parts.size(), 1u);
        EXPECT_FALSE(resume(parts[0].get(), other, 300, &refused));
        EXPECT_EQ(refused.code, RefusalCode::WrongHash);
    }
    auto parts = store->inbox().parts(bob);
    EXPECT_TRUE(resume(parts[0].get(), offer, 300, &refused)) << qPrintable(refused.reason);
}

// After a failed sync the system may have forgotten what was written, and a later sync
// succeeds all the same.
TEST_F(InboxSessions, WhatCouldNotBeSyncedIsNotGoneOnWith)
{
    const auto store = open();
    const auto file = store->inbox().begin(bob, offer, &refused);
    ASSERT_EQ(file->append(content), QString());
    QString place;
    {
        SystemCallWatch watch(paths.incomplete.absolutePath().toStdString(),
                              [](SystemCall& call) { return call.name == "fsync" ? EIO : 0; });
        EXPECT_TRUE(file->store(offer, &place).startsWith(QStringLiteral("cannot write ")));
    }
    EXPECT_FALSE(store->inbox().isStored(bob, 7, offer.sha256));
    EXPECT_TRUE(store->inbox().parts(bob).empty());
    EXPECT_EQ(partNames(), QStringList());
    EXPECT_TRUE(receiveWhole(store.get(), bob, offer, content).endsWith(QStringLiteral("00000001/f")));
}

// A message under the same identifier is another call's from then on.
TEST_F(InboxSessions, WhoHasStoredHoldsNothingAnyMore)
{
    const auto store = open();
    const auto first = store->inbox().begin(bob, offer, &refused);
    ASSERT_EQ(first->append(content), QString());
    QString place;
    ASSERT_EQ(first->store(offer, &place), QString());
    const auto second = store->inbox().begin(bob, offerOf(7, QStringLiteral("g"), "another"), &refused);
    ASSERT_TRUE(second) << qPrintable(refused.reason);
    first->discard();
    EXPECT_NE(first->append("x"), QString());
    EXPECT_EQ(partNames().size(), 1);
    ASSERT_EQ(second->append("another"), QString());
    EXPECT_EQ(second->store(offerOf(7, QStringLiteral("g"), "another"), &place), QString());
    EXPECT_EQ(readAll(place), QByteArray("another"));
}

// Between a session's question whether it is stored and its beginning another stores it.
TEST_F(InboxSessions, WhatWasStoredMeanwhileDoesNotComeTwice)
{
    const auto store = open();
    ASSERT_FALSE(store->inbox().isStored(bob, 7, offer.sha256));
    ASSERT_TRUE(receiveWhole(store.get(), bob, offer, content).endsWith(QStringLiteral("/f")));
    EXPECT_EQ(store->inbox().begin(bob, offer, &refused), nullptr);
    EXPECT_EQ(refused.reason, QStringLiteral("another call has just put it into the inbox"));
    EXPECT_TRUE(receiveWhole(store.get(), bob, offerOf(7, QStringLiteral("f"), "another"), "another")
                    .endsWith(QStringLiteral("/f")));
}

TEST_F(InboxSessions, TheIdentifierZeroIsRefused)
{
    const auto store = open();
    EXPECT_EQ(store->inbox().begin(bob, offerOf(0, QStringLiteral("f"), "x"), &refused), nullptr);
    EXPECT_EQ(refused.code, RefusalCode::NotAllowed);
    EXPECT_EQ(partNames(), QStringList());
}

// Two peers may use one identifier; nobody sees or touches what is another's.
TEST_F(InboxSessions, PeersDoNotMeet)
{
    const Peer stranger = unprovedPeer('s');
    const Peer another = unprovedPeer('t');
    Peer pretender = unprovedPeer('u');
    pretender.abonent = bob.abonent;
    pretender.claimedName = bob.abonent;
    for (const bool afterRestart : {false, true}) {
        const auto store = open();
        if (!afterRestart) {
            for (const Peer& peer : {bob, stranger, another})
                ASSERT_EQ(store->inbox().begin(peer, offer, &refused)->append(content.left(10)), QString());
        }
        for (const Peer& peer : {bob, stranger, another})
            EXPECT_EQ(store->inbox().parts(peer).size(), 1u);
        EXPECT_TRUE(store->inbox().parts(pretender).empty());
        EXPECT_EQ(partNames().size(), 3);
    }
    const auto store = open();
    auto parts = store->inbox().parts(stranger);
    ASSERT_TRUE(resume(parts[0].get(), offer, 10, &refused));
    ASSERT_EQ(parts[0]->append(content.mid(10)), QString());
    QString place;
    ASSERT_EQ(parts[0]->store(offer, &place), QString());
    for (const bool afterRestart : {false, true}) {
        const auto looked = afterRestart ? open() : nullptr;
        MessageStore* const inUse = afterRestart ? looked.get() : store.get();
        EXPECT_TRUE(inUse->inbox().isStored(stranger, 7, offer.sha256));
        EXPECT_EQ(inUse->inbox().unsettled(stranger), (QVector<quint64>{7}));
        for (const Peer& peer : {bob, another, pretender}) {
            EXPECT_FALSE(inUse->inbox().isStored(peer, 7, offer.sha256));
            EXPECT_TRUE(inUse->inbox().unsettled(peer).isEmpty());
            inUse->inbox().settle(peer, {7});
        }
        EXPECT_EQ(inUse->inbox().unsettled(stranger), (QVector<quint64>{7})) << "settled by nobody else";
    }
    const QVector<ReceivedMessage> messages = store->inbox().messages();
    ASSERT_EQ(messages.size(), 1);
    EXPECT_FALSE(messages.first().isProved);
    EXPECT_EQ(messages.first().publicKey, stranger.publicKey);
    EXPECT_EQ(messages.first().abonent, stranger.abonent);
}

TEST_F(InboxSessions, AnUnprovedPeerGetsNoQueue)
{
    const auto store = open();
    const QString source = writeFile(rig::installRoot() + QStringLiteral("/source"), "x");
    ASSERT_EQ(store->queue().enqueue(bob.abonent, source), QString());
    store->queue().rescan();
    Peer pretender = unprovedPeer('u');
    pretender.abonent = bob.abonent;
    const int session = 1;
    EXPECT_FALSE(store->queue().hasUnclaimed(pretender));
    EXPECT_FALSE(store->queue().claimNext(pretender, &session));
    EXPECT_TRUE(store->queue().queuedIds(pretender).isEmpty());
    EXPECT_TRUE(store->queue().hasUnclaimed(bob));
    EXPECT_TRUE(store->queue().claimNext(bob, &session));
}

TEST_F(InboxSessions, APeerIsToldOfItsOwnQueueOnly)
{
    const auto store = open();
    const Peer carol = provedPeer(QStringLiteral("Carol"));
    const QString source = writeFile(rig::installRoot() + QStringLiteral("/source"), "x");
    QueuedMessage forBob;
    QueuedMessage forCarol;
    ASSERT_EQ(store->queue().enqueue(bob.abonent, source, &forBob), QString());
    ASSERT_EQ(store->queue().enqueue(carol.abonent, source, &forCarol), QString());
    store->queue().rescan();
    EXPECT_EQ(store->queue().queuedIds(bob), QSet<quint64>{forBob.id});
    EXPECT_EQ(store->queue().queuedIds(carol), QSet<quint64>{forCarol.id});
}

// The disk is full: the message can neither be listed as received nor be marked as not received.
// Its record still says that it is whole, until there is room again.
class StaleRecord : public InboxSessions
{
protected:
    static int failMoving(const SystemCall& call)
    {
        return call.name == "rename" && call.target.find("/input/") != std::string::npos ? EIO : 0;
    }

    bool isOfList(const SystemCall& call) const { return call.path == paths.receivedList.toStdString(); }

    // Answers the store in which it happened.
    std::unique_ptr<MessageStore> leaveVerified()
    {
        auto store = open();
        const auto file = store->inbox().begin(bob, offer, &refused);
        EXPECT_EQ(file->append(content), QString());
        bool isFull = false;
        SystemCallWatch watch(rig::installRoot().toStdString() + "/i", [&](SystemCall& call) {
            isFull = isFull || isOfList(call);
            return isFull ? ENOSPC : 0;
        });
        QString place;
        EXPECT_NE(file->store(offer, &place), QString());
        return store;
    }
};

TEST_F(StaleRecord, VouchesForNothingThatWasWrittenSince)
{
    {
        const auto store = leaveVerified();
        const auto file = store->inbox().begin(bob, offer, &refused);
        if (file) {
            EXPECT_EQ(file->append(content.left(100)), QString());
        }
    }
    const auto store = open();
    for (const ReceivedMessage& message : store->inbox().messages())
        EXPECT_EQ(readAll(message.path), content);
}

TEST_F(StaleRecord, BringsNoSecondCopy)
{
    leaveVerified().reset();
    std::unique_ptr<MessageStore> store;
    {
        SystemCallWatch watch(rig::installRoot().toStdString() + "/i",
                              [](SystemCall& call) { return failMoving(call); });
        store = open();
    }
    const QString place = receiveWhole(store.get(), bob, offer, content);
    EXPECT_TRUE(place.endsWith(QStringLiteral("/f"))) << place.toStdString() << notes.join(' ').toStdString();
    store = open();
    EXPECT_EQ(store->inbox().messages().size(), 1);
    EXPECT_TRUE(partNames().isEmpty());
}
