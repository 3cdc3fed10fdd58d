// What a running host lets other programs see of itself: a small file that it rewrites about
// each second. Only for show: whole, but not synced.
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
    QJsonObject more; // further figures, each under its name
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

// Under which limits that host receives; the usual ones when none runs.
[[nodiscard]] InboxLimits limitsOf(const QJsonObject& state);

// How many handshakes failed since that host's start.
[[nodiscard]] qint64 failedHandshakesOf(const QJsonObject& state);

// A share as it stands in JSON.
[[nodiscard]] QJsonObject shareJson(const Share& share);

// What the running host does about a message: a text for the user, empty when nothing.
[[nodiscard]] QString activityFor(const QJsonObject& state, quint64 messageId, const QString& abonent);

} // namespace host
