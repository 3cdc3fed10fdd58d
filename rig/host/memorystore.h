// A message store in memory for the tests of the session: it survives its sessions as
// files survive a process, and fails where a test tells it to.
#pragma once

#include "host/session/sessionstore.h"
#include "rig/host/peers.h"

#include <QStringList>

#include <map>
#include <mutex>
#include <set>

namespace rig {

struct InboxEntry
{
    quint64 id = 0;
    QString fileName;
    QByteArray content;
};

class MemoryStore : public host::OutgoingStore, public host::IncomingStore
{
public:
    // Queues a message for whoever connects and is proved.
    quint64 queue(const QString& fileName, const QByteArray& content);

    std::optional<host::OutgoingMessage> claimNext(const host::Peer& peer, const void* session) override;
    bool hasUnclaimed(const host::Peer& peer) const override;
    void releaseAll(const void* session) override;
    QSet<quint64> queuedIds(const host::Peer& peer) const override;
    std::unique_ptr<QIODevice> open(const host::OutgoingMessage& message, QString* error) const override;
    QString remove(const host::OutgoingMessage& message) override;
    void notDelivered(const host::OutgoingMessage& message, const QString& reason, Fault fault) override;
    QVector<quint64> unsettled(const host::Peer& peer) override;
    void settle(const host::Peer& peer, const QVector<quint64>& messageIds) override;
    bool isStored(const host::Peer& peer, quint64 messageId, const QByteArray& sha256) override;
    std::vector<std::unique_ptr<host::IncomingFile>> parts(const host::Peer& peer) override;
    std::unique_ptr<host::IncomingFile> begin(const host::Peer& peer, const host::OfferFrame& offer,
                                              host::RefusedFrame* refused) override;

    host::SessionStore forSessions() { return {this, this}; }

    struct Outgoing
    {
        host::OutgoingMessage message;
        QByteArray content;
        const void* claimedBy = nullptr;
    };

    std::vector<Outgoing> outgoing;
    std::vector<InboxEntry> inbox;
    std::map<quint64, QByteArray> standing; // parts
    std::map<quint64, quint64> generations; // of the parts
    std::map<quint64, QByteArray> storedHashes;
    std::set<quint64> unsettledIds;
    QStringList failures; // "<file name>: <reason>"
    QStringList deliveredNames;

    // What goes wrong.
    QString openError; // of every queued copy
    QString appendError;
    QString storeError;
    host::RefusedFrame beginRefusal;
    bool refuseBegin = false;
};

} // namespace rig
