#include "rig/server/stressbed.h"

#include "rig/deadline.h"
#include "rig/testroot.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>

namespace rig {

namespace {

sim::CallSettings exchangeSettings(const sim::LineSettings& line)
{
    sim::CallSettings settings;
    settings.line = line;
    settings.ringIntervalMs = 400;
    settings.ringLengthMs = 100;
    settings.noAnswerAfterMs = 4000;
    return settings;
}

// Whole or not at all: the server may read it at any moment.
void writeWhole(const QString& name, const QByteArray& bytes)
{
    const QString directory = installRoot() + QStringLiteral("/settings");
    QDir().mkpath(directory);
    const QString path = directory + QLatin1Char('/') + name;
    QFile file(path + QStringLiteral(".written"));
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        qFatal("cannot write %s", qPrintable(path));
    file.close();
    if (::rename(QFile::encodeName(file.fileName()).constData(), QFile::encodeName(path).constData()) != 0)
        qFatal("cannot replace %s", qPrintable(path));
}

// The log's lines go to Qt's debug output too.
void keepQuiet(QtMsgType, const QMessageLogContext&, const QString&) {}

} // namespace

StressBed::StressBed(int ports, const sim::LineSettings& line, std::function<std::optional<SessionPlan>()> draw)
    : board(serverStateId), exchange(exchangeSettings(line)), server(std::make_unique<TestedServer>()), m_ports(ports)
{
    qInstallMessageHandler(keepQuiet);
    for (int modem = 1; modem <= ports; ++modem) {
        sim::ModemSettings settings;
        settings.number = number(modem);
        settings.linkPath = QStringLiteral("%1/port%2").arg(installRoot(), QString::number(modem));
        settings.ringStyle = modem % 2 ? sim::RingStyle::Text : sim::RingStyle::Pin;
        QString error;
        if (exchange.addModem(settings, &error) != modem)
            qFatal("no modem %d: %s", modem, qPrintable(error));
        m_paths.append(exchange.portPath(modem));
    }
    exchange.start();
    writeDetails();
    writePorts();
    server->stateId = serverStateId;
    server->channelsState = &board;
    server->journal = &journal;
    server->protocolFactory = new TrafficFactory(&account, std::move(draw));
    CComServer* const emitter = server.get();
    QObject::connect(emitter, &CChannelServer::connected, [this] { ++connected; });
    QObject::connect(emitter, &CChannelServer::notConnected, [this] { ++notConnected; });
    QObject::connect(emitter, &CChannelServer::disconnected, [this] { ++disconnected; });
    QObject::connect(emitter, &CChannelServer::finished, [this] { m_finished.release(); });
    server->moveToThread(&m_thread);
    m_thread.start();
}

StressBed::~StressBed()
{
    stopFromWithin();
    m_thread.quit();
    m_thread.wait();
    server.reset();
}

void StressBed::writeDetails(const QStringList& extraLines)
{
    const QStringList lines{
        QStringLiteral("[Details]"), QStringLiteral("transportComOpenInterval=100"),
        QStringLiteral("transportComDsrCheckInterval=50"), QStringLiteral("transportComResetTimeout=1100"),
        QStringLiteral("transportComAtOkTimeout=3000"), QStringLiteral("transportComConnectTimeout=8000"),
        QStringLiteral("transportComResendInterval=1000"), QStringLiteral("transportComConfirmationInterval=200"),
        // Ending a worker by force leaves things behind, and a busy machine must not be the reason.
        QStringLiteral("transportServerThreadStopTimeout=60000")};
    writeWhole(QStringLiteral("settings.ini"), (lines + extraLines).join(QLatin1Char('\n')).toUtf8() + '\n');
}

void StressBed::writePorts(const std::function<bool(int modem)>& isEnabled, int packetSize)
{
    QList<TestPort> ports;
    for (int modem = 1; modem <= m_ports; ++modem) {
        TestPort entry{port(modem)};
        entry.enabled = !isEnabled || isEnabled(modem);
        entry.initString = modem % 3 == 0 ? QStringLiteral("ATE0\\r") : QString();
        ports.append(entry);
    }
    writeWhole(QStringLiteral("channelCom.conf"), channelBytes(ports, packetSize));
}

void StressBed::inServer(const std::function<void()>& function)
{
    // The thread sanitizer does not see what a blocking call synchronises.
    std::atomic<bool> isDone{false};
    QMetaObject::invokeMethod(
        server.get(),
        [&] {
            function();
            isDone = true;
        },
        Qt::BlockingQueuedConnection);
    while (!isDone)
        QThread::yieldCurrentThread();
}

void StressBed::postToServer(std::function<void()> function)
{
    QMetaObject::invokeMethod(server.get(), std::move(function), Qt::QueuedConnection);
}

void StressBed::start()
{
    inServer([this] { server->start(); });
}

bool StressBed::stopFromOutside(int deadlineMs)
{
    server->stop();
    return m_finished.tryAcquire(1, deadlineMs);
}

void StressBed::stopFromWithin()
{
    inServer([this] { server->stop(); });
}

void StressBed::call(int modem, const QStringList& allowedPorts)
{
    callAs(partyAt(modem), abonentBytes(number(modem), allowedPorts));
}

// Functions and not slots by name, as a host has them: the copies that Qt makes of a slot's
// arguments it also counts and frees where the thread sanitizer does not see it.
void StressBed::callAs(QString name, QByteArray data)
{
    postToServer([this, name = std::move(name), data = std::move(data)] { server->connectToAbonent(name, data); });
}

void StressBed::hangUp(QString name, int connectionId)
{
    postToServer([this, name = std::move(name), connectionId] { server->disconnectFromAbonent(name, connectionId); });
}

bool StressBed::waitForFree(int ports, int deadlineMs) const
{
    return waitFor([&] { return board.countOf(QStringLiteral("Свободен")) >= ports; }, deadlineMs);
}

bool StressBed::anyWasTerminated() const
{
    QDirIterator it(installRoot(), {QStringLiteral("*.log")}, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        if (file.open(QIODevice::ReadOnly) &&
            file.readAll().contains(QStringLiteral("потоки не остановились").toUtf8()))
            return true;
    }
    return false;
}

} // namespace rig
