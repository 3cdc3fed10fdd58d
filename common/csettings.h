// Typed access to the installation's tuning values in settings.ini.
#pragma once

#include "common/settingskeys.h"

#include <QByteArray>
#include <QDateTime>
#include <QFileInfo>
#include <QSettings>
#include <QString>
#include <QVariant>

constexpr int settingsLockPatienceMs = 1000;

// QSettings waits for its lock file for ever: one that was left behind, or anything else of that
// name, would stop every thread that asks for a setting. And QSettings follows a link, whoever made
// it. Call this before QSettings writes the file path. It returns, within patienceMs, the path of
// what is in the way: a link of another user, or the lock file; empty if nothing is. Any thread.
QString obstacleToSettings(const QString& path, int patienceMs = settingsLockPatienceMs);

// A settings file in INI format that notices edits by other processes and that is created with
// fixed permissions. Objects are shared by all threads: this file's private lock guards every
// operation of SettingsPointer::sync() and of CSettings; do not use other operations inherited
// from QSettings outside of it. While a lock file that does not go away, or a link that somebody
// else has made, is in the way, nothing is written: values stay pending, and edits by others are
// not seen, until a later sync() can write.
class SettingsPointer : public QSettings
{
public:
    // Finds out whether the installation's data directory of level 0 can be written to.
    explicit SettingsPointer(const QString& fileName);

    // Brings the object and the file together if either changed. Hides QSettings::sync(), which
    // is not virtual: call it through this class.
    void sync();

    QFileInfo fileInfo;
    QDateTime lastModified; // of the file, as last seen; null at first
    bool changed = false; // written to since the last sync()
    const bool writable;

protected:
    // Drops the delayed write-back of QSettings, which would run without the lock and create the
    // file without its permissions.
    bool event(QEvent* event) override;

private:
    friend class CSettings;
    void syncLocked();
    bool canWrite();
    void refuseWriting(const QString& path);
    void createDirectory() const;
    void giveFilePermissions() const;

    const QByteArray m_encodedPath; // of the file, for the system
    bool m_isRefused = false; // the last changes could not be written to the disk
};

// A handle on settings.ini, made for one or a few look-ups. The constructor reads edits of the
// file, the destructor writes changes to the disk. A getter that finds its key missing or its value
// unusable returns the default and writes it into the file, so in the end the file lists every key
// that is read. Any thread; a thread that is terminated ends only between operations. Nothing is
// written if the data directory of level 0 cannot be written to. If a message handler uses it
// during one of this thread's own operations, getters return defaults.
class CSettings
{
public:
    CSettings();
    ~CSettings();
    CSettings(const CSettings&) = delete;
    CSettings& operator=(const CSettings&) = delete;

    void write(const QString& key, const QVariant& value);

    // Whether the category of a debug level is switched on: true for levels without a key.
    bool debugCategory(int level);

    bool debugAll() { return boolean(Setting::DebugAll); }
    bool debugIpcData() { return boolean(Setting::DebugIpcData); }
    bool debugIpcExtra() { return boolean(Setting::DebugIpcExtra); }
    bool debugIpcSecurityDaemon() { return boolean(Setting::DebugIpcSecurityDaemon); }
    bool debugIpcTransport() { return boolean(Setting::DebugIpcTransport); }
    bool debugTransportAbonents() { return boolean(Setting::DebugTransportAbonents); }
    bool debugTransportTransit() { return boolean(Setting::DebugTransportTransit); }
    bool debugTransportConnects() { return boolean(Setting::DebugTransportConnects); }
    bool debugTransportDataLifetime() { return boolean(Setting::DebugTransportDataLifetime); }
    bool debugTransportBaseProtocol() { return boolean(Setting::DebugTransportBaseProtocol); }
    bool debugTransportProtocol() { return boolean(Setting::DebugTransportProtocol); }
    bool debugTransportProtocolAttaches() { return boolean(Setting::DebugTransportProtocolAttaches); }
    bool debugTransportIpSocketError() { return boolean(Setting::DebugTransportIpSocketError); }
    bool debugTransportComPortError() { return boolean(Setting::DebugTransportComPortError); }
    bool debugTransportComAtCommands() { return boolean(Setting::DebugTransportComAtCommands); }
    bool debugTransportComPackets() { return boolean(Setting::DebugTransportComPackets); }
    bool debugTransportComData() { return boolean(Setting::DebugTransportComData); }
    bool debugTransportTasks() { return boolean(Setting::DebugTransportTasks); }
    bool debugJournals() { return boolean(Setting::DebugJournals); }
    bool debugMessagesAutodelete() { return boolean(Setting::DebugMessagesAutodelete); }
    bool debugMessagesLock() { return boolean(Setting::DebugMessagesLock); }

    // Sets of QFileDevice::Permission.
    int dirPermissions() { return integer(Setting::DirPermissions); }
    int filePermissions() { return integer(Setting::FilePermissions); }

    // In milliseconds, except the two in bytes.
    int detailsMaxWritingTime() { return integer(Setting::DetailsMaxWritingTime); }
    int detailsTransportServerThreadStopTimeout() { return integer(Setting::DetailsTransportServerThreadStopTimeout); }
    int detailsTransportComAtOkTimeout() { return integer(Setting::DetailsTransportComAtOkTimeout); }
    int detailsTransportComAtReadyCheckTimeout() { return integer(Setting::DetailsTransportComAtReadyCheckTimeout); }
    int detailsTransportComDsrCheckInterval() { return integer(Setting::DetailsTransportComDsrCheckInterval); }
    int detailsTransportComOpenInterval() { return integer(Setting::DetailsTransportComOpenInterval); }
    int detailsTransportComConnectTimeout() { return integer(Setting::DetailsTransportComConnectTimeout); }
    int detailsTransportComResetTimeout() { return integer(Setting::DetailsTransportComResetTimeout); }
    int detailsTransportComMaxBytesToWrite() { return integer(Setting::DetailsTransportComMaxBytesToWrite); }
    int detailsTransportComMaxBytesInQueue() { return integer(Setting::DetailsTransportComMaxBytesInQueue); }
    int detailsTransportComResendInterval() { return integer(Setting::DetailsTransportComResendInterval); }
    int detailsTransportComConfirmationInterval() { return integer(Setting::DetailsTransportComConfirmationInterval); }
    int detailsTransportComAdaptive() { return integer(Setting::DetailsTransportComAdaptive); }
    QString detailsTransportComControlSymbol() { return text(Setting::DetailsTransportComControlSymbol); }

private:
    bool boolean(Setting setting);
    int integer(Setting setting);
    QString text(Setting setting);
    void writeLocked(const QString& key, const QVariant& value);

    SettingsPointer* m_settings; // not owned: the process-wide object, never freed
};
