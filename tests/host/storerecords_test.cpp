// The records of queue and inbox as they stand on the disk, written here by hand: a field that were
// written and read under another name would still come back, and no other version would know it.
#include "host/store/messagerecord.h"
#include "tests/host/storetools.h"
#include "tests/support/opendescriptors.h"

#include <QJsonDocument>
#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;
using namespace rig;

namespace {

const QByteArray key = QByteArray(32, '\x11');
const QByteArray hash = QByteArray(32, '\x22');

QJsonObject receivedJson()
{
    return {{"id", "00000000000000ff"},
            {"from", "Боб"},
            {"proved", false},
            {"key", QString::fromLatin1(key.toHex())},
            {"called", "Bobby"},
            {"name", "a/b.txt"},
            {"file", "b.txt"},
            {"size", 9007199254740992.0}, // 2^53
            {"sha256", QString::fromLatin1(hash.toHex())},
            {"modified", 1000000000},
            {"verified", true},
            {"received", "2026-05-04T03:02:01Z"}};
}

} // namespace

TEST(MessageRecord, IsReadFieldByField)
{
    const MessageRecord record = MessageRecord::fromJson(receivedJson());
    EXPECT_EQ(record.id, 255u);
    EXPECT_EQ(record.sender.abonent, QStringLiteral("Боб"));
    EXPECT_FALSE(record.sender.isProved);
    EXPECT_EQ(record.sender.publicKey, key);
    EXPECT_EQ(record.sender.claimedName, QStringLiteral("Bobby"));
    EXPECT_EQ(record.fileName, QStringLiteral("a/b.txt"));
    EXPECT_EQ(record.contentName, QStringLiteral("b.txt"));
    EXPECT_EQ(record.size, Q_INT64_C(9007199254740992));
    EXPECT_EQ(record.sha256, hash);
    EXPECT_EQ(record.modifiedSecs, 1000000000);
    EXPECT_TRUE(record.isVerified);
    EXPECT_EQ(record.received, QDateTime(QDate(2026, 5, 4), QTime(3, 2, 1), Qt::UTC));
    EXPECT_EQ(record.toJson(), receivedJson());
}

TEST(MessageRecord, OfAnOfferIsNotVerifiedYet)
{
    OfferFrame offer = offerOf(255, QStringLiteral("a/b.txt"), "content");
    Peer sender = provedPeer(QStringLiteral("Боб"));
    sender.claimedName = QStringLiteral("Bobby");
    const MessageRecord record = MessageRecord::of(sender, offer, QStringLiteral("b.txt"));
    EXPECT_EQ(record.toJson(), (QJsonObject{{"id", "00000000000000ff"},
                                            {"from", "Боб"},
                                            {"proved", true},
                                            {"key", QString::fromLatin1(sender.publicKey.toHex())},
                                            {"called", "Bobby"},
                                            {"name", "a/b.txt"},
                                            {"file", "b.txt"},
                                            {"size", 7},
                                            {"sha256", QString::fromLatin1(sha256("content").toHex())},
                                            {"modified", 1000000000},
                                            {"verified", false}}));
}

TEST(MessageRecord, OneThatSaysNothingOfProofIsFromBeforeThereWereStrangers)
{
    QJsonObject json = receivedJson();
    json.remove(QStringLiteral("proved"));
    EXPECT_TRUE(MessageRecord::fromJson(json).sender.isProved);
    EXPECT_EQ(MessageRecord::fromJson(QJsonObject()).id, 0u);
}

TEST(QueueRecord, ATaskSaysWhatIsSentToWhomSinceWhen)
{
    useUtf8Names();
    const StorePaths paths = pathsIn(QStringLiteral("q"));
    const QString source = writeFile(rig::installRoot() + QStringLiteral("/f.txt"), "content");
    OutgoingQueue queue(paths.output, paths.tasks);
    QueuedMessage message;
    const qint64 beforeSecs = QDateTime::currentSecsSinceEpoch();
    ASSERT_EQ(queue.enqueue(QStringLiteral("Боб"), source, &message), QString());
    const qint64 afterSecs = QDateTime::currentSecsSinceEpoch();
    QJsonObject task =
        QJsonDocument::fromJson(readAll(paths.tasks.absoluteFilePath(QStringLiteral("00000001.task")))).object();
    const QDateTime queued = QDateTime::fromString(task.take(QStringLiteral("queued")).toString(), Qt::ISODate);
    EXPECT_EQ(queued.timeSpec(), Qt::UTC);
    EXPECT_GE(queued.toSecsSinceEpoch(), beforeSecs);
    EXPECT_LE(queued.toSecsSinceEpoch(), afterSecs);
    EXPECT_EQ(task, (QJsonObject{{"task", "send"},
                                 {"message", "00000001"},
                                 {"id", idText(message.id)},
                                 {"abonent", "Боб"},
                                 {"name", "f.txt"},
                                 {"size", 7},
                                 {"sha256", QString::fromLatin1(sha256("content").toHex())},
                                 {"modified", double(QFileInfo(source).lastModified().toSecsSinceEpoch())}}));
}

TEST(QueueRecord, ATaskOfAnotherProgramIsReadFieldByField)
{
    useUtf8Names();
    const StorePaths paths = pathsIn(QStringLiteral("q"));
    writeFile(paths.output.absoluteFilePath(QStringLiteral("00000007/content")), "content");
    const QJsonObject task{{"task", "send"},
                           {"message", "00000007"},
                           {"id", "00000000000000ff"},
                           {"abonent", "Боб"},
                           {"name", "f.txt"},
                           {"size", 7},
                           {"sha256", QString::fromLatin1(sha256("content").toHex())},
                           {"modified", 1000000000},
                           {"queued", "2026-05-04T03:02:01Z"}};
    writeFile(paths.tasks.absoluteFilePath(QStringLiteral("00000007.task")), QJsonDocument(task).toJson());
    OutgoingQueue queue(paths.output, paths.tasks);
    EXPECT_EQ(queue.rescan(), QStringList());
    ASSERT_EQ(queue.messages().size(), 1);
    const QueuedMessage message = queue.messages().first();
    EXPECT_EQ(message.key, QStringLiteral("00000007"));
    EXPECT_EQ(message.id, 255u);
    EXPECT_EQ(message.abonent, QStringLiteral("Боб"));
    EXPECT_EQ(message.fileName, QStringLiteral("f.txt"));
    EXPECT_EQ(message.size, 7);
    EXPECT_EQ(message.sha256, sha256("content"));
    EXPECT_EQ(message.modifiedSecs, 1000000000);
    EXPECT_EQ(message.queued, QDateTime(QDate(2026, 5, 4), QTime(3, 2, 1), Qt::UTC));
    EXPECT_EQ(queue.verify(message), QString());
}

// Whatever stands in the place of a record is read no further than 64 KiB.
TEST(DiskFile, ARecordIsNoLongerThanItsLimit)
{
    const QString path = rig::installRoot() + QStringLiteral("/record");
    const auto recordOf = [](int bytes) { return "{\"a\":1" + QByteArray(bytes - 7, ' ') + "}"; };
    writeFile(path, recordOf(64 * 1024));
    EXPECT_EQ(loadRecord(path), (QJsonObject{{"a", 1}}));
    writeFile(path, recordOf(64 * 1024 + 1));
    EXPECT_EQ(loadRecord(path), QJsonObject());
}

TEST(MessageStore, LeavesNothingOpen)
{
    useUtf8Names();
    const StorePaths paths = pathsIn(QStringLiteral("s"));
    const QString source = writeFile(rig::installRoot() + QStringLiteral("/f.txt"), "content");
    const Peer bob = provedPeer(QStringLiteral("Боб"));
    MessageStore store(paths, InboxLimits());
    const auto useOnce = [&](quint64 id) {
        QString error;
        EXPECT_EQ(store.open(&error), QStringList());
        EXPECT_EQ(error, QString());
        QueuedMessage message;
        EXPECT_EQ(store.queue().enqueue(bob.abonent, source, &message), QString());
        EXPECT_EQ(store.queue().rescan(), QStringList());
        EXPECT_EQ(store.queue().verify(message), QString());
        store.queue().notDelivered(message, QStringLiteral("no room"), OutgoingStore::Fault::Remote);
        EXPECT_EQ(store.queue().remove(message), QString());
        const QString place = receiveWhole(&store, bob, offerOf(id, QStringLiteral("g.txt"), "abc"), "abc");
        EXPECT_EQ(readAll(place), QByteArray("abc"));
    };
    useOnce(1);
    const int before = testsupport::openDescriptors();
    useOnce(2);
    useOnce(3);
    EXPECT_EQ(testsupport::openDescriptors(), before);
}

TEST(DiskFile, LeavesNothingOpen)
{
    const QString path = rig::installRoot() + QStringLiteral("/record");
    const int before = testsupport::openDescriptors();
    EXPECT_EQ(saveRecord(path, {{"a", 1}}), QString());
    EXPECT_EQ(replaceFile(path, "{}"), QString());
    EXPECT_EQ(loadRecord(path), QJsonObject());
    syncDirectory(QDir(rig::installRoot()));
    const QString absent = rig::installRoot() + QStringLiteral("/absent/record");
    EXPECT_EQ(replaceFile(absent, "{}").toStdString(),
              "cannot write " + absent.toStdString() + ".new: No such file or directory");
    EXPECT_EQ(testsupport::openDescriptors(), before);
}
