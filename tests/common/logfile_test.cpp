// The log's file and directory: name, level, permissions, life.
#include "rig/time/virtualclock.h"
#include "tests/common/loggerfixture.h"

#include <QCoreApplication>
#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace logtest;

TEST(LogFile, IsNamedByProgramUserAndDay)
{
    qputenv("USER", "operator");
    logText("text");
    EXPECT_EQ(QDir(logDirPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
              QStringList{QFileInfo(logPath()).fileName()});
}

TEST(LogFile, WithoutAUserHasTwoUnderlines)
{
    qunsetenv("USER");
    QCoreApplication::setApplicationName(QStringLiteral("app"));
    rig::VirtualClock clock;
    clock.stepWallClockMs(QDateTime(QDate(2025, 1, 2), QTime(12, 0)).toMSecsSinceEpoch() -
                          QDateTime::currentMSecsSinceEpoch());
    logText("text");
    EXPECT_EQ(QDir(logDirPath()).entryList(QDir::Files), QStringList{QStringLiteral("app__2025.01.02.log")});
}

TEST(LogFile, LosesWhatAFileNameMustNotHoldFromTheUser)
{
    qputenv("USER", "op/er..a:t\"or");
    logText("text");
    EXPECT_EQ(logTexts(logPath()).last(), QStringLiteral("text"));
}

TEST(LogFile, BeginsWithTheSummary)
{
    qputenv("USER", "operator");
    umask(077);
    logText("first\nmore");
    EXPECT_EQ(modeOf(logPath()), 0666);
    const QByteArray head = contentOf(logPath());
    EXPECT_TRUE(head.startsWith("Версия "));
    logText("second");
    const QByteArray content = contentOf(logPath());
    EXPECT_EQ(content.count("Версия ОС:"), 1);
    EXPECT_TRUE(content.startsWith(head));
    // Twelve lines, an empty one, then what was logged.
    const QStringList lines = logLines();
    ASSERT_EQ(lines.size(), 16);
    EXPECT_EQ(lines.at(12), QString());
    EXPECT_EQ(unstamped(lines.at(13)), blanks(15) + label + blanks(4) + QStringLiteral("first"));
    EXPECT_EQ(lines.at(14), blanks(42) + QStringLiteral("more"));
    EXPECT_EQ(unstamped(lines.at(15)), blanks(15) + label + blanks(4) + QStringLiteral("second"));
}

TEST(LogFile, ThatExistsKeepsItsPermissions)
{
    beginEmptyLog();
    ASSERT_EQ(chmod(QFile::encodeName(logPath()).constData(), 0640), 0);
    logText("text");
    EXPECT_EQ(modeOf(logPath()), 0640);
    EXPECT_EQ(logLines().size(), 1);
    // Nothing of this needed a setting.
    EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST(LogFile, OnlyTheLogsOwnDirectoryGetsPermissions)
{
    qputenv("USER", "operator");
    umask(027);
    logText("text");
    EXPECT_EQ(modeOf(rootPath(QStringLiteral("data"))), 0750);
    EXPECT_EQ(modeOf(rootPath(QStringLiteral("data/0"))), 0750);
    EXPECT_EQ(modeOf(logDirPath()), 0777);
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Permissions/dirPermissions")), QStringLiteral("30583"));
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Permissions/filePermissions")), QStringLiteral("26214"));
}

TEST(LogFile, PermissionsAreReadOnce)
{
    qputenv("USER", "operator");
    umask(0);
    editSettings("[Permissions]\ndirPermissions=28945\nfilePermissions=24576\n"); // 0x7111, 0x6000
    logText("text");
    EXPECT_EQ(modeOf(logDirPath()), 0711);
    EXPECT_EQ(modeOf(logPath()), 0600);

    editSettings("[Permissions]\ndirPermissions=30583\nfilePermissions=26214\n");
    ASSERT_TRUE(QDir(logDirPath()).removeRecursively());
    logText("text");
    EXPECT_EQ(modeOf(logDirPath()), 0711);
    EXPECT_EQ(modeOf(logPath()), 0600);
}

TEST(LogFile, PermissionsMayShutOthersOut)
{
    qputenv("USER", "operator");
    umask(0);
    editSettings("[Permissions]\ndirPermissions=30544\nfilePermissions=26176\n"); // 0x7750, 0x6640
    logText("text");
    EXPECT_EQ(modeOf(logDirPath()), 0750);
    EXPECT_EQ(modeOf(logPath()), 0640);
}

TEST(LogFile, PermissionsOutOfRangeAreNotUsed)
{
    qputenv("USER", "operator");
    umask(077);
    editSettings("[Permissions]\ndirPermissions=28672\nfilePermissions=8738\n"); // 0x7000, 0x2222
    logText("text");
    EXPECT_EQ(modeOf(logDirPath()), 0777);
    EXPECT_EQ(modeOf(logPath()), 0666);
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Permissions/dirPermissions")), QStringLiteral("30583"));
}

TEST(LogFile, LiesInTheLowestLevelThatCanBeWritten)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(writeFile(rootPath(QStringLiteral("data/0"))));
    ASSERT_TRUE(writeFile(logPath(firstDay(), 1)));
    logText("text");
    EXPECT_EQ(logTexts(logPath(firstDay(), 1)), QStringList{QStringLiteral("text")});
    // The level is kept while all goes well.
    ASSERT_TRUE(QFile::remove(rootPath(QStringLiteral("data/0"))));
    logText("more");
    EXPECT_EQ(logLines(logPath(firstDay(), 1)).size(), 2);
    EXPECT_FALSE(QFile::exists(rootPath(QStringLiteral("data/0"))));
}

TEST(LogFile, StaysThatOfItsDayUntilAFailure)
{
    beginEmptyLog();
    rig::VirtualClock clock;
    const QDate today = firstDay();
    logText("today");
    clock.stepWallClockMs(24 * 3600 * 1000);
    ASSERT_EQ(QDate::currentDate(), today.addDays(1));
    logText("past midnight");
    EXPECT_EQ(logTexts(logPath(today)), (QStringList{QStringLiteral("today"), QStringLiteral("past midnight")}));

    ASSERT_TRUE(QDir(logDirPath()).removeRecursively());
    ASSERT_TRUE(writeFile(logDirPath()));
    const MessageRecorder recorder;
    logText("lost");
    EXPECT_EQ(recorder.texts(QtWarningMsg).size(), 1);
    ASSERT_TRUE(QFile::remove(logDirPath()));
    logText("tomorrow");
    EXPECT_EQ(logTexts(logPath(today.addDays(1))).last(), QStringLiteral("tomorrow"));
    EXPECT_FALSE(QFile::exists(logPath(today)));
}

TEST(LogFile, IsClosedAfterEachCall)
{
    beginEmptyLog();
    logText("text");
    const auto openFiles = [] {
        return QDir(QStringLiteral("/proc/self/fd"))
            .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
            .size();
    };
    const int before = openFiles();
    for (int i = 0; i < 20; ++i)
        logText("text");
    EXPECT_EQ(openFiles(), before);
    // Moved away, it is not written to any more.
    ASSERT_TRUE(QFile::rename(logPath(), logPath() + QStringLiteral(".old")));
    logText("new");
    EXPECT_EQ(logLines(logPath() + QStringLiteral(".old")).size(), 21);
    EXPECT_EQ(logTexts().last(), QStringLiteral("new"));
}

TEST(LogFile, TruncatedMeanwhileItGoesOnAtItsEnd)
{
    beginEmptyLog();
    logText("before");
    ASSERT_TRUE(QFile::resize(logPath(), 0));
    logText("after");
    EXPECT_EQ(logTexts(), QStringList{QStringLiteral("after")});
}
