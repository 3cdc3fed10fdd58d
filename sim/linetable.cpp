#include "sim/linetable.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim {

namespace {

std::atomic<LineTable*> currentTable{nullptr};
LineTable processTable; // all zero; its pages cost nothing until they are used

LineTable* mapFile(const char* path, bool create)
{
    const int fd = open(path, O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0), 0666);
    if (fd < 0)
        return nullptr;
    struct stat status;
    const bool sized =
        fstat(fd, &status) == 0 && (status.st_size >= static_cast<off_t>(sizeof(LineTable)) ||
                                    (create && status.st_size == 0 && ftruncate(fd, sizeof(LineTable)) == 0));
    if (!sized) {
        close(fd);
        errno = EINVAL;
        return nullptr;
    }
    void* memory = mmap(nullptr, sizeof(LineTable), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED)
        return nullptr;
    auto* table = static_cast<LineTable*>(memory);
    std::uint32_t seen = 0;
    if (create)
        table->magic.compare_exchange_strong(seen, lineTableMagic);
    if (table->magic.load() != lineTableMagic) {
        munmap(memory, sizeof(LineTable));
        errno = EINVAL;
        return nullptr;
    }
    return table;
}

// Two threads may both have mapped the file; one mapping stays.
LineTable* adopt(LineTable* table)
{
    LineTable* seen = nullptr;
    if (currentTable.compare_exchange_strong(seen, table))
        return table;
    if (table != &processTable && table != seen)
        munmap(table, sizeof(LineTable));
    return seen;
}

// A modem's side that was killed leaves its rows behind, and the kernel gives the same
// pty numbers out again.
void releaseDeadRows(LineTable* table)
{
    for (LineRow& row : table->rows) {
        std::int32_t owner = row.owner.load();
        if (owner != 0 && kill(owner, 0) != 0 && errno == ESRCH)
            row.owner.compare_exchange_strong(owner, 0);
    }
}

} // namespace

LineTable* makeLineTable()
{
    if (LineTable* table = currentTable.load(std::memory_order_acquire))
        return table;
    const char* path = getenv(lineTableVariable);
    if (!path || !*path)
        return adopt(&processTable);
    LineTable* table = mapFile(path, true);
    if (!table)
        return nullptr;
    releaseDeadRows(table);
    return adopt(table);
}

LineTable* findLineTable()
{
    if (LineTable* table = currentTable.load(std::memory_order_acquire))
        return table;
    // Looked for again each time: the exchange may start after the program.
    const char* path = getenv(lineTableVariable);
    if (!path || !*path)
        return nullptr;
    LineTable* table = mapFile(path, false);
    return table ? adopt(table) : nullptr;
}

LineRow* lineRow(LineTable* table, int ptyNumber)
{
    if (!table || ptyNumber < 0 || ptyNumber >= lineTableRows)
        return nullptr;
    return &table->rows[ptyNumber];
}

} // namespace sim
