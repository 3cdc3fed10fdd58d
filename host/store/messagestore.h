// The messages of an installation on its disk: the queue and the inbox, as sessions see them.
#pragma once

#include "host/session/sessionstore.h"
#include "host/store/inbox.h"
#include "host/store/outgoingqueue.h"

#include <QString>

namespace host {

// Where everything stands in the data tree of a secrecy level.
struct StorePaths
{
    QDir input;
    QDir incomplete;
    QDir output;
    QDir tasks;
    QString receivedList;

    [[nodiscard]] static StorePaths of(int secrecyLevel);
};

// Any thread may call any operation.
class MessageStore : public SessionStore
{
public:
    explicit MessageStore(const StorePaths& paths, const InboxLimits& limits = {});

    // Call it once, in the one program that serves the installation. Texts for the journal;
    // *error is set when the store cannot be used.
    QStringList open(QString* error);

    OutgoingQueue& queue() { return m_queue; }
    Inbox& inbox() { return m_inbox; }

    std::optional<OutgoingMessage> claimNext(const Peer& peer, const void* session) override;
    bool hasUnclaimed(const Peer& peer) override;
    void releaseAll(const void* session) override;
    QSet<quint64> queuedIds(const Peer& peer) override;
    std::unique_ptr<QIODevice> openOutgoing(const OutgoingMessage& message, QString* error) override;
    QString delivered(const OutgoingMessage& message) override;
    void notDelivered(const OutgoingMessage& message, const QString& reason, Fault fault) override;
    QVector<quint64> unsettled(const Peer& peer) override;
    void settle(const Peer& peer, const QVector<quint64>& messageIds) override;
    bool isStored(const Peer& peer, quint64 messageId, const QByteArray& sha256) override;
    std::vector<std::unique_ptr<IncomingFile>> parts(const Peer& peer) override;
    std::unique_ptr<IncomingFile> beginIncoming(const Peer& peer, const OfferFrame& offer,
                                                RefusedFrame* refused) override;

private:
    OutgoingQueue m_queue;
    Inbox m_inbox;
};

} // namespace host
