#include "tests/worker/workertest.h"

#include "common/global.h"
#include "rig/deadline.h"
#include "rig/testroot.h"

#include <QDir>
#include <QFile>
#include <QTime>

using rig::waitFor;

namespace {

QString settingsPath()
{
    return rig::installRoot() + QStringLiteral("/settings/settings.ini");
}

} // namespace

void writeDetails(const QStringList& lines)
{
    QDir().mkpath(QFileInfo(settingsPath()).path());
    QFile file(settingsPath());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    // The latter of two lines for a key counts.
    file.write("[Details]\ntransportComAtOkTimeout=20000\n" + lines.join(QLatin1Char('\n')).toUtf8() + '\n');
}

void HookedJournal::addRecord(int kind, const QString& source, const QString& text)
{
    RecordingJournal::addRecord(kind, source, text);
    if (onRecord)
        onRecord(text);
}

void HookedChannelsState::removeChannel(int id)
{
    RecordingChannelsState::removeChannel(id);
    if (onRemove)
        onRemove();
}

QList<LogLine> logLines(const QString& label)
{
    QList<LogLine> found;
    QStringList paths;
    for (int level = 0; level < Global::secrecyLevels; ++level) {
        const QDir logs = Global::logDir(level);
        for (const QString& name : logs.entryList({QStringLiteral("*.log")}, QDir::Files))
            paths.append(logs.filePath(name));
    }
    for (const QString& path : paths) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        // "hh:mm:ss.zzz", a blank, the label in 25 columns, the thread's indentation, the text.
        for (const QString& line : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'))) {
            if (line.mid(13, 25).trimmed() != label)
                continue;
            const QTime time = QTime::fromString(line.left(12), QStringLiteral("hh:mm:ss.zzz"));
            found.append({time.msecsSinceStartOfDay(), line.mid(38).trimmed()});
        }
    }
    return found;
}

QStringList logTexts(const QString& label)
{
    QStringList texts;
    for (const LogLine& line : logLines(label))
        texts.append(line.text);
    return texts;
}

int logTimeBetween(const LogLine& earlier, const LogLine& later)
{
    constexpr int dayMs = 24 * 60 * 60 * 1000;
    return (later.timeMs - earlier.timeMs + dayMs) % dayMs;
}

std::string joined(const QStringList& lines)
{
    return lines.join(QLatin1Char('\n')).toStdString();
}

QStringList eventsOfStart()
{
    return {
        QStringLiteral("add Инициализация"),
        QStringLiteral("state Открытие COM порта"),
        QStringLiteral("state COM порт открыт"),
        QStringLiteral("journal COM порт открыт"),
        QStringLiteral("state Устройство включено"),
        QStringLiteral("journal Устройство включено"),
        QStringLiteral("journal Запись команды 'AT'"),
        QStringLiteral("state Свободен"),
        QStringLiteral("journal Получен ответ 'OK' на команду 'AT'"),
    };
}

QStringList eventsOfReopening()
{
    return {
        QStringLiteral("state Открытие COM порта"),
        QStringLiteral("state COM порт открыт"),
        QStringLiteral("journal COM порт открыт"),
    };
}

WorkerTest::WorkerTest() : factory(new ScriptedFactory(&log))
{
    server.channelsState = &channelsState;
    server.journal = &journal;
    server.protocolFactory = factory;
    QObject::connect(&server, &CChannelServer::connected, [this](const QString& name, int id) {
        log.add(QStringLiteral("connected %1 %2").arg(name).arg(id));
    });
    QObject::connect(&server, &CChannelServer::notConnected,
                     [this](const QString& name) { log.add(QStringLiteral("notConnected ") + name); });
    QObject::connect(&server, &CChannelServer::disconnected, [this](const QString& name, int id, bool wasUseful) {
        log.add(QStringLiteral("disconnected %1 %2 %3").arg(name).arg(id).arg(wasUseful));
    });
}

WorkerTest::~WorkerTest()
{
    if (worker) {
        EXPECT_TRUE(stopAndWait());
    }
}

ComPortSettings WorkerTest::usualSettings() const
{
    ComPortSettings settings;
    settings.enabled = true;
    settings.portName = modem.portPath();
    settings.baudRate = 9600;
    settings.flowControl = 0;
    settings.dataBits = 8;
    settings.parity = 0;
    settings.stopBits = 1;
    return settings;
}

void WorkerTest::start(const ComPortSettings& settings)
{
    if (!QFile::exists(settingsPath()))
        writeDetails({});
    worker = std::make_unique<CComThread>(settings, &server);
    worker->setConnectionId(connectionId);
    worker->start(QThread::InheritPriority);
}

void WorkerTest::startFree(const ComPortSettings& settings)
{
    modem.setDsr(true);
    start(settings);
    ASSERT_TRUE(answerChecks());
    forgetEvents();
}

testing::AssertionResult WorkerTest::answerChecks()
{
    testing::AssertionResult result = testing::AssertionSuccess();
    const bool isFree = waitFor([&] {
        // An answer that comes too late is asked for once more.
        if (modem.written().size() >= 3) {
            result = modem.expectWritten("AT\r");
            modem.reply("\r\nOK\r\n");
        }
        return !result || worker->state() == CComThread::LineFree;
    });
    if (result && !isFree)
        return testing::AssertionFailure() << "the line has not become free";
    return result;
}

void WorkerTest::startOutgoing(const QString& name, const QString& number)
{
    ASSERT_NO_FATAL_FAILURE(startFree());
    ASSERT_TRUE(worker->tryConnect(name, number));
    ASSERT_TRUE(modem.expectWritten("ATD" + number.toLatin1() + '\r'));
}

void WorkerTest::startIncoming()
{
    ASSERT_NO_FATAL_FAILURE(startFree());
    modem.reply("\r\nRING\r\n");
    ASSERT_TRUE(modem.expectWritten("ATA\r"));
}

void WorkerTest::startOutgoingSession(const QString& name)
{
    ASSERT_NO_FATAL_FAILURE(startOutgoing(name));
    modem.setDcd(true);
    modem.reply("\r\nCONNECT 9600\r\n");
    ASSERT_TRUE(waitFor([&] { return !log.entriesWith(QStringLiteral("protocol start")).isEmpty(); }));
    forgetEvents();
}

void WorkerTest::startIncomingSession()
{
    ASSERT_NO_FATAL_FAILURE(startIncoming());
    modem.setDcd(true);
    modem.reply("\r\nCONNECT 9600\r\n");
    ASSERT_TRUE(waitFor([&] { return !log.entriesWith(QStringLiteral("protocol start")).isEmpty(); }));
    forgetEvents();
}

void WorkerTest::completeReset()
{
    ASSERT_TRUE(modem.expectWritten("+++"));
    modem.setDsr(false);
    modem.setDcd(false);
    modem.reply("OK\r\n");
    ASSERT_TRUE(modem.expectWritten("\rATH\r"));
    ASSERT_TRUE(waitForState(CComThread::WaitingForDevice));
}

testing::AssertionResult WorkerTest::stopAndWait(int deadlineMs)
{
    worker->stop();
    if (worker->wait(static_cast<unsigned long>(deadlineMs)))
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "the worker has not ended within " << deadlineMs << " ms";
}

bool WorkerTest::waitForState(CComThread::State state)
{
    return waitFor([&] { return worker->state() == state; });
}

void WorkerTest::raiseError(QSerialPort::SerialPortError code)
{
    QMetaObject::invokeMethod(worker.get(), "comPortError", Qt::DirectConnection,
                              Q_ARG(QSerialPort::SerialPortError, code));
}

QStringList WorkerTest::events() const
{
    const QString port = worker->portName();
    const QString id = QString::number(rig::RecordingChannelsState::firstId);
    QStringList found;
    for (QString entry : log.entries()) {
        entry.replace(QStringLiteral("journal 0 %1 ").arg(port), QStringLiteral("journal "));
        entry.replace(QStringLiteral("journal 1 %1 ").arg(port), QStringLiteral("error "));
        entry.replace(QStringLiteral("add %1 2 %2 ").arg(id, port), QStringLiteral("add "));
        entry.replace(QStringLiteral("state %1 ").arg(id), QStringLiteral("state "));
        entry.replace(QStringLiteral("remove %1").arg(id), QStringLiteral("remove"));
        entry.replace(port, QStringLiteral("PORT"));
        found.append(entry);
    }
    return found;
}

void WorkerTest::expectEvents(const QStringList& expected)
{
    waitFor([&] { return log.entries().size() >= expected.size(); });
    EXPECT_EQ(joined(events()), joined(expected));
}

bool WorkerTest::waitForEvent(const QString& event, int times)
{
    return waitFor([&] { return events().count(event) >= times; });
}
