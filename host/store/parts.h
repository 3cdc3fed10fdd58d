// The parts of messages in the incomplete directory: whom they came from, which session holds them,
// how often they were resumed.
#pragma once

#include "host/session/peer.h"
#include "host/session/sessionframes.h"
#include "host/store/messagerecord.h"
#include "host/store/quota.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QMutex>
#include <QPair>
#include <QString>

#include <memory>
#include <vector>

namespace host {

struct PartHolding;

struct Part
{
    quint64 id = 0;
    Peer sender;
    QString key; // the directory's name
    QString contentName;
    QByteArray sha256;
    qint64 announcedBytes = 0; // of the whole message
    qint64 touchedMs = 0;
    quint64 generation = 0; // changes each time the part is begun or resumed
    bool isStoring = false; // it is being put into the inbox: no session may hold it
    std::weak_ptr<PartHolding> holder;
};

// A session's hold on a part. Another session may take the part over.
struct PartHolding
{
    Part part;
    QMutex mutex; // guards the rest
    bool isLost = false;
    QFile file;
    QString path; // of the file
};

// Two peers may use the same identifier for different messages.
struct PartId
{
    QString peerKey;
    quint64 id = 0;
};

// Not thread-safe: the inbox that owns it locks it.
class Parts
{
public:
    explicit Parts(const QDir& dir) : m_dir(dir) {}

    [[nodiscard]] static PartId idOf(const Peer& peer, quint64 id) { return {peerKey(peer), id}; }
    [[nodiscard]] static PartId idOf(const Part& part) { return idOf(part.sender, part.id); }

    [[nodiscard]] const Part* find(const PartId& id) const;
    [[nodiscard]] std::vector<PartId> of(const Peer& peer) const; // without those being stored
    [[nodiscard]] std::vector<PartId> storing(const Peer& peer) const;
    // A part that is held counts with the size that was announced.
    [[nodiscard]] QVector<Counted> countedWithout(const std::vector<PartId>& without) const;
    [[nodiscard]] qint64 promisedBytes() const; // that sessions have yet to write to the parts they hold

    void insert(const Part& part);
    void forget(const PartId& id);
    void setStoring(const PartId& id, bool isStoring);

    // Makes a directory, an empty file and a record of what was announced. An error text, or empty.
    QString create(const Peer& sender, const OfferFrame& offer);

    // Takes the part from the session that holds it and removes it from the disk.
    QString drop(const PartId& id);

    // The oldest part that no session holds.
    [[nodiscard]] std::vector<PartId> idle(const QString& shareKey) const;
    [[nodiscard]] Share shareOf(const PartId& id) const;
    void dropOldest(const Peer& peer, int keep);

    // Opens the part's file for writing after its first length bytes. Fails when it is shorter.
    QString hold(const PartId& id, qint64 length, std::shared_ptr<PartHolding>* holding);

    // Opens it for reading, from its beginning.
    QString open(const PartId& id, QFile* file) const;

    [[nodiscard]] QString pathOf(const Part& part) const { return m_dir.absoluteFilePath(part.key); }
    [[nodiscard]] QString contentPathOf(const Part& part) const
    {
        return pathOf(part) + QLatin1Char('/') + part.contentName;
    }

private:
    using Key = QPair<QString, quint64>;

    static Key keyOf(const PartId& id) { return {id.peerKey, id.id}; }
    QString fill(const OfferFrame& offer, Part* part);
    void takeAway(const Part& part);
    [[nodiscard]] std::vector<PartId> selected(const Peer& peer, bool isStoring) const;

    const QDir m_dir;
    QHash<Key, Part> m_parts;
    quint64 m_lastGeneration = 0;
};

} // namespace host
