#include "rig/server/resources.h"

#include <QDir>
#include <QFile>

#include <malloc.h>
#include <unistd.h>

// There in a program that a sanitizer is linked into, whose allocator mallinfo2() does not know.
extern "C" std::size_t __attribute__((weak)) __sanitizer_get_current_allocated_bytes();

namespace rig {

namespace {

int entryCount(const QString& directory)
{
    return QDir(directory).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
}

qint64 heapBytes()
{
    if (__sanitizer_get_current_allocated_bytes)
        return static_cast<qint64>(__sanitizer_get_current_allocated_bytes());
    const struct mallinfo2 info = mallinfo2();
    return static_cast<qint64>(info.uordblks + info.hblkhd);
}

qint64 residentBytes()
{
    QFile file(QStringLiteral("/proc/self/statm"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').value(1).toLongLong() * sysconf(_SC_PAGESIZE);
}

} // namespace

Resources currentResources()
{
    Resources now;
    now.threads = entryCount(QStringLiteral("/proc/self/task"));
    // The directory itself is open while it is read.
    now.descriptors = entryCount(QStringLiteral("/proc/self/fd")) - 1;
    now.heapBytes = heapBytes();
    now.residentBytes = residentBytes();
    return now;
}

} // namespace rig
