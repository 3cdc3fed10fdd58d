// Stopping a server whose ports have no device: in which thread, what is reported, what is left.
#include "common/logger.h"
#include "tests/boundary/serveralone.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMutexLocker>
#include <QPointer>
#include <QSemaphore>
#include <QThread>

#include <atomic>

using rig::waitFor;

namespace {

// Which threads have the log's columns now; null where one is free.
QList<QThread*> columnOwners()
{
    QList<QThread*> owners;
    DebugData* const data = LoggerData::debugData();
    if (!data)
        return owners;
    QMutexLocker locker(&data->mutex);
    for (const Tabulation& row : qAsConst(data->tabs))
        owners.append(row.thread);
    return owners;
}

} // namespace

TEST_F(ServerAlone, StopInTheServersOwnThread)
{
    writeSettings({TestPort{QStringLiteral("noneA")}, TestPort{QStringLiteral("noneB")}});
    server->start();
    ASSERT_TRUE(waitForPorts(2));
    server->stop();
    EXPECT_EQ(serverEntries(), (QStringList{recordOf(QStringLiteral("Запуск")), stateOf(QStringLiteral("Работает")),
                                            recordOf(QStringLiteral("Остановка"))}));
    EXPECT_EQ(log.entriesWith(QStringLiteral("remove ")).size(), 2);
    EXPECT_TRUE(emitted.entries().isEmpty());
    QCoreApplication::processEvents();
    EXPECT_TRUE(emitted.entries().isEmpty());
    // Nothing is left.
    server->keepAliveConnection(1);
    EXPECT_TRUE(logHas(QStringLiteral("Не удалось найти соединение чтобы удержать connectionId 1")));
}

TEST_F(ServerAlone, StopFromAnotherThreadReturnsAtOnce)
{
    moveServerToThread();
    writeSettings({TestPort{QStringLiteral("none")}});
    QList<QThread*> stateThreads;
    channelsState.whenSetting = [&](int id, const QString&) {
        if (id == serverStateId)
            stateThreads.append(QThread::currentThread());
    };
    inServerThread([this] { server->start(); });
    ASSERT_TRUE(waitForPorts(1));
    // The server's thread is busy, so that all the caller gets is what stop() itself does.
    QSemaphore busy;
    QSemaphore release;
    QMetaObject::invokeMethod(
        server.get(),
        [&] {
            busy.release();
            release.acquire();
        },
        Qt::QueuedConnection);
    busy.acquire();
    server->stop();
    EXPECT_EQ(serverEntries().last(), recordOf(QStringLiteral("Остановка")));
    EXPECT_TRUE(emitted.entries().isEmpty());
    release.release();
    ASSERT_TRUE(emitted.waitForEntry(QStringLiteral("finished")));
    EXPECT_EQ(serverEntries(),
              (QStringList{recordOf(QStringLiteral("Запуск")), stateOf(QStringLiteral("Работает")),
                           recordOf(QStringLiteral("Остановка")), stateOf(QStringLiteral("Выключение")),
                           stateOf(QStringLiteral("Выключен"))}));
    EXPECT_EQ(stateThreads, (QList<QThread*>{thread.get(), thread.get(), thread.get()}));
    EXPECT_EQ(emitted.count(QStringLiteral("finished")), 1);
    EXPECT_EQ(log.entriesWith(QStringLiteral("remove ")).size(), 1);
    channelsState.whenSetting = nullptr;
}

TEST_F(ServerAlone, StopRightAfterStart)
{
    QList<TestPort> ports;
    for (int i = 0; i < 8; ++i)
        ports.append(TestPort{QStringLiteral("none%1").arg(i)});
    writeSettings(ports);
    for (int round = 0; round < 5; ++round) {
        log.clear();
        server->start();
        server->stop();
        // A worker that was stopped before it ran may or may not have registered.
        EXPECT_EQ(log.entriesWith(QStringLiteral("add ")).size(), log.entriesWith(QStringLiteral("remove ")).size());
    }
    EXPECT_FALSE(logText().contains(QStringLiteral("не остановились")));
}

TEST_F(ServerAlone, StopOfAnEmptyChannelTakesAMoment)
{
    QElapsedTimer timer;
    timer.start();
    server->internalStop();
    EXPECT_GE(timer.elapsed(), 10);
    server->internalStop();
    EXPECT_GE(timer.elapsed(), 20);
}

TEST_F(ServerAlone, StartsAgainAfterAStop)
{
    writeSettings({TestPort{QStringLiteral("noneA")}});
    server->start();
    ASSERT_TRUE(waitForPorts(1));
    server->stop();
    writeSettings({TestPort{QStringLiteral("noneB")}, TestPort{QStringLiteral("noneC")}});
    server->start();
    ASSERT_TRUE(waitForPorts(3));
    EXPECT_EQ(addedNames(), (QStringList{QStringLiteral("noneA"), QStringLiteral("noneB"), QStringLiteral("noneC")}));
    // The numbers begin anew.
    server->keepAliveConnection(1);
    server->keepAliveConnection(2);
    EXPECT_FALSE(logText().contains(QStringLiteral("Не удалось найти соединение")));
}

TEST_F(ServerAlone, StopFreesTheWorkersLogColumns)
{
    writeSettings({TestPort{QStringLiteral("noneA")}, TestPort{QStringLiteral("noneB")}});
    debug(QStringLiteral("Test"), QStringLiteral("takes the first column"), DebugAlways, DebugFlagFileOnly);
    server->start();
    // A failure to open is logged by each.
    ASSERT_TRUE(waitFor([] { return columnOwners().size() == 3; }));
    server->stop();
    EXPECT_EQ(columnOwners(), (QList<QThread*>{QThread::currentThread(), nullptr, nullptr}));
    std::atomic<int> column{0};
    const std::unique_ptr<QThread> next(QThread::create([&] { column = currentTabLevel(); }));
    next->start();
    next->wait();
    EXPECT_EQ(column, 2);
}

TEST_F(ServerAlone, DestructorDeletesWorkersThatHaveEnded)
{
    writeSettings({TestPort{QStringLiteral("none")}});
    server->start();
    ASSERT_TRUE(waitFor([] { return columnOwners().size() == 1; }));
    const QPointer<CComThread> worker = server->workers().first();
    worker->stop();
    ASSERT_TRUE(worker->wait(rig::defaultDeadlineMs));
    EXPECT_EQ(columnOwners(), QList<QThread*>{worker});
    server.reset();
    EXPECT_TRUE(worker.isNull());
    EXPECT_EQ(columnOwners(), QList<QThread*>{nullptr});
}

// --- the stop timeout

TEST(WorkersStopTimeout, IsAProductOfSinglePrecision)
{
    const struct
    {
        int configured, waited;
    } rows[] = {{100, 90},     {110, 99},      {333, 299},     {999, 899},    {2000, 1800},
                {10000, 9000}, {12345, 11110}, {59999, 53999}, {60000, 54000}};
    for (const auto& row : rows)
        EXPECT_EQ(workersStopTimeoutMs(row.configured), row.waited) << row.configured;
}

TEST_F(ServerAlone, StopTimeoutIsReadAtTheFirstStop)
{
    const QString key = QStringLiteral("transportServerThreadStopTimeout");
    writeSettings({TestPort{QStringLiteral("none")}});
    server->start();
    ASSERT_TRUE(waitForPorts(1));
    EXPECT_FALSE(detailsText().contains(key));
    server->stop();
    EXPECT_TRUE(detailsText().contains(key + QStringLiteral("=10000"))) << detailsText().toStdString();
    // Once per process: a value out of range would be put right if it were read again.
    writeDetails({key + QStringLiteral("=50")});
    server->stop();
    EXPECT_TRUE(detailsText().contains(key + QStringLiteral("=50"))) << detailsText().toStdString();
}

namespace {

struct StopTimeoutRow
{
    const char* name;
    const char* written;
    const char* kept;
};

void PrintTo(const StopTimeoutRow& row, std::ostream* stream)
{
    *stream << row.written;
}

class StopTimeoutKey : public ServerTest, public testing::WithParamInterface<StopTimeoutRow>
{
};

} // namespace

TEST_P(StopTimeoutKey, IsPutRightWhenOutOfRange)
{
    writeDetails({QStringLiteral("transportServerThreadStopTimeout=") + QLatin1String(GetParam().written)});
    server->stop();
    EXPECT_TRUE(detailsText().contains(QStringLiteral("transportServerThreadStopTimeout=") +
                                       QLatin1String(GetParam().kept) + QLatin1Char('\n')))
        << detailsText().toStdString();
}

INSTANTIATE_TEST_SUITE_P(
    Values, StopTimeoutKey,
    testing::Values(StopTimeoutRow{"belowRange", "50", "10000"}, StopTimeoutRow{"justBelowRange", "99", "10000"},
                    StopTimeoutRow{"least", "100", "100"}, StopTimeoutRow{"greatest", "60000", "60000"},
                    StopTimeoutRow{"aboveRange", "60001", "10000"}, StopTimeoutRow{"negative", "-1", "10000"},
                    StopTimeoutRow{"noNumber", "abc", "10000"}),
    [](const auto& row) { return std::string(row.param.name); });
