// One ordered record of everything that the code under test called, from all threads.
#pragma once

#include <QMutex>
#include <QString>
#include <QStringList>

namespace rig {

class CallLog
{
public:
    void add(const QString& entry);
    QStringList entries() const;
    // The entries that begin with prefix, in order.
    QStringList entriesWith(const QString& prefix) const;
    bool contains(const QString& entry) const;
    int count(const QString& entry) const;
    void clear();

    // Wait (running events) until entry is there, or there that many times.
    bool waitForEntry(const QString& entry, int times = 1, int deadlineMs = -1) const;

private:
    mutable QMutex m_mutex;
    QStringList m_entries;
};

} // namespace rig
