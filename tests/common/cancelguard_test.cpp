// Threads that are ended by force in the middle of logging, tracing and reading settings: the process
// lives on, and nothing stays locked or half written.
#include "common/cancelguard.h"
#include "common/csettings.h"
#include "common/functiondebug.h"
#include "common/logger.h"
#include "rig/deadline.h"
#include "tests/common/logsupport.h"

#include <QRegularExpression>
#include <QThread>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <pthread.h>
#include <sys/stat.h>
#include <utility>
#include <vector>

using namespace logtest;

namespace {

// As the threads of the product; QThread::create() has a future in between that takes an end by
// force badly.
class OwnThread : public QThread
{
public:
    explicit OwnThread(std::function<void()> work) : m_work(std::move(work)) {}

private:
    void run() override { m_work(); }

    std::function<void()> m_work;
};

// Runs work over and over in threads that are ended by force, each somewhere in it. Between two
// rounds stands a point where the thread may end.
template <typename Work>
void endByForce(Work work)
{
    for (int i = 0; i < 20; ++i) {
        std::atomic<int> rounds{0};
        const auto thread = std::make_unique<OwnThread>([&] {
            for (;;) {
                work();
                ++rounds;
                pthread_testcancel();
            }
        });
        thread->start();
        const int wanted = 1 + i % 3;
        ASSERT_TRUE(rig::waitFor([&] { return rounds >= wanted; }));
        thread->terminate();
        ASSERT_TRUE(thread->wait(30000));
        deleteThreadTabLevel(thread.get());
    }
}

void expectWhole(const QStringList& lines)
{
    static const QRegularExpression whole(
        QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} .{25} +(text|void f\\(\\) [{}])$"));
    for (const QString& line : lines)
        EXPECT_TRUE(whole.match(line).hasMatch()) << qPrintable(line);
}

// Works only while no lock was left behind.
void expectUsable()
{
    QMutex& mutex = LoggerData::debugData()->mutex;
    ASSERT_TRUE(mutex.tryLock(30000));
    mutex.unlock();
    const int before = logLines().size();
    debug(QStringLiteral("x"), QStringLiteral("text"), DebugTransportConnects, DebugFlagFileOnly);
    EXPECT_EQ(logLines().size(), before + 1);
}

} // namespace

TEST(Cancellation, AGuardPutsItOff)
{
    std::atomic<bool> isIn{false};
    std::atomic<bool> mayGoOn{false};
    std::atomic<bool> reachedTheEnd{false};
    std::atomic<bool> survived{false};
    const auto thread = std::make_unique<OwnThread>([&] {
        {
            const CancelGuard outer;
            {
                const CancelGuard inner;
            }
            isIn = true;
            while (!mayGoOn)
                pthread_testcancel();
            reachedTheEnd = true;
        }
        pthread_testcancel();
        survived = true;
    });
    thread->start();
    ASSERT_TRUE(rig::waitFor([&] { return isIn.load(); }));
    thread->terminate();
    mayGoOn = true;
    ASSERT_TRUE(thread->wait(30000));
    EXPECT_TRUE(reachedTheEnd);
    EXPECT_FALSE(survived);
}

TEST(Cancellation, OfAThreadThatLogs)
{
    beginEmptyLog();
    endByForce([] { debug(QStringLiteral("x"), QStringLiteral("text"), DebugTransportConnects, DebugFlagFileOnly); });
    expectUsable();
    expectWhole(logLines());
    EXPECT_EQ(LoggerData::debugData()->tabs.size(), 1); // one after another, and this thread, in one column
}

TEST(Cancellation, OfAThreadThatLogsInADestructor)
{
    beginEmptyLog();
    editSettings("[Debug]\nall=true\n");
    const MessageRecorder silent;
    endByForce([] {
        const _CFunctionDebug trace("void f()");
        pthread_testcancel();
    });
    expectUsable();
    expectWhole(logLines());
    int depth = 0;
    for (const QString& line : logLines().filter(QStringLiteral("void f()")))
        depth += line.endsWith(QLatin1Char('{')) ? 1 : -1;
    EXPECT_EQ(depth, 0);
}

TEST(Cancellation, OfAThreadThatEntersScopes)
{
    endByForce([] { const _CFunctionDebug trace("void f()"); });
    EXPECT_GE(_CFunctionDebug::stack()->size(), 20);
}

TEST(Cancellation, OfAThreadThatReadsAndWritesSettings)
{
    std::atomic<int> value{0};
    endByForce([&value] {
        CSettings settings;
        settings.debugTransportConnects();
        settings.write(QStringLiteral("Own/key"), ++value);
        settings.detailsTransportComResendInterval();
    });
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 5000);
    EXPECT_EQ(settingsOnDisk().size(), 4);
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Own/key")), QString::number(value));
}

TEST(Cancellation, OfAThreadThatLogsAnEmergency)
{
    qputenv("USER", "operator");
    endByForce([] { emergecyDebug(QStringLiteral("first\nsecond")); });
    const QStringList lines = logLines();
    ASSERT_GE(lines.size(), 40);
    for (int line = 0; line + 1 < lines.size(); line += 2) {
        EXPECT_TRUE(lines.at(line).endsWith(QStringLiteral("forceDebug    first")));
        EXPECT_EQ(lines.at(line + 1), QStringLiteral("    second"));
    }
}

TEST(Cancellation, OfAThreadThatHangsInTheLogComesWhenItIsOut)
{
    qputenv("USER", "operator");
    LoggerData::initDebug(nullptr);
    // Opening a pipe for writing waits for a reader, and is where a thread may be ended.
    ASSERT_TRUE(QDir().mkpath(logDirPath()));
    ASSERT_EQ(mkfifo(QFile::encodeName(logPath()).constData(), 0600), 0);
    std::atomic<bool> survived{false};
    const MessageRecorder silent;
    const auto thread = std::make_unique<OwnThread>([&] {
        debug(QStringLiteral("x"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
        pthread_testcancel();
        survived = true;
    });
    thread->start();
    QMutex& mutex = LoggerData::debugData()->mutex;
    ASSERT_TRUE(rig::waitFor([&mutex] { return !mutex.tryLock(20) || (mutex.unlock(), false); }));
    thread->terminate();
    EXPECT_FALSE(thread->wait(20));
    EXPECT_FALSE(mutex.tryLock());
    const int reader = open(QFile::encodeName(logPath()).constData(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_TRUE(thread->wait(30000));
    EXPECT_FALSE(survived);
    ASSERT_TRUE(mutex.tryLock());
    mutex.unlock();
    close(reader);
}

TEST(Cancellation, OfManyThreadsAtOnce)
{
    beginEmptyLog();
    std::atomic<int> rounds{0};
    std::vector<std::unique_ptr<QThread>> threads;
    for (int number = 0; number < 8; ++number) {
        threads.push_back(std::make_unique<OwnThread>([&] {
            for (;;) {
                debug(QStringLiteral("x"), QStringLiteral("text"), DebugTransportConnects, DebugFlagFileOnly);
                ++rounds;
                pthread_testcancel();
            }
        }));
        threads.back()->start();
    }
    ASSERT_TRUE(rig::waitFor([&] { return rounds >= 50; }));
    for (const auto& thread : threads)
        thread->terminate();
    for (const auto& thread : threads)
        ASSERT_TRUE(thread->wait(30000));
    expectUsable();
    expectWhole(logLines());
}
