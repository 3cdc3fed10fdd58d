#include "host/transporthost.h"

#include "common/csettings.h"
#include "common/global.h"
#include "common/logger.h"
#include "host/installation/names.h"
#include "plugin/api/channeltype.h"
#include "plugin/api/journalkind.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <algorithm>
#include <limits>

namespace host {

namespace {

constexpr int pollMs = 100;
// A sleeping session may notice so much later that the carrier fell, that a message was queued, or that
// the host wants to keep the connection.
constexpr int longestSessionSleepMs = 100;
constexpr qint64 queuePollMs = 300;
constexpr qint64 stateEveryMs = 1000;
constexpr qint64 stopGraceMs = 5000; // in addition to the server's own stop time-out

const QString ownName = QStringLiteral("transport-host");

int secrecyLevel()
{
    static const int level = Global::currentSecrecy();
    return level;
}

// The plug-in's rules use qrand(), which has a seed in each thread. Two hosts with the same seed would
// call each other at the same moments again and again.
void seedRandom()
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    qsrand(QRandomGenerator::system()->generate());
    QT_WARNING_POP
}

QByteArray fileStamp(const QString& path)
{
    const QFileInfo info(path);
    return info.exists()
               ? QByteArray::number(info.lastModified().toMSecsSinceEpoch()) + '/' + QByteArray::number(info.size())
               : QByteArray("-");
}

} // namespace

QString TransportHost::stateFilePath()
{
    return Global::dataSecrecyDir(secrecyLevel()).absoluteFilePath(QStringLiteral("transport-host.state"));
}

QString TransportHost::lockFilePath()
{
    return Global::dataSecrecyDir(secrecyLevel()).absoluteFilePath(QStringLiteral("transport-host.lock"));
}

QString TransportHost::journalPath()
{
    return Global::dataSecrecyDir(secrecyLevel()).absoluteFilePath(QStringLiteral("journal.txt"));
}

TransportHost::TransportHost(const HostOptions& options) : m_options(options)
{
    m_clock.start();
    m_pollTimer.setInterval(pollMs);
    connect(&m_pollTimer, &QTimer::timeout, this, &TransportHost::poll);
    m_stopTimer.setSingleShot(true);
    connect(&m_stopTimer, &QTimer::timeout, this, [this] {
        journal(true, QStringLiteral("the channel's server did not stop in time"));
        m_end = HostEnd::Failed;
        m_hasEnded = true;
        m_isStuck = true;
        emit ended(m_end);
    });
}

TransportHost::~TransportHost()
{
    if (m_serverThread.isRunning()) {
        m_serverThread.quit();
        m_serverThread.wait();
    }
    // When the server is deleted, its thread must have ended and its host objects must still exist.
    m_server.reset();
    m_plugin.reset();
    if (m_lock)
        QFile::remove(stateFilePath());
}

void TransportHost::event(const QString& name, const QJsonObject& fields)
{
    m_events.write(name, fields);
}

void TransportHost::journal(bool isError, const QString& text)
{
    m_journal->addRecord(isError ? JournalKind::error : JournalKind::event, ownName, text);
}

// ---- start ----

QString TransportHost::start(HostEnd* end)
{
    *end = HostEnd::Failed;
    seedRandom();
    QString error = takeLock(end);
    if (error.isEmpty() && !m_options.eventsPath.isEmpty())
        error = m_events.open(m_options.eventsPath);
    if (!error.isEmpty())
        return error;
    openRecords();
    error = loadSettings();
    if (error.isEmpty())
        error = openStore();
    if (error.isEmpty())
        error = startServer();
    if (!error.isEmpty()) {
        journal(true, error);
        return error;
    }
    m_deadlineMs = m_options.timeoutMs < 0 ? -1 : m_clock.elapsed() + m_options.timeoutMs;
    m_events.write(QStringLiteral("started"), {{QStringLiteral("name"), m_identity.name}});
    m_pollTimer.start();
    return QString();
}

QString TransportHost::takeLock(HostEnd* end)
{
    const QDir dataDir = Global::dataSecrecyDir(secrecyLevel());
    if (!Global::makePath(dataDir) || !Global::checkAccess(dataDir))
        return QStringLiteral("cannot write to %1: check its permissions").arg(dataDir.absolutePath());
    auto lock = std::make_unique<QLockFile>(lockFilePath());
    lock->setStaleLockTime(0);
    if (lock->tryLock(0)) {
        m_lock = std::move(lock);
        return QString();
    }
    *end = HostEnd::Busy;
    qint64 process = 0;
    QString machine;
    QString application;
    if (!lock->getLockInfo(&process, &machine, &application))
        return QStringLiteral("%1 cannot be taken: remove it if no transport-host serves this installation")
            .arg(lockFilePath());
    return QStringLiteral("another transport-host (process %1) serves this installation: stop it first").arg(process);
}

// Both are called from the threads of the ports.
void TransportHost::openRecords()
{
    m_journal = std::make_unique<HostJournal>(journalPath(), [this](const JournalRecord& record) {
        QMetaObject::invokeMethod(
            this, [this, record] { onJournalRecord(record); }, Qt::QueuedConnection);
    });
    m_channels = std::make_unique<ChannelsTable>([this](const ChannelRow& row) {
        QMetaObject::invokeMethod(
            this, [this, row] { onStateChanged(row); }, Qt::QueuedConnection);
    });
}

QString TransportHost::loadSettings()
{
    QString error = loadIdentity(&m_identity);
    if (!error.isEmpty())
        return error;
    if (m_identity.name.isEmpty())
        return QStringLiteral("this installation has no name yet: set it with \"transport-host name NAME\"");
    error = m_book.read(&m_abonents);
    if (!error.isEmpty())
        return error;
    QStringList notes;
    m_key = openOwnKey(false, &notes, &error);
    for (const QString& note : qAsConst(notes))
        journal(false, note);
    if (!m_key)
        return error;
    m_peers =
        std::make_unique<Peers>(&m_book, m_key->publicKey(), m_options.acceptUnknown, [this](const PeerNews& news) {
            QMetaObject::invokeMethod(
                this, [this, news] { onPeerNews(news); }, Qt::QueuedConnection);
        });
    ChannelComSettings settings;
    error = loadComSettings(&settings);
    if (!error.isEmpty())
        return error;
    if (settings.ports.isEmpty())
        journal(true, QStringLiteral("no port is defined: define one with \"transport-host port add DEVICE\""));
    m_settingsStamp = fileStamp(Global::channelComSettingsFilePath());
    return QString();
}

QString TransportHost::openStore()
{
    m_store = std::make_unique<MessageStore>(StorePaths::of(secrecyLevel()), m_options.limits);
    QString error;
    const QStringList notes = m_store->open(&error);
    for (const QString& note : notes)
        journal(false, note);
    return error;
}

QString TransportHost::startServer()
{
    // One logging record for host and plug-in. It is never freed, because log lines may come very late.
    auto* debugData = new DebugData;
    LoggerData::initDebug(debugData);
    QString error;
    m_plugin = loadPlugin(Global::channelPluginsDir(), ChannelType::dialUp, debugData, &error);
    if (!m_plugin)
        return error;

    CallRules rules;
    rules.lengthen = [this](int* timeout) { (*m_plugin)->incCallTimeout(timeout); };
    rules.shorten = [this](int* timeout) { (*m_plugin)->decCallTimeout(timeout); };
    rules.unitMs = m_options.retryUnitMs;
    m_calls = std::make_unique<Calls>(rules, static_cast<RunRecords*>(this));
    makeContext();
    connectServer();
    CChannelServer* server = m_server.get();
    server->moveToThread(&m_serverThread);
    m_serverThread.setObjectName(QStringLiteral("channel server"));
    m_serverThread.start();
    QMetaObject::invokeMethod(
        server,
        [server] {
            seedRandom();
            server->start();
        },
        Qt::QueuedConnection);
    return QString();
}

// What each session of this host is made with.
void TransportHost::makeContext()
{
    m_context = std::make_shared<SessionContext>();
    m_context->settings.abonentName = m_identity.name;
    m_context->settings.identity = m_key;
    m_context->settings.guard = m_guard;
    m_context->settings.silenceMs = m_options.silenceMs;
    m_context->store = m_store->forSessions();
    m_context->directory = m_peers.get();
    m_context->keepsConnections = m_options.keepConnections;
    // An adaptive link says itself what fits into a packet.
    m_context->maxBlockBytes = CSettings().detailsTransportComAdaptive() != 0
                                   ? std::numeric_limits<int>::max()
                                   : CSettings().detailsTransportComMaxBytesToWrite();
    m_context->sleepRules = [this](const QString& channelName) { return sleepRules(channelName); };
    m_context->report = [this](const SessionReport& report) {
        QMetaObject::invokeMethod(
            this, [this, report] { onReport(report); }, Qt::QueuedConnection);
    };
}

// In the thread of a session.
SleepRules TransportHost::sleepRules(const QString& channelName) const
{
    // Read once, as the link does.
    static const int confirmationIntervalMs = CSettings().detailsTransportComConfirmationInterval();
    const ChannelsTable* const channels = m_channels.get();
    return {longestSessionSleepMs, confirmationIntervalMs,
            [channels, channelName] { return channels->sentBytes(channelName); }};
}

void TransportHost::connectServer()
{
    m_server.reset((*m_plugin)->create());
    m_server->protocolFactory = new SessionProtocolFactory(m_context); // owned by the server
    m_server->channelsState = m_channels.get();
    m_server->journal = m_journal.get();
    m_server->stateId = m_channels->addChannel(m_server->type, (*m_plugin)->name(), QString());
    connect(m_server.get(), &CChannelServer::connected, this, &TransportHost::onConnected);
    connect(m_server.get(), &CChannelServer::notConnected, this, &TransportHost::onNotConnected);
    connect(m_server.get(), &CChannelServer::disconnected, this, &TransportHost::onDisconnected);
    connect(m_server.get(), &CChannelServer::finished, this, &TransportHost::onServerFinished);
    connect(this, &TransportHost::connectRequested, m_server.get(), &CChannelServer::connectToAbonent);
    connect(this, &TransportHost::keepAliveRequested, m_server.get(), &CChannelServer::keepAliveConnection);
    connect(this, &TransportHost::settingsChanged, m_server.get(), &CChannelServer::settingsWasChanged);
}

// ---- stop ----

void TransportHost::stop(HostEnd end)
{
    if (m_isStopping)
        return;
    m_isStopping = true;
    m_end = endWithKeys(end);
    m_pollTimer.stop();
    m_stopTimer.start(static_cast<int>(CSettings().detailsTransportServerThreadStopTimeout() + stopGraceMs));
    m_server->stop(); // from another thread than the server's: finished() follows
}

void TransportHost::onServerFinished()
{
    if (m_hasEnded)
        return;
    m_hasEnded = true;
    m_stopTimer.stop();
    m_serverThread.quit();
    m_serverThread.wait();
    m_events.write(QStringLiteral("stopped"), {{QStringLiteral("received"), receivedCount()},
                                               {QStringLiteral("delivered"), deliveredCount()},
                                               {QStringLiteral("queued"), m_store->queue().messages().size()}});
    emit ended(m_end);
}

// ---- the server's signals ----

void TransportHost::onConnected(const QString& abonent, int connectionId)
{
    m_calls->connected(abonent, connectionId);
    if (m_options.keepConnections)
        emit keepAliveRequested(connectionId);
}

void TransportHost::onNotConnected(const QString& abonent)
{
    m_calls->notConnected(abonent, nowMs());
    updateWaitReasons();
}

void TransportHost::onDisconnected(const QString& abonent, int connectionId, bool wasUseful)
{
    m_calls->disconnected(abonent, connectionId, wasUseful, nowMs());
    pollQueue();
}

// ---- the ports and their sessions ----

void TransportHost::onJournalRecord(const JournalRecord& record)
{
    if (record.source != ownName)
        m_calls->journalRecord(record.source, record.text);
    emit journalRecord(record);
}

void TransportHost::onStateChanged(const ChannelRow& row)
{
    if (row.isGone)
        m_calls->portGone(row.name, nowMs());
    else
        m_calls->portState(row.name, row.state, nowMs());
    // A port that is not in a call has no session any more. If its worker was terminated, nobody has
    // said so, and the messages that the session had claimed would wait for ever.
    if (row.isGone || !isStateOfCall(row.state)) {
        for (const void* claimant : m_transfers.portLeft(row.name, nowMs()))
            m_store->queue().releaseAll(claimant);
    }
    if (!row.isGone)
        emit stateChanged(row);
}

void TransportHost::onReport(const SessionReport& report)
{
    m_transfers.onReport(report, nowMs());
    if (report.kind != SessionReport::Kind::Ended)
        return;
    // How an unknown caller's session ended says nothing about calls that this host placed.
    if (!report.called.isEmpty() || report.isProved)
        m_calls->sessionEnded(report.called.isEmpty() ? report.peer : report.called,
                              report.end == SessionEnd::Agreed ? QString() : report.reason);
}

QVector<QueuedMessage> TransportHost::queue() const
{
    return m_store ? m_store->queue().messages() : QVector<QueuedMessage>();
}

// ---- regular work ----

void TransportHost::poll()
{
    const qint64 now = m_clock.elapsed();
    if (now - m_lastQueuePollMs >= queuePollMs)
        pollQueue();
    // Before another call is placed, which nobody would wait for.
    checkEnd();
    if (m_isStopping)
        return;
    if (m_options.placeCalls)
        placeCalls();
    m_transfers.prune(now);
    if (now - m_lastStateMs >= stateEveryMs)
        writeState();
}

void TransportHost::reloadSettings()
{
    reloadAbonents();
    const QByteArray stamp = fileStamp(Global::channelComSettingsFilePath());
    if (stamp == m_settingsStamp)
        return;
    m_settingsStamp = stamp;
    emit settingsChanged();
}

// If the book cannot be read, the abonents stay as they were.
void TransportHost::reloadAbonents()
{
    const QString error = m_book.read(&m_abonents);
    if (!error.isEmpty() && error != m_bookError)
        journal(true, error);
    m_bookError = error;
}

void TransportHost::checkEnd()
{
    const bool hasGoal = m_options.exitWhenSent || m_options.exitWhenReceived >= 0;
    const bool isSent = !m_options.exitWhenSent || m_store->queue().messages().isEmpty();
    const bool isReceived = m_options.exitWhenReceived < 0 || receivedCount() >= m_options.exitWhenReceived;
    const bool isTimeOver = m_deadlineMs >= 0 && m_clock.elapsed() >= m_deadlineMs;
    // A session that still runs may have acknowledgements for the other side to send: it may end first.
    if (hasGoal && isSent && isReceived && !m_transfers.hasSessions())
        stop(HostEnd::Done);
    else if (m_options.exitWhenSent && isReceived && !m_transfers.hasSessions() && isWaitingForKeysOnly())
        stop(HostEnd::KeyChanged);
    else if (isTimeOver && hasGoal && !(isSent && isReceived))
        stop(HostEnd::TimedOut);
    else if (isTimeOver)
        stop(HostEnd::Done);
}

void TransportHost::writeState()
{
    m_lastStateMs = m_clock.elapsed();
    HostState state;
    state.ports = m_channels->rows();
    state.files = m_transfers.files();
    state.limits = m_options.limits;
    for (const Abonent& abonent : qAsConst(m_abonents.abonents)) {
        if (m_calls->isCalling(abonent.name))
            state.calling.append(abonent.name);
        if (m_calls->isConnectedTo(abonent.name))
            state.connected.append(abonent.name);
    }
    state.more[QStringLiteral("failedHandshakes")] = m_guard->failures();
    m_stateFile.write(state);
}

} // namespace host
