// How much of the disk messages that arrive may take: for each abonent, for all callers that
// are not proved together, and in all. Counted is what stands in the inbox and what is being
// received; what the user takes out of the inbox is free again.
#pragma once

#include "host/session/peer.h"
#include "host/session/sessionframes.h"
#include "host/store/volume.h"

#include <QDir>
#include <QElapsedTimer>
#include <QHash>
#include <QString>
#include <QVector>

namespace host {

struct Share
{
    qint64 bytes = 0; // of contents
    qint64 messages = 0;
    qint64 inodes = 0; // files and directories
};

// What a message adds beside its bytes: directory, content, record.
constexpr qint64 inodesOfMessage = 3;

struct InboxLimits
{
    qint64 maxMessageBytes = host::maxMessageBytes;
    qint64 keepFreeBytes = 16 * 1024 * 1024; // of the volume
    qint64 keepFreeInodes = 1000; // of the volume
    Share ofAbonent{Q_INT64_C(8) << 30, 10000, 40000};
    Share ofUnproved{16 * 1024 * 1024, 50, 200}; // all of them together
    Share ofAll{Q_INT64_C(32) << 30, 50000, 200000};
    int maxPartsOfAbonent = 16; // of an unproved peer, too; the oldest give way
    int partDays = 30; // untouched parts are removed at the start
    int strangersCountMs = 5000; // before a caller that is not proved makes the inbox be counted again
};

// For those who are shown it.
struct InboxUsage
{
    struct AbonentShare
    {
        QString abonent;
        Share used;
    };

    InboxLimits limits;
    QVector<AbonentShare> abonents; // those who have anything in the inbox
    Share unproved;
    Share all;
    VolumeRoom room;
};

// Whose share something counts in: an abonent's key, or unprovedPool.
[[nodiscard]] QString shareKey(const Peer& peer);
extern const QString unprovedPool;

struct Counted
{
    QString shareKey;
    QString abonent;
    Share used;
};

// What each directory of a directory of messages takes. Counts again only what has changed.
class DirectoryCount
{
public:
    explicit DirectoryCount(const QDir& dir) : m_dir(dir) {}

    void refresh();
    void add(const QString& name); // of one directory that has come
    [[nodiscard]] bool isOlderThan(int ms) const { return !m_sinceRefresh.isValid() || m_sinceRefresh.hasExpired(ms); }
    [[nodiscard]] QVector<Counted> entries() const;

private:
    struct Entry
    {
        Counted counted;
        qint64 changedNs = 0; // of the directory
        qint64 countedNs = 0;
    };

    void count(const QString& name, QHash<QString, Entry>* entries) const;

    const QDir m_dir;
    QHash<QString, Entry> m_entries;
    QElapsedTimer m_sinceRefresh;
};

[[nodiscard]] Share operator+(const Share& a, const Share& b);
[[nodiscard]] bool fits(const Share& wanted, const Share& limit);
[[nodiscard]] InboxUsage usageOf(const QVector<Counted>& counted, const InboxLimits& limits, const VolumeRoom& room);

} // namespace host
