#include "host/store/outgoingqueue.h"
#include "rig/deadline.h"
#include "tests/host/storetools.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QProcess>
#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace host;
using namespace hosttest;
using namespace rig;

class Queue : public testing::Test
{
protected:
    Queue()
    {
        useUtf8Names();
        paths = pathsIn(QStringLiteral("q"));
        source = writeFile(rig::installRoot() + QStringLiteral("/Отчёт за май.txt"), "the content");
    }

    StorePaths paths;
    QString source;
};

TEST_F(Queue, HoldsACopyUnderEightDigitsAndATaskBeside)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    QueuedMessage message;
    ASSERT_EQ(queue.enqueue(QStringLiteral("Боб"), source, &message), QString());
    EXPECT_EQ(message.key, QStringLiteral("00000001"));
    EXPECT_EQ(readAll(paths.output.absoluteFilePath(QStringLiteral("00000001/content"))), QByteArray("the content"));
    const QJsonObject task =
        QJsonDocument::fromJson(readAll(paths.tasks.absoluteFilePath(QStringLiteral("00000001.task")))).object();
    EXPECT_EQ(task[QStringLiteral("abonent")].toString(), QStringLiteral("Боб"));
    EXPECT_EQ(task[QStringLiteral("name")].toString(), QStringLiteral("Отчёт за май.txt"));
    EXPECT_EQ(task[QStringLiteral("size")].toInt(), 11);
    // printf 'the content' | sha256sum
    EXPECT_EQ(task[QStringLiteral("sha256")].toString(), QString::fromLatin1(sha256("the content").toHex()));
    EXPECT_EQ(paths.output.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              (QStringList{QStringLiteral("00000001")}))
        << "nothing else is left";

    // A later change of the file does not matter.
    writeFile(source, "changed");
    OutgoingQueue other(paths.output, paths.tasks);
    EXPECT_EQ(other.rescan(), QStringList());
    ASSERT_EQ(other.messages().size(), 1);
    const QueuedMessage read = other.messages().first();
    EXPECT_EQ(read.id, message.id);
    EXPECT_EQ(read.fileName, message.fileName);
    EXPECT_EQ(read.size, 11);
    EXPECT_EQ(read.sha256, sha256("the content"));
    EXPECT_EQ(read.modifiedSecs, message.modifiedSecs);
    QString error;
    EXPECT_EQ(other.open(read, &error)->readAll(), QByteArray("the content"));
    EXPECT_EQ(other.verify(read), QString());
}

TEST_F(Queue, EmptyFileAndTwiceTheSame)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    const QString empty = writeFile(rig::installRoot() + QStringLiteral("/empty"), QByteArray());
    ASSERT_EQ(queue.enqueue(QStringLiteral("Bob"), empty), QString());
    ASSERT_EQ(queue.enqueue(QStringLiteral("Bob"), empty), QString());
    queue.rescan();
    ASSERT_EQ(queue.messages().size(), 2);
    EXPECT_NE(queue.messages().at(0).id, queue.messages().at(1).id);
}

TEST_F(Queue, WhatCannotBeSentSaysSoAndLeavesNothing)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    const QString root = rig::installRoot();
    EXPECT_TRUE(queue.enqueue(QStringLiteral("Bob"), root + QStringLiteral("/absent"))
                    .startsWith(QStringLiteral("cannot read ")));
    EXPECT_EQ(queue.enqueue(QStringLiteral("Bob"), root),
              QStringLiteral("cannot send %1: only regular files can be sent").arg(root));
    const QString pipe = root + QStringLiteral("/pipe");
    ASSERT_EQ(mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    EXPECT_EQ(queue.enqueue(QStringLiteral("Bob"), pipe),
              QStringLiteral("cannot send %1: only regular files can be sent").arg(pipe));
    EXPECT_EQ(paths.output.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    EXPECT_EQ(paths.tasks.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
}

TEST_F(Queue, AFullDiskIsToldAndLeavesNothing)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    // A limit on the size of files: writing fails in the middle as on a full disk.
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{100000, 100000};
        setrlimit(RLIMIT_FSIZE, &limit);
        const QString big = rig::installRoot() + QStringLiteral("/big");
        const QString error = queue.enqueue(QStringLiteral("Bob"), big);
        _exit(error.startsWith(QStringLiteral("cannot copy ")) ? 0 : 1);
    }
    writeFile(rig::installRoot() + QStringLiteral("/big.new"), QByteArray(300000, 'x'));
    int status = 1;
    waitpid(child, &status, 0);
    EXPECT_NE(status, 0) << "the file was not there yet";
    QFile::rename(rig::installRoot() + QStringLiteral("/big.new"), rig::installRoot() + QStringLiteral("/big"));
    const pid_t second = fork();
    if (second == 0) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{100000, 100000};
        setrlimit(RLIMIT_FSIZE, &limit);
        const QString error = queue.enqueue(QStringLiteral("Bob"), rig::installRoot() + QStringLiteral("/big"));
        _exit(error.startsWith(QStringLiteral("cannot copy ")) ? 0 : 1);
    }
    waitpid(second, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(paths.output.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
}

TEST_F(Queue, DamagedTasksAreToldOnceAndLeftAside)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    ASSERT_EQ(queue.enqueue(QStringLiteral("Bob"), source), QString());
    const QString garbage = writeFile(paths.tasks.absoluteFilePath(QStringLiteral("00000002.task")), "{ not json");
    const QString escape =
        writeFile(paths.tasks.absoluteFilePath(QStringLiteral("00000003.task")),
                  "{\"message\":\"../../x\",\"id\":\"0000000000000001\",\"abonent\":\"B\",\"size\":0,\"sha256\":\"" +
                      QByteArray(64, 'a') + "\"}");
    EXPECT_EQ(queue.rescan(), (QStringList{QStringLiteral("%1 is damaged and is left aside").arg(garbage),
                                           QStringLiteral("%1 is damaged and is left aside").arg(escape)}));
    EXPECT_EQ(queue.rescan(), QStringList());
    EXPECT_EQ(queue.messages().size(), 1);
    EXPECT_TRUE(QFile::exists(garbage)) << "nothing is thrown away";
}

TEST_F(Queue, RemovedMessagesAreGoneFromTheDisk)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    ASSERT_EQ(queue.enqueue(QStringLiteral("Bob"), source), QString());
    queue.rescan();
    EXPECT_EQ(queue.remove(queue.messages().first()), QString());
    EXPECT_EQ(queue.messages().size(), 0);
    EXPECT_EQ(paths.output.entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
    EXPECT_EQ(paths.tasks.entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
}

TEST_F(Queue, ReasonsSurviveARestart)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    ASSERT_EQ(queue.enqueue(QStringLiteral("Bob"), source), QString());
    queue.rescan();
    EXPECT_EQ(queue.messages().first().reason, WaitReason());
    WaitReason reason;
    reason.kind = WaitReason::Kind::CallsFailed;
    reason.calls = 3;
    reason.text = QStringLiteral("the line was busy");
    queue.setReason(queue.messages().first(), reason);
    EXPECT_EQ(queue.messages().first().reason, reason);
    OutgoingQueue other(paths.output, paths.tasks);
    other.rescan();
    EXPECT_EQ(other.messages().first().reason, reason);
}

TEST_F(Queue, AReasonOfAnEarlierVersionIsItsSentence)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    ASSERT_EQ(queue.enqueue(QStringLiteral("Bob"), source), QString());
    writeFile(paths.output.absoluteFilePath(QStringLiteral("00000001/reason.json")),
              "{\"reason\": \"2 calls in a row failed\", \"since\": \"2026-03-01T00:00:00Z\"}");
    queue.rescan();
    EXPECT_EQ(queue.messages().first().reason.kind, WaitReason::Kind::Other);
    EXPECT_EQ(queue.messages().first().reason.sentence(QStringLiteral("Bob")),
              QStringLiteral("2 calls in a row failed"));
    EXPECT_FALSE(queue.messages().first().reason.isOfTheMessage());
}

TEST_F(Queue, AReasonIsAskedOnceForEachAbonentAndWhatIsKnownOfAMessageStays)
{
    MessageStore store(paths);
    OutgoingQueue& queue = store.queue();
    for (const char* abonent : {"Bob", "Carol", "BOB", "bob", "Dave"})
        ASSERT_EQ(queue.enqueue(QString::fromLatin1(abonent), source), QString());
    queue.rescan();
    store.queue().notDelivered(queue.messages().at(2), QStringLiteral("'Bob' refused it: too large"),
                               OutgoingStore::Fault::Remote);
    QStringList asked;
    const auto why = [&](const QString& abonent) -> std::optional<WaitReason> {
        asked.append(abonent);
        if (abonent == QLatin1String("Dave"))
            return std::nullopt;
        WaitReason reason;
        reason.kind = abonent == QLatin1String("Bob") ? WaitReason::Kind::NoModem : WaitReason::Kind::NoNumber;
        return reason;
    };
    queue.updateReasons(why);
    EXPECT_EQ(asked, (QStringList{QStringLiteral("Bob"), QStringLiteral("Carol"), QStringLiteral("Dave")}));
    OutgoingQueue other(paths.output, paths.tasks);
    other.rescan();
    QStringList words;
    for (const QueuedMessage& message : other.messages())
        words.append(message.reason.word());
    EXPECT_EQ(words, (QStringList{QStringLiteral("noModem"), QStringLiteral("noNumber"), QStringLiteral("refused"),
                                  QStringLiteral("noModem"), QStringLiteral("notTried")}));
}

TEST_F(Queue, WaitingAbonentsAreThoseWithUnclaimedMessages)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    for (const char* abonent : {"Bob", "Carol", "BOB"})
        ASSERT_EQ(queue.enqueue(QString::fromLatin1(abonent), source), QString());
    queue.rescan();
    EXPECT_EQ(queue.waitingAbonents(), (QStringList{QStringLiteral("Bob"), QStringLiteral("Carol")}));
    const int one = 1;
    ASSERT_TRUE(queue.claimNext(provedPeer(QStringLiteral("carol")), &one));
    EXPECT_EQ(queue.waitingAbonents(), QStringList{QStringLiteral("Bob")});
}

TEST_F(Queue, ClaimsAreExclusiveAndInOrder)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    for (const char* abonent : {"Bob", "Carol", "BOB"})
        ASSERT_EQ(queue.enqueue(QString::fromLatin1(abonent), source), QString());
    queue.rescan();
    const int one = 1;
    const int two = 2;
    const Peer bob = provedPeer(QStringLiteral("bob"));
    EXPECT_EQ(queue.claimNext(bob, &one)->key, QStringLiteral("00000001"));
    EXPECT_EQ(queue.claimNext(bob, &two)->key, QStringLiteral("00000003"));
    EXPECT_FALSE(queue.claimNext(bob, &two));
    EXPECT_FALSE(queue.hasUnclaimed(bob));
    queue.rescan();
    EXPECT_FALSE(queue.hasUnclaimed(bob)) << "claims outlive a rescan";
    queue.releaseAll(&one);
    EXPECT_EQ(queue.claimNext(bob, &two)->key, QStringLiteral("00000001"));
}

TEST_F(Queue, ADamagedCopyIsFoundAndHeld)
{
    MessageStore store(paths);
    ASSERT_EQ(store.queue().enqueue(QStringLiteral("Bob"), source), QString());
    store.queue().rescan();
    const QueuedMessage message = store.queue().messages().first();
    writeFile(paths.output.absoluteFilePath(QStringLiteral("00000001/content")), "the c0ntent");
    store.queue().notDelivered(message, QStringLiteral("wrong hash"), OutgoingStore::Fault::Recheck);
    EXPECT_EQ(store.queue().messages().first().reason.kind, WaitReason::Kind::CopyAtFault);
    EXPECT_TRUE(store.queue().messages().first().reason.text.contains(
        QStringLiteral("is damaged; cancel the message and send the file again")));
    EXPECT_FALSE(store.queue().hasUnclaimed(provedPeer(QStringLiteral("Bob"))));
    writeFile(paths.output.absoluteFilePath(QStringLiteral("00000001/content")), "longer than before");
    QString error;
    EXPECT_EQ(store.queue().open(message, &error), nullptr);
    EXPECT_TRUE(error.contains(QStringLiteral("has changed its size")));
    QFile::remove(paths.output.absoluteFilePath(QStringLiteral("00000001/content")));
    EXPECT_EQ(store.queue().open(message, &error), nullptr);
    EXPECT_TRUE(error.contains(QStringLiteral("cannot be read")));
}

TEST_F(Queue, SeveralProgramsQueueAtOnce)
{
    constexpr int programs = 4;
    constexpr int each = 10;
    QVector<pid_t> children;
    for (int i = 0; i < programs; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            OutgoingQueue queue(paths.output, paths.tasks);
            bool ok = true;
            for (int k = 0; k < each; ++k)
                ok = queue.enqueue(QStringLiteral("Bob"), source).isEmpty() && ok;
            _exit(ok ? 0 : 1);
        }
        children.append(child);
    }
    for (const pid_t child : children) {
        int status = 1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    OutgoingQueue queue(paths.output, paths.tasks);
    EXPECT_EQ(queue.rescan(), QStringList());
    EXPECT_EQ(queue.messages().size(), programs * each);
    for (const QueuedMessage& message : queue.messages())
        EXPECT_EQ(queue.verify(message), QString());
}

// Killed at a random moment: each message is queued whole or not at all, and the rubbish goes
// at the next start.
TEST_F(Queue, KilledWhileQueueing)
{
    const QString big = writeFile(rig::installRoot() + QStringLiteral("/big"), QByteArray(500000, 'b'));
    int whole = 0;
    for (int round = 0; round < 10 || (whole < 3 && round < 300); ++round) {
        const pid_t child = fork();
        if (child == 0) {
            OutgoingQueue queue(paths.output, paths.tasks);
            for (;;)
                (void)queue.enqueue(QStringLiteral("Bob"), big);
        }
        usleep(static_cast<useconds_t>(500 + 1500 * round));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        OutgoingQueue queue(paths.output, paths.tasks);
        queue.cleanUp();
        EXPECT_EQ(queue.rescan(), QStringList());
        for (const QueuedMessage& message : queue.messages()) {
            EXPECT_EQ(queue.verify(message), QString());
            ++whole;
            EXPECT_EQ(queue.remove(message), QString());
        }
        EXPECT_EQ(paths.output.entryList({QStringLiteral(".new-*")}, QDir::Dirs | QDir::Hidden), QStringList());
    }
    EXPECT_GT(whole, 0);
}

// As a crash between the two renames of a save leaves it.
TEST_F(Queue, ATaskUnderItsBackupsNameIsPutBackAtTheStart)
{
    QueuedMessage message;
    ASSERT_EQ(OutgoingQueue(paths.output, paths.tasks).enqueue(QStringLiteral("Боб"), source, &message), QString());
    const QString task = paths.tasks.absoluteFilePath(QStringLiteral("00000001.task"));
    ASSERT_TRUE(QFile::rename(task, task + QStringLiteral(".old")));
    OutgoingQueue queue(paths.output, paths.tasks);
    queue.cleanUp();
    EXPECT_TRUE(QFile::exists(task));
    ASSERT_EQ(queue.messages().size(), 1);
    EXPECT_EQ(queue.messages().first().id, message.id);
}

TEST_F(Queue, OrphansGoOnlyWhenOld)
{
    paths.output.mkpath(QStringLiteral("00000042"));
    paths.tasks.mkpath(QStringLiteral("."));
    OutgoingQueue queue(paths.output, paths.tasks);
    queue.cleanUp();
    EXPECT_TRUE(paths.output.exists(QStringLiteral("00000042"))) << "its task may be about to appear";
}
