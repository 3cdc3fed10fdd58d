#include "rig/calllog.h"

#include "rig/deadline.h"

#include <QMutexLocker>

namespace rig {

void CallLog::add(const QString& entry)
{
    QMutexLocker locker(&m_mutex);
    m_entries.append(entry);
}

QStringList CallLog::entries() const
{
    QMutexLocker locker(&m_mutex);
    return m_entries;
}

QStringList CallLog::entriesWith(const QString& prefix) const
{
    QStringList found;
    for (const QString& entry : entries()) {
        if (entry.startsWith(prefix))
            found.append(entry);
    }
    return found;
}

bool CallLog::contains(const QString& entry) const
{
    return entries().contains(entry);
}

int CallLog::count(const QString& entry) const
{
    return entries().count(entry);
}

void CallLog::clear()
{
    QMutexLocker locker(&m_mutex);
    m_entries.clear();
}

bool CallLog::waitForEntry(const QString& entry, int times, int deadlineMs) const
{
    return waitFor([&] { return count(entry) >= times; }, deadlineMs < 0 ? defaultDeadlineMs : deadlineMs);
}

} // namespace rig
