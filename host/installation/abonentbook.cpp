#include "host/installation/abonentbook.h"

#include "common/global.h"
#include "host/installation/diskfile.h"
#include "host/installation/names.h"

#include <QDataStream>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QIODevice>
#include <QLockFile>
#include <QMutexLocker>
#include <QSet>

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>

namespace host {

namespace {

constexpr qint32 versionWithoutKeys = 1;
constexpr qint32 currentVersion = 2;
constexpr int publicKeyLength = 32;
constexpr int minAbonentBytes = 3 * 4; // two lengths and a number
constexpr qint64 maxFileBytes = 16 * 1024 * 1024;
constexpr int lockTimeoutMs = 5000;

QString damaged()
{
    return QStringLiteral("the data is damaged: put back a copy, or remove the file and tell the abonents again");
}

// The stamp changes with the content: the file is always replaced, never written into.
QByteArray stampOf(const QString& path)
{
    struct stat facts = {};
    if (::stat(QFile::encodeName(path).constData(), &facts) != 0)
        return QByteArray("-");
    return QByteArray::number(static_cast<qulonglong>(facts.st_ino)) + '/' +
           QByteArray::number(static_cast<qint64>(facts.st_size)) + '/' +
           QByteArray::number(static_cast<qint64>(facts.st_mtim.tv_sec)) + '.' +
           QByteArray::number(static_cast<qint64>(facts.st_mtim.tv_nsec));
}

void readKey(QDataStream* stream, Abonent* abonent)
{
    quint8 pinned = 0;
    qint64 pinnedAtMs = 0;
    *stream >> abonent->key >> pinned >> pinnedAtMs >> abonent->isBlocked;
    const bool isSound =
        abonent->key.isEmpty() ? pinned == 0 : abonent->key.size() == publicKeyLength && (pinned == 1 || pinned == 2);
    if (!isSound)
        stream->setStatus(QDataStream::ReadCorruptData);
    abonent->pinned = static_cast<Abonent::Pinned>(pinned);
    if (!abonent->key.isEmpty())
        abonent->pinnedAt = QDateTime::fromMSecsSinceEpoch(pinnedAtMs, Qt::UTC);
}

void readBlockedKeys(QDataStream* stream, AbonentRecords* records)
{
    qint32 count = 0;
    *stream >> count;
    for (qint32 i = 0; i < count && stream->status() == QDataStream::Ok; ++i) {
        QByteArray key;
        *stream >> key;
        if (key.size() != publicKeyLength)
            stream->setStatus(QDataStream::ReadCorruptData);
        records->blockedKeys.append(key);
    }
    if (count < 0)
        stream->setStatus(QDataStream::ReadCorruptData);
}

// With two records of one abonent, or of one key, the first one found would be taken.
bool isUnambiguous(const AbonentRecords& records)
{
    QSet<QString> names;
    QSet<QByteArray> keys;
    int keyless = 0;
    for (const Abonent& abonent : records.abonents) {
        names.insert(abonentKey(abonent.name));
        if (abonent.key.isEmpty())
            ++keyless;
        else
            keys.insert(abonent.key);
    }
    return names.size() == records.abonents.size() && keys.size() + keyless == records.abonents.size();
}

} // namespace

int AbonentRecords::find(const QString& name) const
{
    const QString key = abonentKey(name);
    for (int i = 0; i < abonents.size(); ++i) {
        if (abonentKey(abonents.at(i).name) == key)
            return i;
    }
    return -1;
}

int AbonentRecords::findKey(const QByteArray& key) const
{
    for (int i = 0; i < abonents.size() && !key.isEmpty(); ++i) {
        if (abonents.at(i).key == key)
            return i;
    }
    return -1;
}

QString AbonentRecords::pin(int index, const QByteArray& key, Abonent::Pinned how)
{
    const int owner = findKey(key);
    if (owner >= 0 && owner != index)
        return QStringLiteral("this is the key of '%1': an abonent has a key of its own")
            .arg(displayName(abonents.at(owner).name));
    Abonent& abonent = abonents[index];
    abonent.key = key;
    abonent.pinned = how;
    abonent.pinnedAt = QDateTime::currentDateTimeUtc();
    return QString();
}

void AbonentRecords::forgetKey(int index)
{
    Abonent& abonent = abonents[index];
    abonent.key.clear();
    abonent.pinned = Abonent::Pinned::No;
    abonent.pinnedAt = QDateTime();
}

QByteArray writeAbonents(const AbonentRecords& records)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << currentVersion << static_cast<qint32>(records.abonents.size());
    for (const Abonent& abonent : records.abonents) {
        stream << abonent.name << abonent.channelType << abonent.channelData << abonent.key
               << static_cast<quint8>(abonent.pinned)
               << (abonent.pinnedAt.isValid() ? abonent.pinnedAt.toMSecsSinceEpoch() : Q_INT64_C(0))
               << abonent.isBlocked;
    }
    stream << static_cast<qint32>(records.blockedKeys.size());
    for (const QByteArray& key : records.blockedKeys)
        stream << key;
    return bytes;
}

QString readAbonents(const QByteArray& bytes, AbonentRecords* records)
{
    QDataStream stream(bytes);
    qint32 version = 0;
    qint32 count = 0;
    stream >> version >> count;
    if (stream.status() == QDataStream::Ok && version != versionWithoutKeys && version != currentVersion)
        return QStringLiteral("the format has version %1, this program knows version %2")
            .arg(QString::number(version), QString::number(currentVersion));
    if (count < 0 || count > bytes.size() / minAbonentBytes)
        return damaged();
    AbonentRecords read;
    for (qint32 i = 0; i < count && stream.status() == QDataStream::Ok; ++i) {
        Abonent abonent;
        stream >> abonent.name >> abonent.channelType >> abonent.channelData;
        if (version == currentVersion)
            readKey(&stream, &abonent);
        read.abonents.append(abonent);
    }
    if (version == currentVersion)
        readBlockedKeys(&stream, &read);
    if (stream.status() != QDataStream::Ok || !isUnambiguous(read))
        return damaged();
    *records = read;
    return QString();
}

AbonentBook::AbonentBook(const QString& path) : m_path(path) {}

QString AbonentBook::read(AbonentRecords* records)
{
    QMutexLocker locker(&m_mutex);
    const QString error = refresh();
    *records = m_records;
    return error;
}

QString AbonentBook::refresh()
{
    const QByteArray stamp = stampOf(m_path);
    if (stamp == m_stamp)
        return QString();
    AbonentRecords records;
    const QString error = load(&records);
    if (!error.isEmpty())
        return error;
    m_records = records;
    m_stamp = stamp; // from before the reading: a change during it is read again
    return QString();
}

// *records stay as they are when there is no file.
QString AbonentBook::load(AbonentRecords* records) const
{
    // Opening tells whether it is missing. Between two looks another program could make it.
    const int descriptor = ::open(QFile::encodeName(m_path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0 && errno != ENOENT)
        return QStringLiteral("cannot read %1: %2").arg(m_path, qt_error_string(errno));
    if (descriptor >= 0) {
        QFile file;
        file.open(descriptor, QIODevice::ReadOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle);
        const QByteArray bytes = file.read(maxFileBytes);
        if (file.error() != QFileDevice::NoError)
            return QStringLiteral("cannot read %1: %2").arg(m_path, file.errorString());
        const QString error = readAbonents(bytes, records);
        if (!error.isEmpty())
            return QStringLiteral("%1: %2").arg(m_path, error);
    }
    return QString();
}

QString AbonentBook::change(const Change& change)
{
    const QDeadlineTimer deadline(lockTimeoutMs);
    const QString isHeld =
        QStringLiteral("%1.lock is held by another program: try again, and remove it if none runs").arg(m_path);
    const std::unique_lock<QMutex> changing(m_changing, std::chrono::milliseconds(lockTimeoutMs));
    if (!changing.owns_lock())
        return isHeld;
    Global::makePath(QFileInfo(m_path).absoluteDir()); // if that fails, so does the lock
    QLockFile lock(m_path + QStringLiteral(".lock"));
    if (lock.tryLock(static_cast<int>(deadline.remainingTime())))
        return changeLocked(change);
    return lock.error() == QLockFile::LockFailedError
               ? isHeld
               : QStringLiteral("cannot lock %1: check that you may write there").arg(m_path);
}

QString AbonentBook::changeLocked(const Change& change)
{
    QString error = Global::recoverSaving(m_path); // an earlier version moved the file away before it wrote
    AbonentRecords records;
    if (error.isEmpty())
        error = load(&records);
    if (error.isEmpty())
        error = change(&records);
    if (error.isEmpty())
        error = replaceFile(m_path, writeAbonents(records));
    if (!error.isEmpty())
        return error;
    QMutexLocker locker(&m_mutex);
    m_records = records;
    m_stamp = stampOf(m_path);
    return QString();
}

} // namespace host
