// Links and other things that a local user plants where the host writes beside its store: what
// they lead to stays as it is, and nothing is waited for.
#include "common/global.h"
#include "host/channel/hostjournal.h"
#include "host/hoststate.h"
#include "host/installation/eventlog.h"
#include "host/installation/hostsettings.h"
#include "host/installation/privacy.h"
#include "tests/host/storetools.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace host;
using namespace hosttest;

namespace {

constexpr uid_t otherUser = 65534;

class HostLinks : public testing::Test
{
protected:
    HostLinks() : victim(writeFile(rig::installRoot() + QStringLiteral("/outside/victim"), "precious\n"))
    {
        EXPECT_EQ(::chmod(QFile::encodeName(victim).constData(), 0640), 0);
    }

    ~HostLinks() override
    {
        struct stat facts = {};
        EXPECT_EQ(::stat(QFile::encodeName(victim).constData(), &facts), 0) << "removed";
        EXPECT_EQ(facts.st_mode & 07777, 0640u);
        EXPECT_EQ(readAll(victim).left(300), QByteArray("precious\n"));
        EXPECT_EQ(
            QFileInfo(victim).dir().entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot),
            QStringList{QStringLiteral("victim")});
    }

    static void plant(const QString& target, const QString& path)
    {
        QDir().mkpath(QFileInfo(path).absolutePath());
        ASSERT_EQ(::symlink(QFile::encodeName(target).constData(), QFile::encodeName(path).constData()), 0);
    }

    static void giveAway(const QString& path)
    {
        ASSERT_EQ(::lchown(QFile::encodeName(path).constData(), otherUser, otherUser), 0);
    }

    QString nowhere() const { return victim + QStringLiteral(".new"); }

    const QString victim;
    const QString data = rig::installRoot() + QStringLiteral("/data/0/");
};

bool isLink(const QString& path)
{
    return QFileInfo(path).isSymLink();
}

} // namespace

TEST_F(HostLinks, TheJournal)
{
    const QString path = data + QStringLiteral("journal.txt");
    for (const QString& target : {victim, nowhere()}) {
        plant(target, path);
        int told = 0;
        HostJournal journal(path, [&](const JournalRecord&) { ++told; });
        journal.addRecord(0, QStringLiteral("ttyS0"), QStringLiteral("one"));
        EXPECT_EQ(told, 1);
        EXPECT_TRUE(isLink(path)) << "left to be looked at";
        ASSERT_TRUE(QFile::remove(path));
        journal.addRecord(0, QStringLiteral("ttyS0"), QStringLiteral("two"));
        EXPECT_TRUE(readAll(path).endsWith(" ttyS0: two\n")) << "goes on once it is away";
        ASSERT_TRUE(QFile::remove(path));
    }
}

TEST_F(HostLinks, TheJournalsEarlierFile)
{
    const QString path = data + QStringLiteral("journal.txt");
    const QString old = path + QStringLiteral(".old");
    for (const QString& target : {victim, nowhere()}) {
        plant(target, old);
        HostJournal journal(path, {}, 10);
        journal.addRecord(0, QStringLiteral("s"), QStringLiteral("first"));
        journal.addRecord(0, QStringLiteral("s"), QStringLiteral("second"));
        EXPECT_FALSE(isLink(old));
        EXPECT_TRUE(readAll(old).endsWith(" s: first\n"));
        EXPECT_TRUE(readAll(path).endsWith(" s: second\n"));
        ASSERT_TRUE(QFile::remove(old));
        ASSERT_TRUE(QFile::remove(path));
    }
}

// Not a link to be seen: the same file under a second name.
TEST_F(HostLinks, ASecondNameOfAFileInTheJournalsPlace)
{
    const QString path = data + QStringLiteral("journal.txt");
    QDir().mkpath(data);
    ASSERT_EQ(::link(QFile::encodeName(victim).constData(), QFile::encodeName(path).constData()), 0);
    HostJournal journal(path);
    journal.addRecord(0, QStringLiteral("ttyS0"), QStringLiteral("one"));
    EXPECT_EQ(readAll(victim), QByteArray("precious\n"));
    ASSERT_TRUE(QFile::remove(path));
    journal.addRecord(0, QStringLiteral("ttyS0"), QStringLiteral("two"));
    EXPECT_TRUE(readAll(path).endsWith(" ttyS0: two\n")) << "goes on once it is away";
}

// Whoever made it could read, and change, what the users of the installation are told.
TEST_F(HostLinks, SomebodyElsesFileInTheJournalsPlace)
{
    const QString path = data + QStringLiteral("journal.txt");
    writeFile(path, "theirs\n");
    giveAway(path);
    HostJournal journal(path);
    journal.addRecord(0, QStringLiteral("ttyS0"), QStringLiteral("one"));
    EXPECT_EQ(readAll(path), QByteArray("theirs\n"));
}

TEST_F(HostLinks, ASecondNameOfAFileInTheEventsPlace)
{
    const QString path = data + QStringLiteral("events.txt");
    QDir().mkpath(data);
    ASSERT_EQ(::link(QFile::encodeName(victim).constData(), QFile::encodeName(path).constData()), 0);
    EventLog events;
    EXPECT_EQ(events.open(path),
              QStringLiteral("cannot write %1: it has another name elsewhere, and is not written").arg(path));
    events.write(QStringLiteral("started"), {});
    EXPECT_EQ(readAll(victim), QByteArray("precious\n"));
    ASSERT_TRUE(QFile::remove(path));
    EXPECT_EQ(events.open(path), QString());
    events.write(QStringLiteral("started"), {});
    EXPECT_TRUE(readAll(path).contains("started"));
}

TEST_F(HostLinks, TheHostsState)
{
    const QString path = data + QStringLiteral("transport-host.state");
    for (const QString& name : {path, path + QStringLiteral(".new")}) {
        for (const QString& target : {victim, nowhere()}) {
            plant(target, name);
            HostStateFile file(path);
            HostState state;
            state.calling = QStringList{QStringLiteral("Юг")};
            file.write(state);
            EXPECT_FALSE(isLink(path));
            EXPECT_FALSE(readHostState(path).isEmpty());
            ASSERT_TRUE(QFile::remove(path));
            EXPECT_FALSE(isLink(path + QStringLiteral(".new")));
        }
    }
}

// QSettings follows a link and writes behind it. One of the user's own, or of the superuser, may
// be meant so; one of somebody else is not.
TEST_F(HostLinks, TheGeneralSettingsOfSomebodyElse)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only the superuser can make another user's link";
    const QString path = Global::generalSettingsFilePath();
    for (const QString& target : {victim, nowhere()}) {
        plant(target, path);
        giveAway(path);
        Identity identity;
        const QString error = loadIdentity(&identity);
        EXPECT_EQ(error,
                  path + QStringLiteral(
                             " is a link that another user has made: remove it, and see what else was changed there"));
        EXPECT_EQ(saveOwnName(QStringLiteral("North")), error);
        EXPECT_TRUE(isLink(path));
        ASSERT_TRUE(QFile::remove(path));
    }
}

// QSettings would wait for ever for what is no lock file, a directory, a pipe or a link.
TEST_F(HostLinks, TheLockOfTheSettings)
{
    for (const QString& path : {Global::generalSettingsFilePath(), Global::internalSettingsFilePath()}) {
        const QString lock = path + QStringLiteral(".lock");
        plant(nowhere(), lock);
        ASSERT_EQ(::chmod(QFile::encodeName(QFileInfo(lock).absolutePath()).constData(), 0700), 0);
        const QString error =
            path == Global::internalSettingsFilePath() ? prepareInstallation() : saveOwnName(QStringLiteral("North"));
        EXPECT_EQ(error, QStringLiteral(
                             "cannot write %1: %2 is in the way; remove it unless a program of yours runs that made it")
                             .arg(path, lock));
        EXPECT_TRUE(isLink(lock));
        ASSERT_TRUE(QFile::remove(lock));
    }
}

// Where events go is said by whoever gives the command, and a link of theirs may be meant.
TEST_F(HostLinks, TheEventsOfSomebodyElse)
{
    const QString path = data + QStringLiteral("events");
    const QString own = data + QStringLiteral("own");
    plant(own, path);
    EventLog log;
    EXPECT_EQ(log.open(path), QString());
    log.write(QStringLiteral("started"), {});
    EXPECT_TRUE(readAll(own).contains("\"started\""));
    ASSERT_TRUE(QFile::remove(path));
    if (::geteuid() != 0)
        GTEST_SKIP() << "only the superuser can make another user's link";
    plant(victim, path);
    giveAway(path);
    EventLog foreign;
    EXPECT_EQ(foreign.open(path), QStringLiteral("cannot write %1: it is a link that another user has made").arg(path));
    foreign.write(QStringLiteral("started"), {});
}
