#include "host/transporthost.h"

#include "common/csettings.h"
#include "common/global.h"
#include "common/logger.h"
#include "host/diskfile.h"
#include "host/names.h"

#include <unistd.h>

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>

namespace host {

namespace {

constexpr int pollMs = 100;
constexpr qint64 queuePollMs = 300;
constexpr qint64 stateEveryMs = 1000;
constexpr qint64 shownAfterEndMs = 5000; // a file that is done stays in view for so long
constexpr qint64 stopGraceMs = 5000;     // beyond the server's own stop time-out

const QString ownName = QStringLiteral("transport-host");

int secrecyLevel()
{
    static const int level = Global::currentSecrecy();
    return level;
}

// The plug-in's rules draw from qrand(), which each thread seeds for itself: two hosts with
// the same seed would call each other at the same moments for ever.
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
    return info.exists() ? QByteArray::number(info.lastModified().toMSecsSinceEpoch()) + '/' + QByteArray::number(info.size())
                         : QByteArray("-");
}

QJsonObject fileFields(const SessionReport& report)
{
    const SessionEvent& event = report.event;
    QJsonObject fields;
    fields[QStringLiteral("call")] = static_cast<double>(report.call);
    fields[QStringLiteral("peer")] = report.peer;
    fields[QStringLiteral("port")] = report.channelName;
    fields[QStringLiteral("direction")] = event.outgoing ? QStringLiteral("out") : QStringLiteral("in");
    fields[QStringLiteral("id")] = idText(event.messageId);
    fields[QStringLiteral("file")] = event.fileName;
    fields[QStringLiteral("size")] = static_cast<double>(event.size);
    fields[QStringLiteral("sha256")] = QString::fromLatin1(event.sha256.toHex());
    fields[QStringLiteral("bytes")] = static_cast<double>(event.done);
    if (!event.text.isEmpty())
        fields[QStringLiteral("text")] = event.text;
    return fields;
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
    // The server's destructor needs its thread to be over and its host objects to be there.
    m_server.reset();
    m_plugin.reset();
    if (m_lock)
        QFile::remove(stateFilePath());
}

void TransportHost::journal(bool isError, const QString& text)
{
    m_journal->addRecord(isError ? 1 : 0, ownName, text);
}

// ---- start ----

QString TransportHost::start(HostEnd* end)
{
    *end = HostEnd::Failed;
    seedRandom();
    const QDir dataDir = Global::dataSecrecyDir(secrecyLevel());
    if (!Global::makePath(dataDir) || !Global::checkAccess(dataDir))
        return QStringLiteral("cannot write to %1: check its permissions").arg(dataDir.absolutePath());
    auto lock = std::make_unique<QLockFile>(lockFilePath());
    lock->setStaleLockTime(0);
    if (!lock->tryLock(0)) {
        qint64 process = 0;
        QString host;
        QString application;
        lock->getLockInfo(&process, &host, &application);
        *end = HostEnd::Busy;
        return QStringLiteral("another transport-host (process %1) serves this installation: stop it first").arg(process);
    }
    m_lock = std::move(lock);
    if (!m_options.eventsPath.isEmpty()) {
        const QString error = m_events.open(m_options.eventsPath);
        if (!error.isEmpty())
            return error;
    }
    m_journal = std::make_unique<HostJournal>(journalPath(), [this](const JournalRecord& record) {
        QMetaObject::invokeMethod(this, [this, record] { onJournalRecord(record); }, Qt::QueuedConnection);
    });
    m_channels = std::make_unique<ChannelsTable>([this](const ChannelRow& row) {
        QMetaObject::invokeMethod(this, [this, row] { emit stateChanged(row); }, Qt::QueuedConnection);
    });
    QString error = loadSettings();
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

QString TransportHost::loadSettings()
{
    QString error = loadIdentity(&m_identity);
    if (!error.isEmpty())
        return error;
    if (m_identity.name.isEmpty())
        return QStringLiteral("this installation has no name yet: set it with \"transport-host name NAME\"");
    error = loadAbonents(&m_abonents);
    if (!error.isEmpty())
        return error;
    ComSettingsRecord settings;
    error = loadComSettings(&settings);
    if (!error.isEmpty())
        return error;
    if (settings.ports.isEmpty())
        journal(true, QStringLiteral("no port is defined: define one with \"transport-host port add DEVICE\""));
    m_settingsStamp = fileStamp(Global::channelComSettingsFilePath()) + fileStamp(Global::abonentsSettingsFilePath());
    return QString();
}

QString TransportHost::openStore()
{
    m_store = std::make_unique<MessageStore>(StorePaths::of(secrecyLevel()), m_options.limits);
    QString error;
    const QStringList notes = m_store->open(&error);
    for (const QString& note : notes)
        journal(false, note);
    if (m_options.knownAbonentsOnly) {
        QSet<QString> known;
        for (const Abonent& abonent : qAsConst(m_abonents))
            known.insert(abonentKey(abonent.name));
        m_store->setAbonentCheck([known](const QString& name) {
            return known.contains(abonentKey(name)) ? QString() : QStringLiteral("'%1' is not known here").arg(displayName(name));
        });
    }
    return error;
}

QString TransportHost::startServer()
{
    // One logging record for host and plug-in; never freed, as the last line may come late.
    auto* debugData = new DebugData;
    LoggerData::initDebug(debugData);
    QString error;
    m_plugin = loadPlugin(Global::channelPluginsDir(), comChannelType, debugData, &error);
    if (!m_plugin)
        return error;

    CallRules rules;
    rules.lengthen = [this](int* timeout) { (*m_plugin)->incCallTimeout(timeout); };
    rules.shorten = [this](int* timeout) { (*m_plugin)->decCallTimeout(timeout); };
    rules.unitMs = m_options.retryUnitMs;
    m_scheduler = std::make_unique<CallScheduler>(rules);

    m_context = std::make_shared<SessionContext>();
    m_context->settings.abonentName = m_identity.name;
    m_context->settings.installationId = m_identity.installationId;
    m_context->settings.silenceMs = m_options.silenceMs;
    m_context->store = m_store.get();
    m_context->maxBlockBytes = CSettings().detailsTransportComMaxBytesToWrite();
    m_context->report = [this](const SessionReport& report) {
        QMetaObject::invokeMethod(this, [this, report] { onReport(report); }, Qt::QueuedConnection);
    };

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
    m_server->moveToThread(&m_serverThread);
    m_serverThread.setObjectName(QStringLiteral("channel server"));
    m_serverThread.start();
    CChannelServer* server = m_server.get();
    QMetaObject::invokeMethod(server, [server] {
        seedRandom();
        server->start();
    }, Qt::QueuedConnection);
    return QString();
}

// ---- stop ----

void TransportHost::stop(HostEnd end)
{
    if (m_isStopping)
        return;
    m_isStopping = true;
    m_end = end;
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
    m_events.write(QStringLiteral("stopped"), {{QStringLiteral("received"), m_receivedCount},
                                               {QStringLiteral("delivered"), m_deliveredCount},
                                               {QStringLiteral("queued"), m_store->queue().messages().size()}});
    emit ended(m_end);
}

// ---- the server's signals ----

void TransportHost::onConnected(const QString& abonent, int connectionId)
{
    m_scheduler->connected(abonent, connectionId);
    m_events.write(QStringLiteral("connected"),
                   {{QStringLiteral("peer"), abonent}, {QStringLiteral("connection"), connectionId}});
    if (m_options.keepConnections)
        emit keepAliveRequested(connectionId);
}

void TransportHost::onJournalRecord(const JournalRecord& record)
{
    if (record.source != ownName)
        m_failures.journalRecord(record.source, record.text);
    emit journalRecord(record);
}

void TransportHost::onNotConnected(const QString& abonent)
{
    m_scheduler->notConnected(abonent, m_clock.elapsed());
    m_failures.notConnected(abonent);
    m_events.write(QStringLiteral("notConnected"), {{QStringLiteral("peer"), abonent}});
    explainWaiting();
}

void TransportHost::onDisconnected(const QString& abonent, int connectionId, bool wasUseful)
{
    m_scheduler->disconnected(abonent, connectionId, wasUseful, m_clock.elapsed());
    m_events.write(QStringLiteral("disconnected"), {{QStringLiteral("peer"), abonent},
                                                    {QStringLiteral("connection"), connectionId},
                                                    {QStringLiteral("useful"), wasUseful}});
    pollQueue();
}

// ---- sessions ----

void TransportHost::onReport(const SessionReport& report)
{
    QJsonObject fields{{QStringLiteral("call"), static_cast<double>(report.call)}, {QStringLiteral("port"), report.channelName},
                       {QStringLiteral("peer"), report.peer}};
    switch (report.kind) {
    case SessionReport::Kind::Begun:
        ++m_sessions;
        m_events.write(QStringLiteral("callBegun"), fields);
        return;
    case SessionReport::Kind::Event:
        onSessionEvent(report);
        return;
    case SessionReport::Kind::Ended:
        break;
    }
    --m_sessions;
    fields[QStringLiteral("well")] = report.endedWell;
    fields[QStringLiteral("useful")] = report.wasUseful;
    fields[QStringLiteral("reason")] = report.reason;
    m_events.write(QStringLiteral("callEnded"), fields);
    m_failures.sessionEnded(report.channelName, report.peer, report.endedWell ? QString() : report.reason);
    if (!report.endedWell)
        journal(true, QStringLiteral("the session with '%1' on %2 ended early: %3").arg(report.peer, report.channelName, report.reason));
    for (auto it = m_files.begin(); it != m_files.end(); ++it) {
        FileProgress& file = it->second;
        if (it->first.call != report.call || file.state == FileProgress::State::Whole || file.state == FileProgress::State::Failed)
            continue;
        file.state = FileProgress::State::Failed;
        file.text = QStringLiteral("cut off, to be continued");
        file.changedMs = m_clock.elapsed();
        emit fileChanged(file);
    }
}

void TransportHost::onSessionEvent(const SessionReport& report)
{
    using Kind = SessionEvent::Kind;
    const SessionEvent& event = report.event;
    const FileKey key{report.call, event.outgoing, event.messageId};
    const QString direction = event.outgoing ? QStringLiteral("to") : QStringLiteral("from");
    const QString subject = QStringLiteral("'%1' %2 '%3'").arg(displayName(event.fileName), direction, report.peer);
    if (event.kind == Kind::PeerNamed)
        return;
    if (event.kind == Kind::Note) {
        journal(false, event.text);
        return;
    }
    FileProgress& file = m_files[key];
    file.outgoing = event.outgoing;
    file.peer = report.peer;
    file.channelName = report.channelName;
    file.fileName = event.fileName;
    file.size = event.size;
    file.changedMs = m_clock.elapsed();
    switch (event.kind) {
    case Kind::PeerNamed:
    case Kind::Note:
        return;
    case Kind::FileBegun:
        file.state = FileProgress::State::Moving;
        file.beganMs = m_clock.elapsed();
        file.done = event.done;
        file.resumedFrom = event.done;
        m_events.write(QStringLiteral("fileBegun"), fileFields(report));
        break;
    case Kind::FileProgress:
        file.done = event.done;
        if (event.outgoing && event.done == event.size)
            file.state = FileProgress::State::Waiting;
        m_events.write(QStringLiteral("progress"), fileFields(report));
        break;
    case Kind::FileStored:
        file.state = FileProgress::State::Whole;
        file.done = event.size;
        file.text = event.text;
        ++m_receivedCount;
        m_events.write(QStringLiteral("stored"), fileFields(report));
        journal(false, QStringLiteral("received %1, %2 bytes, hash verified: %3").arg(subject, QString::number(event.size), event.text));
        break;
    case Kind::FileDelivered:
        file.state = FileProgress::State::Whole;
        file.done = event.size;
        ++m_deliveredCount;
        m_events.write(QStringLiteral("delivered"), fileFields(report));
        journal(false, QStringLiteral("delivered %1, %2 bytes").arg(subject, QString::number(event.size)));
        break;
    case Kind::FileDuplicate:
        file.state = FileProgress::State::Whole;
        file.done = event.size;
        file.text = QStringLiteral("received before");
        m_events.write(QStringLiteral("duplicate"), fileFields(report));
        break;
    case Kind::FileFailed:
        file.state = FileProgress::State::Failed;
        file.text = event.text;
        m_events.write(QStringLiteral("failed"), fileFields(report));
        journal(true, QStringLiteral("failed %1: %2").arg(subject, event.text));
        break;
    }
    emit fileChanged(file);
}

QVector<FileProgress> TransportHost::files() const
{
    QVector<FileProgress> shown;
    for (const auto& entry : m_files)
        shown.append(entry.second);
    return shown;
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
    if (m_options.placeCalls)
        placeCalls();
    for (auto it = m_files.begin(); it != m_files.end();) {
        const bool isOver = it->second.state == FileProgress::State::Whole || it->second.state == FileProgress::State::Failed;
        it = isOver && now - it->second.changedMs > shownAfterEndMs ? m_files.erase(it) : std::next(it);
    }
    if (now - m_lastStateMs >= stateEveryMs)
        writeState();
    checkEnd();
}

void TransportHost::pollQueue()
{
    m_lastQueuePollMs = m_clock.elapsed();
    reloadSettings();
    for (const QString& trouble : m_store->queue().rescan())
        journal(true, trouble);
    QStringList waiting;
    QSet<QString> keys;
    for (const QueuedMessage& message : m_store->queue().messages()) {
        const QString key = abonentKey(message.abonent);
        const int known = findAbonent(m_abonents, message.abonent);
        if (known < 0 || keys.contains(key) || !m_store->hasUnclaimed(message.abonent))
            continue;
        keys.insert(key);
        waiting.append(m_abonents.at(known).name);
    }
    m_scheduler->setWaiting(waiting);
    explainWaiting();
}

void TransportHost::reloadSettings()
{
    const QByteArray comStamp = fileStamp(Global::channelComSettingsFilePath());
    const QByteArray stamp = comStamp + fileStamp(Global::abonentsSettingsFilePath());
    if (stamp == m_settingsStamp)
        return;
    QVector<Abonent> abonents;
    const QString error = loadAbonents(&abonents);
    if (error.isEmpty())
        m_abonents = abonents;
    else
        journal(true, error);
    if (!m_settingsStamp.startsWith(comStamp))
        emit settingsChanged();
    m_settingsStamp = stamp;
}

void TransportHost::placeCalls()
{
    if (!m_server->hasFreeChannel())
        return;
    const std::optional<QString> abonent = m_scheduler->nextCall(m_clock.elapsed());
    if (!abonent)
        return;
    const int known = findAbonent(m_abonents, *abonent);
    if (known < 0)
        return;
    // One at a time: the next one when the free channel has been looked at again.
    m_scheduler->callPlaced(*abonent, m_clock.elapsed());
    m_failures.callPlaced(m_abonents.at(known).name);
    m_events.write(QStringLiteral("callPlaced"), {{QStringLiteral("peer"), *abonent}});
    emit connectRequested(m_abonents.at(known).name, m_abonents.at(known).channelData);
}

// Null while something is being done about it.
std::optional<QString> TransportHost::whyWaiting(const QString& abonent) const
{
    if (findAbonent(m_abonents, abonent) < 0)
        return QStringLiteral("no number is known for '%1' (transport-host abonent add): it waits for their call").arg(abonent);
    if (m_scheduler->isConnectedTo(abonent) || m_scheduler->isCalling(abonent))
        return std::nullopt;
    if (!m_options.placeCalls)
        return QStringLiteral("this host places no calls: it waits for theirs");
    const int failedCalls = m_scheduler->failedCalls(abonent);
    if (failedCalls > 0) {
        const QString count = failedCalls == 1 ? QStringLiteral("1 call") : QStringLiteral("%1 calls").arg(failedCalls);
        const QString cause = m_failures.reason(abonent);
        return cause.isEmpty() ? QStringLiteral("%1 in a row failed").arg(count)
                               : QStringLiteral("%1 in a row failed, the last: %2").arg(count, cause);
    }
    if (!m_server->isHardwareOn())
        return QStringLiteral("no modem is ready");
    return QString();
}

void TransportHost::explainWaiting()
{
    for (const QueuedMessage& message : m_store->queue().messages()) {
        const std::optional<QString> reason = whyWaiting(message.abonent);
        // What the peer or the copy was blamed for is told longer.
        if (reason && !message.reason.contains(QStringLiteral("refused it")) &&
            !message.reason.contains(QStringLiteral("queued copy")))
            m_store->queue().setReason(message, *reason);
    }
}

void TransportHost::checkEnd()
{
    const bool hasGoal = m_options.exitWhenSent || m_options.exitWhenReceived >= 0;
    const bool isSent = !m_options.exitWhenSent || m_store->queue().messages().isEmpty();
    const bool isReceived = m_options.exitWhenReceived < 0 || m_receivedCount >= m_options.exitWhenReceived;
    // A session that still runs may carry the other side's acknowledgements: let it end.
    if (hasGoal && isSent && isReceived && m_sessions == 0)
        stop(HostEnd::Done);
    else if (m_deadlineMs >= 0 && m_clock.elapsed() >= m_deadlineMs)
        stop(hasGoal ? (isSent && isReceived ? HostEnd::Done : HostEnd::TimedOut) : HostEnd::Done);
}

void TransportHost::writeState()
{
    m_lastStateMs = m_clock.elapsed();
    QJsonArray ports;
    for (const ChannelRow& row : m_channels->rows()) {
        ports.append(QJsonObject{{QStringLiteral("name"), row.name},
                                 {QStringLiteral("state"), row.state},
                                 {QStringLiteral("received"), static_cast<double>(row.receivedBytes)},
                                 {QStringLiteral("sent"), static_cast<double>(row.sentBytes)}});
    }
    const QByteArray state =
        QJsonDocument(QJsonObject{{QStringLiteral("process"), static_cast<double>(::getpid())}, {QStringLiteral("ports"), ports}}).toJson();
    if (state == m_writtenState && QFile::exists(stateFilePath()))
        return;
    // Only for show: whole, but not synced, which QSaveFile would do each second.
    QFile file(stateFilePath() + QStringLiteral(".new"));
    if (!file.open(QIODevice::WriteOnly) || file.write(state) != state.size() || !file.flush())
        return;
    file.close();
    if (renamePath(file.fileName(), stateFilePath()).isEmpty())
        m_writtenState = state;
}

} // namespace host
