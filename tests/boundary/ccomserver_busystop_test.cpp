// Stopping the server in whatever its ports are doing, and workers that do not end.
#include "tests/boundary/servercalls.h"

#include <QElapsedTimer>

#include <atomic>
#include <chrono>
#include <functional>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

using rig::waitFor;

namespace {

struct StopRow
{
    const char* name;
    bool fromAnotherThread;
    int state; // in which the stop comes
    int lines; // the modem's, at first
    const char* silentTo; // the command that the modem does not answer
    bool calls; // whether a call is placed
};

void PrintTo(const StopRow& row, std::ostream* stream)
{
    *stream << row.name;
}

class ServerStop : public ServerCalls, public testing::WithParamInterface<StopRow>
{
};

std::vector<StopRow> stopRows()
{
    constexpr int ready = sim::SignalDsr | sim::SignalCts;
    std::vector<StopRow> rows;
    for (const bool fromAnotherThread : {false, true}) {
        rows.push_back({"closed", fromAnotherThread, CComThread::PortClosed, ready, nullptr, false});
        rows.push_back({"waitingForDevice", fromAnotherThread, CComThread::WaitingForDevice, 0, nullptr, false});
        rows.push_back({"checking", fromAnotherThread, CComThread::CheckingDevice, ready, "AT", false});
        rows.push_back({"free", fromAnotherThread, CComThread::LineFree, ready, nullptr, false});
        rows.push_back({"dialling", fromAnotherThread, CComThread::WaitingForConnect, ready, "ATD", true});
        rows.push_back({"connected", fromAnotherThread, CComThread::WaitingForConnect, ready, nullptr, true});
        rows.push_back(
            {"resetting", fromAnotherThread, CComThread::ResettingModem, ready | sim::SignalDcd, "+++", false});
    }
    return rows;
}

} // namespace

TEST_P(ServerStop, EndsEveryWorkerInTime)
{
    const StopRow& row = GetParam();
    AnsweringModem& modem = addModem(QStringLiteral("modem"), row.lines);
    modem.setAnswer("ATD", "CONNECT 9600");
    if (row.silentTo)
        modem.setAnswer(row.silentTo, "");
    factory->setPeerName(QStringLiteral("A"));
    if (row.fromAnotherThread)
        moveServerToThread();
    QList<TestPort> ports = modemPorts();
    if (row.state == CComThread::PortClosed)
        ports[0].name = QStringLiteral("none");
    writeSettings(ports);
    const auto inServer = [&](const std::function<void()>& function) {
        row.fromAnotherThread ? inServerThread(function) : function();
    };
    inServer([&] { server->start(); });
    if (row.calls) {
        ASSERT_TRUE(waitForState(0, CComThread::LineFree));
        inServer([&] { server->connectToAbonent(QStringLiteral("A"), abonentBytes(QStringLiteral("123"))); });
    }
    ASSERT_TRUE(waitForState(0, row.state));
    const bool isConnected = row.calls && !row.silentTo;
    if (isConnected) {
        ASSERT_TRUE(emitted.waitForEntry(QStringLiteral("connected 1 A")));
    }
    ASSERT_TRUE(waitFor([&] { return !log.entriesWith(QStringLiteral("add ")).isEmpty(); }));

    server->stop();
    if (row.fromAnotherThread) {
        ASSERT_TRUE(emitted.waitForEntry(QStringLiteral("finished")));
    }
    EXPECT_EQ(log.entriesWith(QStringLiteral("remove ")).size(), 1);
    EXPECT_FALSE(logText().contains(QStringLiteral("не остановились"))) << logText().toStdString();
    QStringList expected;
    if (isConnected)
        expected << QStringLiteral("connected 1 A") << QStringLiteral("disconnected 1 1 A");
    if (row.fromAnotherThread)
        expected << QStringLiteral("finished");
    EXPECT_EQ(emitted.entries(), expected);
    EXPECT_EQ(factory->running(), 0);
    EXPECT_FALSE(server->isHardwareOn());
}

INSTANTIATE_TEST_SUITE_P(States, ServerStop, testing::ValuesIn(stopRows()), [](const auto& row) {
    return std::string(row.param.name) + (row.param.fromAnotherThread ? "FromAnotherThread" : "FromItsOwn");
});

// A modem that has been silent once is left alone for two seconds; a stop does not wait for that.
TEST_F(ServerCalls, StopDoesNotWaitForAPause)
{
    writeDetails({QStringLiteral("transportComAtOkTimeout=1")});
    addModem(QStringLiteral("modem")).setAnswer("AT", "");
    start();
    ASSERT_TRUE(log.waitForEntry(QStringLiteral("journal 0 ") + modems[0]->portPath() +
                                 QStringLiteral(" Нет ответа на команду 'AT'")));
    QElapsedTimer timer;
    timer.start();
    server->stop();
    EXPECT_LT(timer.elapsed(), 1500);
    EXPECT_FALSE(logText().contains(QStringLiteral("не остановились")));
}

// --- workers that do not end

// Qt's event loop stands on GLib's, whose plain C frames lose what they hold when the
// thread in them is ended.
extern "C" Q_DECL_EXPORT const char* __lsan_default_suppressions()
{
    return "leak:libglib-2.0\n";
}

namespace {

// thread ends inside a wait that a library has called.
[[noreturn]] void hang()
{
    for (;;)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

class ServerStuck : public ServerCalls
{
protected:
    static constexpr int threadStopTimeoutMs = 300;

    void SetUp() override
    {
        ServerCalls::SetUp();
        writeDetails(usualDetails +
                     QStringList{QStringLiteral("transportServerThreadStopTimeout=%1").arg(threadStopTimeoutMs)});
    }

    // A session whose thread does not come back to its event loop.
    void startStuckSession(const std::function<void()>& stuck)
    {
        AnsweringModem& modem = addModem(QStringLiteral("modem"));
        start();
        ASSERT_TRUE(waitForState(0, CComThread::LineFree));
        std::atomic<bool> hasBegun{false};
        factory->setWhenRunning([&hasBegun, stuck] {
            hasBegun = true;
            stuck();
        });
        connectThrough(modem, QStringLiteral("A"));
        ASSERT_TRUE(waitFor([&] { return hasBegun.load(); }));
    }
};

} // namespace

TEST_F(ServerStuck, IsTerminated)
{
    ASSERT_NO_FATAL_FAILURE(startStuckSession(hang));
    static std::atomic<bool> isEchoed{false};
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& text) {
        if (text.contains(QStringLiteral("Некоторые потоки не остановились во время и будет убиты")))
            isEchoed = true;
    });
    QElapsedTimer timer;
    timer.start();
    server->stop();
    EXPECT_GE(timer.elapsed(), workersStopTimeoutMs(threadStopTimeoutMs));
    qInstallMessageHandler(nullptr);
    EXPECT_TRUE(isEchoed);
    EXPECT_TRUE(logHas(QStringLiteral("Некоторые потоки не остановились во время и будет убиты")))
        << logText().toStdString();
    EXPECT_TRUE(server->workers().isEmpty());
    EXPECT_EQ(log.entriesWith(QStringLiteral("remove ")).size(), 1);
    // The channel can be started again; the log is not held by the one that was ended.
    factory->setWhenRunning(nullptr);
    modems[0]->setLines(sim::SignalDsr | sim::SignalCts);
    start();
    EXPECT_TRUE(waitForState(0, CComThread::LineFree));
}

// Nine tenths of the configured time, not all of it: the rest is for cleaning up. A busy
// machine may make any stop late, so the shortest of a few counts.
TEST_F(ServerStuck, IsGivenNineTenthsOfTheStopTime)
{
    qint64 shortestMs = threadStopTimeoutMs;
    for (int attempt = 0; attempt < 10 && shortestMs >= threadStopTimeoutMs; ++attempt) {
        modems.clear();
        // Static: a thread that ends late still uses them.
        static QElapsedTimer timer;
        static std::atomic<bool> isStopping;
        static std::atomic<qint64> lastSeenMs;
        isStopping = false;
        ASSERT_NO_FATAL_FAILURE(startStuckSession([] {
            for (;;) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                if (isStopping)
                    lastSeenMs = timer.elapsed();
            }
        }));
        timer.start();
        isStopping = true;
        server->stop();
        shortestMs = qMin<qint64>(shortestMs, lastSeenMs);
    }
    EXPECT_LT(shortestMs, threadStopTimeoutMs);
}

// A thread that cannot be cancelled outlives its server's patience: left alone, since
// deleting it would abort the host.
TEST_F(ServerStuck, IsLeftAloneWhenItCannotBeTerminated)
{
    ASSERT_NO_FATAL_FAILURE(startStuckSession([] {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        hang();
    }));
    const CComThread* const worker = server->workers().at(0);
    QElapsedTimer timer;
    timer.start();
    server->stop();
    EXPECT_GE(timer.elapsed(), threadStopTimeoutMs);
    EXPECT_TRUE(logHas(QStringLiteral("Некоторые потоки не остановились во время и будет убиты")));
    EXPECT_TRUE(server->workers().isEmpty());
    EXPECT_EQ(worker->thread(), nullptr) << "an event would call a worker whose server is gone";
    EXPECT_FALSE(server->isHardwareOn());
    EXPECT_TRUE(log.entriesWith(QStringLiteral("remove ")).isEmpty());
    server->keepAliveConnection(1);
    EXPECT_TRUE(logHas(QStringLiteral("Не удалось найти соединение чтобы удержать connectionId 1")));
}

// One that is stuck does not keep the others from ending in good order.
TEST_F(ServerStuck, OthersEndAllTheSame)
{
    addModem(QStringLiteral("modemA"));
    addModem(QStringLiteral("modemB"));
    start();
    ASSERT_TRUE(waitForState(0, CComThread::LineFree));
    ASSERT_TRUE(waitForState(1, CComThread::LineFree));
    connectThrough(*modems[1], QStringLiteral("B"));
    std::atomic<bool> hasBegun{false};
    factory->setWhenRunning([&hasBegun] {
        hasBegun = true;
        hang();
    });
    connectThrough(*modems[0], QStringLiteral("A"));
    ASSERT_TRUE(waitFor([&] { return hasBegun.load(); }));
    server->stop();
    EXPECT_EQ(emitted.entriesWith(QStringLiteral("disconnected ")), QStringList{QStringLiteral("disconnected 2 1 B")});
    EXPECT_EQ(log.entriesWith(QStringLiteral("remove ")).size(), 2);
    EXPECT_TRUE(server->workers().isEmpty());
}
