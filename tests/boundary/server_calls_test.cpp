// The server with modems at its ports: which worker gets which request, and stopping a
// channel in whatever it is doing.
#include "com/link/currentcomsettings.h"
#include "tests/boundary/answeringmodem.h"
#include "tests/boundary/serverfixture.h"

#include <QElapsedTimer>
#include <QFile>

#include <chrono>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using testsupport::waitFor;

namespace {

const QStringList usualDetails{QStringLiteral("transportComOpenInterval=20"),
                               QStringLiteral("transportComDsrCheckInterval=20"),
                               QStringLiteral("transportComResetTimeout=1100"),
                               // A busy machine must not make a modem look silent.
                               QStringLiteral("transportComAtOkTimeout=20000")};

class ServerCalls : public ServerTest
{
protected:
    void SetUp() override
    {
        ServerTest::SetUp();
        writeDetails(usualDetails);
    }

    // The workers use the modems' ptys to their end.
    void TearDown() override
    {
        stopAndDelete();
        modems.clear();
    }

    AnsweringModem& addModem(const QString& name, int lines = sim::SignalDsr | sim::SignalCts)
    {
        modems.push_back(std::make_unique<AnsweringModem>(name, lines));
        return *modems.back();
    }

    QList<TestPort> modemPorts() const
    {
        QList<TestPort> ports;
        for (const auto& modem : modems)
            ports.append(TestPort{modem->portPath()});
        return ports;
    }

    void start()
    {
        writeSettings(modemPorts());
        if (thread)
            inServerThread([this] { server->start(); });
        else
            server->start();
    }

    bool waitForState(int worker, int state) const
    {
        return waitFor([&] { return server->workers().at(worker)->state() == state; });
    }

    // Two modems that are free, "modemA" and "modemB".
    void startTwoFree()
    {
        addModem(QStringLiteral("modemA"));
        addModem(QStringLiteral("modemB"));
        start();
        ASSERT_TRUE(waitForState(0, CComThread::LineFree));
        ASSERT_TRUE(waitForState(1, CComThread::LineFree));
    }

    // Places a call through the port of the modem and waits for the session.
    void connectThrough(AnsweringModem& modem, const QString& peerName)
    {
        factory->setPeerName(peerName);
        modem.setAnswer("ATD", "CONNECT 9600");
        const int before = emitted.entriesWith(QStringLiteral("connected ")).size();
        server->connectToAbonent(peerName, abonentBytes(QStringLiteral("123"), {modem.portPath()}));
        ASSERT_TRUE(waitFor([&] { return emitted.entriesWith(QStringLiteral("connected ")).size() > before; }));
    }

    bool dialled(const AnsweringModem& modem) const
    {
        return !modem.commands().filter(QStringLiteral("ATD")).isEmpty();
    }

    bool lostConnectionIsLogged() const { return logText().contains(QStringLiteral("Не удалось найти соединение")); }

    std::vector<std::unique_ptr<AnsweringModem>> modems;
};

// Whether a thread of this process waits for something in the kernel.
bool threadSleeps(long tid)
{
    QFile stat(QStringLiteral("/proc/self/task/%1/stat").arg(tid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray line = stat.readAll();
    return line.mid(line.lastIndexOf(')') + 2, 1) == "S";
}

} // namespace

TEST_F(ServerCalls, DeviceStatesAsTheHostSeesThem)
{
    AnsweringModem& modem = addModem(QStringLiteral("modem"), 0);
    start();
    ASSERT_TRUE(waitForState(0, CComThread::WaitingForDevice));
    EXPECT_FALSE(server->hasFreeChannel());
    EXPECT_FALSE(server->isHardwareOn());
    modem.setLines(sim::SignalDsr);
    ASSERT_TRUE(waitForState(0, CComThread::LineFree));
    EXPECT_TRUE(server->hasFreeChannel());
    EXPECT_TRUE(server->isHardwareOn());
    EXPECT_FALSE(server->canCheckOnline());
    server->connectToAbonent(QStringLiteral("X"), abonentBytes(QStringLiteral("123")));
    EXPECT_FALSE(server->hasFreeChannel());
    EXPECT_TRUE(server->isHardwareOn());
}

// A modem that is in a call when its port is opened: busy hanging up, but there.
TEST_F(ServerCalls, ResettingModemCountsAsHardware)
{
    AnsweringModem& modem = addModem(QStringLiteral("modem"), sim::SignalDsr | sim::SignalDcd);
    modem.setAnswer("+++", "");
    start();
    ASSERT_TRUE(waitForState(0, CComThread::ResettingModem));
    EXPECT_TRUE(server->isHardwareOn());
    EXPECT_FALSE(server->hasFreeChannel());
}

TEST_F(ServerCalls, InitStringReachesTheModemUnescaped)
{
    const AnsweringModem& modem = addModem(QStringLiteral("modem"));
    QList<TestPort> ports = modemPorts();
    ports[0].initString = QStringLiteral("ATE0\\r");
    writeSettings(ports);
    server->start();
    EXPECT_TRUE(waitFor([&] { return modem.heard(QStringLiteral("ATE0")); }));
}

TEST_F(ServerCalls, CallsGoToTheFirstFreePort)
{
    ASSERT_NO_FATAL_FAILURE(startTwoFree());
    server->connectToAbonent(QStringLiteral("A"), abonentBytes(QStringLiteral("111")));
    server->connectToAbonent(QStringLiteral("B"), abonentBytes(QStringLiteral("222")));
    EXPECT_FALSE(server->hasFreeChannel());
    EXPECT_TRUE(emitted.entries().isEmpty());
    server->connectToAbonent(QStringLiteral("C"), abonentBytes(QStringLiteral("333")));
    EXPECT_EQ(emitted.entries(), QStringList{QStringLiteral("notConnected C")});
    EXPECT_TRUE(waitFor([&] { return modems[0]->heard(QStringLiteral("ATD111")); }));
    EXPECT_TRUE(waitFor([&] { return modems[1]->heard(QStringLiteral("ATD222")); }));
    EXPECT_EQ(server->workers().at(0)->abonentName(), QStringLiteral("A"));
    EXPECT_EQ(server->workers().at(1)->abonentName(), QStringLiteral("B"));
}

TEST_F(ServerCalls, AllowedPortsAreKeptTo)
{
    ASSERT_NO_FATAL_FAILURE(startTwoFree());
    const QByteArray onlyB = abonentBytes(QStringLiteral("222"), {QStringLiteral("/nowhere"), modems[1]->portPath()});
    server->connectToAbonent(QStringLiteral("B"), onlyB);
    ASSERT_TRUE(waitFor([&] { return modems[1]->heard(QStringLiteral("ATD222")); }));
    EXPECT_FALSE(dialled(*modems[0]));
    // The other one is free, but not allowed.
    server->connectToAbonent(QStringLiteral("B2"), onlyB);
    EXPECT_EQ(emitted.entries(), QStringList{QStringLiteral("notConnected B2")});
    EXPECT_TRUE(log.contains(
        recordOf(QStringLiteral("Не удалось вызвать абонента 'B2' т.к. не удалось найти свободный COM порт"))));
}

TEST_F(ServerCalls, AllowedPortsAreComparedWithCase)
{
    const AnsweringModem& modem = addModem(QStringLiteral("modem"));
    start();
    ASSERT_TRUE(waitForState(0, CComThread::LineFree));
    const QString capitals = modem.portPath().replace(QStringLiteral("modem"), QStringLiteral("MODEM"));
    server->connectToAbonent(QStringLiteral("X"), abonentBytes(QStringLiteral("123"), {capitals}));
    EXPECT_EQ(emitted.entries(), QStringList{QStringLiteral("notConnected X")});
    EXPECT_TRUE(server->hasFreeChannel());
    EXPECT_FALSE(dialled(modem));
}

// The first port answers a call at the very moment at which it is asked for one: found
// free by the server, and taken when its lock has been had.
TEST_F(ServerCalls, PortLostBetweenLookAndClaimIsPassedOver)
{
    const long caller = ::syscall(SYS_gettid);
    std::atomic<bool> isRinging{false};
    std::atomic<bool> isCalling{false};
    channelsState.whenSetting = [&](int, const QString& text) {
        // In the first worker's thread, which holds its lock and is still in the free state.
        if (text != QStringLiteral("Входящий вызов"))
            return;
        isRinging = true;
        QElapsedTimer timer;
        timer.start();
        while (!(isCalling && threadSleeps(caller)) && timer.elapsed() < testsupport::defaultDeadlineMs)
            QThread::msleep(1);
    };
    ASSERT_NO_FATAL_FAILURE(startTwoFree());
    modems[0]->say("RING");
    ASSERT_TRUE(waitFor([&] { return isRinging.load(); }));
    ASSERT_EQ(server->workers().at(0)->state(), int(CComThread::LineFree));
    isCalling = true;
    server->connectToAbonent(QStringLiteral("X"), abonentBytes(QStringLiteral("123")));
    EXPECT_TRUE(waitFor([&] { return modems[1]->heard(QStringLiteral("ATD123")); }));
    EXPECT_TRUE(waitFor([&] { return modems[0]->heard(QStringLiteral("ATA")); }));
    EXPECT_FALSE(dialled(*modems[0]));
    EXPECT_TRUE(emitted.entries().isEmpty());
    stopAndDelete(); // the workers use what stands on this stack
}

TEST_F(ServerCalls, OutcomesComeFromTheWorkers)
{
    AnsweringModem& modem = addModem(QStringLiteral("modem"));
    modem.setAnswer("ATD", "BUSY");
    start();
    ASSERT_TRUE(waitForState(0, CComThread::LineFree));
    server->connectToAbonent(QStringLiteral("X"), abonentBytes(QStringLiteral("123")));
    ASSERT_TRUE(emitted.waitForEntry(QStringLiteral("notConnected X")));
    ASSERT_TRUE(waitForState(0, CComThread::LineFree));
    connectThrough(modem, QStringLiteral("Y"));
    server->disconnectFromAbonent(QStringLiteral("Y"), 1);
    ASSERT_TRUE(emitted.waitForEntry(QStringLiteral("disconnected 1 1 Y")));
    EXPECT_EQ(emitted.entries(), (QStringList{QStringLiteral("notConnected X"), QStringLiteral("connected 1 Y"),
                                              QStringLiteral("disconnected 1 1 Y")}));
}

TEST_F(ServerCalls, IncomingCall)
{
    AnsweringModem& modem = addModem(QStringLiteral("modem"));
    modem.setAnswer("ATA", "CONNECT 9600");
    factory->setPeerName(QStringLiteral("Пост 2"));
    start();
    ASSERT_TRUE(waitForState(0, CComThread::LineFree));
    modem.say("RING");
    ASSERT_TRUE(emitted.waitForEntry(QStringLiteral("connected 1 Пост 2")));
    EXPECT_FALSE(server->hasFreeChannel());
    server->disconnectFromAbonent(QStringLiteral("Пост 2"), -1);
    EXPECT_TRUE(emitted.waitForEntry(QStringLiteral("disconnected 1 1 Пост 2")));
}

TEST_F(ServerCalls, HangUpByNumberIgnoresTheName)
{
    ASSERT_NO_FATAL_FAILURE(startTwoFree());
    connectThrough(*modems[1], QStringLiteral("B"));
    server->disconnectFromAbonent(QStringLiteral("somebody else"), 2);
    EXPECT_TRUE(emitted.waitForEntry(QStringLiteral("disconnected 2 1 B")));
    EXPECT_FALSE(lostConnectionIsLogged());
    EXPECT_TRUE(
        waitFor([&] { return modems[1]->heard(QStringLiteral("+++")) && modems[1]->heard(QStringLiteral("ATH")); }));
}

TEST_F(ServerCalls, HangUpByNameComparesFilteredNames)
{
    ASSERT_NO_FATAL_FAILURE(startTwoFree());
    connectThrough(*modems[1], QStringLiteral("Пост №1"));
    server->disconnectFromAbonent(QStringLiteral("пост-1!"), -1);
    EXPECT_TRUE(emitted.waitForEntry(QStringLiteral("disconnected 2 1 Пост №1")));
    EXPECT_FALSE(lostConnectionIsLogged());
}

TEST_F(ServerCalls, NamesSelectOnlyWithMinusOne)
{
    ASSERT_NO_FATAL_FAILURE(startTwoFree());
    connectThrough(*modems[0], QStringLiteral("A"));
    server->disconnectFromAbonent(QStringLiteral("A"), -2);
    server->disconnectFromAbonent(QStringLiteral("A"), 0);
    server->disconnectFromAbonent(QStringLiteral("A"), 5);
    const QString lost =
        QStringLiteral("Не удалось найти соединение чтобы разорвать соединение с абонентом 'A', connectionId ");
    EXPECT_TRUE(logHas(lost + QStringLiteral("-2")));
    EXPECT_TRUE(logHas(lost + QStringLiteral("0")));
    EXPECT_TRUE(logHas(lost + QStringLiteral("5")));
    EXPECT_EQ(factory->running(), 1);
    EXPECT_TRUE(emitted.entriesWith(QStringLiteral("disconnected ")).isEmpty());
}

// A worker keeps the name of its last call; the first worker that matches is taken, and
// that it has no connection any more is no reason to look further.
TEST_F(ServerCalls, HangUpByNameMayFindAnIdleWorker)
{
    ASSERT_NO_FATAL_FAILURE(startTwoFree());
    connectThrough(*modems[0], QStringLiteral("A"));
    server->disconnectFromAbonent(QStringLiteral("A"), 1);
    ASSERT_TRUE(emitted.waitForEntry(QStringLiteral("disconnected 1 1 A")));
    ASSERT_TRUE(waitForState(0, CComThread::LineFree));
    connectThrough(*modems[1], QStringLiteral("A"));
    emitted.clear();
    server->disconnectFromAbonent(QStringLiteral("A"), -1);
    EXPECT_FALSE(lostConnectionIsLogged());
    EXPECT_EQ(factory->channelNames(), QStringList{modems[1]->portPath()});
    // The connection stands: it is ended by its number, and only then.
    server->disconnectFromAbonent(QString(), 2);
    ASSERT_TRUE(emitted.waitForEntry(QStringLiteral("disconnected 2 1 A")));
    EXPECT_EQ(emitted.entries().size(), 1);
}

TEST_F(ServerCalls, KeepAliveReachesItsConnectionAlone)
{
    ASSERT_NO_FATAL_FAILURE(startTwoFree());
    connectThrough(*modems[0], QStringLiteral("A"));
    connectThrough(*modems[1], QStringLiteral("B"));
    EXPECT_TRUE(factory->keptChannelNames().isEmpty());
    server->keepAliveConnection(2);
    EXPECT_EQ(factory->keptChannelNames(), QStringList{modems[1]->portPath()});
    server->keepAliveConnection(2);
    server->keepAliveConnection(1);
    EXPECT_EQ(factory->keptChannelNames(), (QStringList{modems[0]->portPath(), modems[1]->portPath()}));
    EXPECT_FALSE(lostConnectionIsLogged());
}

TEST_F(ServerCalls, RequestsToIdleWorkersDoNothing)
{
    addModem(QStringLiteral("modem"));
    start();
    ASSERT_TRUE(waitForState(0, CComThread::LineFree));
    server->keepAliveConnection(1);
    server->disconnectFromAbonent(QStringLiteral("X"), 1);
    EXPECT_TRUE(server->hasFreeChannel());
    EXPECT_FALSE(lostConnectionIsLogged());
    EXPECT_TRUE(emitted.entries().isEmpty());
}

TEST_F(ServerCalls, RequestsThroughQueuedConnections)
{
    addModem(QStringLiteral("modem")).setAnswer("ATD", "CONNECT 9600");
    factory->setPeerName(QStringLiteral("A"));
    moveServerToThread();
    start();
    ASSERT_TRUE(waitFor([&] { return server->hasFreeChannel(); }));
    QMetaObject::invokeMethod(server.get(), "connectToAbonent", Qt::QueuedConnection,
                              Q_ARG(QString, QStringLiteral("A")),
                              Q_ARG(QByteArray, abonentBytes(QStringLiteral("123"))));
    ASSERT_TRUE(emitted.waitForEntry(QStringLiteral("connected 1 A")));
    QMetaObject::invokeMethod(server.get(), "keepAliveConnection", Qt::QueuedConnection, Q_ARG(int, 1));
    ASSERT_TRUE(waitFor([&] { return factory->keptChannelNames().size() == 1; }));
    QMetaObject::invokeMethod(server.get(), "disconnectFromAbonent", Qt::QueuedConnection,
                              Q_ARG(QString, QStringLiteral("A")), Q_ARG(int, 1));
    EXPECT_TRUE(emitted.waitForEntry(QStringLiteral("disconnected 1 1 A")));
}

TEST_F(ServerCalls, SettingsChangeEndsAConnection)
{
    AnsweringModem& modem = addModem(QStringLiteral("modem"));
    start();
    ASSERT_TRUE(waitForState(0, CComThread::LineFree));
    connectThrough(modem, QStringLiteral("A"));
    log.clear();
    emitted.clear();
    QList<TestPort> ports = modemPorts();
    ports[0].baudRate = 9600;
    writeSettings(ports);
    server->settingsWasChanged();
    EXPECT_EQ(emitted.entries(), QStringList{QStringLiteral("disconnected 1 1 A")});
    EXPECT_EQ(log.count(recordOf(QStringLiteral("Остановка"))), 1);
    EXPECT_EQ(log.entriesWith(recordOf({})).size(), 1);
    EXPECT_TRUE(log.entriesWith(stateOf({})).isEmpty());
    EXPECT_EQ(log.entriesWith(QStringLiteral("remove ")).size(), 1);
    EXPECT_TRUE(waitForState(0, CComThread::LineFree));
}

TEST_F(ServerCalls, PacketSizeChangeLeavesAConnectionAlone)
{
    AnsweringModem& modem = addModem(QStringLiteral("modem"));
    start();
    ASSERT_TRUE(waitForState(0, CComThread::LineFree));
    connectThrough(modem, QStringLiteral("A"));
    emitted.clear();
    writeSettings(modemPorts(), 512);
    server->settingsWasChanged();
    EXPECT_EQ(gComSettings.packetSize, 512);
    EXPECT_EQ(factory->running(), 1);
    EXPECT_TRUE(emitted.entries().isEmpty());
    EXPECT_TRUE(log.entriesWith(QStringLiteral("remove ")).isEmpty());
}

// --- stopping, in whatever a port is doing

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

namespace {

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

// Never comes back. Not by QThread::msleep(): the thread sanitizer loses its way when a
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
        ServerTest::SetUp();
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
