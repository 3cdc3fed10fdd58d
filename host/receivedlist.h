// Which messages were received: so that one that is sent again, because its acknowledgement
// was lost, is acknowledged and not stored twice.
//
// A text file that is appended to, one line an entry:
//   + <id> <sha256> <abonent's key>   stored
//   - <id>                            not stored after all
//   s <id>                            the sender knows: it will not come again
// A line without its end was torn by a crash and does not count.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QVector>

namespace host {

// Not locked: the store that owns it does that.
class ReceivedList
{
public:
    explicit ReceivedList(const QString& path) : m_path(path) {}

    // Reads the file and writes it anew without what is no longer needed. An error text,
    // empty on success (a file that does not exist is empty).
    QString load();

    [[nodiscard]] bool contains(quint64 id, const QByteArray& sha256) const;
    [[nodiscard]] QVector<quint64> unsettled(const QString& abonentKey) const;

    // On the disk when they return without an error text.
    QString add(quint64 id, const QByteArray& sha256, const QString& abonentKey);
    QString takeBack(quint64 id);

    // Not synced: what gets lost is settled again.
    void settle(const QVector<quint64>& ids);

private:
    struct Entry
    {
        QByteArray sha256;
        QString abonentKey;
        bool settled = false;
        quint64 order = 0;
    };

    void apply(const QByteArray& line);
    QString rewrite();
    QString append(const QByteArray& lines, bool sync);
    QVector<quint64> idsInOrder() const;

    const QString m_path;
    QHash<quint64, Entry> m_entries;
    quint64 m_nextOrder = 0;
    int m_linesInFile = 0;
};

} // namespace host
