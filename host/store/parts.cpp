#include "host/store/parts.h"

#include "host/installation/diskfile.h"
#include "host/installation/names.h"
#include "host/installation/opendirectory.h"

#include <QDateTime>
#include <QFileInfo>
#include <QJsonDocument>
#include <QMutexLocker>

#include <algorithm>

namespace host {

namespace {

const QString plainContentName = QStringLiteral("file"); // any file system can hold it

} // namespace

const Part* Parts::find(const PartId& id) const
{
    const auto found = m_parts.constFind(keyOf(id));
    return found == m_parts.constEnd() ? nullptr : &*found;
}

std::vector<PartId> Parts::of(const Peer& peer) const
{
    return selected(peer, false);
}

std::vector<PartId> Parts::storing(const Peer& peer) const
{
    return selected(peer, true);
}

std::vector<PartId> Parts::selected(const Peer& peer, bool isStoring) const
{
    std::vector<PartId> found;
    const QString key = peerKey(peer);
    for (auto it = m_parts.cbegin(); it != m_parts.cend(); ++it) {
        if (it.key().first == key && it->isStoring == isStoring)
            found.push_back({key, it->id});
    }
    return found;
}

void Parts::insert(const Part& part)
{
    Part& mine = m_parts[keyOf(idOf(part))];
    mine = part;
    mine.generation = ++m_lastGeneration;
}

void Parts::forget(const PartId& id)
{
    m_parts.remove(keyOf(id));
}

void Parts::setStoring(const PartId& id, bool isStoring)
{
    const auto found = m_parts.find(keyOf(id));
    if (found != m_parts.end())
        found->isStoring = isStoring;
}

// ---- what they take ----

Share Parts::shareOf(const PartId& id) const
{
    const Part* const part = find(id);
    if (!part)
        return Share();
    const bool isGrowing = part->isStoring || !part->holder.expired();
    return {isGrowing ? part->announcedBytes : QFileInfo(contentPathOf(*part)).size(), 1, inodesOfMessage};
}

QVector<Counted> Parts::countedWithout(const std::vector<PartId>& without) const
{
    QVector<Counted> found;
    for (auto it = m_parts.cbegin(); it != m_parts.cend(); ++it) {
        const auto isIt = [&](const PartId& id) { return keyOf(id) == it.key(); };
        if (std::none_of(without.begin(), without.end(), isIt))
            found.append({shareKey(it->sender), it->sender.abonent, shareOf(idOf(*it))});
    }
    return found;
}

qint64 Parts::promisedBytes() const
{
    qint64 promised = 0;
    for (const Part& part : m_parts) {
        if (!part.holder.expired())
            promised += qMax<qint64>(0, part.announcedBytes - QFileInfo(contentPathOf(part)).size());
    }
    return promised;
}

std::vector<PartId> Parts::idle(const QString& key) const
{
    std::vector<const Part*> found;
    for (const Part& part : m_parts) {
        if (shareKey(part.sender) == key && part.holder.expired() && !part.isStoring)
            found.push_back(&part);
    }
    std::sort(found.begin(), found.end(), [](const Part* a, const Part* b) { return a->touchedMs < b->touchedMs; });
    std::vector<PartId> ids;
    for (const Part* part : found)
        ids.push_back(idOf(*part));
    return ids;
}

// A peer must not fill the disk by beginning one message after another.
void Parts::dropOldest(const Peer& peer, int keep)
{
    const QString key = peerKey(peer);
    int left = 0;
    for (auto it = m_parts.cbegin(); it != m_parts.cend(); ++it)
        left += it.key().first == key ? 1 : 0;
    for (const PartId& id : idle(shareKey(peer))) {
        if (left <= keep)
            return;
        if (id.peerKey == key && drop(id).isEmpty())
            --left;
    }
}

// ---- the disk ----

QString Parts::create(const Peer& sender, const OfferFrame& offer)
{
    QString error;
    const OpenDirectory dir = OpenDirectory::at(m_dir.absolutePath(), &error);
    if (!dir.isOpen())
        return error;
    Part part;
    part.id = offer.messageId;
    part.sender = sender;
    part.sha256 = offer.sha256;
    part.announcedBytes = offer.size;
    part.touchedMs = QDateTime::currentMSecsSinceEpoch();
    part.key = nextMessageName(m_dir);
    if (part.key.isEmpty())
        return QStringLiteral("no free message number in %1").arg(m_dir.absolutePath());
    error = dir.makeDirectory(part.key);
    if (!error.isEmpty())
        return error;
    error = fill(offer, &part);
    if (!error.isEmpty()) {
        const QString removal = dir.removeTree(part.key);
        return removal.isEmpty() ? error : error + QStringLiteral("; ") + removal;
    }
    insert(part);
    return QString();
}

// It is not synced: a part that a power failure damages begins again from its first byte.
QString Parts::fill(const OfferFrame& offer, Part* part)
{
    QString error;
    const OpenDirectory directory = OpenDirectory::at(pathOf(*part), &error);
    if (!directory.isOpen())
        return error;
    QFile content;
    part->contentName = safeFileName(offer.fileName);
    if (!directory.createFile(part->contentName, &content).isEmpty()) {
        // The file system may not be able to hold the name.
        part->contentName = plainContentName;
        error = directory.createFile(part->contentName, &content);
        if (!error.isEmpty())
            return error;
    }
    QFile record;
    error = directory.createFile(messageRecordName, &record);
    if (!error.isEmpty())
        return error;
    const QByteArray bytes = QJsonDocument(MessageRecord::of(part->sender, offer, part->contentName).toJson()).toJson();
    if (record.write(bytes) == bytes.size())
        return QString();
    return QStringLiteral("cannot write %1: %2").arg(directory.pathOf(messageRecordName), record.errorString());
}

void Parts::takeAway(const Part& part)
{
    if (const std::shared_ptr<PartHolding> holder = part.holder.lock()) {
        QMutexLocker held(&holder->mutex);
        holder->isLost = true;
        holder->file.close();
    }
}

QString Parts::drop(const PartId& id)
{
    const Part* const part = find(id);
    if (!part)
        return QString();
    takeAway(*part);
    const QString error = removeDirectory(pathOf(*part));
    if (error.isEmpty())
        m_parts.remove(keyOf(id));
    return error;
}

QString Parts::open(const PartId& id, QFile* file) const
{
    const Part* const part = find(id);
    QString error = QStringLiteral("the part has gone");
    if (!part)
        return error;
    const OpenDirectory directory = OpenDirectory::at(pathOf(*part), &error);
    return directory.isOpen() ? directory.openForReading(part->contentName, file) : error;
}

QString Parts::hold(const PartId& id, qint64 length, std::shared_ptr<PartHolding>* holding)
{
    const auto found = m_parts.find(keyOf(id));
    if (found == m_parts.end())
        return QStringLiteral("the part has gone");
    takeAway(*found);
    found->generation = ++m_lastGeneration;
    auto mine = std::make_shared<PartHolding>();
    QString error;
    const OpenDirectory directory = OpenDirectory::at(pathOf(*found), &error);
    if (!directory.isOpen())
        return error;
    error = directory.openForWriting(found->contentName, &mine->file);
    if (!error.isEmpty())
        return error;
    mine->path = contentPathOf(*found);
    if (mine->file.size() < length)
        return QStringLiteral("%1 is shorter than it was").arg(mine->path);
    if (!mine->file.resize(length) || !mine->file.seek(length))
        return QStringLiteral("cannot write %1: %2").arg(mine->path, mine->file.errorString());
    found->touchedMs = QDateTime::currentMSecsSinceEpoch();
    found->holder = mine;
    mine->part = *found;
    *holding = mine;
    return QString();
}

} // namespace host
