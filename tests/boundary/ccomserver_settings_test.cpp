// How the server reads channelCom.conf, and what it makes of files that are none.
#include "com/link/currentcomsettings.h"
#include "rig/testroot.h"
#include "tests/boundary/serverfixture.h"

#include <QDataStream>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>

namespace {

class ServerSettings : public ServerTest
{
protected:
    QStringList initStrings() const
    {
        QStringList texts;
        for (const ComPortSettings& port : gComSettings.ports)
            texts.append(port.initString);
        return texts;
    }
};

TestPort portWithInit(const QString& initString)
{
    TestPort port{QStringLiteral("none")};
    port.initString = initString;
    return port;
}

} // namespace

TEST_F(ServerSettings, EveryFieldIsLoaded)
{
    // Three records as they stand in a file; the middle one with every field different.
    writeSettingsBytes(QByteArray::fromHex("00000003"
                                           "00000002"
                                           "00000200"
                                           "01"
                                           "0000000A"
                                           "00740074007900530030"
                                           "0000000A"
                                           "00410054005A005C0072"
                                           "00002580"
                                           "00000001"
                                           "00000008"
                                           "00000002"
                                           "00000003"
                                           "00"
                                           "FFFFFFFF"
                                           "00000000"
                                           "FFFFFFFF"
                                           "00000000"
                                           "00000007"
                                           "00000001"
                                           "00000002"));
    server->loadSettings();
    ASSERT_EQ(gComSettings.ports.size(), 2);
    const ComPortSettings& first = gComSettings.ports[0];
    EXPECT_TRUE(first.enabled);
    EXPECT_EQ(first.portName, QStringLiteral("ttyS0"));
    EXPECT_EQ(first.initString, QStringLiteral("ATZ\r")); // stored as backslash and r
    EXPECT_EQ(first.baudRate, 9600);
    EXPECT_EQ(first.flowControl, 1);
    EXPECT_EQ(first.dataBits, 8);
    EXPECT_EQ(first.parity, 2);
    EXPECT_EQ(first.stopBits, 3);
    const ComPortSettings& second = gComSettings.ports[1];
    EXPECT_FALSE(second.enabled);
    EXPECT_TRUE(second.portName.isNull());
    EXPECT_TRUE(second.initString.isEmpty());
    EXPECT_EQ(second.baudRate, -1);
    EXPECT_EQ(second.flowControl, 0);
    EXPECT_EQ(second.dataBits, 7);
    EXPECT_EQ(second.parity, 1);
    EXPECT_EQ(second.stopBits, 2);
    EXPECT_EQ(gComSettings.packetSize, 512);
    EXPECT_EQ(logText(), QString());
}

TEST_F(ServerSettings, InitStringsAreUnescaped)
{
    writeSettings({portWithInit(QStringLiteral("ATZ\\r\\n")), portWithInit(QStringLiteral("a\\\\n")),
                   portWithInit(QStringLiteral("\\T\\x\\")), portWithInit(QStringLiteral("\\tAT\\tE0\\r")),
                   portWithInit(QStringLiteral("plain")), portWithInit(QStringLiteral("\\\\t\\\\r"))});
    server->loadSettings();
    EXPECT_EQ(initStrings(),
              (QStringList{QStringLiteral("ATZ\r\n"), QStringLiteral("a\\\n"), QStringLiteral("\\T\\x\\"),
                           QStringLiteral("\tAT\tE0\r"), QStringLiteral("plain"), QStringLiteral("\\\t\\\r")}));
}

TEST_F(ServerSettings, NoFileNoPortsNoWord)
{
    writeSettings({portWithInit({})}, 300);
    server->loadSettings();
    ASSERT_EQ(gComSettings.ports.size(), 1);
    QFile::remove(settingsPath());
    server->loadSettings();
    EXPECT_TRUE(gComSettings.ports.isEmpty());
    EXPECT_EQ(gComSettings.packetSize, 300);
    EXPECT_EQ(logText(), QString());
    EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST_F(ServerSettings, FileThatCannotBeOpened)
{
    writeSettings({portWithInit({})}, 300);
    server->loadSettings();
    QFile::remove(settingsPath());
    ASSERT_TRUE(QDir().mkpath(settingsPath()));
    QFile probe(settingsPath());
    ASSERT_FALSE(probe.open(QIODevice::ReadOnly));
    server->loadSettings();
    EXPECT_TRUE(gComSettings.ports.isEmpty());
    EXPECT_EQ(gComSettings.packetSize, 300);
    EXPECT_TRUE(logHas(QStringLiteral("Не удалось открыть файл настроек COM канала для чтения ") + settingsPath() +
                       QStringLiteral(". ") + probe.errorString()))
        << logText().toStdString();
    QDir().rmdir(settingsPath());
}

TEST_F(ServerSettings, AnotherVersionIsRefusedAsAWhole)
{
    writeSettings({portWithInit({})}, 300);
    server->loadSettings();
    QByteArray bytes = channelBytes({portWithInit({})}, 77);
    bytes[3] = 2;
    writeSettingsBytes(bytes);
    server->loadSettings();
    EXPECT_TRUE(gComSettings.ports.isEmpty());
    EXPECT_EQ(gComSettings.packetSize, 300);
    EXPECT_TRUE(logHas(QStringLiteral("Ошибка чтения настроек COM канала. Версия настроек 2 не совпадает с текущей 3")))
        << logText().toStdString();
    server->start();
    EXPECT_FALSE(server->hasFreeChannel());
    EXPECT_FALSE(server->isHardwareOn());
    EXPECT_TRUE(log.entriesWith(QStringLiteral("add ")).isEmpty());
}

TEST_F(ServerSettings, DamagedFileKeepsWhatWasRead)
{
    const QByteArray whole =
        channelBytes({portWithInit(QStringLiteral("ATZ\\r")), portWithInit(QStringLiteral("\\n"))});
    writeSettingsBytes(whole.left(whole.size() - 2));
    server->loadSettings();
    ASSERT_EQ(gComSettings.ports.size(), 2);
    EXPECT_EQ(initStrings(), (QStringList{QStringLiteral("ATZ\r"), QStringLiteral("\n")}));
    EXPECT_EQ(gComSettings.ports[1].stopBits, 0);
    EXPECT_TRUE(logHas(QStringLiteral("Ошибка чтения настроек COM канала. Данные повреждены")))
        << logText().toStdString();
}

TEST_F(ServerSettings, EmptyFileIsOfVersionZero)
{
    writeSettingsBytes({});
    server->loadSettings();
    EXPECT_TRUE(gComSettings.ports.isEmpty());
    EXPECT_TRUE(
        logHas(QStringLiteral("Ошибка чтения настроек COM канала. Версия настроек 0 не совпадает с текущей 3")));
}

// A cut at every place: no crash, never more ports than announced, always a word in the log.
TEST_F(ServerSettings, EveryTruncationIsTold)
{
    const QByteArray whole = channelBytes({portWithInit(QStringLiteral("AT")), portWithInit(QStringLiteral("ATZ\\r"))});
    for (int size = 0; size < whole.size(); ++size) {
        setCurrentComSettings(ChannelComSettings());
        writeSettingsBytes(whole.left(size));
        const int before = logText().count(QStringLiteral("Ошибка чтения настроек COM канала. "));
        server->loadSettings();
        EXPECT_LE(gComSettings.ports.size(), 2) << size;
        EXPECT_EQ(logText().count(QStringLiteral("Ошибка чтения настроек COM канала. ")), before + 1) << size;
    }
}

TEST_F(ServerSettings, AbsurdNumbersOfPorts)
{
    for (const char* count : {"7FFFFFFF", "FFFFFFFF", "80000000", "00100000"}) {
        QElapsedTimer timer;
        timer.start();
        writeSettingsBytes(QByteArray::fromHex(QByteArray("00000003") + count + "00000400"));
        server->loadSettings();
        EXPECT_LE(gComSettings.ports.size(), 4096) << count;
        // None of the made-up records starts a worker.
        for (const ComPortSettings& port : gComSettings.ports)
            EXPECT_FALSE(port.enabled);
        EXPECT_LT(timer.elapsed(), rig::defaultDeadlineMs) << count;
    }
    server->start();
    EXPECT_TRUE(log.entriesWith(QStringLiteral("add ")).isEmpty());
}

TEST_F(ServerSettings, AbsurdStringLengths)
{
    for (const char* length : {"7FFFFFFE", "FFFFFFFE", "80000000", "00000003"}) {
        writeSettingsBytes(QByteArray::fromHex(QByteArray("000000030000000100000400"
                                                          "01") +
                                               length + "00410042"));
        server->loadSettings();
        ASSERT_EQ(gComSettings.ports.size(), 1) << length;
        EXPECT_TRUE(gComSettings.ports[0].portName.isEmpty()) << length;
    }
}

// A file that grows for ever is not taken into memory as a whole: its tail counts as garbage.
TEST_F(ServerSettings, HugeFileIsReadInPart)
{
    writeSettings({portWithInit(QStringLiteral("AT"))}, 333);
    QFile file(settingsPath());
    ASSERT_TRUE(file.resize(Q_INT64_C(64) * 1024 * 1024 * 1024)); // a hole, takes no room
    server->loadSettings();
    EXPECT_EQ(initStrings(), QStringList{QStringLiteral("AT")});
    EXPECT_EQ(gComSettings.packetSize, 333);
    EXPECT_EQ(logText(), QString());
}

TEST_F(ServerSettings, SeveralServersLoadAtOnce)
{
    writeSettings({portWithInit(QStringLiteral("a\\r")), portWithInit(QStringLiteral("b"))});
    QList<QThread*> loaders;
    for (int i = 0; i < 4; ++i) {
        loaders.append(QThread::create([] {
            CComServer own;
            for (int round = 0; round < 50; ++round)
                own.loadSettings();
        }));
        loaders.last()->start();
    }
    for (QThread* loader : loaders)
        EXPECT_TRUE(loader->wait(rig::defaultDeadlineMs));
    qDeleteAll(loaders);
    EXPECT_EQ(initStrings(), (QStringList{QStringLiteral("a\r"), QStringLiteral("b")}));
}

// Abonents' data of every kind of damage: a line in the log each, no signal, no record.
TEST_F(ServerSettings, AbsurdAbonentData)
{
    const QByteArray whole = abonentBytes(QStringLiteral("123"), {QStringLiteral("ttyS0"), QStringLiteral("ttyS1")});
    QList<QByteArray> arrays;
    for (int size = 0; size < whole.size(); ++size)
        arrays.append(whole.left(size));
    arrays.append(QByteArray::fromHex("00000004"
                                      "FFFFFFFF"
                                      "7FFFFFFF"));
    arrays.append(QByteArray::fromHex("00000004"
                                      "FFFFFFFF"
                                      "FFFFFFFF"));
    arrays.append(QByteArray::fromHex("00000004"
                                      "7FFFFFFE"
                                      "00410042"));
    arrays.append(QByteArray(1024 * 1024, '\xFF'));
    for (const QByteArray& data : arrays)
        server->connectToAbonent(QStringLiteral("X"), data);
    EXPECT_EQ(logText().count(QStringLiteral("Невозможно вызвать абонента 'X' т.к. настройки не верны. ")),
              arrays.size());
    EXPECT_TRUE(emitted.entries().isEmpty());
    EXPECT_TRUE(log.entries().isEmpty());
}
