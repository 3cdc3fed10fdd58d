// The table that gives pseudo-terminals their modem control lines: one row for each pty,
// written by the modem's side (PtyEndpoint) and by the program's side (the ptylines
// object, linked or preloaded). Lives in a mapped file named by PTYLINES_TABLE, or in the
// process when that is not set. libc only: it is preloaded into foreign programs.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace sim {

constexpr char lineTableVariable[] = "PTYLINES_TABLE";
constexpr std::uint32_t lineTableMagic = 0x50544c32; // "PTL2"; changes with the layout of a row
constexpr int lineTableRows = 4096; // the kernel's own limit of ptys

// Lines are kept as the TIOCM_ bits of the kernel. All fields are lock-free, because the
// two sides are different processes.
struct alignas(64) LineRow
{
    std::atomic<std::int32_t> owner; // process of the modem's side; 0: a pty without modem lines
    std::atomic<std::uint32_t> modemLines; // DSR, DCD, RI, CTS
    std::atomic<std::uint32_t> programLines; // DTR, RTS
    std::atomic<std::uint32_t> programSets; // how often the program has set its lines
    std::atomic<std::uint32_t> dtrDrops; // how often DTR went down, so that no short drop is missed
    std::atomic<std::int32_t> depth; // bytes that may be outstanding
    std::atomic<std::int32_t> drainBytesPerS; // at which they leave; 0: not known
    std::atomic<std::uint64_t> written; // bytes the program has written, or is just writing
    std::atomic<std::uint64_t> taken; // of these, bytes the modem's side has read
    std::atomic<std::uint64_t> discardedUpTo; // of these, bytes flushed by the program and not to be sent

    // Bytes between program and line, as a driver reports them.
    std::uint64_t outstanding() const
    {
        const std::uint64_t out = written.load();
        const std::uint64_t done = taken.load();
        const std::uint64_t discarded = discardedUpTo.load();
        const std::uint64_t gone = done > discarded ? done : discarded;
        return out > gone ? out - gone : 0;
    }
};
static_assert(sizeof(LineRow) == 64, "a row is one cache line");
static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "rows are shared between processes");

struct LineTable
{
    alignas(64) std::atomic<std::uint32_t> magic;
    LineRow rows[lineTableRows];
};

// For the modem's side: the table, made if need be (the file is created when it is
// missing, for this user alone). Null when the file named by the environment cannot be used;
// errno says why: ELOOP for a link, EPERM for a file of somebody else, EINVAL for one that is
// no table.
LineTable* makeLineTable();

// For the program's side: the table if there is one, else null.
LineTable* findLineTable();

// Row of a pty by its number; null when the number is beyond the table.
LineRow* lineRow(LineTable* table, int ptyNumber);

} // namespace sim
