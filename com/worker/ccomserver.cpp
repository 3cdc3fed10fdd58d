#include "com/worker/ccomserver.h"

#include "com/formats/comsettings.h"
#include "com/link/currentcomsettings.h"
#include "common/csettings.h"
#include "common/functiondebug.h"
#include "common/global.h"
#include "common/logger.h"
#include "plugin/api/cabstractchannelsstate.h"
#include "plugin/api/cabstractjournal.h"
#include "plugin/api/channeltype.h"
#include "plugin/api/comcalltexts.h"
#include "plugin/api/journalkind.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QMutexLocker>
#include <QSerialPort>
#include <QThread>

#include <algorithm>

namespace {

constexpr int stopPollIntervalMs = 10;
constexpr int leastTerminationWaitMs = 10;
constexpr int anyConnectionId = -1; // selects by the abonent's name

// A port's record takes some 100 bytes, so this holds thousands of ports. Of a larger
// file the rest is not read: it would be ignored as a tail, or the array counts as damaged.
constexpr qint64 maxSettingsFileBytes = 1024 * 1024;

// Several servers of one process may load the settings that they share, each in its own thread.
QMutex gComSettingsMutex;

ChannelComSettings currentComSettings()
{
    QMutexLocker locker(&gComSettingsMutex);
    return gComSettings;
}

void publishComSettings(const ChannelComSettings& loaded)
{
    QMutexLocker locker(&gComSettingsMutex);
    setCurrentComSettings(loaded);
}

void readComSettingsFile(ChannelComSettings* settings)
{
    QFile file(Global::channelComSettingsFilePath());
    if (!file.exists())
        return;
    if (!file.open(QIODevice::ReadOnly)) {
        debug(QStringLiteral("CComServer"),
              QStringLiteral("Не удалось открыть файл настроек COM канала для чтения %1. %2")
                  .arg(file.fileName(), file.errorString()),
              DebugAlways, DebugFlagNone);
        return;
    }
    const QByteArray bytes = file.read(maxSettingsFileBytes);
    file.close();
    const QString error = settings->fromByteArray(bytes);
    if (!error.isEmpty()) {
        debug(QStringLiteral("CComServer"), QStringLiteral("Ошибка чтения настроек COM канала. %1").arg(error),
              DebugAlways, DebugFlagNone);
    }
}

bool anyRunning(const QList<CComThread*>& workers)
{
    return std::any_of(workers.begin(), workers.end(), [](const CComThread* worker) { return worker->isRunning(); });
}

// Asked for when the channel stops for the first time, then kept.
int threadStopTimeoutMs()
{
    static const int configured = CSettings().detailsTransportServerThreadStopTimeout();
    return configured;
}

} // namespace

CComServer::CComServer()
{
    type = ChannelType::dialUp;
    // Without the name, queued delivery of a port's errors fails.
    qRegisterMetaType<QSerialPort::SerialPortError>("SerialPortError");
}

CComServer::~CComServer()
{
    clear();
}

QString CComServer::name()
{
    return QStringLiteral("Коммутируемый канал");
}

bool CComServer::hasFreeChannel() const
{
    QMutexLocker locker(&threadsMutex);
    return std::any_of(threads.begin(), threads.end(),
                       [](const CComThread* worker) { return worker->state() == CComThread::LineFree; });
}

bool CComServer::isHardwareOn() const
{
    QMutexLocker locker(&threadsMutex);
    return std::any_of(threads.begin(), threads.end(),
                       [](const CComThread* worker) { return worker->state() >= CComThread::LineFree; });
}

bool CComServer::canCheckOnline() const
{
    return false;
}

void CComServer::start()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    journal->addRecord(JournalKind::event, name(), QStringLiteral("Запуск"));
    // The channel counts as working before its settings are known.
    channelsState->setState(stateId, QStringLiteral("Работает"));
    loadSettings();
    internalStart();
}

void CComServer::stop()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    journal->addRecord(JournalKind::event, name(), QStringLiteral("Остановка"));
    if (QThread::currentThread() != thread()) {
        QMetaObject::invokeMethod(this, "internalStopSlot", Qt::QueuedConnection);
        return;
    }
    // Neither state texts nor finished(): the caller knows when this returns.
    internalStop();
}

void CComServer::internalStopSlot()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    channelsState->setState(stateId, QStringLiteral("Выключение"));
    internalStop();
    channelsState->setState(stateId, QStringLiteral("Выключен"));
    emit finished();
}

void CComServer::loadSettings()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    // Read aside and swapped in whole, so that no reader sees a half-read list.
    ChannelComSettings loaded;
    loaded.packetSize = currentComSettings().packetSize;
    readComSettingsFile(&loaded);
    for (ComPortSettings& port : loaded.ports)
        port.initString = unescapeInitString(port.initString);
    publishComSettings(loaded);
}

void CComServer::internalStart()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    const ChannelComSettings settings = currentComSettings();
    for (const ComPortSettings& port : settings.ports) {
        if (!port.enabled)
            continue;
        auto* worker = new CComThread(port, this);
        // Its slots belong into the server's thread, whatever thread starts the channel.
        worker->moveToThread(thread());
        QMutexLocker locker(&threadsMutex);
        threads.append(worker);
        worker->setConnectionId(threads.size());
    }
    for (CComThread* worker : workers())
        worker->start(QThread::InheritPriority);
}

void CComServer::internalStop()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    const QList<CComThread*> stopping = workers();
    for (CComThread* worker : stopping)
        worker->stop();
    QElapsedTimer timer;
    timer.start();
    const int timeoutMs = workersStopTimeoutMs(threadStopTimeoutMs());
    do {
        if (timer.elapsed() >= timeoutMs) {
            debug(QStringLiteral("CComServer"),
                  QStringLiteral("Некоторые потоки не остановились во время и будет убиты"), DebugAlways,
                  DebugFlagNone);
            terminateRunning(threadStopTimeoutMs() - timer.elapsed());
            break;
        }
        QThread::msleep(stopPollIntervalMs);
    } while (anyRunning(stopping));
    clear();
}

void CComServer::terminateRunning(qint64 waitMs)
{
    const QList<CComThread*> candidates = workers();
    for (CComThread* worker : candidates) {
        if (worker->isRunning())
            worker->terminate();
    }
    const QDeadlineTimer deadline(qMax<qint64>(waitMs, leastTerminationWaitMs));
    for (CComThread* worker : candidates) {
        if (worker->wait(deadline))
            continue;
        // It hangs where it cannot be cancelled. Deleting a running thread aborts the
        // process, so the worker is left alone; no event reaches it any more.
        worker->moveToThread(nullptr);
        QMutexLocker locker(&threadsMutex);
        threads.removeOne(worker);
    }
}

void CComServer::clear()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    QList<CComThread*> ended;
    {
        QMutexLocker locker(&threadsMutex);
        threads.swap(ended);
    }
    for (CComThread* worker : ended) {
        deleteThreadTabLevel(worker);
        delete worker;
    }
}

QList<CComThread*> CComServer::workers() const
{
    QMutexLocker locker(&threadsMutex);
    return threads;
}

void CComServer::settingsWasChanged()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    const QList<ComPortSettings> before = currentComSettings().ports;
    loadSettings();
    // A new packet size needs no restart: the next link channel takes it up.
    if (currentComSettings().ports == before)
        return;
    stop();
    internalStart();
}

void CComServer::connectToAbonent(const QString& abonentName, const QByteArray& abonentsData)
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    AbonentComSettings abonent;
    const QString error = abonent.fromByteArray(abonentsData);
    if (!error.isEmpty()) {
        // Meant: the host is not told by notConnected() that its own data is wrong.
        debug(QStringLiteral("CComServer"),
              QStringLiteral("Невозможно вызвать абонента '%1' т.к. настройки не верны. %2").arg(abonentName, error),
              DebugAlways, DebugFlagNone);
        return;
    }
    for (CComThread* worker : workers()) {
        if (worker->state() != CComThread::LineFree)
            continue;
        if (!abonent.allowedPorts.isEmpty() && !abonent.allowedPorts.contains(worker->portName()))
            continue;
        if (worker->tryConnect(abonentName, abonent.phoneNumber))
            return;
    }
    journal->addRecord(JournalKind::event, name(), ComCallTexts::noFreePort().arg(abonentName));
    emit notConnected(abonentName);
}

void CComServer::disconnectFromAbonent(const QString& abonentName, int connectionId)
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    const QString filteredName = Global::filterName(abonentName);
    for (CComThread* worker : workers()) {
        if (worker->connectionId() == connectionId ||
            (connectionId == anyConnectionId && Global::filterName(worker->abonentName()) == filteredName)) {
            worker->disconnectFromAbonent();
            return;
        }
    }
    debug(QStringLiteral("CComServer"),
          QStringLiteral("Не удалось найти соединение чтобы разорвать соединение с абонентом '%1', connectionId %2")
              .arg(abonentName, QString::number(connectionId)),
          DebugTransportConnects, DebugFlagNone);
}

void CComServer::keepAliveConnection(int connectionId)
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    for (CComThread* worker : workers()) {
        if (worker->connectionId() == connectionId) {
            worker->keepAlive();
            return;
        }
    }
    debug(QStringLiteral("CComServer"),
          // A lone %2: the one argument fills the lowest placeholder there is.
          QStringLiteral("Не удалось найти соединение чтобы удержать connectionId %2").arg(connectionId),
          DebugTransportConnects, DebugFlagNone);
}
