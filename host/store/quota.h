// How much of the disk arriving messages may take: for each abonent, for all callers that are not
// proved together, and in total. What is in the inbox and what is being received counts; when the user
// takes a message out of the inbox, its room is free again.
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
    qint64 bytes = 0; // of the contents
    qint64 messages = 0;
    qint64 inodes = 0; // files and directories
};

// What a message takes besides its bytes: directory, content, record.
constexpr qint64 inodesOfMessage = 3;

struct InboxLimits
{
    qint64 maxMessageBytes = host::maxMessageBytes;
    qint64 keepFreeBytes = 16 * 1024 * 1024; // of the volume
    qint64 keepFreeInodes = 1000; // of the volume
    Share ofAbonent{Q_INT64_C(8) << 30, 10000, 40000};
    Share ofUnproved{16 * 1024 * 1024, 50, 200}; // of all callers that are not proved together
    Share ofAll{Q_INT64_C(32) << 30, 50000, 200000};
    int maxPartsOfAbonent = 16; // also of an unproved peer; for a new one the oldest is dropped
    int partDays = 30; // parts that were not changed for so long are removed at the start
    int strangersCountMs = 5000; // offers of unproved callers make the inbox be counted at most so often
};

// What users are shown.
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

// The share in which a peer's messages count: an abonent's key, or unprovedPool.
[[nodiscard]] QString shareKey(const Peer& peer);
extern const QString unprovedPool;

struct Counted
{
    QString shareKey;
    QString abonent;
    Share used;
};

// What each directory in a directory of messages takes. Counts only changed ones again.
class DirectoryCount
{
public:
    explicit DirectoryCount(const QDir& dir) : m_dir(dir) {}

    void refresh();
    void add(const QString& name); // a directory that is new
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
