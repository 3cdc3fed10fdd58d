// The status for programs.
#include "host/hoststate.h"
#include "host/installation/diskfile.h"
#include "host/installation/keytext.h"
#include "host/program/statusreport.h"

#include <QJsonArray>

namespace host {

namespace {

QJsonArray queueJson(const Status& status)
{
    QJsonArray queue;
    for (const QueuedMessage& message : status.queue) {
        queue.append(QJsonObject{{QStringLiteral("number"), message.key},
                                 {QStringLiteral("id"), idText(message.id)},
                                 {QStringLiteral("abonent"), message.abonent},
                                 {QStringLiteral("file"), message.fileName},
                                 {QStringLiteral("size"), static_cast<double>(message.size)},
                                 {QStringLiteral("sha256"), QString::fromLatin1(message.sha256.toHex())},
                                 {QStringLiteral("queued"), message.queued.toString(Qt::ISODate)},
                                 {QStringLiteral("why"), message.reason.word()},
                                 {QStringLiteral("reason"), tellWaiting(message, status.running)}});
    }
    return queue;
}

QJsonArray inboxJson(const Status& status)
{
    QJsonArray inbox;
    for (const ReceivedMessage& message : status.inbox) {
        QJsonObject entry{{QStringLiteral("number"), message.key},
                          {QStringLiteral("id"), idText(message.id)},
                          {QStringLiteral("abonent"), message.abonent},
                          {QStringLiteral("proved"), message.isProved},
                          {QStringLiteral("file"), message.fileName},
                          {QStringLiteral("path"), message.path},
                          {QStringLiteral("size"), static_cast<double>(message.size)},
                          {QStringLiteral("sha256"), QString::fromLatin1(message.sha256.toHex())},
                          {QStringLiteral("received"), message.received.toString(Qt::ISODate)}};
        if (!message.publicKey.isEmpty())
            entry[QStringLiteral("fingerprint")] = keyFingerprint(message.publicKey);
        if (!message.isProved)
            entry[QStringLiteral("claimedName")] = message.claimedName;
        inbox.append(entry);
    }
    return inbox;
}

QJsonObject usedJson(const Share& used, const Share& limit)
{
    return {{QStringLiteral("used"), shareJson(used)}, {QStringLiteral("limit"), shareJson(limit)}};
}

QJsonObject roomJson(const InboxUsage& usage)
{
    QJsonArray abonents;
    for (const InboxUsage::AbonentShare& share : usage.abonents) {
        QJsonObject entry = usedJson(share.used, usage.limits.ofAbonent);
        entry[QStringLiteral("abonent")] = share.abonent;
        abonents.append(entry);
    }
    return {{QStringLiteral("all"), usedJson(usage.all, usage.limits.ofAll)},
            {QStringLiteral("unproved"), usedJson(usage.unproved, usage.limits.ofUnproved)},
            {QStringLiteral("abonents"), abonents},
            {QStringLiteral("freeBytes"), static_cast<double>(usage.room.freeBytes)},
            {QStringLiteral("freeInodes"), static_cast<double>(usage.room.freeInodes)}};
}

} // namespace

QJsonObject statusJson(const Status& status)
{
    QJsonArray ports;
    for (const ComPortSettings& port : status.settings.ports)
        ports.append(QJsonObject{{QStringLiteral("name"), port.portName},
                                 {QStringLiteral("enabled"), port.enabled},
                                 {QStringLiteral("baud"), port.baudRate}});
    return {{QStringLiteral("name"), status.identity ? status.identity->name : QString()},
            {QStringLiteral("troubles"), QJsonArray::fromStringList(status.troubles)},
            {QStringLiteral("queue"), queueJson(status)},
            {QStringLiteral("inbox"), inboxJson(status)},
            {QStringLiteral("room"), roomJson(status.usage)},
            {QStringLiteral("ports"), ports},
            {QStringLiteral("failedHandshakes"), static_cast<double>(failedHandshakesOf(status.running))},
            {QStringLiteral("running"), status.running}};
}

} // namespace host
