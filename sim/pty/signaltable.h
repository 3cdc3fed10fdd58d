// The table that gives pseudo-terminals their modem control signals: one row for each pty,
// written by the modem's side (PtyEndpoint) and by the program's side (the ptylines
// object, linked or preloaded). Lives in a mapped file named by PTYLINES_TABLE, or in the
// process when that is not set. libc only: it is preloaded into foreign programs.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace sim {

constexpr char signalTableVariable[] = "PTYLINES_TABLE";
constexpr std::uint32_t signalTableMagic = 0x50544c32; // "PTL2"; changes with the layout of a row
constexpr int signalTableRows = 4096; // the kernel's own limit of ptys

// Signals are kept as the TIOCM_ bits of the kernel. All fields are lock-free, because the
// two sides are different processes.
struct alignas(64) SignalRow
{
    std::atomic<std::int32_t> owner; // process of the modem's side; 0: a pty without modem signals
    std::atomic<std::uint32_t> modemSignals; // DSR, DCD, RI, CTS
    std::atomic<std::uint32_t> programSignals; // DTR, RTS
    std::atomic<std::uint32_t> programSets; // how often the program has set its signals
    std::atomic<std::uint32_t> dtrDrops; // how often DTR went down, so that no short drop is missed
    std::atomic<std::int32_t> depth; // bytes that may be outstanding
    std::atomic<std::int32_t> drainBytesPerS; // at which they leave; 0: not known
    std::atomic<std::uint64_t> written; // bytes the program has written, or is just writing
    std::atomic<std::uint64_t> taken; // of these, bytes the modem's side has read
    std::atomic<std::uint64_t> discardedUpTo; // of these, bytes flushed by the program and not to be sent

    // Bytes between the program and the telephone line, as a driver reports them.
    std::uint64_t outstanding() const
    {
        const std::uint64_t out = written.load();
        const std::uint64_t done = taken.load();
        const std::uint64_t discarded = discardedUpTo.load();
        const std::uint64_t gone = done > discarded ? done : discarded;
        return out > gone ? out - gone : 0;
    }
};
static_assert(sizeof(SignalRow) == 64, "a row is one cache line");
static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "rows are shared between processes");

struct SignalTable
{
    alignas(64) std::atomic<std::uint32_t> magic;
    SignalRow rows[signalTableRows];
};

// For the modem's side: the table, made if need be (the file is created when it is
// missing, for this user alone). Null when the file named by the environment cannot be used;
// errno says why: ELOOP for a link, EPERM for a file of somebody else, EINVAL for one that is
// no table.
SignalTable* makeSignalTable();

// For the program's side: the table if there is one, else null.
SignalTable* findSignalTable();

// Row of a pty by its number; null when the number is beyond the table.
SignalRow* signalRow(SignalTable* table, int ptyNumber);

} // namespace sim
