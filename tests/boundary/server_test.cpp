// The server without a single device: its meta-object, its order of reports, what it says
// to requests that it cannot serve, starting, restarting and stopping.
#include "com/link/currentcomsettings.h"
#include "common/functiondebug.h"
#include "common/logger.h"
#include "rig/testroot.h"
#include "tests/boundary/serverfixture.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QMetaMethod>
#include <QMetaType>
#include <QMutexLocker>
#include <QPointer>
#include <QSemaphore>
#include <QSerialPort>

#include <atomic>

using testsupport::waitFor;

namespace {

constexpr int unfinishedRetryMs = 20;

class ServerAlone : public ServerTest
{
protected:
    // Ports without a device are tried again at this interval.
    void SetUp() override
    {
        ServerTest::SetUp();
        writeDetails({QStringLiteral("transportComOpenInterval=%1").arg(unfinishedRetryMs)});
    }

    QStringList addedNames() const
    {
        QStringList names;
        for (const QString& entry : log.entriesWith(QStringLiteral("add ")))
            names.append(entry.section(QLatin1Char(' '), 3, 3));
        names.sort();
        return names;
    }

    // Waits until this many ports have registered.
    bool waitForPorts(int count) const
    {
        return waitFor([&] { return log.entriesWith(QStringLiteral("add ")).size() >= count; });
    }

    // A file that is there and cannot be opened.
    void makeSettingsADirectory() const
    {
        QFile::remove(settingsPath());
        ASSERT_TRUE(QDir().mkpath(settingsPath()));
    }

    // The server's own records and state texts.
    QStringList serverEntries() const
    {
        QStringList own;
        for (const QString& entry : log.entries()) {
            if (entry.startsWith(recordOf({})) || entry.startsWith(stateOf({})))
                own.append(entry);
        }
        return own;
    }
};

TestPort disabled(const QString& name)
{
    TestPort port{name};
    port.enabled = false;
    return port;
}

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

QStringList g_messages;
QMutex g_messagesMutex;

void recordMessage(QtMsgType, const QMessageLogContext&, const QString& text)
{
    QMutexLocker locker(&g_messagesMutex);
    g_messages.append(text);
}

} // namespace

TEST_F(ServerAlone, MetaObject)
{
    const QMetaObject& meta = CComServer::staticMetaObject;
    EXPECT_STREQ(meta.superClass()->className(), "CChannelServer");
    QByteArrayList signatures;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        signatures.append(meta.method(i).methodSignature());
    EXPECT_EQ(signatures,
              (QByteArrayList{"settingsWasChanged()", "connectToAbonent(QString,QByteArray)",
                              "disconnectFromAbonent(QString,int)", "keepAliveConnection(int)", "internalStopSlot()"}));
    for (int i = 0; i < signatures.size(); ++i) {
        const QMetaMethod method = meta.method(meta.methodOffset() + i);
        EXPECT_EQ(method.methodType(), QMetaMethod::Slot);
        EXPECT_EQ(method.access(), i < 4 ? QMetaMethod::Public : QMetaMethod::Private) << i;
    }
    EXPECT_EQ(meta.method(meta.methodOffset() + 1).parameterNames(), (QByteArrayList{"abonentName", "abonentsData"}));
}

TEST_F(ServerAlone, Construction)
{
    CComServer fresh;
    EXPECT_EQ(fresh.type, 2);
    EXPECT_EQ(fresh.stateId, 0);
    EXPECT_EQ(fresh.protocolFactory, nullptr);
    EXPECT_EQ(fresh.channelsState, nullptr);
    EXPECT_EQ(fresh.journal, nullptr);
    EXPECT_EQ(fresh.parent(), nullptr);
    EXPECT_EQ(CComServer::name(), QStringLiteral("Коммутируемый канал"));
    EXPECT_NE(QMetaType::type("SerialPortError"), int(QMetaType::UnknownType));
    EXPECT_EQ(QMetaType::type("SerialPortError"), qMetaTypeId<QSerialPort::SerialPortError>());
    EXPECT_EQ(QMetaType::type("QSerialPort::SerialPortError"), QMetaType::type("SerialPortError"));
}

TEST_F(ServerAlone, StartReportsBeforeItReads)
{
    writeSettings({});
    server->start();
    EXPECT_EQ(log.entries(), (QStringList{recordOf(QStringLiteral("Запуск")), stateOf(QStringLiteral("Работает"))}));
    EXPECT_FALSE(server->hasFreeChannel());
    EXPECT_FALSE(server->isHardwareOn());
    EXPECT_FALSE(server->canCheckOnline());
}

TEST_F(ServerAlone, StateIsReportedBeforeTheSettingsAreRead)
{
    writeSettings({TestPort{QStringLiteral("none")}});
    int portsAtReport = -1;
    channelsState.whenSetting = [&](int id, const QString&) {
        if (id == serverStateId && portsAtReport < 0)
            portsAtReport = gComSettings.ports.size();
    };
    server->start();
    EXPECT_EQ(portsAtReport, 0);
    EXPECT_EQ(gComSettings.ports.size(), 1);
    server->stop();
}

TEST_F(ServerAlone, OneWorkerForEachEnabledPort)
{
    writeSettings(
        {TestPort{QStringLiteral("noneA")}, disabled(QStringLiteral("noneB")), TestPort{QStringLiteral("noneC")}});
    server->start();
    ASSERT_TRUE(waitForPorts(2));
    EXPECT_EQ(addedNames(), (QStringList{QStringLiteral("noneA"), QStringLiteral("noneC")}));
    EXPECT_FALSE(server->hasFreeChannel());
    EXPECT_FALSE(server->isHardwareOn());
    const QList<CComThread*> workers = server->workers();
    ASSERT_EQ(workers.size(), 2);
    EXPECT_EQ(workers[0]->connectionId(), 1);
    EXPECT_EQ(workers[0]->portName(), QStringLiteral("noneA"));
    EXPECT_EQ(workers[1]->connectionId(), 2);
    EXPECT_EQ(workers[1]->portName(), QStringLiteral("noneC"));
    // Numbers 1 and 2 are there, 3 is not.
    server->disconnectFromAbonent(QStringLiteral("X"), 1);
    server->disconnectFromAbonent(QStringLiteral("X"), 2);
    server->keepAliveConnection(1);
    server->keepAliveConnection(2);
    EXPECT_FALSE(logText().contains(QStringLiteral("Не удалось найти соединение")));
    server->disconnectFromAbonent(QStringLiteral("X"), 3);
    server->keepAliveConnection(3);
    EXPECT_TRUE(logHas(
        QStringLiteral("Не удалось найти соединение чтобы разорвать соединение с абонентом 'X', connectionId 3")));
    EXPECT_TRUE(logHas(QStringLiteral("Не удалось найти соединение чтобы удержать connectionId 3")));
}

TEST_F(ServerAlone, WorkersAreAllMadeBeforeTheFirstStarts)
{
    // So many that the first would have registered long before the last one was made, if
    // each were started as soon as it is there.
    constexpr int portCount = 64;
    QList<TestPort> ports;
    for (int i = 0; i < portCount; ++i)
        ports.append(TestPort{QStringLiteral("none%1").arg(i)});
    writeSettings(ports);
    // Whichever worker registers first, the last one can be found already.
    std::atomic<bool> asked{false};
    channelsState.whenAdding = [&] {
        if (!asked.exchange(true))
            server->keepAliveConnection(portCount);
    };
    server->start();
    ASSERT_TRUE(waitForPorts(portCount));
    EXPECT_FALSE(logText().contains(QStringLiteral("Не удалось найти соединение"))) << logText().toStdString();
}

TEST_F(ServerAlone, WorkersLiveInTheServersThread)
{
    // Wherever start() was called from.
    moveServerToThread();
    writeSettings({TestPort{QStringLiteral("none")}});
    server->start();
    ASSERT_TRUE(waitForPorts(1));
    EXPECT_EQ(server->workers().first()->thread(), thread.get());
    inServerThread([this] { server->stop(); });
    EXPECT_EQ(log.entriesWith(QStringLiteral("remove ")).size(), 1);
}

TEST_F(ServerAlone, WorkersInheritTheServersPriority)
{
    writeSettings({TestPort{QStringLiteral("none")}});
    server->start();
    ASSERT_TRUE(waitForPorts(1));
    EXPECT_EQ(server->workers().first()->priority(), QThread::InheritPriority);
}

TEST_F(ServerAlone, BadAbonentDataIsLoggedAndNothingElse)
{
    server->connectToAbonent(QStringLiteral("X"), {});
    EXPECT_TRUE(logHas(QStringLiteral(
        "Невозможно вызвать абонента 'X' т.к. настройки не верны. Версия настроек 0 не совпадает с текущей 4")))
        << logText().toStdString();
    QByteArray damaged = abonentBytes(QStringLiteral("123"), {QStringLiteral("ttyS0")});
    damaged.chop(1);
    server->connectToAbonent(QStringLiteral("Y %1"), damaged);
    EXPECT_TRUE(logHas(QStringLiteral("Невозможно вызвать абонента 'Y %1' т.к. настройки не верны. Данные повреждены")))
        << logText().toStdString();
    EXPECT_TRUE(log.entries().isEmpty());
    EXPECT_TRUE(emitted.entries().isEmpty());
}

TEST_F(ServerAlone, NoFreePortIsJournalledAsAnEvent)
{
    server->connectToAbonent(QStringLiteral("Пост %1"), abonentBytes(QStringLiteral("123")));
    EXPECT_EQ(log.entries(), QStringList{recordOf(QStringLiteral(
                                 "Не удалось вызвать абонента 'Пост %1' т.к. не удалось найти свободный COM порт"))});
    EXPECT_EQ(emitted.entries(), QStringList{QStringLiteral("notConnected Пост %1")});
    EXPECT_EQ(logText(), QString());
}

TEST_F(ServerAlone, PortsThatAreNotReadyTakeNoCall)
{
    writeSettings({TestPort{QStringLiteral("none")}});
    server->start();
    ASSERT_TRUE(waitForPorts(1));
    server->connectToAbonent(QStringLiteral("X"), abonentBytes(QStringLiteral("123")));
    EXPECT_EQ(emitted.entries(), QStringList{QStringLiteral("notConnected X")});
}

TEST_F(ServerAlone, UnknownConnections)
{
    server->disconnectFromAbonent(QStringLiteral("***"), 5);
    server->disconnectFromAbonent(QStringLiteral("Пост №1 %2"), -1);
    server->disconnectFromAbonent(QStringLiteral("X"), -2);
    server->keepAliveConnection(5);
    server->keepAliveConnection(-1);
    const QString lost = QStringLiteral("Не удалось найти соединение чтобы разорвать соединение с абонентом ");
    EXPECT_TRUE(logHas(lost + QStringLiteral("'***', connectionId 5")));
    EXPECT_TRUE(logHas(lost + QStringLiteral("'Пост №1 %2', connectionId -1"))) << logText().toStdString();
    EXPECT_TRUE(logHas(lost + QStringLiteral("'X', connectionId -2")));
    EXPECT_TRUE(logHas(QStringLiteral("Не удалось найти соединение чтобы удержать connectionId 5")));
    EXPECT_TRUE(logHas(QStringLiteral("Не удалось найти соединение чтобы удержать connectionId -1")));
    EXPECT_TRUE(log.entries().isEmpty());
    EXPECT_TRUE(emitted.entries().isEmpty());
}

TEST_F(ServerAlone, UnknownConnectionsBelongToASwitchableCategory)
{
    QFile settings(testsupport::installRoot() + QStringLiteral("/settings/settings.ini"));
    ASSERT_TRUE(settings.open(QIODevice::WriteOnly));
    settings.write("[Debug]\ntransportConnects=false\n");
    settings.close();
    server->disconnectFromAbonent(QStringLiteral("X"), 5);
    server->keepAliveConnection(5);
    EXPECT_EQ(logText(), QString());
}

TEST_F(ServerAlone, WhatIsWrongWithTheSettingsIsToldWithAllCategoriesOff)
{
    QFile settings(testsupport::installRoot() + QStringLiteral("/settings/settings.ini"));
    ASSERT_TRUE(settings.open(QIODevice::WriteOnly));
    settings.write("[Debug]\n");
    for (const char* category : {"ipcData",
                                 "ipcExtra",
                                 "ipcSecurityDaemon",
                                 "ipcTransport",
                                 "transportAbonents",
                                 "transportTransit",
                                 "transportConnects",
                                 "transportDataLifetime",
                                 "transportBaseProtocol",
                                 "transportProtocol",
                                 "transportProtocolAttaches",
                                 "transportIpSocketError",
                                 "transportComPortError",
                                 "transportComAtCommands",
                                 "transportComPackets",
                                 "transportComData",
                                 "transportTasks",
                                 "journals",
                                 "messagesAutodelete",
                                 "messagesLock"})
        settings.write(QByteArray(category) + "=false\n");
    settings.close();
    server->connectToAbonent(QStringLiteral("X"), {});
    writeSettingsBytes({});
    server->loadSettings();
    makeSettingsADirectory();
    server->loadSettings();
    const QString text = logText();
    EXPECT_TRUE(text.contains(QStringLiteral("Невозможно вызвать абонента 'X'"))) << text.toStdString();
    EXPECT_TRUE(text.contains(QStringLiteral("Ошибка чтения настроек COM канала."))) << text.toStdString();
    EXPECT_TRUE(text.contains(QStringLiteral("Не удалось открыть файл настроек COM канала"))) << text.toStdString();
}

// A name of which the filter leaves nothing matches workers that never had a call.
TEST_F(ServerAlone, EmptyFilteredNameMatchesAnIdleWorker)
{
    writeSettings({TestPort{QStringLiteral("none")}});
    server->start();
    server->disconnectFromAbonent(QStringLiteral("***"), -1);
    EXPECT_FALSE(logText().contains(QStringLiteral("Не удалось найти соединение")));
    server->disconnectFromAbonent(QStringLiteral("a"), -1);
    EXPECT_TRUE(logText().contains(QStringLiteral("'a', connectionId -1")));
}

TEST_F(ServerAlone, LogLinesAreEchoedOnTheDebugStream)
{
    qInstallMessageHandler(recordMessage);
    server->connectToAbonent(QStringLiteral("X"), {});
    server->keepAliveConnection(5);
    server->disconnectFromAbonent(QStringLiteral("X"), 5);
    writeSettingsBytes({});
    server->loadSettings();
    makeSettingsADirectory();
    server->loadSettings();
    qInstallMessageHandler(nullptr);
    const QStringList echoes = g_messages.filter(QStringLiteral("CComServer"));
    ASSERT_EQ(echoes.size(), 5) << g_messages.join(QLatin1Char('\n')).toStdString();
    EXPECT_TRUE(echoes[0].contains(QStringLiteral("Невозможно вызвать абонента 'X'")));
    EXPECT_TRUE(echoes[1].contains(QStringLiteral("чтобы удержать connectionId 5")));
    EXPECT_TRUE(echoes[2].contains(QStringLiteral("чтобы разорвать соединение")));
    EXPECT_TRUE(echoes[3].contains(QStringLiteral("Ошибка чтения настроек COM канала.")));
    EXPECT_TRUE(echoes[4].contains(QStringLiteral("Не удалось открыть файл настроек COM канала")));
}

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
    ASSERT_TRUE(worker->wait(testsupport::defaultDeadlineMs));
    EXPECT_EQ(columnOwners(), QList<QThread*>{worker});
    server.reset();
    EXPECT_TRUE(worker.isNull());
    EXPECT_EQ(columnOwners(), QList<QThread*>{nullptr});
}

// A server of another kind may stop in its own way, and then does so here too.
TEST_F(ServerAlone, SettingsChangeStopsByTheVirtualOperation)
{
    class CountingServer : public CComServer
    {
    public:
        void stop() override
        {
            ++stops;
            CComServer::stop();
        }
        int stops = 0;
    };
    CountingServer counting;
    counting.channelsState = &channelsState;
    counting.journal = &journal;
    writeSettings({disabled(QStringLiteral("none"))});
    counting.settingsWasChanged();
    EXPECT_EQ(counting.stops, 1);
    counting.settingsWasChanged();
    EXPECT_EQ(counting.stops, 1);
}

TEST_F(ServerAlone, SettingsChangeRestartsTheWorkers)
{
    writeSettings({TestPort{QStringLiteral("noneA")}, TestPort{QStringLiteral("noneB")}});
    server->start();
    ASSERT_TRUE(waitForPorts(2));
    const struct
    {
        const char* what;
        std::function<void(QList<TestPort>&)> change;
    } changes[] = {
        {"order", [](QList<TestPort>& ports) { std::swap(ports[0], ports[1]); }},
        {"enabled", [](QList<TestPort>& ports) { ports[1].enabled = false; }},
        {"portName", [](QList<TestPort>& ports) { ports[1].name = QStringLiteral("noneX"); }},
        {"initString", [](QList<TestPort>& ports) { ports[0].initString = QStringLiteral("ATZ\\r"); }},
        {"baudRate", [](QList<TestPort>& ports) { ports[0].baudRate = 9600; }},
        {"flowControl", [](QList<TestPort>& ports) { ports[0].flowControl = 1; }},
        {"dataBits", [](QList<TestPort>& ports) { ports[0].dataBits = 7; }},
        {"parity", [](QList<TestPort>& ports) { ports[0].parity = 2; }},
        {"stopBits", [](QList<TestPort>& ports) { ports[0].stopBits = 2; }},
        {"size", [](QList<TestPort>& ports) { ports.append(disabled(QStringLiteral("noneY"))); }},
        {"size back", [](QList<TestPort>& ports) { ports.removeLast(); }},
    };
    QList<TestPort> ports{TestPort{QStringLiteral("noneA")}, TestPort{QStringLiteral("noneB")}};
    for (const auto& row : changes) {
        log.clear();
        row.change(ports);
        writeSettings(ports);
        server->settingsWasChanged();
        EXPECT_EQ(serverEntries(), QStringList{recordOf(QStringLiteral("Остановка"))}) << row.what;
        EXPECT_TRUE(waitForPorts(std::count_if(ports.begin(), ports.end(), [](const TestPort& port) {
            return port.enabled;
        }))) << row.what;
        // Told again without a change: nothing happens.
        log.clear();
        server->settingsWasChanged();
        EXPECT_TRUE(serverEntries().isEmpty()) << row.what;
    }
    EXPECT_TRUE(emitted.entries().isEmpty());
}

TEST_F(ServerAlone, PacketSizeAloneNeedsNoRestart)
{
    writeSettings({TestPort{QStringLiteral("none")}}, 1024);
    server->start();
    ASSERT_TRUE(waitForPorts(1));
    writeSettings({TestPort{QStringLiteral("none")}}, 512);
    server->settingsWasChanged();
    EXPECT_EQ(gComSettings.packetSize, 512);
    EXPECT_EQ(serverEntries(), (QStringList{recordOf(QStringLiteral("Запуск")), stateOf(QStringLiteral("Работает"))}));
    EXPECT_TRUE(log.entriesWith(QStringLiteral("remove ")).isEmpty());
}

// The comparison is of what the workers get, not of how it is written.
TEST_F(ServerAlone, DifferentSpellingOfTheSameInitStringNeedsNoRestart)
{
    TestPort port{QStringLiteral("none")};
    port.initString = QStringLiteral("ATZ\\r");
    writeSettings({port});
    server->start();
    port.initString = QStringLiteral("ATZ\r");
    writeSettings({port});
    server->settingsWasChanged();
    EXPECT_FALSE(log.contains(recordOf(QStringLiteral("Остановка"))));
}

TEST_F(ServerAlone, SettingsChangeStartsAServerThatWasNotStarted)
{
    writeSettings({TestPort{QStringLiteral("none")}});
    server->settingsWasChanged();
    ASSERT_TRUE(waitForPorts(1));
    EXPECT_EQ(serverEntries(), QStringList{recordOf(QStringLiteral("Остановка"))});
    EXPECT_TRUE(emitted.entries().isEmpty());
    server->stop();
    writeSettings({TestPort{QStringLiteral("noneA")}, TestPort{QStringLiteral("noneB")}});
    server->settingsWasChanged();
    ASSERT_TRUE(waitForPorts(3));
}

TEST_F(ServerAlone, SettingsThatVanishEndTheWorkers)
{
    writeSettings({TestPort{QStringLiteral("none")}});
    server->start();
    ASSERT_TRUE(waitForPorts(1));
    QFile::remove(settingsPath());
    server->settingsWasChanged();
    EXPECT_EQ(log.entriesWith(QStringLiteral("remove ")).size(), 1);
    EXPECT_TRUE(gComSettings.ports.isEmpty());
}

TEST_F(ServerAlone, RestartsThroughAQueuedConnection)
{
    moveServerToThread();
    writeSettings({TestPort{QStringLiteral("noneA")}});
    inServerThread([this] { server->start(); });
    ASSERT_TRUE(waitForPorts(1));
    writeSettings({TestPort{QStringLiteral("noneB")}});
    QMetaObject::invokeMethod(server.get(), "settingsWasChanged", Qt::QueuedConnection);
    ASSERT_TRUE(waitForPorts(2));
    EXPECT_TRUE(log.contains(recordOf(QStringLiteral("Остановка"))));
    EXPECT_FALSE(log.contains(stateOf(QStringLiteral("Выключение"))));
    EXPECT_TRUE(emitted.entries().isEmpty());
}

TEST_F(ServerAlone, PolledFromAnotherThreadWhileWorkersComeAndGo)
{
    QList<TestPort> ports;
    for (int i = 0; i < 4; ++i)
        ports.append(TestPort{QStringLiteral("none%1").arg(i)});
    writeSettings(ports);
    std::atomic<bool> done{false};
    std::atomic<int> polls{0};
    const std::unique_ptr<QThread> poller(QThread::create([&] {
        while (!done) {
            EXPECT_FALSE(server->hasFreeChannel());
            EXPECT_FALSE(server->isHardwareOn());
            EXPECT_FALSE(server->canCheckOnline());
            ++polls;
        }
    }));
    poller->start();
    for (int round = 0; round < 10; ++round) {
        server->start();
        server->stop();
    }
    done = true;
    EXPECT_TRUE(poller->wait(testsupport::defaultDeadlineMs));
    EXPECT_GT(polls, 0);
}

TEST_F(ServerAlone, TracesItsOperations)
{
    writeSettings({});
    server->start();
    server->keepAliveConnection(1);
    server->stop();
    const QString history = QStringList(*_CFunctionDebug::stack()).join(QLatin1Char('\n'));
    for (const char* operation : {"CComServer::start()", "CComServer::loadSettings()", "CComServer::internalStart()",
                                  "CComServer::keepAliveConnection(int)", "CComServer::stop()",
                                  "CComServer::internalStop()", "CComServer::clear()"})
        EXPECT_TRUE(history.contains(QLatin1String(operation))) << operation;
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
