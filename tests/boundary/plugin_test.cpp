// The built library, loaded as a host loads it.
#include "common/logger.h"
#include "plugin/api/cchannelplugin.h"
#include "plugin/api/cchannelserver.h"
#include "plugin/api/entrypoints.h"
#include "rig/fakehost.h"
#include "rig/testroot.h"

#include <QDirIterator>
#include <QFile>
#include <QLibrary>
#include <QMetaMethod>
#include <QThread>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <thread>

QT_WARNING_DISABLE_DEPRECATED

namespace {

QString logText()
{
    QString text;
    QDirIterator it(rig::installRoot(), {QStringLiteral("*.log")}, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        text += QString::fromUtf8(file.readAll());
    }
    return text;
}

class PluginTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(library.load()) << library.errorString().toStdString();
        apiVersion = reinterpret_cast<ApiVersionFunction>(library.resolve("apiVersion"));
        instance = reinterpret_cast<InstanceFunction>(library.resolve("instance"));
        deleteInstance = reinterpret_cast<DeleteInstanceFunction>(library.resolve("deleteInstance"));
        initDebug = reinterpret_cast<InitDebugFunction>(library.resolve("initDebug"));
        ASSERT_TRUE(apiVersion && instance && deleteInstance && initDebug);
        plugin = instance();
        takeFirstStep();
    }

    // The first operation of a process reads whether to trace, and with that tests the
    // data directory by a file of a random name: not to be mixed into a test's draws.
    virtual void takeFirstStep() { plugin->type(); }

    void TearDown() override
    {
        if (deleteInstance)
            deleteInstance(plugin);
    }

    int inc(int timeout) const
    {
        plugin->incCallTimeout(&timeout);
        return timeout;
    }

    int dec(int timeout) const
    {
        plugin->decCallTimeout(&timeout);
        return timeout;
    }

    // Runs in a thread of its own, whose generator nobody has seeded.
    template <typename Function>
    static int unseeded(Function function)
    {
        int result = 0;
        std::thread thread([&] { result = function(); });
        thread.join();
        return result;
    }

    struct Range
    {
        int least = INT_MAX;
        int greatest = INT_MIN;
    };

    // So many draws miss an outcome of probability 1/920 once in a thousand million runs.
    template <typename Function>
    static Range rangeOf(Function function, int draws = 20000)
    {
        qsrand(rig::seed());
        Range range;
        for (int i = 0; i < draws; ++i) {
            const int value = function();
            range.least = qMin(range.least, value);
            range.greatest = qMax(range.greatest, value);
        }
        return range;
    }

    QLibrary library{QStringLiteral(PLUGIN_SONAME_FILE)};
    ApiVersionFunction apiVersion = nullptr;
    InstanceFunction instance = nullptr;
    DeleteInstanceFunction deleteInstance = nullptr;
    InitDebugFunction initDebug = nullptr;
    CChannelPlugin* plugin = nullptr;
};

} // namespace

TEST_F(PluginTest, VersionIs16)
{
    EXPECT_EQ(apiVersion(), 16);
    EXPECT_EQ(channelApiVersion, 16);
    deleteInstance(instance());
    EXPECT_EQ(apiVersion(), 16);
}

TEST_F(PluginTest, EveryInstanceIsNew)
{
    CChannelPlugin* other = instance();
    EXPECT_NE(other, plugin);
    deleteInstance(other);
    deleteInstance(nullptr);
}

TEST_F(PluginTest, TypeAndName)
{
    EXPECT_EQ(plugin->type(), 2);
    EXPECT_EQ(plugin->name(), QStringLiteral("Коммутируемый канал"));
}

TEST_F(PluginTest, CreatesAServerOfTheSameType)
{
    const std::unique_ptr<CChannelServer> first(plugin->create());
    const std::unique_ptr<CChannelServer> second(plugin->create());
    EXPECT_NE(first, second);
    EXPECT_EQ(first->type, 2);
    EXPECT_EQ(first->stateId, 0);
    EXPECT_EQ(first->parent(), nullptr);
    EXPECT_EQ(first->protocolFactory, nullptr);
    EXPECT_EQ(first->channelsState, nullptr);
    EXPECT_EQ(first->journal, nullptr);
    EXPECT_STREQ(first->metaObject()->className(), "CComServer");
    EXPECT_FALSE(first->hasFreeChannel());
    EXPECT_FALSE(first->isHardwareOn());
    EXPECT_FALSE(first->canCheckOnline());
}

TEST_F(PluginTest, ServersOutliveThePluginObject)
{
    CChannelPlugin* other = instance();
    const std::unique_ptr<CChannelServer> server(other->create());
    deleteInstance(other);
    EXPECT_FALSE(server->hasFreeChannel());
}

// The library and this program have each their own copy of the interfaces' meta-objects.
TEST_F(PluginTest, SignalsReachAHostThatConnectsByPointer)
{
    rig::CallLog log;
    rig::RecordingJournal journal(&log);
    const std::unique_ptr<CChannelServer> server(plugin->create());
    server->journal = &journal;
    QStringList names;
    QObject::connect(server.get(), &CChannelServer::notConnected, [&](const QString& name) { names.append(name); });
    // Any version 4 record: no ports are there to be called through.
    server->connectToAbonent(QStringLiteral("Пост 1"), QByteArray::fromHex("00000004FFFFFFFF00000000"));
    EXPECT_EQ(names, QStringList{QStringLiteral("Пост 1")});
    EXPECT_EQ(log.entries(), QStringList{QStringLiteral("journal 0 Коммутируемый канал Не удалось вызвать абонента "
                                                        "'Пост 1' т.к. не удалось найти свободный COM порт")});
}

TEST_F(PluginTest, LogsIntoTheHostsRecord)
{
    LoggerData::initDebug(nullptr);
    DebugData* data = LoggerData::debugData();
    ASSERT_TRUE(data);
    initDebug(data);
    EXPECT_EQ(data->tabs.size(), 0);
    const std::unique_ptr<CChannelServer> server(plugin->create());
    server->connectToAbonent(QStringLiteral("Пост 1"), {});
    ASSERT_EQ(data->tabs.size(), 1);
    EXPECT_EQ(data->tabs.first().thread, QThread::currentThread());
    EXPECT_TRUE(logText().contains(QStringLiteral("Невозможно вызвать абонента 'Пост 1'"))) << logText().toStdString();
}

TEST_F(PluginTest, LogsIntoARecordOfItsOwnWithoutAHosts)
{
    LoggerData::initDebug(nullptr);
    initDebug(nullptr);
    const std::unique_ptr<CChannelServer> server(plugin->create());
    server->connectToAbonent(QStringLiteral("Пост 1"), {});
    EXPECT_EQ(LoggerData::debugData()->tabs.size(), 0);
    EXPECT_TRUE(logText().contains(QStringLiteral("Невозможно вызвать абонента 'Пост 1'")));
}

// An unseeded thread draws 48271, then 182605794.
TEST_F(PluginTest, CallTimeoutsFromAKnownSequence)
{
    EXPECT_EQ(unseeded([] { return qrand(); }), 48271);
    EXPECT_EQ(unseeded([] { return qrand(), qrand(); }), 182605794);
    EXPECT_EQ(unseeded([&] { return inc(29); }), 98);
    EXPECT_EQ(unseeded([&] { return inc(30); }), 31);
    EXPECT_EQ(unseeded([&] { return inc(900); }), 1471);
    EXPECT_EQ(unseeded([&] { return inc(901); }), 691);
    EXPECT_EQ(unseeded([&] { return dec(29); }), 27);
    EXPECT_EQ(unseeded([&] { return dec(30); }), 13);
    EXPECT_EQ(unseeded([&] { return dec(900); }), 859);
    EXPECT_EQ(unseeded([&] { return dec(901); }), 871);
}

// Whatever else the first operation of a process reads and tests.
class UnusedPluginTest : public PluginTest
{
    void takeFirstStep() override {}
};

TEST_F(UnusedPluginTest, FirstLengtheningTakesTheFirstNumbers)
{
    EXPECT_EQ(unseeded([&] { return inc(29); }), 98);
}

TEST_F(UnusedPluginTest, FirstShorteningTakesTheFirstNumbers)
{
    EXPECT_EQ(unseeded([&] { return dec(29); }), 27);
}

TEST_F(PluginTest, CallTimeoutsDrawNoMoreThanTheyNeed)
{
    // The second number of the sequence is still to come after one draw, the third after two.
    EXPECT_EQ(unseeded([&] { return inc(30), qrand(); }), 182605794);
    EXPECT_EQ(unseeded([&] { return inc(901), qrand(); }), 182605794);
    EXPECT_EQ(unseeded([&] { return dec(30), qrand(); }), 182605794);
    EXPECT_EQ(unseeded([&] { return dec(901), qrand(); }), 182605794);
    const int third = unseeded([] { return qrand(), qrand(), qrand(); });
    EXPECT_EQ(unseeded([&] { return inc(29), qrand(); }), third);
    EXPECT_EQ(unseeded([&] { return dec(29), qrand(); }), third);
}

TEST_F(PluginTest, SameSeedSameTimeouts)
{
    const auto draw = [&] {
        qsrand(1);
        QList<int> values;
        for (int timeout : {0, 29, 30, 500, 900, 901, 5000})
            values << inc(timeout) << dec(timeout);
        return values;
    };
    const QList<int> first = draw();
    EXPECT_EQ(draw(), first);
}

TEST_F(PluginTest, ShortTimeoutsJumpAndAreThenLengthened)
{
    for (int timeout : {-5, 29}) {
        // 177 is 89 + 88: one outcome of 60 * 89.
        const Range range = rangeOf([&] { return inc(timeout); }, 110000);
        EXPECT_EQ(range.least, 30) << timeout;
        EXPECT_EQ(range.greatest, 177) << timeout;
    }
}

TEST_F(PluginTest, TimeoutsGrowUpToTwofold)
{
    Range range = rangeOf([&] { return inc(30); });
    EXPECT_EQ(range.least, 30);
    EXPECT_EQ(range.greatest, 59);
    range = rangeOf([&] { return inc(900); });
    EXPECT_EQ(range.least, 900);
    EXPECT_EQ(range.greatest, 1799);
}

TEST_F(PluginTest, OvergrownTimeoutsFallBack)
{
    for (int timeout : {901, 5000, INT_MAX}) {
        const Range range = rangeOf([&] { return inc(timeout); });
        EXPECT_EQ(range.least, 420) << timeout;
        EXPECT_EQ(range.greatest, 899) << timeout;
    }
}

TEST_F(PluginTest, ShortTimeoutsJumpAndAreThenShortened)
{
    for (int timeout : {INT_MIN, -5, 0, 29}) {
        const Range range = rangeOf([&] { return dec(timeout); });
        EXPECT_EQ(range.least, 3) << timeout;
        EXPECT_EQ(range.greatest, 49) << timeout;
    }
}

TEST_F(PluginTest, TimeoutsShrinkByTenAtLeast)
{
    const struct
    {
        int timeout, least, greatest;
    } rows[] = {{30, 9, 20}, {59, 27, 49}, {100, 51, 90}, {899, 531, 889}, {900, 531, 890}};
    for (const auto& row : rows) {
        const Range range = rangeOf([&] { return dec(row.timeout); });
        EXPECT_EQ(range.least, row.least) << row.timeout;
        EXPECT_EQ(range.greatest, row.greatest) << row.timeout;
    }
}

TEST_F(PluginTest, OvergrownTimeoutsFallBackHigherWhenShortened)
{
    for (int timeout : {901, 5000, INT_MAX}) {
        const Range range = rangeOf([&] { return dec(timeout); });
        EXPECT_EQ(range.least, 600) << timeout;
        EXPECT_EQ(range.greatest, 899) << timeout;
    }
}

TEST(PluginLibrary, UnloadsCleanly)
{
    // Stays: a library that a sanitizer has noted must not go away.
    QLibrary serialPort(QStringLiteral("Qt5SerialPort"), 5);
    ASSERT_TRUE(serialPort.load()) << serialPort.errorString().toStdString();
    for (int round = 0; round < 3; ++round) {
        QLibrary library(QStringLiteral(PLUGIN_SONAME_FILE));
        ASSERT_TRUE(library.load()) << library.errorString().toStdString();
        const auto version = reinterpret_cast<ApiVersionFunction>(library.resolve("apiVersion"));
        ASSERT_TRUE(version);
        EXPECT_EQ(version(), 16);
        EXPECT_TRUE(library.unload());
    }
}

// The channel's settings at load: version 3, no ports, blocks of 1024 bytes.
TEST(PluginLibrary, SettingsAtLoad)
{
    QLibrary library(QStringLiteral(PLUGIN_SONAME_FILE));
    ASSERT_TRUE(library.load());
    struct Settings
    {
        QList<void*> ports; // any list: it is empty
        int packetSize;
    };
    const auto* settings = reinterpret_cast<const Settings*>(library.resolve("gComSettings"));
    ASSERT_TRUE(settings);
    EXPECT_TRUE(settings->ports.isEmpty());
    EXPECT_EQ(settings->packetSize, 1024);
}
