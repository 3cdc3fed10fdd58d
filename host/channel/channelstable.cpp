#include "host/channel/channelstable.h"

#include <QMutexLocker>

namespace host {

int ChannelsTable::addChannel(int type, const QString& name, const QString& state)
{
    ChannelRow row;
    row.type = type;
    row.name = name;
    row.state = state;
    {
        QMutexLocker locker(&m_mutex);
        row.id = m_nextId++;
        m_rows.append(row);
    }
    if (m_listener)
        m_listener(row);
    return row.id;
}

void ChannelsTable::removeChannel(int id)
{
    ChannelRow gone;
    {
        QMutexLocker locker(&m_mutex);
        ChannelRow* row = find(id);
        if (!row)
            return;
        gone = *row;
        gone.isGone = true;
        m_rows.removeAt(static_cast<int>(row - m_rows.data()));
    }
    if (m_listener)
        m_listener(gone);
}

ChannelRow* ChannelsTable::find(int id)
{
    for (ChannelRow& row : m_rows) {
        if (row.id == id)
            return &row;
    }
    return nullptr;
}

void ChannelsTable::setState(int id, const QString& text)
{
    ChannelRow changed;
    {
        QMutexLocker locker(&m_mutex);
        ChannelRow* row = find(id);
        if (!row || row->state == text)
            return;
        row->state = text;
        changed = *row;
    }
    if (m_listener)
        m_listener(changed);
}

void ChannelsTable::addReceivedBytes(int id, int bytes)
{
    QMutexLocker locker(&m_mutex);
    if (ChannelRow* row = find(id))
        row->receivedBytes += bytes;
}

void ChannelsTable::addSentBytes(int id, int bytes)
{
    QMutexLocker locker(&m_mutex);
    if (ChannelRow* row = find(id))
        row->sentBytes += bytes;
}

// Two rows may have the same name, but only one of them can have the port open.
qint64 ChannelsTable::sentBytes(const QString& name) const
{
    QMutexLocker locker(&m_mutex);
    qint64 bytes = 0;
    for (const ChannelRow& row : m_rows)
        bytes += row.name == name ? row.sentBytes : 0;
    return bytes;
}

QVector<ChannelRow> ChannelsTable::rows() const
{
    // A deep copy: rows that are shared with the reader would be released by it without the lock.
    QMutexLocker locker(&m_mutex);
    QVector<ChannelRow> copy = m_rows;
    copy.detach();
    return copy;
}

} // namespace host
