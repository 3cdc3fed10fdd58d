// Which messages were received. A message that is sent again because its acknowledgement was lost is
// acknowledged again, and not stored twice.
//
// A text file that is appended to, one line an entry:
//   + <id> <sha256> <peer's key>   stored
//   - <id> <peer's key>            not stored after all
//   s <id> <peer's key>            the sender knows: it will not come again
// An entry without a key (from an earlier version) counts for any peer. A line without its end was
// cut off by a crash and does not count.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QHash>
#include <QPair>
#include <QSet>
#include <QString>
#include <QVector>

namespace host {

// Not thread-safe: the store that owns it locks it.
class ReceivedList
{
public:
    explicit ReceivedList(const QString& path) : m_path(path) {}

    // Reads the file and rewrites it without entries that are no longer needed. An error text, empty
    // on success (a file that does not exist counts as empty).
    QString load();

    [[nodiscard]] bool contains(const QString& peerKey, quint64 id, const QByteArray& sha256) const;
    [[nodiscard]] QVector<quint64> unsettled(const QString& peerKey) const;

    // Synced to the disk when they return no error text. If writing fails and the entry cannot be
    // removed from the file either, it is in doubt: it does not count in this process, but would count
    // after the next start.
    QString add(const QString& peerKey, quint64 id, const QByteArray& sha256);
    QString takeBack(const QString& peerKey, quint64 id);
    [[nodiscard]] bool isInDoubt(const QString& peerKey, quint64 id) const { return m_inDoubt.contains({peerKey, id}); }

    // Not synced: an entry that gets lost is written again after the next session.
    void settle(const QString& peerKey, const QVector<quint64>& ids);

private:
    using Key = QPair<QString, quint64>; // two peers may use the same identifier

    struct Entry
    {
        QByteArray sha256;
        bool settled = false;
        quint64 order = 0;
    };

    void apply(const QByteArray& text);
    QString rewrite();
    QString append(const QByteArray& lines, bool sync, bool* isLeft = nullptr);
    void apply(char kind, const Key& key);
    [[nodiscard]] QVector<Key> keysInOrder() const;
    [[nodiscard]] QString openForAppending(QFile* file) const;

    const QString m_path;
    QHash<Key, Entry> m_entries;
    QSet<Key> m_inDoubt;
    quint64 m_nextOrder = 0;
    int m_linesInFile = 0;
};

} // namespace host
