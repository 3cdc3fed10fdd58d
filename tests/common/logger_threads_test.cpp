// Several threads log at once.
#include "rig/deadline.h"
#include "tests/common/loggerfixture.h"
#include "tests/support/blockedthread.h"
#include "tests/support/systemcalls.h"

#include <QSet>
#include <QThread>
#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace logtest;

TEST(LogThreads, MessagesDoNotMix)
{
    beginEmptyLog();
    logText("first"); // so that nothing but writing is left to do
    std::unique_ptr<testsupport::ObservedThread> other;
    {
        const testsupport::SystemCallWatch watch(logPath().toStdString(), [&](testsupport::SystemCall& call) {
            if (call.name == "write" && !other) {
                other = std::make_unique<testsupport::ObservedThread>([] { logText("between"); });
                EXPECT_TRUE(other->sleepsBeforeItsEnd());
            }
            return 0;
        });
        logText("begin\n\nend");
    }
    ASSERT_TRUE(other);
    other->join();
    const QStringList lines = logLines();
    ASSERT_EQ(lines.size(), 5);
    EXPECT_TRUE(lines.at(1).endsWith(QStringLiteral(" begin")));
    EXPECT_TRUE(lines.at(3).endsWith(QStringLiteral(" end")));
    EXPECT_TRUE(lines.at(4).endsWith(QStringLiteral(" between")));
}

TEST(LogThreads, SettingsAreReadWithoutTheLock)
{
    qputenv("USER", "operator");
    LoggerData::initDebug(nullptr);
    int looks = 0;
    {
        const testsupport::SystemCallWatch watch(rootPath(QStringLiteral("settings")).toStdString(),
                                                 [&](testsupport::SystemCall&) {
                                                     ++looks;
                                                     EXPECT_TRUE(lockIsFree());
                                                     return 0;
                                                 });
        logText("text");
    }
    EXPECT_GT(looks, 0);
    EXPECT_EQ(settingsOnDisk().keys(), (QStringList{QStringLiteral("Permissions/dirPermissions"),
                                                    QStringLiteral("Permissions/filePermissions")}));
}

TEST(LogThreads, MessagesOfManyThreadsStayWhole)
{
    qputenv("USER", "operator");
    constexpr int threadCount = 6;
    constexpr int messageCount = 60;
    std::vector<std::unique_ptr<QThread>> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back(QThread::create([number] {
            for (int message = 0; message < messageCount; ++message) {
                const QString text = QStringLiteral("%1 %2").arg(number).arg(message);
                debug(label, text + QStringLiteral(" begin\n\n") + text + QStringLiteral(" end"),
                      DebugTransportConnects, DebugFlagFileOnly);
            }
        }));
    }
    for (const auto& thread : threads)
        thread->start();
    for (const auto& thread : threads)
        thread->wait();

    const QStringList lines = logLines().mid(13);
    ASSERT_EQ(lines.size(), threadCount * messageCount * 3);
    QVector<int> next(threadCount, 0);
    QMap<int, int> columnOf;
    for (int line = 0; line < lines.size(); line += 3) {
        const QString first = unstamped(lines.at(line)).mid(25);
        const QStringList words = first.simplified().split(QLatin1Char(' '));
        ASSERT_EQ(words.size(), 3) << qPrintable(first);
        const int number = words.at(0).toInt();
        EXPECT_EQ(words.at(1).toInt(), next[number]++);
        const int column = (first.size() - first.trimmed().size()) / 4;
        EXPECT_EQ(columnOf.value(number, column), column);
        columnOf.insert(number, column);
        ASSERT_EQ(lines.at(line + 1), QString());
        ASSERT_EQ(lines.at(line + 2),
                  blanks(38 + column * 4) + words.at(0) + QLatin1Char(' ') + words.at(1) + QStringLiteral(" end"));
    }
    EXPECT_EQ(QSet<int>(columnOf.cbegin(), columnOf.cend()).size(), threadCount);
}

TEST(LogThreads, TheFirstCallsShareOneRecordAndOneSummary)
{
    qputenv("USER", "operator");
    constexpr int threadCount = 8;
    std::atomic<int> ready{0};
    std::vector<std::unique_ptr<QThread>> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back(QThread::create([&ready] {
            ++ready;
            while (ready < threadCount)
                std::this_thread::yield();
            logText("text", DebugTransportConnects);
        }));
        threads.back()->start();
    }
    for (const auto& thread : threads)
        thread->wait();
    EXPECT_EQ(LoggerData::debugData()->tabs.size(), threadCount);
    EXPECT_EQ(contentOf(logPath()).count("Версия ОС:"), 1);
    EXPECT_EQ(logLines().size(), 13 + threadCount);
}

TEST(LogThreads, TheLockIsHeldWhileTheFileIsOpen)
{
    qputenv("USER", "operator");
    LoggerData::initDebug(nullptr);
    // Opening a pipe for writing waits for a reader.
    ASSERT_TRUE(QDir().mkpath(logDirPath()));
    ASSERT_EQ(mkfifo(QFile::encodeName(logPath()).constData(), 0600), 0);
    const std::unique_ptr<QThread> thread(QThread::create([] { logText("text"); }));
    thread->start();
    EXPECT_TRUE(rig::waitFor([] { return !lockIsFree(); }));
    // It may have been the short hold for the column: the pipe's is for good.
    EXPECT_TRUE(rig::waitFor([] {
        return !LoggerData::debugData()->mutex.tryLock(20) || (LoggerData::debugData()->mutex.unlock(), false);
    }));
    const int reader = open(QFile::encodeName(logPath()).constData(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_TRUE(thread->wait(30000));
    EXPECT_TRUE(lockIsFree());
    close(reader);
}

// Another thread may be looking for its row, or taking a free one.
TEST(LogThreads, ARowIsFreedUnderTheLock)
{
    const OwnThread gone([] { EXPECT_EQ(currentTabLevel(), 1); });
    DebugData* const data = LoggerData::debugData();
    data->mutex.lock();
    testsupport::ObservedThread freeing([&gone] { deleteThreadTabLevel(gone.thread()); });
    EXPECT_TRUE(freeing.sleepsBeforeItsEnd());
    EXPECT_EQ(data->tabs.first().thread, gone.thread());
    data->mutex.unlock();
    freeing.join();
    EXPECT_EQ(data->tabs.first().thread, nullptr);
}

TEST(LogThreads, ColumnsComeAndGoBesideLogging)
{
    beginEmptyLog();
    std::atomic<bool> stops{false};
    const std::unique_ptr<QThread> logging(QThread::create([&stops] {
        while (!stops)
            logText("text");
    }));
    logging->start();
    for (int i = 0; i < 50; ++i) {
        const OwnThread thread([] { EXPECT_LE(currentTabLevel(), 3); });
        deleteThreadTabLevel(thread.thread());
    }
    stops = true;
    logging->wait();
    EXPECT_LE(LoggerData::debugData()->tabs.size(), 2);
}
