#include "host/hoststate.h"

#include "common/plantedlinks.h"
#include "host/installation/diskfile.h"
#include "host/installation/names.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

#include <cerrno>
#include <csignal>
#include <unistd.h>

namespace host {

namespace {

const QString processKey = QStringLiteral("process");
const QString portsKey = QStringLiteral("ports");
const QString sendingKey = QStringLiteral("sending");
const QString callingKey = QStringLiteral("calling");
const QString connectedKey = QStringLiteral("connected");
const QString failedHandshakesKey = QStringLiteral("failedHandshakes");
const QString limitsKey = QStringLiteral("limits");
const QString ofAbonentKey = QStringLiteral("abonent");
const QString ofUnprovedKey = QStringLiteral("unproved");
const QString ofAllKey = QStringLiteral("all");
const QString bytesKey = QStringLiteral("bytes");
const QString messagesKey = QStringLiteral("messages");
const QString inodesKey = QStringLiteral("inodes");

QJsonArray portsOf(const QVector<ChannelRow>& rows)
{
    QJsonArray ports;
    for (const ChannelRow& row : rows) {
        ports.append(QJsonObject{{QStringLiteral("name"), row.name},
                                 {QStringLiteral("state"), row.state},
                                 {QStringLiteral("received"), static_cast<double>(row.receivedBytes)},
                                 {QStringLiteral("sent"), static_cast<double>(row.sentBytes)}});
    }
    return ports;
}

// By the messages' identifiers.
QJsonObject sendingOf(const QVector<FileProgress>& files)
{
    QJsonObject sending;
    for (const FileProgress& row : files) {
        if (!row.file.isOutgoing || row.isOver())
            continue;
        sending[idText(row.file.messageId)] =
            row.state == FileProgress::State::Waiting
                ? QStringLiteral("sent, waiting for their word")
                : QStringLiteral("being sent, %1 of %2 bytes")
                      .arg(QString::number(row.file.doneBytes), QString::number(row.file.sizeBytes));
    }
    return sending;
}

QJsonArray keysOf(const QStringList& abonents)
{
    QJsonArray keys;
    for (const QString& abonent : abonents)
        keys.append(abonentKey(abonent));
    return keys;
}

void takeNumber(const QJsonValue& value, qint64* number)
{
    if (value.isDouble() && value.toDouble() >= 0)
        *number = static_cast<qint64>(value.toDouble());
}

void takeShare(const QJsonValue& value, Share* share)
{
    takeNumber(value[bytesKey], &share->bytes);
    takeNumber(value[messagesKey], &share->messages);
    takeNumber(value[inodesKey], &share->inodes);
}

} // namespace

QJsonObject shareJson(const Share& share)
{
    return {{bytesKey, static_cast<double>(share.bytes)},
            {messagesKey, static_cast<double>(share.messages)},
            {inodesKey, static_cast<double>(share.inodes)}};
}

void HostStateFile::write(const HostState& state)
{
    QJsonObject record = state.more;
    record[processKey] = static_cast<double>(::getpid());
    record[portsKey] = portsOf(state.ports);
    record[sendingKey] = sendingOf(state.files);
    record[callingKey] = keysOf(state.calling);
    record[connectedKey] = keysOf(state.connected);
    record[limitsKey] = QJsonObject{{ofAbonentKey, shareJson(state.limits.ofAbonent)},
                                    {ofUnprovedKey, shareJson(state.limits.ofUnproved)},
                                    {ofAllKey, shareJson(state.limits.ofAll)}};
    const QByteArray bytes = QJsonDocument(record).toJson();
    if (bytes == m_written && QFile::exists(m_path))
        return;
    // Without QSaveFile, which would sync each second.
    const QString newPath = m_path + QStringLiteral(".new");
    const int descriptor = openEmpty(QFile::encodeName(newPath));
    if (descriptor < 0)
        return;
    QFile file;
    if (!file.open(descriptor, QIODevice::WriteOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle) ||
        file.write(bytes) != bytes.size())
        return;
    file.close();
    if (renamePath(newPath, m_path).isEmpty())
        m_written = bytes;
}

QJsonObject readHostState(const QString& path)
{
    const QJsonObject state = loadRecord(path);
    const auto process = static_cast<pid_t>(state[processKey].toDouble());
    const bool isRunning = process > 0 && (::kill(process, 0) == 0 || errno == EPERM);
    return isRunning ? state : QJsonObject();
}

InboxLimits limitsOf(const QJsonObject& state)
{
    InboxLimits limits;
    const QJsonValue told = state[limitsKey];
    takeShare(told[ofAbonentKey], &limits.ofAbonent);
    takeShare(told[ofUnprovedKey], &limits.ofUnproved);
    takeShare(told[ofAllKey], &limits.ofAll);
    return limits;
}

qint64 failedHandshakesOf(const QJsonObject& state)
{
    qint64 count = 0;
    takeNumber(state[failedHandshakesKey], &count);
    return count;
}

QString activityFor(const QJsonObject& state, quint64 messageId, const QString& abonent)
{
    const QString sending = state[sendingKey].toObject()[idText(messageId)].toString();
    if (!sending.isEmpty())
        return sending;
    const QString key = abonentKey(abonent);
    if (state[connectedKey].toArray().contains(key))
        return QStringLiteral("connected, its turn comes");
    return state[callingKey].toArray().contains(key) ? QStringLiteral("being called") : QString();
}

} // namespace host
