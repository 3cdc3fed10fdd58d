#include "host/store/receivedlist.h"

#include "common/global.h"
#include "host/installation/diskfile.h"
#include "host/installation/opendirectory.h"
#include "host/session/sessionframes.h"
#include "host/store/quota.h"

#include <QFileInfo>

#include <algorithm>

namespace host {

namespace {

// Settled entries are only needed if a sender returns to an old backup.
constexpr int keptSettled = 1000; // of each peer; of all that are not proved together
constexpr int maxNeedlessLines = 10000;

// An unproved peer can make as many keys as it likes.
QString sharedBy(const QString& peerKey)
{
    return peerKey.startsWith(unprovedPool) ? unprovedPool : peerKey;
}

QByteArray encoded(const QString& peerKey)
{
    return peerKey.toUtf8().toPercentEncoding();
}

QByteArray line(char kind, const QString& peerKey, quint64 id)
{
    return kind + (' ' + idText(id).toLatin1() + ' ' + encoded(peerKey) + '\n');
}

QByteArray storedLine(const QString& peerKey, quint64 id, const QByteArray& sha256)
{
    return "+ " + idText(id).toLatin1() + ' ' + sha256.toHex() + ' ' + encoded(peerKey) + '\n';
}

} // namespace

QString ReceivedList::load()
{
    const QString recovery = Global::recoverSaving(m_path);
    if (!recovery.isEmpty())
        return recovery;
    m_entries.clear();
    const QFileInfo info(m_path);
    if (!info.exists() && !info.isSymLink())
        return QString();
    QString error;
    const OpenDirectory directory = OpenDirectory::at(info.absolutePath(), &error);
    if (!directory.isOpen())
        return error;
    QFile file;
    error = directory.openForReading(info.fileName(), &file);
    if (!error.isEmpty())
        return error;
    while (!file.atEnd()) {
        const QByteArray text = file.readLine();
        if (text.endsWith('\n'))
            apply(text.trimmed());
    }
    file.close();
    return rewrite();
}

void ReceivedList::apply(const QByteArray& text)
{
    const QList<QByteArray> words = text.split(' ');
    if (words.size() < 2 || words.at(0).size() != 1)
        return;
    const char kind = words.at(0).at(0);
    const quint64 id = idFromText(QString::fromLatin1(words.at(1)));
    const bool isStored = kind == '+' && words.size() == 4;
    const QString peerKey = QString::fromUtf8(QByteArray::fromPercentEncoding(isStored ? words.at(3) : words.value(2)));
    if (id == noMessageId)
        return;
    if (isStored) {
        Entry& entry = m_entries[{peerKey, id}];
        entry.sha256 = QByteArray::fromHex(words.at(2));
        entry.settled = false;
        entry.order = m_nextOrder++;
    } else if (words.size() == 3) {
        apply(kind, {peerKey, id});
    } else {
        for (const Key& key : keysInOrder()) {
            if (key.second == id)
                apply(kind, key);
        }
    }
}

void ReceivedList::apply(char kind, const Key& key)
{
    if (kind == '-')
        m_entries.remove(key);
    else if (kind == 's' && m_entries.contains(key))
        m_entries[key].settled = true;
}

QVector<ReceivedList::Key> ReceivedList::keysInOrder() const
{
    QVector<Key> keys;
    for (auto it = m_entries.cbegin(); it != m_entries.cend(); ++it)
        keys.append(it.key());
    std::sort(keys.begin(), keys.end(),
              [this](const Key& a, const Key& b) { return m_entries[a].order < m_entries[b].order; });
    return keys;
}

QString ReceivedList::rewrite()
{
    const QVector<Key> keys = keysInOrder();
    QHash<QString, int> settledCounts;
    for (const Key& key : keys)
        settledCounts[sharedBy(key.first)] += m_entries[key].settled ? 1 : 0;
    QByteArray lines;
    m_linesInFile = 0;
    for (const Key& key : keys) {
        const Entry& entry = m_entries[key];
        if (entry.settled && settledCounts[sharedBy(key.first)]-- > keptSettled) {
            m_entries.remove(key);
            continue;
        }
        lines += storedLine(key.first, key.second, entry.sha256);
        if (entry.settled)
            lines += line('s', key.first, key.second);
        ++m_linesInFile;
    }
    return Global::safeSaving(m_path, lines);
}

bool ReceivedList::contains(const QString& peerKey, quint64 id, const QByteArray& sha256) const
{
    const auto found = m_entries.constFind({peerKey, id});
    return found != m_entries.constEnd() && found->sha256 == sha256;
}

QVector<quint64> ReceivedList::unsettled(const QString& peerKey) const
{
    QVector<quint64> ids;
    for (const Key& key : keysInOrder()) {
        if (key.first == peerKey && !m_entries[key].settled)
            ids.append(key.second);
    }
    return ids;
}

QString ReceivedList::add(const QString& peerKey, quint64 id, const QByteArray& sha256)
{
    const QByteArray text = storedLine(peerKey, id, sha256);
    bool isLeft = false;
    const QString error = append(text, true, &isLeft);
    if (error.isEmpty()) {
        apply(text.trimmed());
        m_inDoubt.remove({peerKey, id});
    } else if (isLeft) {
        m_inDoubt.insert({peerKey, id});
    }
    return error;
}

QString ReceivedList::takeBack(const QString& peerKey, quint64 id)
{
    m_entries.remove({peerKey, id});
    const QString error = append(line('-', peerKey, id), true);
    if (error.isEmpty())
        m_inDoubt.remove({peerKey, id});
    else
        m_inDoubt.insert({peerKey, id});
    return error;
}

void ReceivedList::settle(const QString& peerKey, const QVector<quint64>& ids)
{
    QByteArray lines;
    for (const quint64 id : ids) {
        const auto found = m_entries.find({peerKey, id});
        if (found == m_entries.end() || found->settled)
            continue;
        found->settled = true;
        lines += line('s', peerKey, id);
    }
    if (!lines.isEmpty())
        (void)append(lines, false); // a lost line is written again after the next session
    if (m_linesInFile > m_entries.size() + maxNeedlessLines)
        (void)rewrite();
}

QString ReceivedList::openForAppending(QFile* file) const
{
    const QFileInfo info(m_path);
    QString error;
    const OpenDirectory directory = OpenDirectory::at(info.absolutePath(), &error);
    return directory.isOpen() ? directory.openForWriting(info.fileName(), file) : error;
}

// *isLeft: it failed, and yet the entry may be in the file.
QString ReceivedList::append(const QByteArray& lines, bool sync, bool* isLeft)
{
    const QFileInfo info(m_path);
    if (!info.exists() && !info.isSymLink()) {
        const QString error = rewrite();
        if (!error.isEmpty())
            return error;
    }
    QFile file;
    QString error = openForAppending(&file);
    if (!error.isEmpty())
        return error;
    const qint64 size = file.size();
    file.seek(size);
    if (file.write(lines) != lines.size())
        error = file.errorString();
    else if (sync)
        error = syncFile(&file);
    if (!error.isEmpty()) {
        // Otherwise the beginning of the next line would be joined to the cut one.
        const bool isUndone = file.resize(size);
        if (isLeft)
            *isLeft = !isUndone;
        return QStringLiteral("cannot write %1: %2").arg(m_path, error);
    }
    m_linesInFile += lines.count('\n');
    return QString();
}

} // namespace host
