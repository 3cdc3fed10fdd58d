#include "host/store/outgoingqueue.h"

#include "common/csettings.h"
#include "common/global.h"
#include "host/installation/diskfile.h"
#include "host/installation/names.h"
#include "host/installation/opendirectory.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QLockFile>
#include <QMutexLocker>
#include <QRandomGenerator>
#include <QSet>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace host {

namespace {

constexpr int copyBytes = 256 * 1024;
constexpr int lockTimeoutMs = 30000;
constexpr qint64 orphanAgeSecs = 600; // a younger one may belong to an enqueue() that is not yet done
constexpr qint64 postponeMs = 5 * 60 * 1000;

const QString contentName = QStringLiteral("content");
const QString reasonName = QStringLiteral("reason.json");
const QString newPrefix = QStringLiteral(".new-");

// ".new-<process>-<random>": can be removed when the process does not exist any more.
bool isAbandoned(const QString& name)
{
    const qint64 process = name.mid(newPrefix.size()).section(QLatin1Char('-'), 0, 0).toLongLong();
    return process <= 0 || (::kill(static_cast<pid_t>(process), 0) != 0 && errno == ESRCH);
}

QJsonObject toRecord(const QueuedMessage& message)
{
    QJsonObject record;
    record[QStringLiteral("task")] = QStringLiteral("send");
    record[QStringLiteral("message")] = message.key;
    record[QStringLiteral("id")] = idText(message.id);
    record[QStringLiteral("abonent")] = message.abonent;
    record[QStringLiteral("name")] = message.fileName;
    record[QStringLiteral("size")] = static_cast<double>(message.size); // exact up to 2^53
    record[QStringLiteral("sha256")] = QString::fromLatin1(message.sha256.toHex());
    record[QStringLiteral("modified")] = static_cast<double>(message.modifiedSecs);
    record[QStringLiteral("queued")] = message.queued.toUTC().toString(Qt::ISODate);
    return record;
}

} // namespace

OutgoingQueue::OutgoingQueue(const QDir& outputDir, const QDir& tasksDir) : m_outputDir(outputDir), m_tasksDir(tasksDir)
{
    m_clock.start();
}

// ---- queueing ----

QString OutgoingQueue::enqueue(const QString& abonent, const QString& filePath, QueuedMessage* queued)
{
    if (!Global::makePath(m_outputDir) || !Global::makePath(m_tasksDir))
        return QStringLiteral("cannot create %1 and %2: check that you may write there")
            .arg(m_outputDir.absolutePath(), m_tasksDir.absolutePath());
    QueuedMessage message;
    message.abonent = abonent;
    message.fileName = QFileInfo(filePath).fileName();
    message.queued = QDateTime::currentDateTimeUtc();
    do {
        message.id = QRandomGenerator::system()->generate64();
    } while (message.id == 0);
    QString error;
    const OpenDirectory output = OpenDirectory::at(m_outputDir.absolutePath(), &error);
    if (!output.isOpen() || !OpenDirectory::at(m_tasksDir.absolutePath(), &error).isOpen())
        return error;
    const QString name = newPrefix + QString::number(::getpid()) + QLatin1Char('-') + idText(message.id);
    error = output.makeDirectory(name);
    if (!error.isEmpty())
        return error;
    const OpenDirectory directory = output.below(name, &error);
    if (directory.isOpen())
        error = copyIntoQueue(filePath, directory, &message);
    if (error.isEmpty())
        error = directory.sync(); // the copy's name
    if (error.isEmpty())
        error = commit(output, name, &message);
    if (!error.isEmpty()) {
        const QString removal = output.removeTree(name);
        return removal.isEmpty() ? error : error + QStringLiteral("; ") + removal;
    }
    if (queued)
        *queued = message;
    return QString();
}

QString OutgoingQueue::copyIntoQueue(const QString& filePath, const OpenDirectory& directory,
                                     QueuedMessage* message) const
{
    // Without O_NONBLOCK opening a pipe would wait for its writer; it is refused below.
    const int descriptor = ::open(QFile::encodeName(filePath).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return QStringLiteral("cannot read %1: %2").arg(filePath, qt_error_string(errno));
    QFile source;
    source.open(descriptor, QIODevice::ReadOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle);
    if (!QFileInfo(filePath).isFile())
        return QStringLiteral("cannot send %1: only regular files can be sent").arg(filePath);
    QFile copy;
    const QString creation = directory.createFile(contentName, &copy);
    if (!creation.isEmpty())
        return creation;
    QCryptographicHash hash(QCryptographicHash::Sha256);
    QByteArray buffer(copyBytes, Qt::Uninitialized);
    for (;;) {
        const qint64 count = source.read(buffer.data(), buffer.size());
        if (count < 0)
            return QStringLiteral("cannot read %1: %2").arg(filePath, source.errorString());
        if (count == 0)
            break;
        if (copy.write(buffer.constData(), count) != count)
            return QStringLiteral("cannot copy %1 into the queue: %2").arg(filePath, copy.errorString());
        hash.addData(buffer.constData(), static_cast<int>(count));
        message->size += count;
    }
    if (message->size > maxMessageBytes)
        return QStringLiteral("%1 is too large").arg(filePath);
    message->sha256 = hash.result();
    message->modifiedSecs = source.fileTime(QFileDevice::FileModificationTime).toSecsSinceEpoch();
    // Fails on a file system without modes.
    (void)copy.setPermissions(QFileDevice::Permissions(CSettings().filePermissions()));
    const QString error = syncFile(&copy);
    return error.isEmpty() ? error : QStringLiteral("cannot write %1: %2").arg(directory.pathOf(contentName), error);
}

// Several programs may make names at the same time.
QString OutgoingQueue::commit(const OpenDirectory& output, const QString& newName, QueuedMessage* message) const
{
    QLockFile lock(m_outputDir.absoluteFilePath(QStringLiteral(".lock")));
    if (!lock.tryLock(lockTimeoutMs))
        return QStringLiteral("cannot lock %1: another program holds the queue").arg(m_outputDir.absolutePath());
    message->key = nextMessageName(m_outputDir);
    if (message->key.isEmpty())
        return QStringLiteral("no free message number in %1").arg(m_outputDir.absolutePath());
    QString error = output.moveDirectory(newName, output, message->key);
    if (!error.isEmpty())
        return error;
    error = output.sync();
    message->taskPath = m_tasksDir.absoluteFilePath(nextTaskName(m_tasksDir));
    if (error.isEmpty())
        error = saveRecord(message->taskPath, toRecord(*message)); // syncs its name, too
    if (error.isEmpty())
        return QString();
    const QString removal = output.removeTree(message->key);
    return removal.isEmpty() ? error : error + QStringLiteral("; ") + removal;
}

// ---- what waits ----

std::optional<OutgoingQueue::Entry> OutgoingQueue::load(const QString& taskPath) const
{
    const QJsonObject record = loadRecord(taskPath);
    Entry entry;
    QueuedMessage& message = entry.message;
    message.taskPath = taskPath;
    message.key = record[QStringLiteral("message")].toString();
    message.id = idFromText(record[QStringLiteral("id")].toString());
    message.abonent = record[QStringLiteral("abonent")].toString();
    message.fileName = record[QStringLiteral("name")].toString();
    message.size = static_cast<qint64>(record[QStringLiteral("size")].toDouble(-1));
    message.sha256 = QByteArray::fromHex(record[QStringLiteral("sha256")].toString().toLatin1());
    message.modifiedSecs = static_cast<qint64>(record[QStringLiteral("modified")].toDouble());
    message.queued = QDateTime::fromString(record[QStringLiteral("queued")].toString(), Qt::ISODate);
    // A path is made of it.
    const bool isNumber =
        !message.key.isEmpty() && std::all_of(message.key.cbegin(), message.key.cend(), [](QChar digit) {
            return digit >= QLatin1Char('0') && digit <= QLatin1Char('9');
        });
    if (!isNumber || message.id == 0 || message.size < 0 || message.sha256.size() != sha256Bytes ||
        message.abonent.isEmpty())
        return std::nullopt;
    message.reason = WaitReason::fromJson(loadRecord(messagePath(message) + QLatin1Char('/') + reasonName));
    entry.abonentKey = abonentKey(message.abonent);
    return entry;
}

QStringList OutgoingQueue::rescan()
{
    QMutexLocker locker(&m_mutex);
    QDir tasks = m_tasksDir;
    tasks.refresh();
    const QStringList names = tasks.entryList({QStringLiteral("*.task")}, QDir::Files, QDir::Name);
    QHash<QString, Entry> known;
    for (const Entry& entry : qAsConst(m_entries))
        known.insert(entry.message.taskPath, entry);
    QVector<Entry> entries;
    QStringList troubles;
    for (const QString& name : names) {
        const QString path = m_tasksDir.absoluteFilePath(name);
        const auto found = known.constFind(path);
        if (found != known.constEnd()) {
            entries.append(*found);
        } else if (const std::optional<Entry> entry = load(path)) {
            entries.append(*entry);
        } else if (!m_damaged.contains(path) && QFile::exists(path)) {
            m_damaged.append(path);
            troubles.append(QStringLiteral("%1 is damaged and is left aside").arg(path));
        }
    }
    m_entries = entries;
    return troubles;
}

QVector<QueuedMessage> OutgoingQueue::messages() const
{
    QMutexLocker locker(&m_mutex);
    QVector<QueuedMessage> found;
    for (const Entry& entry : m_entries)
        found.append(entry.message);
    return found;
}

QStringList OutgoingQueue::cleanUp()
{
    QStringList notes;
    QString error;
    const OpenDirectory output = OpenDirectory::at(m_outputDir.absolutePath(), &error);
    if (!output.isOpen())
        return m_outputDir.exists() ? QStringList{error} : notes;
    Global::recoverSavings(m_tasksDir);
    rescan();
    QSet<QString> named;
    for (const QueuedMessage& message : messages())
        named.insert(message.key);
    const QFileInfoList directories = m_outputDir.entryInfoList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot);
    for (const QFileInfo& directory : directories) {
        const QString name = directory.fileName();
        if (!output.below(name, &error).isOpen()) {
            notes.append(error);
            continue;
        }
        const bool isNew = name.startsWith(newPrefix);
        const bool isOrphan = !isNew && !named.contains(name) &&
                              directory.metadataChangeTime().secsTo(QDateTime::currentDateTime()) > orphanAgeSecs;
        if ((isNew && isAbandoned(name)) || isOrphan)
            (void)output.removeTree(name); // tried again at the next start
    }
    return notes;
}

OutgoingQueue::Entry* OutgoingQueue::find(quint64 id)
{
    for (Entry& entry : m_entries) {
        if (entry.message.id == id)
            return &entry;
    }
    return nullptr;
}

QString OutgoingQueue::remove(const OutgoingMessage& message)
{
    QMutexLocker changing(&m_changes);
    QString taskPath;
    {
        QMutexLocker locker(&m_mutex);
        if (const Entry* entry = find(message.id))
            taskPath = entry->message.taskPath;
    }
    if (!taskPath.isEmpty() && QFile::exists(taskPath) && !QFile::remove(taskPath))
        return QStringLiteral("cannot remove %1: the message stays queued").arg(taskPath);
    syncDirectory(m_tasksDir);
    {
        QMutexLocker locker(&m_mutex);
        for (int i = 0; i < m_entries.size(); ++i) {
            if (m_entries.at(i).message.id == message.id) {
                m_entries.removeAt(i);
                break;
            }
        }
    }
    return removeDirectory(messagePath(message));
}

void OutgoingQueue::setReason(const OutgoingMessage& message, const WaitReason& reason)
{
    QMutexLocker changing(&m_changes);
    {
        QMutexLocker locker(&m_mutex);
        Entry* entry = find(message.id);
        if (!entry || entry->message.reason == reason)
            return;
        entry->message.reason = reason;
    }
    saveReason(message, reason);
}

void OutgoingQueue::updateReasons(const ReasonOf& reasonOf)
{
    QMutexLocker changing(&m_changes);
    QVector<QueuedMessage> changed;
    {
        QMutexLocker locker(&m_mutex);
        QHash<QString, std::optional<WaitReason>> reasons; // by the abonent's key
        for (Entry& entry : m_entries) {
            if (entry.message.reason.isOfTheMessage())
                continue;
            auto reason = reasons.find(entry.abonentKey);
            if (reason == reasons.end())
                reason = reasons.insert(entry.abonentKey, reasonOf(entry.message.abonent));
            if (!*reason || **reason == entry.message.reason)
                continue;
            entry.message.reason = **reason;
            changed.append(entry.message);
        }
    }
    for (const QueuedMessage& message : qAsConst(changed))
        saveReason(message, message.reason);
}

void OutgoingQueue::saveReason(const OutgoingMessage& message, const WaitReason& reason) const
{
    QString error;
    if (!OpenDirectory::at(messagePath(message), &error).isOpen())
        return;
    QJsonObject record = reason.toJson();
    record[QStringLiteral("since")] = QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
    (void)saveRecord(messagePath(message) + QLatin1Char('/') + reasonName, record); // logged there; only for show
}

// ---- the copies ----

QString OutgoingQueue::messagePath(const OutgoingMessage& message) const
{
    return m_outputDir.absoluteFilePath(message.key);
}

QString OutgoingQueue::contentPath(const OutgoingMessage& message) const
{
    return messagePath(message) + QLatin1Char('/') + contentName;
}

std::unique_ptr<QIODevice> OutgoingQueue::open(const OutgoingMessage& message, QString* error) const
{
    auto file = std::make_unique<QFile>();
    QString fault;
    const OpenDirectory directory = OpenDirectory::at(messagePath(message), &fault);
    if (directory.isOpen())
        fault = directory.openForReading(contentName, file.get());
    if (!fault.isEmpty()) {
        *error = QStringLiteral("the queued copy cannot be read: %1").arg(fault);
        return nullptr;
    }
    if (file->size() != message.size) {
        *error = QStringLiteral("the queued copy %1 has changed its size; cancel the message and send the file again")
                     .arg(contentPath(message));
        return nullptr;
    }
    return file;
}

QString OutgoingQueue::verify(const OutgoingMessage& message) const
{
    QString error;
    const std::unique_ptr<QIODevice> file = open(message, &error);
    if (!file)
        return error;
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (hash.addData(file.get()) && hash.result() == message.sha256)
        return QString();
    return QStringLiteral("the queued copy %1 is damaged; cancel the message and send the file again")
        .arg(contentPath(message));
}

// ---- claims ----

bool OutgoingQueue::isClaimable(const Entry& entry, const QString& key) const
{
    return !entry.claimedBy && entry.abonentKey == key && entry.postponedUntilMs <= m_clock.elapsed();
}

std::optional<OutgoingMessage> OutgoingQueue::claimNext(const Peer& peer, const void* session)
{
    if (!peer.isProved)
        return std::nullopt;
    const QString key = abonentKey(peer.abonent);
    QMutexLocker locker(&m_mutex);
    for (Entry& entry : m_entries) {
        if (isClaimable(entry, key)) {
            entry.claimedBy = session;
            return entry.message;
        }
    }
    return std::nullopt;
}

bool OutgoingQueue::hasUnclaimed(const Peer& peer) const
{
    if (!peer.isProved)
        return false;
    const QString key = abonentKey(peer.abonent);
    QMutexLocker locker(&m_mutex);
    return std::any_of(m_entries.cbegin(), m_entries.cend(),
                       [&](const Entry& entry) { return isClaimable(entry, key); });
}

QSet<quint64> OutgoingQueue::queuedIds(const Peer& peer) const
{
    QSet<quint64> ids;
    if (!peer.isProved)
        return ids;
    const QString key = abonentKey(peer.abonent);
    QMutexLocker locker(&m_mutex);
    for (const Entry& entry : m_entries) {
        if (entry.abonentKey == key)
            ids.insert(entry.message.id);
    }
    return ids;
}

QStringList OutgoingQueue::waitingAbonents() const
{
    QMutexLocker locker(&m_mutex);
    QSet<QString> keys;
    QStringList abonents;
    for (const Entry& entry : m_entries) {
        if (keys.contains(entry.abonentKey) || !isClaimable(entry, entry.abonentKey))
            continue;
        keys.insert(entry.abonentKey);
        abonents.append(entry.message.abonent);
    }
    return abonents;
}

void OutgoingQueue::releaseAll(const void* session)
{
    QMutexLocker locker(&m_mutex);
    for (Entry& entry : m_entries) {
        if (entry.claimedBy == session)
            entry.claimedBy = nullptr;
    }
}

void OutgoingQueue::notDelivered(const OutgoingMessage& message, const QString& reason, Fault fault)
{
    WaitReason told;
    told.kind = fault == Fault::Local ? WaitReason::Kind::CopyAtFault : WaitReason::Kind::Refused;
    told.text = reason;
    if (fault == Fault::Recheck) {
        const QString damage = verify(message);
        if (!damage.isEmpty()) {
            told.kind = WaitReason::Kind::CopyAtFault;
            told.text = damage;
        }
    }
    setReason(message, told);
    if (told.kind == WaitReason::Kind::CopyAtFault)
        postpone(message);
}

void OutgoingQueue::postpone(const OutgoingMessage& message)
{
    QMutexLocker locker(&m_mutex);
    if (Entry* entry = find(message.id))
        entry->postponedUntilMs = m_clock.elapsed() + postponeMs;
}

} // namespace host
