// A running host: loads the plug-in, serves its channel, calls abonents for whom messages wait, and
// keeps what the views show.
#pragma once

#include "common/global.h"
#include "host/calls/calls.h"
#include "host/channel/channelstable.h"
#include "host/channel/hostjournal.h"
#include "host/channel/peers.h"
#include "host/channel/pluginloader.h"
#include "host/channel/sessionprotocol.h"
#include "host/hoststate.h"
#include "host/installation/abonentbook.h"
#include "host/installation/eventlog.h"
#include "host/installation/hostsettings.h"
#include "host/installation/ownkey.h"
#include "host/installation/runrecords.h"
#include "host/store/messagestore.h"
#include "host/transfers.h"
#include "plugin/api/cchannelserver.h"

#include <QElapsedTimer>
#include <QLockFile>
#include <QObject>
#include <QThread>
#include <QTimer>

#include <memory>
#include <optional>

namespace host {

struct HostOptions
{
    bool exitWhenSent = false; // ends when nothing is left in the queue
    int exitWhenReceived = -1; // ends when so many messages were received; -1: never
    qint64 timeoutMs = -1; // gives up after so long; -1: never
    qint64 retryUnitMs = 1000; // the unit in which the plug-in's rules count the pauses between calls
    int silenceMs = SessionSettings().silenceMs; // a connection on which nothing comes for so long is dead
    bool keepConnections = false; // connections stay when nothing is left to send
    bool acceptUnknown = false; // callers with unknown keys may leave messages
    bool placeCalls = true;
    InboxLimits limits;
    QString eventsPath; // empty: none
};

// How a run ended; the program's exit status.
enum class HostEnd
{
    Done = 0, // stopped, or everything that was waited for is done
    Failed = 1, // could not run
    Usage = 2, // (of the command line)
    TimedOut = 3, // the time ran out first
    Busy = 4, // another host serves this installation
    KeyChanged = 5, // an abonent answered with another key than the pinned one; its messages are still queued
};

class TransportHost : public QObject, private RunRecords
{
    Q_OBJECT

public:
    explicit TransportHost(const HostOptions& options);
    ~TransportHost() override;

    // Prepares everything and starts the server; ended() follows later. Returns an error text with *end
    // set when it cannot run.
    QString start(HostEnd* end);

    // Asks the server to stop; ended() follows. A second call changes nothing.
    void stop(HostEnd end);

    [[nodiscard]] Identity identity() const { return m_identity; }
    [[nodiscard]] QVector<ChannelRow> channels() const
    {
        return m_channels ? m_channels->rows() : QVector<ChannelRow>();
    }
    [[nodiscard]] QVector<FileProgress> files() const { return m_transfers.files(); }
    [[nodiscard]] QVector<QueuedMessage> queue() const;
    [[nodiscard]] int receivedCount() const { return m_transfers.receivedCount(); }
    [[nodiscard]] int deliveredCount() const { return m_transfers.deliveredCount(); }
    // The server's thread hangs: the object cannot be deleted, the process can only exit.
    [[nodiscard]] bool isStuck() const { return m_isStuck; }
    [[nodiscard]] qint64 nowMs() const { return m_clock.elapsed(); }

    // The file that tells other programs about the running host.
    [[nodiscard]] static QString stateFilePath();
    [[nodiscard]] static QString lockFilePath();
    [[nodiscard]] static QString journalPath();

signals:
    void ended(host::HostEnd end);
    void journalRecord(const host::JournalRecord& record);
    void stateChanged(const host::ChannelRow& row);
    void fileChanged(const host::FileProgress& file);

    // To the server, in its thread.
    void connectRequested(const QString& abonentName, const QByteArray& abonentsData);
    void keepAliveRequested(int connectionId);
    void settingsChanged();

private:
    void event(const QString& name, const QJsonObject& fields) override;
    void journal(bool isError, const QString& text) override;

    QString takeLock(HostEnd* end);
    void openRecords();
    QString openStore();
    QString loadSettings();
    QString startServer();
    void makeContext();
    [[nodiscard]] SleepRules sleepRules(const QString& channelName) const;
    void connectServer();
    void reloadSettings();
    void reloadAbonents();
    void onPeerNews(const PeerNews& news);
    [[nodiscard]] bool isWaitingForKeysOnly() const;
    [[nodiscard]] HostEnd endWithKeys(HostEnd end) const;
    [[nodiscard]] bool hasKeyTrouble(const QString& abonent) const;
    void onReport(const SessionReport& report);
    void onConnected(const QString& abonent, int connectionId);
    void onJournalRecord(const JournalRecord& record);
    void onStateChanged(const ChannelRow& row);
    void onNotConnected(const QString& abonent);
    void onDisconnected(const QString& abonent, int connectionId, bool wasUseful);
    void onServerFinished();
    void poll();
    void pollQueue();
    void placeCalls();
    void updateWaitReasons();
    void checkEnd();
    void writeState();
    [[nodiscard]] std::optional<WaitReason> waitReason(const QString& abonent) const;

    const HostOptions m_options;
    QElapsedTimer m_clock;
    Identity m_identity;
    AbonentBook m_book{Global::abonentsSettingsFilePath()};
    AbonentRecords m_abonents; // as last read
    QString m_bookError; // told once
    std::unique_ptr<QLockFile> m_lock;
    EventLog m_events;

    // The host objects outlive the server, whose workers call them.
    std::unique_ptr<HostJournal> m_journal;
    std::unique_ptr<ChannelsTable> m_channels;
    std::unique_ptr<MessageStore> m_store;
    std::shared_ptr<const KeyPair> m_key;
    std::unique_ptr<Peers> m_peers;
    const std::shared_ptr<HandshakeGuard> m_guard = std::make_shared<HandshakeGuard>();
    std::shared_ptr<SessionContext> m_context;
    std::unique_ptr<LoadedPlugin> m_plugin;
    std::unique_ptr<Calls> m_calls;
    QThread m_serverThread;
    std::unique_ptr<CChannelServer> m_server;

    QTimer m_pollTimer;
    QTimer m_stopTimer;
    Transfers m_transfers{this, [this](const FileProgress& file) { emit fileChanged(file); }};
    HostStateFile m_stateFile{stateFilePath()};
    QByteArray m_settingsStamp;
    qint64 m_lastQueuePollMs = -1000000;
    qint64 m_lastStateMs = -1000000;
    qint64 m_deadlineMs = -1;
    bool m_isStopping = false;
    bool m_hasEnded = false;
    bool m_isStuck = false;
    HostEnd m_end = HostEnd::Done;
};

} // namespace host
