// The settings file when something stands in the way of writing it.
#include "common/csettings.h"
#include "tests/common/logsupport.h"

#include <QDir>
#include <QLockFile>
#include <QThread>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using namespace logtest;

namespace {

QString lockPath()
{
    return settingsPath() + QStringLiteral(".lock");
}

// Runs work in a thread that may never end; false if it has not within a generous time.
bool endsInTime(std::function<void()> work)
{
    QThread* const thread = QThread::create(std::move(work)); // one that hangs is left to the process
    thread->start();
    if (!thread->wait(20000))
        return false;
    delete thread;
    return true;
}

// The default counts, once and then always, and is told once; once the way is free it is written.
void expectDefaultsUntil(const std::function<void()>& freeTheWay)
{
    MessageRecorder recorder;
    int first = 0;
    int second = 0;
    ASSERT_TRUE(endsInTime([&] { first = CSettings().detailsMaxWritingTime(); }));
    EXPECT_EQ(first, 5000);
    ASSERT_TRUE(endsInTime([&] {
        for (int i = 0; i < 20; ++i) // a second each would be too long
            second = CSettings().detailsMaxWritingTime();
    }));
    EXPECT_EQ(second, 5000);
    const QStringList told = recorder.texts(QtWarningMsg);
    ASSERT_EQ(told.size(), 1) << qPrintable(told.join(QLatin1Char('\n')));
    EXPECT_TRUE(told.first().startsWith(QStringLiteral("Настройки не записаны"))) << qPrintable(told.first());
    EXPECT_FALSE(settingsOnDisk().contains(QStringLiteral("Details/maxWritingTime")));

    freeTheWay();
    CSettings().debugAll();
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Details/maxWritingTime")), QStringLiteral("5000"));
    EXPECT_EQ(settingsOnDisk().size(), 2);
    EXPECT_EQ(recorder.texts(QtWarningMsg).size(), 1);
}

} // namespace

TEST(SettingsLock, ADirectoryInItsPlaceIsNotWaitedFor)
{
    ASSERT_TRUE(QDir().mkpath(lockPath() + QStringLiteral("/inside")));
    expectDefaultsUntil([] { ASSERT_TRUE(QDir(lockPath()).removeRecursively()); });
}

TEST(SettingsLock, APipeInItsPlaceIsNotWaitedFor)
{
    ASSERT_TRUE(QDir().mkpath(rootPath(QStringLiteral("settings"))));
    ASSERT_EQ(mkfifo(QFile::encodeName(lockPath()).constData(), 0600), 0);
    expectDefaultsUntil([] { ASSERT_TRUE(QFile::remove(lockPath())); });
}

TEST(SettingsLock, ALinkInItsPlaceIsNotFollowed)
{
    const QString victim = rootPath(QStringLiteral("victim"));
    ASSERT_TRUE(writeFile(victim, "content"));
    ASSERT_TRUE(QDir().mkpath(rootPath(QStringLiteral("settings"))));
    ASSERT_TRUE(QFile::link(victim, lockPath()));
    expectDefaultsUntil([] { ASSERT_TRUE(QFile::remove(lockPath())); });
    EXPECT_EQ(contentOf(victim), "content");
}

TEST(SettingsLock, AForeignFileInItsPlaceStays)
{
    ASSERT_TRUE(writeFile(lockPath(), "no lock of ours"));
    expectDefaultsUntil([] {
        EXPECT_EQ(contentOf(lockPath()), "no lock of ours");
        ASSERT_TRUE(QFile::remove(lockPath()));
    });
}

TEST(SettingsLock, AFreshLockOfAnotherIsWaitedForAndStays)
{
    ASSERT_TRUE(QDir().mkpath(rootPath(QStringLiteral("settings"))));
    QLockFile others(lockPath());
    ASSERT_TRUE(others.lock());
    const QByteArray content = contentOf(lockPath());
    expectDefaultsUntil([&] {
        EXPECT_EQ(contentOf(lockPath()), content);
        others.unlock();
    });
}

TEST(SettingsLock, ALockThatIsGivenUpInTimeCostsNothingButTime)
{
    ASSERT_TRUE(QDir().mkpath(rootPath(QStringLiteral("settings"))));
    MessageRecorder recorder;
    QLockFile others(lockPath());
    ASSERT_TRUE(others.lock());
    others.unlock();
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 5000);
    EXPECT_EQ(settingsOnDisk().size(), 1);
    EXPECT_FALSE(QFile::exists(lockPath()));
    EXPECT_TRUE(recorder.messages().isEmpty());
}

// A link that another user has put in the file's place; one of an administrator is followed.
TEST(SettingsLock, AFileBehindAForeignLinkIsNotWritten)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only the superuser can make another user's link";
    const QString victim = rootPath(QStringLiteral("victim"));
    ASSERT_TRUE(writeFile(victim, "[Debug]\nall=true\n"));
    ASSERT_TRUE(QDir().mkpath(rootPath(QStringLiteral("settings"))));
    ASSERT_TRUE(QFile::link(victim, settingsPath()));
    ASSERT_EQ(lchown(QFile::encodeName(settingsPath()).constData(), 65534, 65534), 0);
    MessageRecorder recorder;
    EXPECT_TRUE(CSettings().debugAll());
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 5000);
    EXPECT_EQ(contentOf(victim), "[Debug]\nall=true\n");
    EXPECT_EQ(recorder.texts(QtWarningMsg).size(), 1);
    ASSERT_EQ(lchown(QFile::encodeName(settingsPath()).constData(), geteuid(), getegid()), 0);
    CSettings().debugAll();
    EXPECT_TRUE(contentOf(victim).contains("maxWritingTime=5000"));
}
