#include "host/store/messagestore.h"

#include "common/global.h"
#include "host/installation/names.h"

namespace host {

StorePaths StorePaths::of(int secrecyLevel)
{
    StorePaths paths;
    paths.input = Global::inputMessagesDir(secrecyLevel);
    paths.incomplete = Global::incompleteMessagesDir(secrecyLevel);
    paths.output = Global::outputMessagesDir(secrecyLevel);
    paths.tasks = Global::tasksToTransportDir(secrecyLevel);
    paths.receivedList = Global::messagesDir(secrecyLevel).absoluteFilePath(QStringLiteral("received.list"));
    return paths;
}

MessageStore::MessageStore(const StorePaths& paths, const InboxLimits& limits)
    : m_queue(paths.output, paths.tasks), m_inbox(paths.input, paths.incomplete, paths.receivedList, limits)
{
}

QStringList MessageStore::open(QString* error)
{
    QStringList notes = m_inbox.open(error);
    if (!error->isEmpty())
        return notes;
    notes += m_queue.cleanUp();
    return notes + m_queue.rescan();
}

std::optional<OutgoingMessage> MessageStore::claimNext(const Peer& peer, const void* session)
{
    return peer.isProved ? m_queue.claimNext(abonentKey(peer.abonent), session) : std::nullopt;
}

bool MessageStore::hasUnclaimed(const Peer& peer)
{
    return peer.isProved && m_queue.hasUnclaimed(abonentKey(peer.abonent));
}

void MessageStore::releaseAll(const void* session)
{
    m_queue.releaseAll(session);
}

QSet<quint64> MessageStore::queuedIds(const Peer& peer)
{
    QSet<quint64> ids;
    if (!peer.isProved)
        return ids;
    const QString key = abonentKey(peer.abonent);
    for (const QueuedMessage& message : m_queue.messages()) {
        if (abonentKey(message.abonent) == key)
            ids.insert(message.id);
    }
    return ids;
}

std::unique_ptr<QIODevice> MessageStore::openOutgoing(const OutgoingMessage& message, QString* error)
{
    return m_queue.open(message, error);
}

QString MessageStore::delivered(const OutgoingMessage& message)
{
    return m_queue.remove(message);
}

void MessageStore::notDelivered(const OutgoingMessage& message, const QString& reason, Fault fault)
{
    WaitReason told;
    told.kind = fault == Fault::Local ? WaitReason::Kind::CopyAtFault : WaitReason::Kind::Refused;
    told.text = reason;
    if (fault == Fault::Recheck) {
        const QString damage = m_queue.verify(message);
        if (!damage.isEmpty()) {
            told.kind = WaitReason::Kind::CopyAtFault;
            told.text = damage;
        }
    }
    m_queue.setReason(message, told);
    if (told.kind == WaitReason::Kind::CopyAtFault)
        m_queue.hold(message);
}

QVector<quint64> MessageStore::unsettled(const Peer& peer)
{
    return m_inbox.unsettled(peer);
}

void MessageStore::settle(const Peer& peer, const QVector<quint64>& messageIds)
{
    m_inbox.settle(peer, messageIds);
}

bool MessageStore::isStored(const Peer& peer, quint64 messageId, const QByteArray& sha256)
{
    return m_inbox.isStored(peer, messageId, sha256);
}

std::vector<std::unique_ptr<IncomingFile>> MessageStore::parts(const Peer& peer)
{
    return m_inbox.parts(peer);
}

std::unique_ptr<IncomingFile> MessageStore::beginIncoming(const Peer& peer, const OfferFrame& offer,
                                                          RefusedFrame* refused)
{
    return m_inbox.begin(peer, offer, refused);
}

} // namespace host
