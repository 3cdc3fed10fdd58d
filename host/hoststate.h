// What a running host shows to other programs: a small file that it replaces about each second. The
// file is always complete, but not synced, since it is only for display.
#pragma once

#include "host/channel/channelstable.h"
#include "host/filetable.h"
#include "host/store/quota.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVector>

namespace host {

struct HostState
{
    QVector<ChannelRow> ports;
    QVector<FileProgress> files;
    QStringList calling; // abonents
    QStringList connected;
    InboxLimits limits;
    QJsonObject more; // other figures, each under its name
};

// Writes the file when its content has changed.
class HostStateFile
{
public:
    explicit HostStateFile(const QString& path) : m_path(path) {}

    void write(const HostState& state);

private:
    const QString m_path;
    QByteArray m_written;
};

// The record of the host that serves the installation; empty when none runs.
[[nodiscard]] QJsonObject readHostState(const QString& path);

// The limits of that host for what it receives; the default ones when none runs.
[[nodiscard]] InboxLimits limitsOf(const QJsonObject& state);

// How many handshakes failed since that host's start.
[[nodiscard]] qint64 failedHandshakesOf(const QJsonObject& state);

// A share as JSON.
[[nodiscard]] QJsonObject shareJson(const Share& share);

// What the running host is doing with a message: a text for the user, empty if nothing.
[[nodiscard]] QString activityFor(const QJsonObject& state, quint64 messageId, const QString& abonent);

} // namespace host
