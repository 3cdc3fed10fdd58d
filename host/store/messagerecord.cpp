#include "host/store/messagerecord.h"

#include "host/installation/diskfile.h"

namespace host {

const QString messageRecordName = QStringLiteral(".message");

MessageRecord MessageRecord::of(const Peer& sender, const OfferFrame& offer, const QString& contentName)
{
    MessageRecord record;
    record.id = offer.messageId;
    record.sender = sender;
    record.fileName = offer.fileName;
    record.contentName = contentName;
    record.size = offer.size;
    record.sha256 = offer.sha256;
    record.modifiedSecs = offer.modifiedSecs;
    return record;
}

MessageRecord MessageRecord::fromJson(const QJsonObject& json)
{
    MessageRecord record;
    record.id = idFromText(json[QStringLiteral("id")].toString());
    record.sender.abonent = json[QStringLiteral("from")].toString();
    record.sender.isProved =
        json[QStringLiteral("proved")].toBool(true); // missing: from a version without unproved peers
    record.sender.publicKey = QByteArray::fromHex(json[QStringLiteral("key")].toString().toLatin1());
    record.sender.claimedName = json[QStringLiteral("called")].toString();
    record.fileName = json[QStringLiteral("name")].toString();
    record.contentName = json[QStringLiteral("file")].toString();
    record.size = static_cast<qint64>(json[QStringLiteral("size")].toDouble());
    record.sha256 = QByteArray::fromHex(json[QStringLiteral("sha256")].toString().toLatin1());
    record.modifiedSecs = static_cast<qint64>(json[QStringLiteral("modified")].toDouble());
    record.isVerified = json[QStringLiteral("verified")].toBool();
    record.received = QDateTime::fromString(json[QStringLiteral("received")].toString(), Qt::ISODate);
    return record;
}

QJsonObject MessageRecord::toJson() const
{
    QJsonObject json;
    json[QStringLiteral("id")] = idText(id);
    json[QStringLiteral("from")] = sender.abonent;
    json[QStringLiteral("proved")] = sender.isProved;
    json[QStringLiteral("key")] = QString::fromLatin1(sender.publicKey.toHex());
    json[QStringLiteral("called")] = sender.claimedName;
    json[QStringLiteral("name")] = fileName;
    json[QStringLiteral("file")] = contentName;
    json[QStringLiteral("size")] = static_cast<double>(size); // exact up to 2^53
    json[QStringLiteral("sha256")] = QString::fromLatin1(sha256.toHex());
    json[QStringLiteral("modified")] = static_cast<double>(modifiedSecs);
    json[QStringLiteral("verified")] = isVerified;
    if (isVerified)
        json[QStringLiteral("received")] = received.toUTC().toString(Qt::ISODate);
    return json;
}

} // namespace host
