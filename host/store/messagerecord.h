// What is recorded about a message that is received, in a file ".message" (JSON) beside its content.
// The content's name never begins with a point.
#pragma once

#include "host/session/peer.h"
#include "host/session/sessionframes.h"

#include <QDateTime>
#include <QJsonObject>
#include <QString>

namespace host {

extern const QString messageRecordName;

struct MessageRecord
{
    quint64 id = 0;
    Peer sender;
    QString fileName; // the sender's name for it
    QString contentName; // the file's name in the directory
    qint64 size = 0;
    QByteArray sha256;
    qint64 modifiedSecs = 0;
    bool isVerified = false; // whole, with the right hash, and synced to the disk
    QDateTime received; // valid once verified

    [[nodiscard]] static MessageRecord of(const Peer& sender, const OfferFrame& offer, const QString& contentName);
    [[nodiscard]] static MessageRecord fromJson(const QJsonObject& json); // id 0 when there is none
    [[nodiscard]] QJsonObject toJson() const;
};

} // namespace host
