// The server with modems at its ports: which worker gets which request.
#include "com/link/currentcomsettings.h"
#include "tests/boundary/servercalls.h"

#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <atomic>
#include <sys/syscall.h>
#include <unistd.h>

using rig::waitFor;

namespace {

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
        while (!(isCalling && threadSleeps(caller)) && timer.elapsed() < rig::defaultDeadlineMs)
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
