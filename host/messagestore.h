// The messages of an installation on its disk: the queue and the inbox, as sessions see them.
#pragma once

#include <functional>

#include <QString>

#include "host/inbox.h"
#include "host/outgoingqueue.h"
#include "host/sessionstore.h"

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

    // Who may exchange messages; answers an error text if not. Set it before sessions run.
    void setAbonentCheck(std::function<QString(const QString&)> check) { m_abonentCheck = std::move(check); }

    std::optional<OutgoingMessage> claimNext(const QString& abonent, const void* session) override;
    bool hasUnclaimed(const QString& abonent) override;
    void releaseAll(const void* session) override;
    std::unique_ptr<QIODevice> openOutgoing(const OutgoingMessage& message, QString* error) override;
    QString delivered(const OutgoingMessage& message) override;
    void notDelivered(const OutgoingMessage& message, const QString& reason, Fault fault) override;
    QVector<quint64> unsettled(const QString& abonent) override;
    void settle(const QVector<quint64>& messageIds) override;
    bool isStored(quint64 messageId, const QByteArray& sha256) override;
    std::vector<std::unique_ptr<IncomingFile>> parts(const QString& abonent) override;
    std::unique_ptr<IncomingFile> beginIncoming(const QString& abonent, const OfferFrame& offer, RefusedFrame* refused) override;
    QString refusesAbonent(const QString& abonent) override;

private:
    OutgoingQueue m_queue;
    Inbox m_inbox;
    std::function<QString(const QString&)> m_abonentCheck;
};

} // namespace host
