#include "host/receivedlist.h"

#include "common/global.h"
#include "host/diskfile.h"

#include <algorithm>

#include <QFile>
#include <QFileInfo>

namespace host {

namespace {

// Settled entries are of no more use unless a sender is set back to an old backup.
constexpr int keptSettled = 1000;
constexpr int maxNeedlessLines = 10000;

QByteArray idLine(char kind, quint64 id)
{
    return kind + (' ' + idText(id).toLatin1() + '\n');
}

} // namespace

QString ReceivedList::load()
{
    const QString recovery = Global::recoverSaving(m_path);
    if (!recovery.isEmpty())
        return recovery;
    m_entries.clear();
    QFile file(m_path);
    if (!file.exists())
        return QString();
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read %1: %2").arg(m_path, file.errorString());
    while (!file.atEnd()) {
        const QByteArray line = file.readLine();
        if (line.endsWith('\n'))
            apply(line.trimmed());
    }
    file.close();
    return rewrite();
}

void ReceivedList::apply(const QByteArray& line)
{
    const QList<QByteArray> words = line.split(' ');
    if (words.size() < 2)
        return;
    const quint64 id = idFromText(QString::fromLatin1(words.at(1)));
    if (id == 0)
        return;
    if (words.at(0) == "+" && words.size() == 4) {
        Entry& entry = m_entries[id];
        entry.sha256 = QByteArray::fromHex(words.at(2));
        entry.abonentKey = QString::fromUtf8(QByteArray::fromPercentEncoding(words.at(3)));
        entry.settled = false;
        entry.order = m_nextOrder++;
    } else if (words.at(0) == "-") {
        m_entries.remove(id);
    } else if (words.at(0) == "s" && m_entries.contains(id)) {
        m_entries[id].settled = true;
    }
}

QVector<quint64> ReceivedList::idsInOrder() const
{
    QVector<quint64> ids;
    for (auto it = m_entries.cbegin(); it != m_entries.cend(); ++it)
        ids.append(it.key());
    std::sort(ids.begin(), ids.end(), [this](quint64 a, quint64 b) { return m_entries[a].order < m_entries[b].order; });
    return ids;
}

QString ReceivedList::rewrite()
{
    QVector<quint64> ids = idsInOrder();
    int settledCount = static_cast<int>(std::count_if(ids.cbegin(), ids.cend(), [this](quint64 id) { return m_entries[id].settled; }));
    QByteArray lines;
    m_linesInFile = 0;
    for (const quint64 id : ids) {
        const Entry& entry = m_entries[id];
        if (entry.settled && settledCount-- > keptSettled) {
            m_entries.remove(id);
            continue;
        }
        lines += "+ " + idText(id).toLatin1() + ' ' + entry.sha256.toHex() + ' ' + entry.abonentKey.toUtf8().toPercentEncoding() + '\n';
        if (entry.settled)
            lines += idLine('s', id);
        ++m_linesInFile;
    }
    return Global::safeSaving(m_path, lines);
}

bool ReceivedList::contains(quint64 id, const QByteArray& sha256) const
{
    const auto found = m_entries.constFind(id);
    return found != m_entries.constEnd() && found->sha256 == sha256;
}

QVector<quint64> ReceivedList::unsettled(const QString& abonentKey) const
{
    QVector<quint64> ids;
    for (const quint64 id : idsInOrder()) {
        const Entry& entry = m_entries[id];
        if (!entry.settled && entry.abonentKey == abonentKey)
            ids.append(id);
    }
    return ids;
}

QString ReceivedList::add(quint64 id, const QByteArray& sha256, const QString& abonentKey)
{
    const QByteArray line = "+ " + idText(id).toLatin1() + ' ' + sha256.toHex() + ' ' + abonentKey.toUtf8().toPercentEncoding() + '\n';
    const QString error = append(line, true);
    if (error.isEmpty())
        apply(line.trimmed());
    return error;
}

QString ReceivedList::takeBack(quint64 id)
{
    m_entries.remove(id);
    return append(idLine('-', id), true);
}

void ReceivedList::settle(const QVector<quint64>& ids)
{
    QByteArray lines;
    for (const quint64 id : ids) {
        const auto found = m_entries.find(id);
        if (found == m_entries.end() || found->settled)
            continue;
        found->settled = true;
        lines += idLine('s', id);
    }
    if (!lines.isEmpty())
        (void)append(lines, false); // a lost line is settled again in the next session
    if (m_linesInFile > m_entries.size() + maxNeedlessLines)
        (void)rewrite();
}

QString ReceivedList::append(const QByteArray& lines, bool sync)
{
    if (!QFile::exists(m_path)) {
        const QString error = rewrite();
        if (!error.isEmpty())
            return error;
    }
    QFile file(m_path);
    if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
        return QStringLiteral("cannot write %1: %2").arg(m_path, file.errorString());
    const qint64 size = file.size();
    file.seek(size);
    QString error;
    if (file.write(lines) != lines.size())
        error = QStringLiteral("cannot write %1: %2").arg(m_path, file.errorString());
    else if (sync)
        error = syncFile(&file);
    if (!error.isEmpty()) {
        // A torn line would swallow the beginning of the next one.
        file.resize(size);
        return error;
    }
    m_linesInFile += lines.count('\n');
    return QString();
}

} // namespace host
