#include "host/session/session.h"
#include "host/store/inbox.h"
#include "rig/host/sealedpeer.h"
#include "tests/host/inboxfixture.h"
#include "tests/host/sessionpair.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QJsonDocument>
#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace host;
using namespace hosttest;
using namespace rig;

class InboxTest : public InboxFixture
{
};

// Its acknowledgement was lost, and meanwhile its sender's key has become known here.
TEST_F(InboxTest, WhatAStrangerSentIsNotStoredAgainOnceItIsKnown)
{
    const auto store = open();
    const Peer stranger = unprovedPeer('s');
    const OfferFrame offer = offerOf(7, QStringLiteral("f"), "content");
    receiveWhole(store.get(), stranger, offer, "content");
    Peer known = bob;
    known.publicKey = stranger.publicKey;
    EXPECT_TRUE(store->inbox().isStored(known, 7, offer.sha256));
    known.publicKey = unprovedPeer('t').publicKey;
    EXPECT_FALSE(store->inbox().isStored(known, 7, offer.sha256));
}

TEST_F(InboxTest, AWholeMessageAppearsWithItsRecord)
{
    const auto store = open();
    const OfferFrame offer = offerOf(7, QStringLiteral("Отчёт за май.txt"), "content");
    const QString place = receiveWhole(store.get(), bob, offer, "content");
    EXPECT_EQ(place, paths.input.absoluteFilePath(QStringLiteral("00000001/Отчёт за май.txt")));
    EXPECT_EQ(readAll(place), QByteArray("content"));
    EXPECT_EQ(QFileInfo(place).lastModified().toSecsSinceEpoch(), 1000000000);
    EXPECT_EQ(partNames(), QStringList());
    EXPECT_TRUE(store->inbox().isStored(bob, 7, offer.sha256));
    EXPECT_FALSE(store->inbox().isStored(bob, 7, QByteArray(32, 'x')));
    EXPECT_FALSE(store->inbox().isStored(bob, 8, offer.sha256));
    EXPECT_EQ(store->inbox().unsettled(provedPeer(QStringLiteral("БОБ"))), (QVector<quint64>{7}));
    EXPECT_EQ(store->inbox().unsettled(provedPeer(QStringLiteral("Carol"))), QVector<quint64>());
    const QVector<ReceivedMessage> messages = store->inbox().messages();
    ASSERT_EQ(messages.size(), 1);
    EXPECT_EQ(messages.first().abonent, bob.abonent);
    EXPECT_EQ(messages.first().fileName, offer.fileName);
    EXPECT_EQ(messages.first().path, place);
    EXPECT_EQ(messages.first().size, 7);
    EXPECT_EQ(messages.first().sha256, offer.sha256);
}

TEST_F(InboxTest, NothingIsInTheInboxBeforeItIsWhole)
{
    const auto store = open();
    const auto file = store->inbox().begin(bob, offerOf(7, QStringLiteral("f"), "content"), &refused);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->append("cont"), QString());
    EXPECT_EQ(store->inbox().messages().size(), 0);
    EXPECT_EQ(paths.input.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    EXPECT_EQ(readAll(paths.incomplete.absoluteFilePath(QStringLiteral("00000001/f"))), QByteArray("cont"));
}

TEST_F(InboxTest, HostileNamesStayInside)
{
    const auto store = open();
    quint64 id = 1;
    for (const QString& name :
         {QStringLiteral("../../../evil"), QStringLiteral(".message"), QStringLiteral("/etc/passwd"),
          QStringLiteral(".."), QString(2000, QChar(0x0416)).left(500), QString(), QStringLiteral("a\nb")}) {
        const QString place = receiveWhole(store.get(), bob, offerOf(id, name, "x"), "x");
        EXPECT_EQ(QFileInfo(place).absolutePath(),
                  paths.input.absoluteFilePath(QString::number(id).rightJustified(8, QLatin1Char('0'))))
            << qPrintable(place);
        EXPECT_EQ(readAll(place), QByteArray("x"));
        ++id;
    }
    EXPECT_FALSE(QFile::exists(rig::installRoot() + QStringLiteral("/evil")));
    EXPECT_EQ(store->inbox().messages().at(1).fileName, QStringLiteral(".message"))
        << "the original name is kept for show";
}

TEST_F(InboxTest, PartsAreTakenUpAfterARestart)
{
    const OfferFrame offer = offerOf(7, QStringLiteral("f"), "0123456789");
    {
        const auto store = open();
        EXPECT_EQ(store->inbox().begin(bob, offer, &refused)->append("012345"), QString());
    }
    const auto store = open();
    EXPECT_EQ(notes, QStringList());
    EXPECT_TRUE(store->inbox().parts(provedPeer(QStringLiteral("Carol"))).empty());
    auto parts = store->inbox().parts(bob);
    ASSERT_EQ(parts.size(), 1u);
    EXPECT_EQ(parts[0]->messageId(), 7u);
    EXPECT_EQ(parts[0]->length(), 6);
    QString error;
    EXPECT_EQ(parts[0]->readBack(4, &error), QByteArray("0123"));
    EXPECT_EQ(parts[0]->readBack(4, &error), QByteArray("45"));
    EXPECT_EQ(parts[0]->readBack(4, &error), QByteArray());
    EXPECT_TRUE(resume(parts[0].get(), offer, 6, &refused)) << qPrintable(refused.reason);
    EXPECT_EQ(parts[0]->append("6789"), QString());
    QString place;
    EXPECT_EQ(parts[0]->store(offer, &place), QString());
    EXPECT_EQ(readAll(place), QByteArray("0123456789"));
}

TEST_F(InboxTest, TheNewerCallTakesAPartOver)
{
    const auto store = open();
    const OfferFrame offer = offerOf(7, QStringLiteral("f"), "0123456789");
    const auto earlier = store->inbox().begin(bob, offer, &refused);
    EXPECT_EQ(earlier->append("0123"), QString());
    auto parts = store->inbox().parts(bob);
    ASSERT_EQ(parts.size(), 1u);
    EXPECT_EQ(earlier->append("4"), QString()) << "not taken over until resumed";
    QString error;
    EXPECT_EQ(parts[0]->readBack(100, &error), QByteArray("0123")) << "as it stood";
    EXPECT_TRUE(resume(parts[0].get(), offer, 4, &refused)) << qPrintable(refused.reason);
    EXPECT_EQ(earlier->append("X"), QStringLiteral("another call has taken the message over"));
    QString place;
    EXPECT_EQ(earlier->store(offer, &place), QStringLiteral("another call has taken the message over"));
    earlier->discard();
    EXPECT_EQ(parts[0]->append("456789"), QString());
    EXPECT_EQ(parts[0]->store(offer, &place), QString());
    EXPECT_EQ(readAll(place), QByteArray("0123456789"));
}

TEST_F(InboxTest, AnotherMessageUnderTheSameIdReplacesThePart)
{
    const auto store = open();
    EXPECT_EQ(store->inbox().begin(bob, offerOf(7, QStringLiteral("old"), "old content"), &refused)->append("old"),
              QString());
    const QString place = receiveWhole(store.get(), bob, offerOf(7, QStringLiteral("new"), "new"), "new");
    EXPECT_TRUE(place.endsWith(QStringLiteral("/new")));
    EXPECT_EQ(partNames(), QStringList());
}

TEST_F(InboxTest, LimitsRefuse)
{
    InboxLimits limits;
    limits.maxMessageBytes = 10;
    const auto store = open(limits);
    EXPECT_EQ(store->inbox().begin(bob, offerOf(7, QStringLiteral("f"), QByteArray(11, 'x')), &refused), nullptr);
    EXPECT_EQ(refused.code, RefusalCode::NotAllowed);
    EXPECT_EQ(refused.reason, QStringLiteral("it has 11 bytes, more than the 10 that are allowed here"));
}

TEST_F(InboxTest, AFullDiskRefuses)
{
    const auto store = open();
    OfferFrame offer = offerOf(7, QStringLiteral("f"), "x");
    offer.size = Q_INT64_C(1) << 50;
    EXPECT_EQ(store->inbox().begin(bob, offer, &refused), nullptr);
    EXPECT_EQ(refused.code, RefusalCode::NoRoom);
    EXPECT_TRUE(refused.reason.startsWith(QStringLiteral("the disk is full: 1125899906842624 bytes are needed, ")));
    EXPECT_EQ(partNames(), QStringList());
}

TEST_F(InboxTest, BeginningsDoNotFillTheDisk)
{
    InboxLimits limits;
    limits.maxPartsOfAbonent = 3;
    const auto store = open(limits);
    for (quint64 id = 1; id <= 10; ++id) {
        ASSERT_TRUE(store->inbox().begin(bob, offerOf(id, QStringLiteral("f"), "xx"), &refused));
    }
    EXPECT_EQ(partNames().size(), 3);
    EXPECT_EQ(store->inbox().parts(bob).size(), 3u);
}

// Each state that a crash between the steps of receiving leaves behind.
TEST_F(InboxTest, ACrashAfterTheRecordIsCompleted)
{
    const OfferFrame offer = offerOf(7, QStringLiteral("f"), "content");
    for (const bool wasListed : {false, true}) {
        SCOPED_TRACE(wasListed);
        const quint64 id = wasListed ? 8 : 7;
        const QString dir = paths.incomplete.absoluteFilePath(QStringLiteral("00000001"));
        writeFile(dir + QStringLiteral("/f"), "content");
        writeFile(dir + QStringLiteral("/.message"), "{\"id\":\"000000000000000" + QByteArray::number(id) +
                                                         "\",\"from\":\"Боб\",\"name\":\"f\",\"file\":\"f\",\"size\":7,"
                                                         "\"sha256\":\"" +
                                                         offer.sha256.toHex() + "\",\"verified\":true}");
        if (wasListed) {
            writeFile(paths.receivedList, readAll(paths.receivedList) + "+ 0000000000000008 " + offer.sha256.toHex() +
                                              " %D0%B1%D0%BE%D0%B1\n");
        }
        const auto store = open();
        EXPECT_EQ(notes.size(), 1);
        EXPECT_EQ(partNames(), QStringList());
        EXPECT_TRUE(store->inbox().isStored(bob, id, offer.sha256));
        EXPECT_TRUE(store->inbox().unsettled(bob).contains(id)) << "the sender may not know";
    }
    const auto store = open();
    EXPECT_EQ(store->inbox().messages().size(), 2);
}

TEST_F(InboxTest, UselessPartsAreRemoved)
{
    writeFile(paths.incomplete.absoluteFilePath(QStringLiteral("00000001/f")), "no record");
    writeFile(paths.incomplete.absoluteFilePath(QStringLiteral("00000002/.message")), "{torn");
    writeFile(paths.incomplete.absoluteFilePath(QStringLiteral("00000003/.message")),
              "{\"id\":\"0000000000000009\",\"from\":\"B\",\"name\":\"f\",\"file\":\"../../"
              "x\",\"size\":7,\"sha256\":\"00\",\"verified\":true}");
    const QString outside = writeFile(paths.incomplete.absoluteFilePath(QStringLiteral("../x")), "content");
    writeFile(paths.incomplete.absoluteFilePath(QStringLiteral("00000004/f")), "of no message");
    writeFile(
        paths.incomplete.absoluteFilePath(QStringLiteral("00000004/.message")),
        "{\"id\":\"0000000000000000\",\"from\":\"B\",\"name\":\"f\",\"file\":\"f\",\"size\":99,\"sha256\":\"00\"}");
    const auto store = open();
    EXPECT_EQ(notes.size(), 4);
    EXPECT_EQ(partNames(), QStringList());
    EXPECT_EQ(readAll(outside), QByteArray("content"));
    EXPECT_TRUE(store->inbox().parts(bob).empty());
}

TEST_F(InboxTest, WhatCannotBeMovedIsNotReceived)
{
    const auto store = open();
    const OfferFrame offer = offerOf(7, QStringLiteral("f"), "content");
    auto file = store->inbox().begin(bob, offer, &refused);
    EXPECT_EQ(file->append("content"), QString());
    // The input directory gives way to a file: no rename into it can succeed.
    ASSERT_TRUE(QDir().rmdir(paths.input.absolutePath()));
    writeFile(paths.input.absolutePath(), "in the way");
    QString place;
    EXPECT_TRUE(file->store(offer, &place)
                    .startsWith(QStringLiteral("cannot use the directory ") + paths.input.absolutePath()));
    EXPECT_FALSE(store->inbox().isStored(bob, 7, offer.sha256));
    file.reset();
    ASSERT_TRUE(QFile::remove(paths.input.absolutePath()));
    const auto again = open();
    EXPECT_EQ(notes, QStringList());
    EXPECT_FALSE(again->inbox().isStored(bob, 7, offer.sha256));
    auto parts = again->inbox().parts(bob);
    ASSERT_EQ(parts.size(), 1u);
    EXPECT_TRUE(resume(parts[0].get(), offer, 7, &refused)) << qPrintable(refused.reason);
    EXPECT_EQ(parts[0]->store(offer, &place), QString());
    EXPECT_EQ(readAll(place), QByteArray("content"));
}

TEST_F(InboxTest, TheListSurvivesTornLinesAndSettling)
{
    {
        const auto store = open();
        for (quint64 id = 1; id <= 3; ++id)
            receiveWhole(store.get(), bob, offerOf(id, QStringLiteral("f"), "x"), "x");
        store->inbox().settle(bob, {2, 99});
        EXPECT_EQ(store->inbox().unsettled(bob), (QVector<quint64>{1, 3}));
        EXPECT_TRUE(store->inbox().isStored(bob, 2, sha256("x"))) << "settled is not forgotten";
    }
    QFile list(paths.receivedList);
    ASSERT_TRUE(list.open(QIODevice::Append));
    list.write("s 000000000000000");
    list.close();
    {
        const auto store = open();
        EXPECT_EQ(store->inbox().unsettled(bob), (QVector<quint64>{1, 3}));
        receiveWhole(store.get(), bob, offerOf(4, QStringLiteral("f"), "x"), "x");
    }
    const auto store = open();
    EXPECT_EQ(store->inbox().unsettled(bob), (QVector<quint64>{1, 3, 4}));
}

// As a crash between the two renames of a save leaves them.
TEST_F(InboxTest, WhatStandsUnderItsBackupsNameIsPutBackAtTheStart)
{
    const OfferFrame offer = offerOf(7, QStringLiteral("f"), "0123456789");
    {
        const auto store = open();
        receiveWhole(store.get(), bob, offerOf(1, QStringLiteral("f"), "x"), "x");
        EXPECT_EQ(store->inbox().begin(bob, offer, &refused)->append("012345"), QString());
    }
    QStringList backups;
    QDirIterator files(rig::installRoot(), {QStringLiteral(".message")}, QDir::Files | QDir::Hidden,
                       QDirIterator::Subdirectories);
    while (files.hasNext())
        backups.append(files.next());
    ASSERT_FALSE(backups.isEmpty());
    backups.append(paths.receivedList);
    for (const QString& path : qAsConst(backups))
        ASSERT_TRUE(QFile::rename(path, path + QStringLiteral(".old"))) << path.toStdString();
    const auto store = open();
    EXPECT_TRUE(store->inbox().isStored(bob, 1, sha256("x")));
    ASSERT_EQ(store->inbox().parts(bob).size(), 1u);
    EXPECT_EQ(store->inbox().parts(bob)[0]->length(), 6);
}

TEST_F(InboxTest, OldSettledEntriesGo)
{
    QByteArray lines;
    for (int id = 1; id <= 1500; ++id) {
        const QByteArray text = idText(static_cast<quint64>(id)).toLatin1();
        lines += "+ " + text + ' ' + QByteArray(64, 'a') + " bob\ns " + text + '\n';
    }
    writeFile(paths.receivedList, lines);
    const auto store = open();
    const QByteArray hash = QByteArray::fromHex(QByteArray(64, 'a'));
    const Peer inLatin = provedPeer(QStringLiteral("Bob"));
    EXPECT_FALSE(store->inbox().isStored(inLatin, 500, hash));
    EXPECT_TRUE(store->inbox().isStored(inLatin, 501, hash));
    EXPECT_EQ(readAll(paths.receivedList).count('+'), 1000);
}

// Killed at any moment while receiving: what was acknowledged is there once and whole, and
// nothing else than whole messages is there.
TEST_F(InboxTest, KilledWhileReceiving)
{
    quint64 nextId = 1;
    for (int round = 0; round < 15; ++round) {
        int acknowledged[2];
        ASSERT_EQ(pipe(acknowledged), 0);
        const pid_t child = fork();
        if (child == 0) {
            MessageStore store(paths);
            QString error;
            store.open(&error);
            for (quint64 id = nextId;; ++id) {
                const QByteArray content = randomBytes(5000, static_cast<unsigned>(id));
                const OfferFrame offer = offerOf(id, QStringLiteral("f"), content);
                if (!store.inbox().isStored(bob, id, offer.sha256) &&
                    !receiveWhole(&store, bob, offer, content).endsWith(QStringLiteral("/f")))
                    _exit(1);
                if (write(acknowledged[1], &id, sizeof id) != sizeof id)
                    _exit(2);
            }
        }
        close(acknowledged[1]);
        usleep(static_cast<useconds_t>(3000 + 2000 * round));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        QVector<quint64> ids;
        for (quint64 id = 0; read(acknowledged[0], &id, sizeof id) == sizeof id;)
            ids.append(id);
        close(acknowledged[0]);
        const auto store = open();
        QHash<quint64, int> found;
        for (const ReceivedMessage& message : store->inbox().messages()) {
            ++found[message.id];
            EXPECT_EQ(sha256(readAll(message.path)), message.sha256);
            EXPECT_TRUE(store->inbox().isStored(bob, message.id, message.sha256));
        }
        for (const quint64 id : ids)
            EXPECT_EQ(found.value(id), 1) << id;
        for (const int count : found)
            EXPECT_EQ(count, 1);
        if (!ids.isEmpty())
            nextId = ids.last(); // offered again: must be known
        if (HasFailure())
            return;
    }
}

// Two real stores, one session pair, cut and killed in the middle.
TEST_F(InboxTest, SessionsOverDisks)
{
    const QString big = writeFile(rig::installRoot() + QStringLiteral("/big"), randomBytes(300000, 1));
    const QString empty = writeFile(rig::installRoot() + QStringLiteral("/пусто"), QByteArray());
    const StorePaths alicePaths = pathsIn(QStringLiteral("alice"));
    SessionSettings alice;
    alice.abonentName = QStringLiteral("Alice");
    alice.identity = testKey(1);
    SessionSettings bobs;
    bobs.abonentName = bob.abonent;
    bobs.identity = testKey(2);
    {
        OutgoingQueue queue(alicePaths.output, alicePaths.tasks);
        ASSERT_EQ(queue.enqueue(bob.abonent, big), QString());
        ASSERT_EQ(queue.enqueue(bob.abonent, empty), QString());
    }
    qint64 now = 0;
    for (const qint64 cut : {100000, 90000, 1000000}) {
        QString error;
        MessageStore from(alicePaths);
        from.open(&error);
        const auto to = open();
        TestDirectory directory;
        directory.names[testKey(1)->publicKey()] = QStringLiteral("Alice");
        directory.names[testKey(2)->publicKey()] = bob.abonent;
        Session a(
            alice, SessionCall{true, bob.abonent}, &directory, from.forSessions(), [](const SessionEvent&) {}, now);
        Session b(
            bobs, SessionCall{}, &directory, to->forSessions(), [](const SessionEvent&) {}, now);
        qint64 carried = 0;
        while (!a.isFinished() && !b.isFinished() && carried < cut) {
            now += 10;
            const QByteArray toB = a.takeOutput(1000, now);
            b.receive(toB, now);
            a.receive(b.takeOutput(1000, now), now);
            a.advance(now);
            b.advance(now);
            carried += toB.size();
        }
        if (cut == 1000000) {
            EXPECT_LT(carried, 300000 - 190000 + 40000) << "taken up where it stopped";
            ASSERT_EQ(to->inbox().messages().size(), 2);
            EXPECT_TRUE(readAll(to->inbox().messages().at(0).path) == readAll(big));
            EXPECT_EQ(to->inbox().messages().at(1).fileName, QStringLiteral("пусто"));
            EXPECT_EQ(readAll(to->inbox().messages().at(1).path), QByteArray());
            EXPECT_EQ(from.queue().messages().size(), 0);
        }
    }
}
