#include "bench/ports/threadtimes.h"

#include <QDir>
#include <QFile>

ThreadTimes threadTimesNs()
{
    ThreadTimes times;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString& name : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile file(tasks.filePath(name + QStringLiteral("/schedstat")));
        if (file.open(QIODevice::ReadOnly))
            times[name.toInt()] = file.readAll().split(' ').first().toLongLong(); // time on a processor
    }
    return times;
}

qint64 usedNs(const ThreadTimes& then, const ThreadTimes& now, const ThreadTimes& others)
{
    qint64 used = 0;
    for (const auto& [thread, ns] : now) {
        if (others.count(thread) != 0)
            continue;
        const auto before = then.find(thread);
        used += ns - (before == then.end() ? 0 : before->second);
    }
    return used;
}
