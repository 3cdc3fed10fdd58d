#include "host/messagestore.h"

#include "common/global.h"
#include "host/names.h"

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
    m_queue.cleanUp();
    return notes + m_queue.rescan();
}

std::optional<OutgoingMessage> MessageStore::claimNext(const QString& abonent, const void* session)
{
    return m_queue.claimNext(abonentKey(abonent), session);
}

bool MessageStore::hasUnclaimed(const QString& abonent)
{
    return m_queue.hasUnclaimed(abonentKey(abonent));
}

void MessageStore::releaseAll(const void* session)
{
    m_queue.releaseAll(session);
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
    QString shown = reason;
    bool isOurs = fault == Fault::Local;
    if (fault == Fault::Recheck) {
        const QString damage = m_queue.verify(message);
        isOurs = !damage.isEmpty();
        if (isOurs)
            shown = damage;
    }
    m_queue.setReason(message, shown);
    if (isOurs)
        m_queue.hold(message);
}

QVector<quint64> MessageStore::unsettled(const QString& abonent)
{
    return m_inbox.unsettled(abonent);
}

void MessageStore::settle(const QVector<quint64>& messageIds)
{
    m_inbox.settle(messageIds);
}

bool MessageStore::isStored(quint64 messageId, const QByteArray& sha256)
{
    return m_inbox.isStored(messageId, sha256);
}

std::vector<std::unique_ptr<IncomingFile>> MessageStore::parts(const QString& abonent)
{
    return m_inbox.parts(abonent);
}

std::unique_ptr<IncomingFile> MessageStore::beginIncoming(const QString& abonent, const OfferFrame& offer, RefusedFrame* refused)
{
    return m_inbox.begin(abonent, offer, refused);
}

QString MessageStore::refusesAbonent(const QString& abonent)
{
    if (!isValidAbonentName(abonent))
        return QStringLiteral("the name given is not valid");
    return m_abonentCheck ? m_abonentCheck(abonent) : QString();
}

} // namespace host
