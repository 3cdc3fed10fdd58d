#include "host/inbox.h"

#include "common/global.h"
#include "host/diskfile.h"
#include "host/names.h"

#include <algorithm>

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QMutexLocker>

namespace host {

namespace {

const QString recordName = QStringLiteral(".message"); // no name of a peer's file begins with a point

QJsonObject toRecord(const QString& abonent, const OfferFrame& offer, const QString& contentName, bool isVerified)
{
    QJsonObject record;
    record[QStringLiteral("id")] = idText(offer.messageId);
    record[QStringLiteral("from")] = abonent;
    record[QStringLiteral("name")] = offer.fileName;
    record[QStringLiteral("file")] = contentName;
    record[QStringLiteral("size")] = static_cast<double>(offer.size);
    record[QStringLiteral("sha256")] = QString::fromLatin1(offer.sha256.toHex());
    record[QStringLiteral("modified")] = static_cast<double>(offer.modifiedSecs);
    record[QStringLiteral("verified")] = isVerified;
    if (isVerified)
        record[QStringLiteral("received")] = QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
    return record;
}

} // namespace

// One session's hold on a part. Another session may take it away.
struct Inbox::Holding
{
    quint64 id = 0;
    Part part;
    QString abonent;
    QMutex mutex; // guards the rest
    bool isLost = false;
    QFile file;
};

class Inbox::DiskFile : public IncomingFile
{
public:
    DiskFile(Inbox* inbox, const QString& abonent, quint64 id, const QString& path)
        : m_inbox(inbox), m_abonent(abonent), m_id(id), m_back(path)
    {
        m_backLeft = QFileInfo(path).size();
    }

    quint64 messageId() const override { return m_id; }

    qint64 length() const override
    {
        if (!m_holding)
            return QFileInfo(m_back.fileName()).size();
        QMutexLocker locker(&m_holding->mutex);
        return m_holding->file.size();
    }

    QByteArray readBack(qint64 maxSize, QString* error) override
    {
        if (!m_back.isOpen() && !m_back.open(QIODevice::ReadOnly)) {
            *error = QStringLiteral("cannot read %1: %2").arg(m_back.fileName(), m_back.errorString());
            return QByteArray();
        }
        const QByteArray bytes = m_back.read(qMin(maxSize, m_backLeft));
        m_backLeft -= bytes.size();
        return bytes;
    }

    QString resume(qint64 length) override
    {
        m_back.close();
        const QString error = m_inbox->hold(m_id, length, &m_holding);
        if (m_holding)
            m_holding->abonent = m_abonent;
        return error;
    }

    QString append(const QByteArray& bytes) override
    {
        if (!m_holding)
            return QStringLiteral("not resumed");
        QMutexLocker locker(&m_holding->mutex);
        if (m_holding->isLost)
            return QStringLiteral("another call has taken the message over");
        if (m_holding->file.write(bytes) == bytes.size())
            return QString();
        return QStringLiteral("cannot write %1: %2").arg(m_holding->file.fileName(), m_holding->file.errorString());
    }

    QString store(const OfferFrame& offer, QString* place) override
    {
        return m_holding ? m_inbox->storePart(m_holding, offer, place) : QStringLiteral("not resumed");
    }

    void discard() override
    {
        if (m_holding)
            m_inbox->discardPart(m_holding);
    }

private:
    Inbox* m_inbox; // not owned
    const QString m_abonent;
    const quint64 m_id;
    QFile m_back; // for reading what stood at first
    qint64 m_backLeft = 0;
    std::shared_ptr<Holding> m_holding; // null until resumed
};

Inbox::Inbox(const QDir& inputDir, const QDir& incompleteDir, const QString& receivedListPath, const InboxLimits& limits)
    : m_inputDir(inputDir), m_incompleteDir(incompleteDir), m_limits(limits), m_received(receivedListPath)
{
}

Inbox::~Inbox() = default;

QString Inbox::partPath(const Part& part) const
{
    return m_incompleteDir.absoluteFilePath(part.key);
}

QString Inbox::contentPath(const Part& part) const
{
    return partPath(part) + QLatin1Char('/') + part.contentName;
}

// ---- start ----

QStringList Inbox::open(QString* error)
{
    QMutexLocker locker(&m_mutex);
    QStringList notes;
    for (const QDir& dir : {m_inputDir, m_incompleteDir}) {
        if (!Global::makePath(dir)) {
            *error = QStringLiteral("cannot create %1: check that you may write there").arg(dir.absolutePath());
            return notes;
        }
    }
    *error = m_received.load();
    if (!error->isEmpty())
        return notes;
    for (const QString& key : m_incompleteDir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name))
        recoverPart(key, &notes);
    return notes;
}

void Inbox::recoverPart(const QString& key, QStringList* notes)
{
    Part part;
    part.key = key;
    const QString recordPath = partPath(part) + QLatin1Char('/') + recordName;
    (void)Global::recoverSaving(recordPath); // a missing record is met below
    const QJsonObject record = loadRecord(recordPath);
    part.id = idFromText(record[QStringLiteral("id")].toString());
    part.contentName = record[QStringLiteral("file")].toString();
    part.abonentKey = abonentKey(record[QStringLiteral("from")].toString());
    part.sha256 = QByteArray::fromHex(record[QStringLiteral("sha256")].toString().toLatin1());
    const QFileInfo content(contentPath(part));
    const bool isWhole = part.id != 0 && !part.contentName.isEmpty() && content.isFile() &&
                         safeFileName(part.contentName) == part.contentName;
    const QDateTime touched = content.metadataChangeTime(); // not modified: that time is the sender's
    const bool isOld = touched.daysTo(QDateTime::currentDateTime()) > m_limits.partDays;
    if (isWhole && record[QStringLiteral("verified")].toBool()) {
        QString place;
        const QString error = finishPart(part, part.id, part.sha256, part.abonentKey, &place);
        notes->append(error.isEmpty() ? QStringLiteral("received before the last stop: %1").arg(place) : error);
    } else if (!isWhole || isOld || m_parts.contains(part.id)) {
        const QString error = removeDirectory(partPath(part));
        notes->append(error.isEmpty() ? QStringLiteral("removed the useless part %1").arg(partPath(part)) : error);
    } else {
        part.touchedMs = touched.toMSecsSinceEpoch();
        m_parts.insert(part.id, part);
    }
}

QVector<ReceivedMessage> Inbox::messages() const
{
    QVector<ReceivedMessage> found;
    const QStringList keys = m_inputDir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString& key : keys) {
        const QString path = m_inputDir.absoluteFilePath(key);
        const QJsonObject record = loadRecord(path + QLatin1Char('/') + recordName);
        if (record.isEmpty())
            continue;
        ReceivedMessage message;
        message.key = key;
        message.id = idFromText(record[QStringLiteral("id")].toString());
        message.abonent = record[QStringLiteral("from")].toString();
        message.fileName = record[QStringLiteral("name")].toString();
        message.path = path + QLatin1Char('/') + safeFileName(record[QStringLiteral("file")].toString());
        message.size = static_cast<qint64>(record[QStringLiteral("size")].toDouble());
        message.sha256 = QByteArray::fromHex(record[QStringLiteral("sha256")].toString().toLatin1());
        message.received = QDateTime::fromString(record[QStringLiteral("received")].toString(), Qt::ISODate);
        found.append(message);
    }
    return found;
}

// ---- the list ----

QVector<quint64> Inbox::unsettled(const QString& abonent)
{
    QMutexLocker locker(&m_mutex);
    return m_received.unsettled(abonentKey(abonent));
}

void Inbox::settle(const QVector<quint64>& messageIds)
{
    QMutexLocker locker(&m_mutex);
    m_received.settle(messageIds);
}

bool Inbox::isStored(quint64 messageId, const QByteArray& sha256)
{
    QMutexLocker locker(&m_mutex);
    return m_received.contains(messageId, sha256);
}

// ---- parts ----

std::vector<std::unique_ptr<IncomingFile>> Inbox::parts(const QString& abonent)
{
    QMutexLocker locker(&m_mutex);
    std::vector<std::unique_ptr<IncomingFile>> files;
    const QString key = abonentKey(abonent);
    for (const Part& part : qAsConst(m_parts)) {
        if (part.abonentKey == key)
            files.push_back(std::make_unique<DiskFile>(this, abonent, part.id, contentPath(part)));
    }
    return files;
}

QString Inbox::whyNot(const OfferFrame& offer, qint64 standing) const
{
    if (offer.size > m_limits.maxMessageBytes)
        return QStringLiteral("it has %1 bytes, more than the %2 that are allowed here")
            .arg(QString::number(offer.size), QString::number(m_limits.maxMessageBytes));
    // Not known where the volume is in no mount table, as in a change of root: then only a
    // write that fails can tell.
    const qint64 known = Global::diskFreeSpace(m_incompleteDir.absolutePath());
    const qint64 free = known - m_limits.keepFreeBytes;
    if (known > 0 && offer.size - standing > free)
        return QStringLiteral("the disk is full: %1 bytes are needed, %2 are free")
            .arg(QString::number(offer.size - standing), QString::number(qMax<qint64>(0, free)));
    return QString();
}

std::unique_ptr<IncomingFile> Inbox::begin(const QString& abonent, const OfferFrame& offer, RefusedFrame* refused)
{
    std::unique_ptr<IncomingFile> file;
    {
        QMutexLocker locker(&m_mutex);
        refused->reason = whyNot(offer, 0);
        refused->code = offer.size > m_limits.maxMessageBytes ? RefusalCode::NotAllowed : RefusalCode::NoRoom;
        if (!refused->reason.isEmpty())
            return nullptr;
        refused->code = RefusalCode::Failed;
        Part part = m_parts.value(offer.messageId);
        const bool isSame = part.id != 0 && part.sha256 == offer.sha256 && part.abonentKey == abonentKey(abonent);
        if (part.id != 0 && !isSame) {
            // Another message under the same identifier.
            if (const std::shared_ptr<Holding> holder = part.holder.lock()) {
                QMutexLocker held(&holder->mutex);
                holder->isLost = true;
            }
            refused->reason = removeDirectory(partPath(part));
            if (!refused->reason.isEmpty())
                return nullptr;
            m_parts.remove(part.id);
        }
        if (!isSame) {
            dropOldParts(abonentKey(abonent));
            part = Part();
            refused->reason = createPart(&part, abonent, offer);
            if (!refused->reason.isEmpty())
                return nullptr;
            m_parts.insert(part.id, part);
        }
        file = std::make_unique<DiskFile>(this, abonent, part.id, contentPath(part));
    }
    refused->reason = file->resume(0);
    return refused->reason.isEmpty() ? std::move(file) : nullptr;
}

QString Inbox::createPart(Part* part, const QString& abonent, const OfferFrame& offer)
{
    part->id = offer.messageId;
    part->abonentKey = abonentKey(abonent);
    part->contentName = safeFileName(offer.fileName);
    part->sha256 = offer.sha256;
    part->touchedMs = QDateTime::currentMSecsSinceEpoch();
    part->key = nextMessageName(m_incompleteDir);
    if (part->key.isEmpty() || !QDir().mkdir(partPath(*part)))
        return QStringLiteral("cannot create a directory in %1").arg(m_incompleteDir.absolutePath());
    QFile content(contentPath(*part));
    if (!content.open(QIODevice::WriteOnly)) {
        // A name that this file system cannot hold.
        part->contentName = QStringLiteral("file");
        content.setFileName(contentPath(*part));
        if (!content.open(QIODevice::WriteOnly))
            return QStringLiteral("cannot write %1: %2").arg(content.fileName(), content.errorString());
    }
    // Without syncing: a part that a power failure tears is begun anew.
    QFile record(partPath(*part) + QLatin1Char('/') + recordName);
    const QByteArray bytes = QJsonDocument(toRecord(abonent, offer, part->contentName, false)).toJson();
    if (!record.open(QIODevice::WriteOnly | QIODevice::Unbuffered) || record.write(bytes) != bytes.size()) {
        const QString error = QStringLiteral("cannot write %1: %2").arg(record.fileName(), record.errorString());
        (void)removeDirectory(partPath(*part));
        return error;
    }
    return QString();
}

// A peer that begins message after message must not fill the disk with beginnings.
void Inbox::dropOldParts(const QString& key)
{
    QVector<Part> of;
    for (const Part& part : qAsConst(m_parts)) {
        if (part.abonentKey == key && part.holder.expired())
            of.append(part);
    }
    std::sort(of.begin(), of.end(), [](const Part& a, const Part& b) { return a.touchedMs < b.touchedMs; });
    while (of.size() >= m_limits.maxPartsOfAbonent) {
        if (removeDirectory(partPath(of.first())).isEmpty())
            m_parts.remove(of.first().id);
        of.removeFirst();
    }
}

QString Inbox::hold(quint64 id, qint64 length, std::shared_ptr<Holding>* holding)
{
    QMutexLocker locker(&m_mutex);
    const auto found = m_parts.find(id);
    if (found == m_parts.end())
        return QStringLiteral("the part has gone");
    if (const std::shared_ptr<Holding> earlier = found->holder.lock()) {
        QMutexLocker held(&earlier->mutex);
        earlier->isLost = true;
        earlier->file.close();
    }
    auto mine = std::make_shared<Holding>();
    mine->id = id;
    mine->part = *found;
    mine->file.setFileName(contentPath(*found));
    if (!mine->file.open(QIODevice::ReadWrite | QIODevice::Unbuffered) || !mine->file.resize(length) || !mine->file.seek(length))
        return QStringLiteral("cannot write %1: %2").arg(mine->file.fileName(), mine->file.errorString());
    found->holder = mine;
    found->touchedMs = QDateTime::currentMSecsSinceEpoch();
    *holding = mine;
    return QString();
}

// ---- whole ----

QString Inbox::storePart(const std::shared_ptr<Holding>& holding, const OfferFrame& offer, QString* place)
{
    const Part& part = holding->part;
    {
        QMutexLocker held(&holding->mutex);
        if (holding->isLost)
            return QStringLiteral("another call has taken the message over");
        if (offer.modifiedSecs > 0)
            holding->file.setFileTime(QDateTime::fromSecsSinceEpoch(offer.modifiedSecs), QFileDevice::FileModificationTime);
        const QString error = syncFile(&holding->file);
        if (!error.isEmpty())
            return error;
        holding->file.close();
        holding->isLost = true;
    }
    Global::setFilePermissions(contentPath(part));
    const QString recordPath = partPath(part) + QLatin1Char('/') + recordName;
    const QString error = saveRecord(recordPath, toRecord(holding->abonent, offer, part.contentName, true));
    if (!error.isEmpty())
        return error;
    QMutexLocker locker(&m_mutex);
    const QString moveError = finishPart(part, offer.messageId, offer.sha256, part.abonentKey, place);
    if (!moveError.isEmpty()) {
        (void)saveRecord(recordPath, toRecord(holding->abonent, offer, part.contentName, false)); // refused: not received
        return moveError;
    }
    m_parts.remove(part.id);
    return QString();
}

QString Inbox::finishPart(const Part& part, quint64 id, const QByteArray& sha256, const QString& key, QString* place)
{
    const bool isListed = m_received.contains(id, sha256);
    QString error = isListed ? QString() : m_received.add(id, sha256, key);
    if (!error.isEmpty())
        return error;
    const QString name = nextMessageName(m_inputDir);
    error = name.isEmpty() ? QStringLiteral("no free message number in %1").arg(m_inputDir.absolutePath())
                           : renamePath(partPath(part), m_inputDir.absoluteFilePath(name));
    if (!error.isEmpty()) {
        if (!isListed)
            (void)m_received.takeBack(id);
        return error;
    }
    syncDirectory(m_inputDir);
    syncDirectory(m_incompleteDir);
    *place = m_inputDir.absoluteFilePath(name) + QLatin1Char('/') + part.contentName;
    return QString();
}

void Inbox::discardPart(const std::shared_ptr<Holding>& holding)
{
    QMutexLocker locker(&m_mutex);
    {
        QMutexLocker held(&holding->mutex);
        if (holding->isLost)
            return;
        holding->isLost = true;
        holding->file.close();
    }
    if (removeDirectory(partPath(holding->part)).isEmpty())
        m_parts.remove(holding->id);
}

} // namespace host
