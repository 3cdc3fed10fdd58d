// The status for people.
#include "host/hoststate.h"
#include "host/installation/keytext.h"
#include "host/installation/names.h"
#include "host/program/statusreport.h"
#include "host/program/terminalview.h"

#include <QJsonArray>

namespace host {

namespace {

QString ownName(const Status& status)
{
    if (!status.identity)
        return QStringLiteral("(not known: its file cannot be read)");
    return status.identity->name.isEmpty() ? QStringLiteral("(none: transport-host name NAME)")
                                           : displayName(status.identity->name);
}

QString portState(const Status& status, const ComPortSettings& port)
{
    if (!port.enabled)
        return QStringLiteral("disabled");
    for (const auto& value : status.running[QStringLiteral("ports")].toArray()) {
        const QJsonObject row = value.toObject();
        if (row[QStringLiteral("name")].toString() == port.portName)
            return QStringLiteral("%1, in %2, out %3")
                .arg(row[QStringLiteral("state")].toString(),
                     sizeText(static_cast<qint64>(row[QStringLiteral("received")].toDouble())),
                     sizeText(static_cast<qint64>(row[QStringLiteral("sent")].toDouble())));
    }
    return status.running.isEmpty() ? QStringLiteral("(no host runs)") : QStringLiteral("(not in use)");
}

// The name that an unproved sender gives itself, marked so that it is not taken for an abonent's.
QString senderOf(const ReceivedMessage& message)
{
    if (message.isProved)
        return displayName(message.abonent);
    const QString who = QStringLiteral("UNPROVED ") + (message.publicKey.isEmpty() ? displayName(message.abonent)
                                                                                   : keyFingerprint(message.publicKey));
    return message.claimedName.isEmpty()
               ? who
               : QStringLiteral("%1, calls itself '%2'").arg(who, displayName(message.claimedName));
}

QString usedText(const Share& used, const Share& limit)
{
    return QStringLiteral("%1 of %2, %3 of %4 messages, %5 of %6 inodes")
        .arg(sizeText(used.bytes), sizeText(limit.bytes), QString::number(used.messages),
             QString::number(limit.messages), QString::number(used.inodes), QString::number(limit.inodes));
}

// Only a share that is more than half used is shown.
bool isAboveHalf(const Share& used, const Share& limit)
{
    return !fits(used + used, limit);
}

void printRoom(const InboxUsage& usage, QTextStream& out)
{
    out << "room:  " << usedText(usage.all, usage.limits.ofAll) << Qt::endl;
    if (usage.unproved.inodes > 0)
        out << "  unproved together  " << usedText(usage.unproved, usage.limits.ofUnproved) << Qt::endl;
    for (const InboxUsage::AbonentShare& share : usage.abonents) {
        if (isAboveHalf(share.used, usage.limits.ofAbonent))
            out << "  " << displayName(share.abonent) << "  " << usedText(share.used, usage.limits.ofAbonent)
                << Qt::endl;
    }
}

void printHost(const Status& status, QTextStream& out)
{
    out << "host:  "
        << (status.running.isEmpty()
                ? QStringLiteral("not running")
                : QStringLiteral("running, process %1").arg(status.running[QStringLiteral("process")].toInt()));
    const qint64 failed = failedHandshakesOf(status.running);
    if (failed > 0)
        out << ", " << failed << (failed == 1 ? " call" : " calls") << " failed to prove who called";
    out << Qt::endl;
}

} // namespace

QString tellWaiting(const QueuedMessage& message, const QJsonObject& running)
{
    const QString activity = activityFor(running, message.id, message.abonent);
    return activity.isEmpty() ? message.reason.sentence(message.abonent) : activity;
}

void printStatus(const Status& status, QTextStream& out)
{
    out << "name:  " << ownName(status) << Qt::endl;
    printHost(status, out);
    out << "ports: " << status.settings.ports.size() << Qt::endl;
    for (const ComPortSettings& port : status.settings.ports)
        out << "  " << displayName(port.portName) << "  " << displayName(portState(status, port)) << Qt::endl;
    out << "queue: " << status.queue.size() << Qt::endl;
    for (const QueuedMessage& message : status.queue) {
        out << "  " << message.key << "  to " << displayName(message.abonent) << "  " << displayName(message.fileName)
            << "  " << sizeText(message.size) << "  " << displayName(tellWaiting(message, status.running)) << Qt::endl;
    }
    out << "inbox: " << status.inbox.size() << Qt::endl;
    for (const ReceivedMessage& message : status.inbox) {
        out << "  " << message.key << "  from " << senderOf(message) << "  " << displayName(message.fileName) << "  "
            << sizeText(message.size) << "  " << displayName(message.path) << Qt::endl;
    }
    printRoom(status.usage, out);
}

} // namespace host
