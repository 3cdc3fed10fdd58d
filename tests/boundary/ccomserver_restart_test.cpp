// Which changes of the settings restart the server's workers.
#include "com/link/currentcomsettings.h"
#include "tests/boundary/serveralone.h"

#include <QFile>

#include <algorithm>
#include <functional>
#include <utility>

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
