#include "sim/pty/signaltable.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim {

namespace {

std::atomic<SignalTable*> currentTable{nullptr};
SignalTable processTable; // all zero; its pages cost nothing until they are used

// A file that is made is for this user alone; one that stands there must be ours. Never
// through a link, which somebody else may have put there. -1 with errno.
int openFile(const char* path, bool create)
{
    constexpr int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    constexpr int attempts = 100; // at a name that comes and goes
    for (int i = 0; i < attempts; ++i) {
        const int fd = open(path, flags);
        if (fd >= 0 || errno != ENOENT || !create)
            return fd;
        const int made = open(path, flags | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
        if (made >= 0 || errno != EEXIST)
            return made;
    }
    return -1;
}

// Gives a new file its size. False with errno.
bool isUsable(int fd, bool create)
{
    struct stat status;
    if (fstat(fd, &status) != 0)
        return false;
    errno = EINVAL;
    if (!S_ISREG(status.st_mode))
        return false;
    if (create && status.st_uid != geteuid()) {
        errno = EPERM;
        return false;
    }
    if (status.st_size >= static_cast<off_t>(sizeof(SignalTable)))
        return true;
    // A second name may be that of a file which means something else to its owner.
    return create && status.st_size == 0 && status.st_nlink == 1 && ftruncate(fd, sizeof(SignalTable)) == 0;
}

SignalTable* mapFile(const char* path, bool create)
{
    const int fd = openFile(path, create);
    if (fd < 0)
        return nullptr;
    if (!isUsable(fd, create)) {
        const int error = errno;
        close(fd);
        errno = error;
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(SignalTable), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED)
        return nullptr;
    auto* table = static_cast<SignalTable*>(memory);
    std::uint32_t seen = 0;
    if (create)
        table->magic.compare_exchange_strong(seen, signalTableMagic);
    if (table->magic.load() != signalTableMagic) {
        munmap(memory, sizeof(SignalTable));
        errno = EINVAL;
        return nullptr;
    }
    return table;
}

// Two threads may both have mapped the file; one mapping stays.
SignalTable* adopt(SignalTable* table)
{
    SignalTable* seen = nullptr;
    if (currentTable.compare_exchange_strong(seen, table))
        return table;
    if (table != &processTable && table != seen)
        munmap(table, sizeof(SignalTable));
    return seen;
}

// A modem's side that was killed leaves its rows behind, and the kernel gives the same
// pty numbers out again.
void releaseDeadRows(SignalTable* table)
{
    for (SignalRow& row : table->rows) {
        std::int32_t owner = row.owner.load();
        if (owner != 0 && kill(owner, 0) != 0 && errno == ESRCH)
            row.owner.compare_exchange_strong(owner, 0);
    }
}

} // namespace

SignalTable* makeSignalTable()
{
    if (SignalTable* table = currentTable.load(std::memory_order_acquire))
        return table;
    const char* path = getenv(signalTableVariable);
    if (!path || !*path)
        return adopt(&processTable);
    SignalTable* table = mapFile(path, true);
    if (!table)
        return nullptr;
    releaseDeadRows(table);
    return adopt(table);
}

SignalTable* findSignalTable()
{
    if (SignalTable* table = currentTable.load(std::memory_order_acquire))
        return table;
    // Looked for again each time: the exchange may start after the program.
    const char* path = getenv(signalTableVariable);
    if (!path || !*path)
        return nullptr;
    SignalTable* table = mapFile(path, false);
    return table ? adopt(table) : nullptr;
}

SignalRow* signalRow(SignalTable* table, int ptyNumber)
{
    if (!table || ptyNumber < 0 || ptyNumber >= signalTableRows)
        return nullptr;
    return &table->rows[ptyNumber];
}

} // namespace sim
