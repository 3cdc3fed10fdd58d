// The disk of a simulated installation: a directory of the machine, and beside it what of it
// would outlive a power failure. Every call by which a program changes something below the
// directory comes here first (simdiskcalls.cpp), so that it takes time, meets a full disk, or
// is the last one before the process dies.
//
// A dead process changes nothing more: all its calls fail, whatever it still does while its
// stacks are unwound. What a power failure leaves follows the rule of a journalling file
// system: names (files made, moved, removed, directories) are kept in the order in which they
// came, up to the last fsync() at least and beyond it up to some point; of a file's content
// what was there at its own last fsync() is kept, later bytes may be there, be missing, be cut
// off, or read as zeros.
#pragma once

#include "rig/rng.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace rig {

class SimDisk
{
public:
    // Makes the directory, empty.
    SimDisk(const std::string& root, std::uint64_t seed);
    ~SimDisk();
    SimDisk(const SimDisk&) = delete;
    SimDisk& operator=(const SimDisk&) = delete;

    const std::string& root() const { return m_root; }

    // About so long a call takes; the fibers sleep meanwhile. 0: no time.
    void setTimes(std::int64_t syncNs, std::int64_t otherNs);
    void setFull(bool full); // writes fail
    bool isFull() const { return m_full; }
    void setShort(bool isItShort); // they do not, but less is free than should stay so
    bool isShort() const { return m_full || m_short; }
    std::int64_t shortForNs() const; // 0: it is not

    void dieAtCall(std::uint64_t callsFromNow) { m_dieAtCall = m_calls + callsFromNow; }
    void die() { m_dead = true; }
    bool isDead() const { return m_dead; }

    // Nothing of the dead process is left: the next one may begin. After a power failure on
    // what that left.
    void restart(bool afterPowerFailure);

    std::uint64_t calls() const { return m_calls; } // that would change something
    std::uint64_t faultsMade() const { return m_faultsMade; }

    // What stands: files and directories, and the files' bytes.
    struct Usage
    {
        std::uint64_t inodes = 0;
        std::uint64_t bytes = 0;
    };
    Usage usage() const;

    // ---- for the interposed functions ----

    enum class Call
    {
        Open,
        Create,
        Write,
        Resize,
        Rename,
        Remove,
        MakeDirectory,
        Attribute,
        Sync
    };

    // 0, or the error that the call fails with. May take time.
    int before(Call call);
    // How much of a write gets through on a disk that fills up, or in a process that dies.
    std::size_t bytesBeforeFailure(std::size_t size) { return m_rng.below(size + 1); }

    void made(const std::string& path, std::uint64_t inode, bool isDirectory);
    void written(std::uint64_t inode);
    void renamed(const std::string& from, const std::string& to);
    void removed(const std::string& path);
    void synced(std::uint64_t inode, int descriptor, bool isDirectory);

    // The disk that holds path, of those that stand; null: none.
    static SimDisk* of(const std::string& path);
    // When something was last changed; -1: not known here.
    static std::int64_t changedNs(std::uint64_t device, std::uint64_t inode);

private:
    struct Node
    {
        std::uint64_t id = 0;
        bool isDirectory = false;
    };
    struct Step // of the journal
    {
        enum class Kind
        {
            Make,
            Move,
            Remove
        } kind;
        std::string path;
        std::string target;
        Node node;
    };

    std::string relative(const std::string& path) const { return path.substr(m_root.size()); }
    void touch(std::uint64_t inode);
    void touchDirectoryOf(const std::string& path);
    void apply(const Step& step);
    std::string afterFailure(std::uint64_t id, const std::map<std::uint64_t, std::string>& live);
    void losePower();
    void forgetAll();

    const std::string m_root;
    Rng m_rng;
    std::int64_t m_syncNs = 0;
    std::int64_t m_otherNs = 0;
    bool m_full = false;
    bool m_short = false;
    std::int64_t m_shortSinceNs = 0;
    bool m_dead = false;
    std::uint64_t m_calls = 0;
    std::uint64_t m_dieAtCall = 0;
    std::uint64_t m_faultsMade = 0;

    std::uint64_t m_nextId = 1;
    std::map<std::uint64_t, std::uint64_t> m_ids; // by the machine's inode
    std::map<std::string, Node> m_kept; // names that outlive a power failure
    std::map<std::uint64_t, std::string> m_content; // of files, as it was when it was synced
    std::set<std::uint64_t> m_unsynced;
    std::map<std::uint64_t, std::string> m_removedContent; // of unsynced files whose removal is not kept yet
    std::vector<Step> m_journal; // not kept yet
};

// While one stands, the harness itself looks at and changes disks: no time passes, nothing fails.
class Directly
{
public:
    Directly() { ++depth; }
    ~Directly() { --depth; }
    Directly(const Directly&) = delete;
    Directly& operator=(const Directly&) = delete;
    static inline int depth = 0;
};

// Installs the calls, and lets random numbers of the system come from the seed. Processes
// numbered from firstProcess on are simulated: alive while they are listed.
constexpr int firstProcess = 5000000;
void beginSimulatedDisks(std::uint64_t seed);
void setProcessAlive(int process, bool alive);
// What the process finds free on its volume comes from this disk.
void setDiskOfProcess(int process, SimDisk* disk);

} // namespace rig
