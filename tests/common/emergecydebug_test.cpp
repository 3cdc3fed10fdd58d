// The emergency log: the same file by the shortest way.
#include "common/logger.h"
#include "rig/time/virtualclock.h"
#include "tests/common/logsupport.h"

#include <QCoreApplication>
#include <QMutexLocker>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <thread>
#include <vector>

using namespace logtest;

namespace {

void emergency(const char* text)
{
    emergecyDebug(QString::fromUtf8(text));
}

// A line of the emergency log without its stamp, which must be one.
QString unstamped(const QString& line)
{
    static const QRegularExpression stamp(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3}"));
    return stamp.match(line).hasMatch() ? line.mid(12) : QStringLiteral("no stamp: ") + line;
}

QString marked(const char* text)
{
    return QStringLiteral("                forceDebug    ") + QString::fromUtf8(text);
}

} // namespace

TEST(EmergencyLog, MarksTheFirstPartAndIndentsTheOthers)
{
    qputenv("USER", "operator");
    emergency("first\nsecond\nthird");
    const QStringList lines = logLines();
    ASSERT_EQ(lines.size(), 3);
    EXPECT_EQ(unstamped(lines.at(0)), marked("first"));
    EXPECT_EQ(lines.at(1), QStringLiteral("    second"));
    EXPECT_EQ(lines.at(2), QStringLiteral("    third"));
}

TEST(EmergencyLog, EmptyPartsLeaveNothing)
{
    qputenv("USER", "operator");
    emergency("\n\na\n\nb\n");
    const QStringList lines = logLines();
    ASSERT_EQ(lines.size(), 2);
    EXPECT_EQ(unstamped(lines.at(0)), marked("a"));
    EXPECT_EQ(lines.at(1), QStringLiteral("    b"));
    emergency("");
    emergency("\n\n");
    EXPECT_EQ(logLines().size(), 2);
}

TEST(EmergencyLog, MarkersAndOtherAlphabetsStay)
{
    qputenv("USER", "operator");
    emergency("100%1 %2 Привет\n100%1 %2 Привет");
    EXPECT_EQ(unstamped(logLines().value(0)), marked("100%1 %2 Привет"));
    EXPECT_EQ(logLines().value(1), QStringLiteral("    100%1 %2 Привет"));
}

TEST(EmergencyLog, NeedsAndMakesNothingButItsFile)
{
    qputenv("USER", "operator");
    umask(027);
    const MessageRecorder recorder;
    emergency("text");
    EXPECT_EQ(LoggerData::debugData(), nullptr);
    EXPECT_FALSE(QFile::exists(rootPath(QStringLiteral("settings"))));
    EXPECT_TRUE(recorder.messages().isEmpty());
    EXPECT_EQ(logLines().size(), 1); // no summary
    EXPECT_EQ(modeOf(logDirPath()), 0750);
    EXPECT_EQ(modeOf(logPath()), 0640);
    EXPECT_EQ(QDir(logDirPath()).entryList(QDir::Files), QStringList{QFileInfo(logPath()).fileName()});
}

TEST(EmergencyLog, WritesToTheFileOfTheLog)
{
    beginEmptyLog();
    debug(QStringLiteral("x"), QStringLiteral("one"), DebugAlways, DebugFlagFileOnly);
    emergency("two");
    debug(QStringLiteral("x"), QStringLiteral("three"), DebugAlways, DebugFlagFileOnly);
    const QStringList lines = logLines();
    ASSERT_EQ(lines.size(), 3);
    EXPECT_EQ(unstamped(lines.at(1)), marked("two"));
}

TEST(EmergencyLog, WorksWhileTheLogsLockIsHeld)
{
    qputenv("USER", "operator");
    LoggerData::initDebug(nullptr);
    const QMutexLocker locker(&LoggerData::debugData()->mutex);
    emergency("text");
    EXPECT_EQ(unstamped(logLines().value(0)), marked("text"));
    EXPECT_TRUE(LoggerData::debugData()->tabs.isEmpty());
}

TEST(EmergencyLog, LosesWhatAFileNameMustNotHoldFromTheUser)
{
    qputenv("USER", "op/er..a:tor");
    emergency("text");
    EXPECT_EQ(logLines().size(), 1);
}

TEST(EmergencyLog, LiesInTheLowestLevelThatCanBeWritten)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(writeFile(rootPath(QStringLiteral("data/0"))));
    ASSERT_TRUE(writeFile(rootPath(QStringLiteral("data/1"))));
    emergency("text");
    EXPECT_EQ(logLines(logPath(firstDay(), 2)).size(), 1);
}

TEST(EmergencyLog, KeepsItsFileAcrossMidnightWhateverTheLogDoes)
{
    beginEmptyLog();
    rig::VirtualClock clock;
    const QDate today = firstDay();
    emergency("emergency of today");
    debug(QStringLiteral("x"), QStringLiteral("log of today"), DebugAlways, DebugFlagFileOnly);
    clock.stepWallClockMs(24 * 3600 * 1000);

    // The log fails and finds its file anew.
    const QString away = logDirPath() + QStringLiteral(".away");
    ASSERT_TRUE(QFile::rename(logDirPath(), away));
    ASSERT_TRUE(writeFile(logDirPath()));
    {
        const MessageRecorder recorder;
        debug(QStringLiteral("x"), QStringLiteral("lost"), DebugAlways, DebugFlagFileOnly);
        EXPECT_EQ(recorder.messages().size(), 1);
    }
    ASSERT_TRUE(QFile::remove(logDirPath()));
    ASSERT_TRUE(QFile::rename(away, logDirPath()));
    ASSERT_TRUE(writeFile(logPath(today.addDays(1))));
    debug(QStringLiteral("x"), QStringLiteral("log of tomorrow"), DebugAlways, DebugFlagFileOnly);
    emergency("still of today");
    EXPECT_EQ(logLines(logPath(today)).size(), 3);
    EXPECT_EQ(unstamped(logLines(logPath(today)).value(2)), marked("still of today"));
    EXPECT_EQ(logTexts(logPath(today.addDays(1))), QStringList{QStringLiteral("log of tomorrow")});
}

TEST(EmergencyLog, ADirectoryThatCannotBeMadeLosesOneMessage)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(writeFile(logDirPath()));
    const MessageRecorder recorder;
    emergency("lost");
    EXPECT_EQ(recorder.texts(QtWarningMsg),
              QStringList{QStringLiteral("Не удалось создать каталог для записи лога \"%1\"").arg(logDirPath())});
    ASSERT_TRUE(QFile::remove(logDirPath()));
    emergency("there");
    EXPECT_EQ(logLines().size(), 1);
    EXPECT_EQ(recorder.messages().size(), 1);
}

TEST(EmergencyLog, AFailureFindsTheFileAnew)
{
    qputenv("USER", "operator");
    rig::VirtualClock clock;
    const QDate today = firstDay();
    emergency("today");
    clock.stepWallClockMs(24 * 3600 * 1000);
    ASSERT_TRUE(QDir(logDirPath()).removeRecursively());
    ASSERT_TRUE(QDir().mkpath(logPath(today)));
    const MessageRecorder recorder;
    emergency("lost");
    ASSERT_EQ(recorder.texts(QtWarningMsg).size(), 1);
    EXPECT_TRUE(recorder.texts(QtWarningMsg)
                    .value(0)
                    .startsWith(QStringLiteral("Ошибка открытия файла для записи: \"%1\" \"").arg(logPath(today))));
    emergency("tomorrow");
    EXPECT_EQ(unstamped(logLines(logPath(today.addDays(1))).value(0)), marked("tomorrow"));
}

TEST(EmergencyLog, AFullDiskLosesOnlyTheLinesAtHand)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(QDir().mkpath(logDirPath()));
    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/full"), logPath()));
    rig::VirtualClock clock;
    const MessageRecorder recorder;
    emergency("lost");
    EXPECT_EQ(recorder.texts(QtWarningMsg).last(),
              QStringLiteral("Не удалось записать данные в лог файл. Ошибка записи.  \"%1\"")
                  .arg(QString::fromLocal8Bit(std::strerror(ENOSPC))));
    ASSERT_TRUE(QFile::remove(logPath()));
    // And finds its file anew.
    clock.stepWallClockMs(24 * 3600 * 1000);
    emergency("there");
    EXPECT_EQ(logLines(logPath(firstDay().addDays(1))).size(), 1);
    EXPECT_FALSE(QFile::exists(logPath()));
}

TEST(EmergencyLog, AMissingDirectoryComesBackAtOnce)
{
    qputenv("USER", "operator");
    emergency("before");
    ASSERT_TRUE(QDir(rootPath(QStringLiteral("data"))).removeRecursively());
    emergency("after");
    EXPECT_EQ(unstamped(logLines().value(0)), marked("after"));
}

TEST(EmergencyLog, AMessageHandlerThatLogsItsTroublesComesToAnEnd)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(writeFile(logDirPath()));
    MessageRecorder recorder;
    recorder.setHandler([](const Message& message) { emergecyDebug(message.text); });
    emergency("lost");
    EXPECT_EQ(recorder.messages().size(), 1);
    ASSERT_TRUE(QFile::remove(logDirPath()));
    emergency("there");
    EXPECT_EQ(logLines().size(), 1);
}

TEST(EmergencyLog, PartsOfManyThreadsStayWhole)
{
    qputenv("USER", "operator");
    constexpr int threadCount = 6;
    constexpr int messageCount = 80;
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([] {
            for (int message = 0; message < messageCount; ++message)
                emergency("first\nsecond");
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    int first = 0;
    int second = 0;
    for (const QString& line : logLines()) {
        if (line == QStringLiteral("    second"))
            ++second;
        else if (unstamped(line) == marked("first"))
            ++first;
        else
            ADD_FAILURE() << qPrintable(line);
    }
    EXPECT_EQ(first, threadCount * messageCount);
    EXPECT_EQ(second, threadCount * messageCount);
}
