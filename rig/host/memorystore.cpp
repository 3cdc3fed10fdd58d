#include "rig/host/memorystore.h"

#include <QBuffer>
#include <QCryptographicHash>

namespace rig {

using namespace host;

namespace {

class MemoryFile : public IncomingFile
{
public:
    MemoryFile(MemoryStore* store, quint64 id) : m_store(store), m_id(id), m_generation(store->generations[id]) {}

    quint64 messageId() const override { return m_id; }
    qint64 length() const override { return m_store->standing[m_id].size(); }

    QByteArray readBack(qint64 maxSize, QString*) override
    {
        const QByteArray bytes = m_store->standing[m_id].mid(m_read, static_cast<int>(maxSize));
        m_read += bytes.size();
        return bytes;
    }

    bool resume(const OfferFrame& offer, RefusedFrame* refused) override
    {
        QByteArray& stands = m_store->standing[m_id];
        if (m_generation != m_store->generations[m_id] || offer.offset > stands.size()) {
            refused->code = RefusalCode::WrongHash;
            refused->reason = QStringLiteral("what stood of it has changed");
            return false;
        }
        m_generation = ++m_store->generations[m_id];
        stands.truncate(static_cast<int>(offer.offset));
        return true;
    }

    QString append(const QByteArray& bytes) override
    {
        if (m_store->appendError.isEmpty())
            m_store->standing[m_id].append(bytes);
        return m_store->appendError;
    }

    QString store(const OfferFrame& offer, QString* place) override
    {
        if (!m_store->storeError.isEmpty())
            return m_store->storeError;
        m_store->inbox.push_back({m_id, offer.fileName, m_store->standing[m_id]});
        m_store->standing.erase(m_id);
        m_store->storedHashes[m_id] = offer.sha256;
        m_store->unsettledIds.insert(m_id);
        *place = QStringLiteral("memory");
        return QString();
    }

    void discard() override { m_store->standing.erase(m_id); }

private:
    MemoryStore* m_store; // not owned
    quint64 m_id;
    quint64 m_generation;
    int m_read = 0;
};

} // namespace

quint64 MemoryStore::queue(const QString& fileName, const QByteArray& content)
{
    static quint64 lastId = 0x1000;
    Outgoing entry;
    entry.message.id = ++lastId;
    entry.message.key = QString::number(entry.message.id);
    entry.message.fileName = fileName;
    entry.message.size = content.size();
    entry.message.sha256 = QCryptographicHash::hash(content, QCryptographicHash::Sha256);
    entry.content = content;
    outgoing.push_back(entry);
    return entry.message.id;
}

std::optional<OutgoingMessage> MemoryStore::claimNext(const Peer& peer, const void* session)
{
    if (!peer.isProved)
        return std::nullopt;
    for (Outgoing& entry : outgoing) {
        if (!entry.claimedBy) {
            entry.claimedBy = session;
            return entry.message;
        }
    }
    return std::nullopt;
}

bool MemoryStore::hasUnclaimed(const Peer& peer) const
{
    if (!peer.isProved)
        return false;
    for (const Outgoing& entry : outgoing) {
        if (!entry.claimedBy)
            return true;
    }
    return false;
}

void MemoryStore::releaseAll(const void* session)
{
    for (Outgoing& entry : outgoing) {
        if (entry.claimedBy == session)
            entry.claimedBy = nullptr;
    }
}

QSet<quint64> MemoryStore::queuedIds(const Peer& peer) const
{
    QSet<quint64> ids;
    if (peer.isProved) {
        for (const Outgoing& entry : outgoing)
            ids.insert(entry.message.id);
    }
    return ids;
}

std::unique_ptr<QIODevice> MemoryStore::open(const OutgoingMessage& message, QString* error) const
{
    if (!openError.isEmpty()) {
        *error = openError;
        return nullptr;
    }
    for (const Outgoing& entry : outgoing) {
        if (entry.message.id == message.id) {
            auto buffer = std::make_unique<QBuffer>();
            buffer->setData(entry.content);
            buffer->open(QIODevice::ReadOnly);
            return buffer;
        }
    }
    *error = QStringLiteral("vanished");
    return nullptr;
}

QString MemoryStore::remove(const OutgoingMessage& message)
{
    deliveredNames.append(message.fileName);
    for (auto it = outgoing.begin(); it != outgoing.end(); ++it) {
        if (it->message.id == message.id) {
            outgoing.erase(it);
            break;
        }
    }
    return QString();
}

void MemoryStore::notDelivered(const OutgoingMessage& message, const QString& reason, Fault)
{
    failures.append(message.fileName + QStringLiteral(": ") + reason);
}

QVector<quint64> MemoryStore::unsettled(const Peer&)
{
    return QVector<quint64>(unsettledIds.begin(), unsettledIds.end());
}

void MemoryStore::settle(const Peer&, const QVector<quint64>& messageIds)
{
    for (const quint64 id : messageIds)
        unsettledIds.erase(id);
}

bool MemoryStore::isStored(const Peer&, quint64 messageId, const QByteArray& sha256)
{
    const auto found = storedHashes.find(messageId);
    return found != storedHashes.end() && found->second == sha256;
}

std::vector<std::unique_ptr<IncomingFile>> MemoryStore::parts(const Peer&)
{
    std::vector<std::unique_ptr<IncomingFile>> files;
    for (const auto& entry : standing)
        files.push_back(std::make_unique<MemoryFile>(this, entry.first));
    return files;
}

std::unique_ptr<IncomingFile> MemoryStore::begin(const Peer&, const OfferFrame& offer, RefusedFrame* refused)
{
    if (refuseBegin) {
        *refused = beginRefusal;
        return nullptr;
    }
    standing[offer.messageId].clear();
    ++generations[offer.messageId];
    return std::make_unique<MemoryFile>(this, offer.messageId);
}

} // namespace rig
