// A local user plants links where the store creates, changes or removes: what they lead to
// stays as it is.
#include "tests/host/inboxfixture.h"

#include <QJsonDocument>

#include <sys/stat.h>
#include <unistd.h>

using namespace host;
using namespace hosttest;

class StoreLinks : public InboxFixture
{
protected:
    StoreLinks()
    {
        victim = rig::installRoot() + QStringLiteral("/victim");
        secret = writeFile(victim + QStringLiteral("/secret"), "precious");
        ::chmod(QFile::encodeName(secret).constData(), 0600);
    }

    ~StoreLinks() override
    {
        struct stat facts = {};
        EXPECT_EQ(::stat(QFile::encodeName(secret).constData(), &facts), 0) << "removed";
        EXPECT_EQ(facts.st_mode & 07777, 0600u);
        EXPECT_EQ(readAll(secret), QByteArray("precious"));
        EXPECT_EQ(QDir(victim).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                  (QStringList{QStringLiteral("secret")}));
    }

    static void plant(const QString& target, const QString& path)
    {
        (void)removeDirectory(path);
        ASSERT_EQ(::symlink(QFile::encodeName(target).constData(), QFile::encodeName(path).constData()), 0);
    }

    static QString isLinkText(const QString& path)
    {
        return QStringLiteral("%1 is a link, and links are not followed here: remove it").arg(path);
    }

    QString source() const { return writeFile(rig::installRoot() + QStringLiteral("/source"), "x"); }

    QString victim;
    QString secret;
    const OfferFrame offer = offerOf(7, QStringLiteral("secret"), "0123456789");
};

TEST_F(StoreLinks, DirectoriesOfOurs)
{
    QDir().mkpath(QFileInfo(paths.input.absolutePath()).absolutePath());
    for (const QDir& dir : {paths.input, paths.incomplete}) {
        plant(victim, dir.absolutePath());
        MessageStore store(paths);
        QString error;
        store.open(&error);
        EXPECT_EQ(error, isLinkText(dir.absolutePath()));
        ASSERT_TRUE(QFile::remove(dir.absolutePath()));
    }
    for (const QDir& dir : {paths.output, paths.tasks}) {
        plant(victim, dir.absolutePath());
        OutgoingQueue queue(paths.output, paths.tasks);
        EXPECT_EQ(queue.enqueue(bob.abonent, source()), isLinkText(dir.absolutePath()));
        queue.cleanUp();
        ASSERT_TRUE(QFile::remove(dir.absolutePath()));
    }
}

TEST_F(StoreLinks, APartsDirectoryAtTheStart)
{
    (void)open();
    const QString path = paths.incomplete.absoluteFilePath(QStringLiteral("00000005"));
    plant(victim, path);
    (void)open();
    EXPECT_EQ(notes, (QStringList{isLinkText(path)}));
    EXPECT_TRUE(QFileInfo(path).isSymLink()) << "left aside";
}

TEST_F(StoreLinks, APartsContentAtTheStart)
{
    (void)open();
    const QString dir = paths.incomplete.absoluteFilePath(QStringLiteral("00000001"));
    QDir().mkpath(dir);
    MessageRecord record = MessageRecord::of(bob, offer, QStringLiteral("secret"));
    record.isVerified = true;
    writeFile(dir + QStringLiteral("/.message"), QJsonDocument(record.toJson()).toJson());
    plant(secret, dir + QStringLiteral("/secret"));
    const auto store = open();
    EXPECT_EQ(store->inbox().messages().size(), 0);
    EXPECT_EQ(partNames(), QStringList()) << "removed, the link itself";
}

TEST_F(StoreLinks, APartThatIsTakenUp)
{
    const auto store = open();
    for (const bool linksDirectory : {false, true}) {
        ASSERT_EQ(store->inbox().begin(bob, offer, &refused)->append("012345"), QString());
        ASSERT_EQ(partNames().size(), 1);
        const QString dir = paths.incomplete.absoluteFilePath(partNames().first());
        auto parts = store->inbox().parts(bob);
        ASSERT_EQ(parts.size(), 1u);
        if (linksDirectory)
            plant(victim, dir);
        else
            plant(secret, dir + QStringLiteral("/secret"));
        QString error;
        EXPECT_EQ(parts[0]->readBack(100, &error), QByteArray()) << "nothing is disclosed";
        EXPECT_EQ(error, isLinkText(linksDirectory ? dir : dir + QStringLiteral("/secret")));
        EXPECT_FALSE(resume(parts[0].get(), offer, 2, &refused));
        EXPECT_EQ(refused.reason, error);
        EXPECT_EQ(store->inbox().begin(bob, offer, &refused), nullptr);
        EXPECT_EQ(refused.reason, error);
        // Another message under the identifier removes what stands: the link, not what it leads to.
        const QByteArray other = linksDirectory ? "other" : "another";
        EXPECT_TRUE(receiveWhole(store.get(), bob, offerOf(7, QStringLiteral("g"), other), other)
                        .endsWith(QStringLiteral("/g")));
    }
}

TEST_F(StoreLinks, AnotherNameOfAFile)
{
    const auto store = open();
    ASSERT_EQ(store->inbox().begin(bob, offer, &refused)->append("012345"), QString());
    const QString content = paths.incomplete.absoluteFilePath(QStringLiteral("00000001/secret"));
    ASSERT_TRUE(QFile::remove(content));
    ASSERT_EQ(::link(QFile::encodeName(secret).constData(), QFile::encodeName(content).constData()), 0);
    EXPECT_EQ(store->inbox().begin(bob, offer, &refused), nullptr);
    EXPECT_EQ(refused.reason, QStringLiteral("cannot write %1: it has another name elsewhere").arg(content));
}

TEST_F(StoreLinks, WhileAPartIsStored)
{
    const auto store = open();
    auto file = store->inbox().begin(bob, offer, &refused);
    ASSERT_EQ(file->append("0123456789"), QString());
    const QString dir = paths.incomplete.absoluteFilePath(QStringLiteral("00000001"));
    plant(secret, dir + QStringLiteral("/secret")); // the open file is written and given its mode, not the name
    QString place;
    (void)file->store(offer, &place);
    file = store->inbox().begin(bob, offerOf(8, QStringLiteral("g"), "x"), &refused);
    ASSERT_EQ(file->append("x"), QString());
    plant(victim, paths.incomplete.absoluteFilePath(partNames().last()));
    EXPECT_EQ(file->store(offerOf(8, QStringLiteral("g"), "x"), &place),
              isLinkText(paths.incomplete.absoluteFilePath(partNames().last())));
}

TEST_F(StoreLinks, TheListOfWhatWasReceived)
{
    QDir().mkpath(QFileInfo(paths.receivedList).absolutePath());
    plant(secret, paths.receivedList);
    {
        MessageStore store(paths);
        QString error;
        store.open(&error);
        EXPECT_EQ(error, isLinkText(paths.receivedList));
    }
    ASSERT_TRUE(QFile::remove(paths.receivedList));
    const auto store = open();
    plant(secret, paths.receivedList);
    EXPECT_EQ(receiveWhole(store.get(), bob, offer, "0123456789"), isLinkText(paths.receivedList));
}

TEST_F(StoreLinks, QueuedCopies)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    ASSERT_EQ(queue.enqueue(bob.abonent, source()), QString());
    queue.rescan();
    const QueuedMessage message = queue.messages().first();
    const QString dir = paths.output.absoluteFilePath(message.key);
    QString error;
    plant(secret, dir + QStringLiteral("/content"));
    EXPECT_EQ(queue.open(message, &error), nullptr) << "a link's target is not sent";
    EXPECT_TRUE(error.endsWith(isLinkText(dir + QStringLiteral("/content")))) << qPrintable(error);
    plant(victim, dir);
    EXPECT_EQ(queue.open(message, &error), nullptr);
    queue.setReason(message, WaitReason{WaitReason::Kind::Other, 0, QStringLiteral("why"), {}, {}});
    EXPECT_EQ(queue.remove(message), QString());
    EXPECT_FALSE(QFileInfo(dir).isSymLink()) << "the link itself went";
}

TEST_F(StoreLinks, TasksAndOrphans)
{
    OutgoingQueue queue(paths.output, paths.tasks);
    ASSERT_EQ(queue.enqueue(bob.abonent, source()), QString());
    const QString task = paths.tasks.absoluteFilePath(QStringLiteral("00000009.task"));
    plant(paths.tasks.absoluteFilePath(QStringLiteral("00000001.task")), task);
    EXPECT_EQ(queue.rescan(), (QStringList{QStringLiteral("%1 is damaged and is left aside").arg(task)}));
    EXPECT_EQ(queue.messages().size(), 1);
    const QString abandoned = paths.output.absoluteFilePath(QStringLiteral(".new-999999999-0000000000000001"));
    const QString orphan = paths.output.absoluteFilePath(QStringLiteral("00000042"));
    plant(victim, abandoned);
    plant(victim, orphan);
    QStringList told = queue.cleanUp();
    told.sort();
    EXPECT_EQ(told, (QStringList{isLinkText(abandoned), isLinkText(orphan)}));
    // A link deep inside what is removed.
    const QString rubbish = paths.output.absoluteFilePath(QStringLiteral(".new-999999998-0000000000000001"));
    QDir().mkpath(rubbish + QStringLiteral("/deep"));
    plant(victim, rubbish + QStringLiteral("/deep/link"));
    plant(secret, rubbish + QStringLiteral("/content"));
    queue.cleanUp();
    EXPECT_FALSE(QFileInfo::exists(rubbish));
}
