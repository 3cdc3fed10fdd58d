// What "status" has found, and its two forms: for people and for programs.
#pragma once

#include "host/installation/hostsettings.h"
#include "host/store/messagestore.h"

#include <QJsonObject>
#include <QStringList>
#include <QTextStream>
#include <QVector>

#include <optional>

namespace host {

struct Status
{
    QStringList troubles; // of what could not be read
    std::optional<Identity> identity; // null when its file could not be read
    ChannelComSettings settings;
    QVector<QueuedMessage> queue;
    QVector<ReceivedMessage> inbox;
    InboxUsage usage;
    QJsonObject running; // empty when no host runs
};

[[nodiscard]] QJsonObject statusJson(const Status& status);
void printStatus(const Status& status, QTextStream& out);

// What the user is told about a message: what the running host is doing with it, or why it waits.
[[nodiscard]] QString tellWaiting(const QueuedMessage& message, const QJsonObject& running);

} // namespace host
