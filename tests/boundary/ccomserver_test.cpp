// The server without a single device: its meta-object, its order of reports, what it says
// to requests that it cannot serve.
#include "com/link/currentcomsettings.h"
#include "common/functiondebug.h"
#include "rig/testroot.h"
#include "tests/boundary/serveralone.h"

#include <QFile>
#include <QMetaMethod>
#include <QMetaType>
#include <QMutexLocker>
#include <QSerialPort>

#include <atomic>

namespace {

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
    QFile settings(rig::installRoot() + QStringLiteral("/settings/settings.ini"));
    ASSERT_TRUE(settings.open(QIODevice::WriteOnly));
    settings.write("[Debug]\ntransportConnects=false\n");
    settings.close();
    server->disconnectFromAbonent(QStringLiteral("X"), 5);
    server->keepAliveConnection(5);
    EXPECT_EQ(logText(), QString());
}

TEST_F(ServerAlone, WhatIsWrongWithTheSettingsIsToldWithAllCategoriesOff)
{
    QFile settings(rig::installRoot() + QStringLiteral("/settings/settings.ini"));
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
    EXPECT_TRUE(poller->wait(rig::defaultDeadlineMs));
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
