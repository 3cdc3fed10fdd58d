#include "host/store/inbox.h"

#include "common/global.h"
#include "host/installation/diskfile.h"
#include "host/installation/names.h"
#include "host/installation/opendirectory.h"
#include "host/store/partfile.h"
#include "host/store/storing.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>

#include <algorithm>

namespace host {

namespace {

bool hasHash(const QString& path, const QByteArray& sha256)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    return file.open(QIODevice::ReadOnly) && hash.addData(&file) && hash.result() == sha256;
}

} // namespace

Inbox::Inbox(const QDir& inputDir, const QDir& incompleteDir, const QString& receivedListPath,
             const InboxLimits& limits)
    : m_inputDir(inputDir), m_incompleteDir(incompleteDir), m_limits(limits), m_received(receivedListPath),
      m_parts(incompleteDir), m_inputCount(inputDir)
{
}

Inbox::~Inbox() = default;

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
        if (!OpenDirectory::at(dir.absolutePath(), error).isOpen())
            return notes;
    }
    *error = m_received.load();
    if (!error->isEmpty())
        return notes;
    for (const QString& key : m_incompleteDir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        const QString note = recoverPart(key);
        if (!note.isEmpty())
            notes.append(note);
    }
    m_inputCount.refresh();
    return notes;
}

QString Inbox::recoverPart(const QString& key)
{
    const QString path = m_incompleteDir.absoluteFilePath(key);
    QString error;
    if (!OpenDirectory::at(path, &error).isOpen())
        return error;
    const QString recordPath = path + QLatin1Char('/') + messageRecordName;
    (void)Global::recoverSaving(recordPath); // a record that is missing is noticed below
    const MessageRecord record = MessageRecord::fromJson(loadRecord(recordPath));
    Part part;
    part.key = key;
    part.id = record.id;
    part.sender = record.sender;
    part.contentName = record.contentName;
    part.sha256 = record.sha256;
    part.announcedBytes = record.size;
    const QFileInfo content(m_parts.contentPathOf(part));
    const bool isWhole = part.id != noMessageId && !part.contentName.isEmpty() && content.isFile() &&
                         !content.isSymLink() && safeFileName(part.contentName) == part.contentName;
    const QDateTime touched = content.metadataChangeTime(); // not the modification time, which is the sender's
    const bool isOld = touched.daysTo(QDateTime::currentDateTime()) > m_limits.partDays;
    const PartId id = Parts::idOf(part);
    // The disk may have been so full that the mark could not be taken off, and then more was written.
    if (isWhole && record.isVerified && hasHash(content.filePath(), record.sha256)) {
        QString place;
        error = moveIntoInbox(part, m_incompleteDir, m_inputDir, &m_received, &place);
        if (error.isEmpty())
            return QStringLiteral("received before the last stop: %1").arg(place);
        // It stays a part: when it is offered again, it is resumed, so that there are not two of it.
    } else if (isWhole && m_received.contains(id.peerKey, id.id, part.sha256)) {
        error = m_received.takeBack(id.peerKey, id.id); // the message is still here, so it was not received
    }
    part.isStoring = m_received.isInDoubt(id.peerKey, id.id);
    if (!part.isStoring && (!isWhole || isOld || m_parts.find(id))) {
        error = removeDirectory(path);
        return error.isEmpty() ? QStringLiteral("removed the useless part %1").arg(path) : error;
    }
    part.touchedMs = touched.toMSecsSinceEpoch();
    m_parts.insert(part);
    return error;
}

// ---- what there is ----

QVector<ReceivedMessage> Inbox::messages() const
{
    QVector<ReceivedMessage> found;
    const QStringList keys = m_inputDir.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDir::Name);
    for (const QString& key : keys) {
        const QString path = m_inputDir.absoluteFilePath(key);
        const QJsonObject json = loadRecord(path + QLatin1Char('/') + messageRecordName);
        if (json.isEmpty())
            continue;
        const MessageRecord record = MessageRecord::fromJson(json);
        ReceivedMessage message;
        message.key = key;
        message.id = record.id;
        message.abonent = record.sender.abonent;
        message.isProved = record.sender.isProved;
        message.publicKey = record.sender.publicKey;
        message.claimedName = record.sender.claimedName;
        message.fileName = record.fileName;
        message.path = path + QLatin1Char('/') + safeFileName(record.contentName);
        message.size = record.size;
        message.sha256 = record.sha256;
        message.received = record.received;
        found.append(message);
    }
    return found;
}

InboxUsage Inbox::usage() const
{
    QVector<Counted> counted;
    for (const QDir& dir : {m_inputDir, m_incompleteDir}) {
        DirectoryCount count(dir);
        count.refresh();
        counted += count.entries();
    }
    return usageOf(counted, m_limits, volumeRoom(m_incompleteDir.absolutePath()));
}

QVector<quint64> Inbox::unsettled(const Peer& peer)
{
    QMutexLocker locker(&m_mutex);
    return m_received.unsettled(peerKey(peer));
}

void Inbox::settle(const Peer& peer, const QVector<quint64>& messageIds)
{
    QMutexLocker locker(&m_mutex);
    m_received.settle(peerKey(peer), messageIds);
}

bool Inbox::isStored(const Peer& peer, quint64 messageId, const QByteArray& sha256)
{
    QMutexLocker locker(&m_mutex);
    // What this key sent before it was known here came from the same sender.
    return m_received.contains(peerKey(peer), messageId, sha256) ||
           m_received.contains(unprovedPeerKey(peer.publicKey), messageId, sha256);
}

// ---- parts ----

// A whole message that is offered again needs no more bytes.
QString Inbox::endDoubt(const PartId& id)
{
    if (!m_received.isInDoubt(id.peerKey, id.id))
        return QString();
    const QString error = m_received.takeBack(id.peerKey, id.id);
    if (error.isEmpty())
        m_parts.setStoring(id, false);
    return error;
}

std::vector<std::unique_ptr<IncomingFile>> Inbox::parts(const Peer& peer)
{
    QMutexLocker locker(&m_mutex);
    for (const PartId& id : m_parts.storing(peer))
        (void)endDoubt(id); // if that fails, it is reported when the message is offered
    std::vector<std::unique_ptr<IncomingFile>> files;
    for (const PartId& id : m_parts.of(peer)) {
        const Part* const part = m_parts.find(id);
        files.push_back(
            std::make_unique<PartFile>(this, id, part->generation, QFileInfo(m_parts.contentPathOf(*part)).size()));
    }
    return files;
}

std::unique_ptr<IncomingFile> Inbox::begin(const Peer& peer, const OfferFrame& offer, RefusedFrame* refused)
{
    QMutexLocker locker(&m_mutex);
    const PartId id = Parts::idOf(peer, offer.messageId);
    const Part* const known = m_parts.find(id);
    if (offer.messageId == noMessageId) {
        refuse(refused, RefusalCode::NotAllowed, QStringLiteral("no message has the identifier 0"));
        return nullptr;
    }
    const QString doubt = endDoubt(id);
    if (!doubt.isEmpty()) {
        refuse(refused, RefusalCode::Failed, doubt);
        return nullptr;
    }
    if (known && known->isStoring) {
        refuse(refused, RefusalCode::Failed, QStringLiteral("another call is just putting it into the inbox"));
        return nullptr;
    }
    if (m_received.contains(id.peerKey, id.id, offer.sha256)) {
        // It was stored after the session had asked. It must not be stored twice.
        refuse(refused, RefusalCode::Failed, QStringLiteral("another call has just put it into the inbox"));
        return nullptr;
    }
    if (!admits(peer, offer, 0, refused))
        return nullptr;
    std::shared_ptr<PartHolding> holding;
    const QString error = replacePart(peer, offer, &holding);
    if (!error.isEmpty()) {
        refuse(refused, RefusalCode::Failed, error);
        return nullptr;
    }
    return std::make_unique<PartFile>(this, holding);
}

// Empties the part if it is of the same message, and drops it if another message had the identifier.
QString Inbox::replacePart(const Peer& peer, const OfferFrame& offer, std::shared_ptr<PartHolding>* holding)
{
    const PartId id = Parts::idOf(peer, offer.messageId);
    const Part* known = m_parts.find(id);
    QString error;
    if (known && (known->sha256 != offer.sha256 || known->announcedBytes != offer.size)) {
        error = m_parts.drop(id);
        known = nullptr;
    }
    if (error.isEmpty() && !known) {
        m_parts.dropOldest(peer, m_limits.maxPartsOfAbonent - 1);
        error = m_parts.create(peer, offer);
    }
    return error.isEmpty() ? m_parts.hold(id, 0, holding) : error;
}

std::shared_ptr<PartHolding> Inbox::resume(const PartId& id, const OfferFrame& offer, quint64 generation,
                                           RefusedFrame* refused)
{
    QMutexLocker locker(&m_mutex);
    const Part* const part = m_parts.find(id);
    if (part && part->isStoring) {
        refuse(refused, RefusalCode::Failed, QStringLiteral("another call is just putting it into the inbox"));
        return nullptr;
    }
    // The code makes the sender begin again, as after a wrong hash.
    if (!part || part->generation != generation || part->sha256 != offer.sha256 || part->announcedBytes != offer.size ||
        QFileInfo(m_parts.contentPathOf(*part)).size() < offer.offset) {
        refuse(refused, RefusalCode::WrongHash, QStringLiteral("what stood of it has changed meanwhile"));
        return nullptr;
    }
    if (!admits(part->sender, offer, offer.offset, refused))
        return nullptr;
    std::shared_ptr<PartHolding> holding;
    const QString error = m_parts.hold(id, offer.offset, &holding);
    if (!error.isEmpty())
        refuse(refused, RefusalCode::Failed, error);
    return holding;
}

QString Inbox::openPart(const PartId& id, QFile* file)
{
    QMutexLocker locker(&m_mutex);
    return m_parts.open(id, file);
}

void Inbox::discard(PartHolding* holding)
{
    QMutexLocker locker(&m_mutex);
    {
        QMutexLocker held(&holding->mutex);
        if (holding->isLost)
            return;
    }
    (void)m_parts.drop(Parts::idOf(holding->part)); // tried again at the next start
}

QString Inbox::store(PartHolding* holding, const OfferFrame& offer, QString* place)
{
    const PartId id = Parts::idOf(holding->part);
    {
        QMutexLocker locker(&m_mutex);
        QMutexLocker held(&holding->mutex);
        if (holding->isLost)
            return QStringLiteral("another call has taken the message over");
        m_parts.setStoring(id, true);
    }
    QString error = makeDurable(holding, m_incompleteDir, offer);
    const bool isDurable = error.isEmpty();
    QMutexLocker locker(&m_mutex);
    if (isDurable)
        error = moveIntoInbox(holding->part, m_incompleteDir, m_inputDir, &m_received, place);
    if (error.isEmpty()) {
        m_parts.forget(id);
        m_inputCount.add(QFileInfo(*place).dir().dirName());
        return QString();
    }
    if (m_received.isInDoubt(id.peerKey, id.id))
        return error;
    m_parts.setStoring(id, false);
    if (isDurable)
        markUnverified(*holding, m_incompleteDir, offer);
    else
        (void)m_parts.drop(id); // after a failed sync, bytes may be lost even if a later sync succeeds
    return error;
}

} // namespace host
