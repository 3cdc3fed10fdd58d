#include "rig/time/simdisk.h"

#include "rig/time/fibers.h"
#include "rig/time/virtualtime.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace rig {

namespace {

std::vector<SimDisk*> disks;
std::map<std::uint64_t, std::int64_t> changes; // when, by the machine's inode
std::uint64_t device = 0; // of all of them

std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::uint64_t inodeOf(const std::string& path)
{
    struct stat info;
    return ::stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

} // namespace

SimDisk::SimDisk(const std::string& root, std::uint64_t seed) : m_root(root), m_rng(seed)
{
    Directly directly;
    fs::remove_all(m_root);
    fs::create_directories(m_root);
    struct stat info;
    if (::stat(m_root.c_str(), &info) == 0)
        device = info.st_dev;
    disks.push_back(this);
}

SimDisk::~SimDisk()
{
    disks.erase(std::find(disks.begin(), disks.end(), this));
    Directly directly;
    std::error_code ignored;
    fs::remove_all(m_root, ignored);
}

SimDisk* SimDisk::of(const std::string& path)
{
    for (SimDisk* disk : disks) {
        const std::string& root = disk->m_root;
        if (path.compare(0, root.size(), root) == 0 && (path.size() == root.size() || path[root.size()] == '/'))
            return disk;
    }
    return nullptr;
}

std::int64_t SimDisk::changedNs(std::uint64_t onDevice, std::uint64_t inode)
{
    const auto found = onDevice == device ? changes.find(inode) : changes.end();
    return found == changes.end() ? -1 : found->second;
}

void SimDisk::setTimes(std::int64_t syncNs, std::int64_t otherNs)
{
    m_syncNs = syncNs;
    m_otherNs = otherNs;
}

void SimDisk::setFull(bool full)
{
    if (!isShort())
        m_shortSinceNs = nowNs();
    m_full = full;
}

void SimDisk::setShort(bool isItShort)
{
    if (!isShort())
        m_shortSinceNs = nowNs();
    m_short = isItShort;
}

std::int64_t SimDisk::shortForNs() const
{
    return isShort() ? nowNs() - m_shortSinceNs : 0;
}

SimDisk::Usage SimDisk::usage() const
{
    Directly directly;
    Usage usage;
    for (const auto& entry : fs::recursive_directory_iterator(m_root)) {
        ++usage.inodes;
        if (entry.is_regular_file())
            usage.bytes += entry.file_size();
    }
    return usage;
}

int SimDisk::before(Call call)
{
    if (m_dead)
        return EIO;
    if (++m_calls == m_dieAtCall) {
        m_dead = true;
        ++m_faultsMade;
        return EIO;
    }
    const std::int64_t about = call == Call::Sync ? m_syncNs : m_otherNs;
    if (about > 0 && Fibers::isInFiber())
        Fibers::sleepFor(about / 2 + static_cast<std::int64_t>(m_rng.below(static_cast<std::uint64_t>(about))));
    if (m_dead) // meanwhile
        return EIO;
    const bool takesRoom = call == Call::Create || call == Call::Write || call == Call::MakeDirectory;
    if (takesRoom && m_full) {
        ++m_faultsMade;
        return ENOSPC;
    }
    return 0;
}

// ---- what happened ----

void SimDisk::touch(std::uint64_t inode)
{
    changes[inode] = nowNs();
}

void SimDisk::touchDirectoryOf(const std::string& path)
{
    touch(inodeOf(path.substr(0, path.rfind('/'))));
}

void SimDisk::made(const std::string& path, std::uint64_t inode, bool isDirectory)
{
    const std::uint64_t id = m_nextId++;
    m_ids[inode] = id;
    if (!isDirectory)
        m_unsynced.insert(id);
    m_journal.push_back({Step::Kind::Make, relative(path), std::string(), {id, isDirectory}});
    touch(inode);
    touchDirectoryOf(path);
}

void SimDisk::written(std::uint64_t inode)
{
    m_unsynced.insert(m_ids[inode]);
    touch(inode);
}

void SimDisk::renamed(const std::string& from, const std::string& to)
{
    m_journal.push_back({Step::Kind::Move, relative(from), relative(to), {}});
    touch(inodeOf(to));
    touchDirectoryOf(from);
    touchDirectoryOf(to);
}

// Called before it goes.
void SimDisk::removed(const std::string& path)
{
    const std::uint64_t id = m_ids[inodeOf(path)];
    if (m_unsynced.count(id) != 0)
        m_removedContent[id] = contentOf(path);
    m_journal.push_back({Step::Kind::Remove, relative(path), std::string(), {}});
    touchDirectoryOf(path);
}

void SimDisk::synced(std::uint64_t inode, int descriptor, bool isDirectory)
{
    for (const Step& step : m_journal)
        apply(step);
    m_journal.clear();
    m_removedContent.clear();
    if (isDirectory)
        return;
    const std::uint64_t id = m_ids[inode];
    m_content[id] = contentOf("/proc/self/fd/" + std::to_string(descriptor));
    m_unsynced.erase(id);
}

void SimDisk::apply(const Step& step)
{
    const std::string inside = step.path + '/';
    const auto first = m_kept.lower_bound(inside);
    auto last = first;
    while (last != m_kept.end() && last->first.compare(0, inside.size(), inside) == 0)
        ++last;
    switch (step.kind) {
    case Step::Kind::Make: m_kept[step.path] = step.node; break;
    case Step::Kind::Move: {
        std::map<std::string, Node> moved;
        for (auto it = first; it != last; ++it)
            moved[step.target + it->first.substr(step.path.size())] = it->second;
        m_kept.erase(first, last);
        m_kept[step.target] = m_kept[step.path];
        m_kept.erase(step.path);
        m_kept.insert(moved.begin(), moved.end());
        break;
    }
    case Step::Kind::Remove:
        m_kept.erase(first, last);
        m_kept.erase(step.path);
        break;
    }
}

// ---- failures ----

void SimDisk::restart(bool afterPowerFailure)
{
    Directly directly;
    if (afterPowerFailure)
        losePower();
    m_dead = false;
    m_dieAtCall = 0;
}

std::string SimDisk::afterFailure(std::uint64_t id, const std::map<std::uint64_t, std::string>& live)
{
    const auto content = m_content.find(id);
    const std::string kept = content == m_content.end() ? std::string() : content->second;
    if (m_unsynced.count(id) == 0)
        return kept;
    std::string latest = kept;
    if (const auto found = live.find(id); found != live.end())
        latest = found->second;
    else if (const auto removed = m_removedContent.find(id); removed != m_removedContent.end())
        latest = removed->second;
    // What was synced and has not been changed since stays.
    const std::size_t least = std::min(kept.size(), latest.size());
    const auto synced = static_cast<std::size_t>(
        std::mismatch(kept.begin(), kept.begin() + static_cast<std::ptrdiff_t>(least), latest.begin()).first -
        kept.begin());
    const std::size_t at = synced + m_rng.below(latest.size() - synced + 1);
    switch (m_rng.below(4)) {
    case 0: return kept;
    case 1: return latest.substr(0, at);
    case 2: return latest.substr(0, at) + std::string(latest.size() - at, '\0');
    default: return latest;
    }
}

void SimDisk::losePower()
{
    ++m_faultsMade;
    std::map<std::uint64_t, std::string> live;
    for (const auto& entry : fs::recursive_directory_iterator(m_root)) {
        if (entry.is_regular_file())
            live[m_ids[inodeOf(entry.path())]] = contentOf(entry.path());
    }
    m_journal.resize(m_rng.below(m_journal.size() + 1));
    for (const Step& step : m_journal)
        apply(step);
    std::map<std::string, std::string> files;
    for (const auto& [path, node] : m_kept) {
        if (!node.isDirectory)
            files[path] = afterFailure(node.id, live);
    }
    for (const auto& entry : fs::directory_iterator(m_root))
        fs::remove_all(entry.path());
    const std::map<std::string, Node> kept = std::move(m_kept);
    forgetAll();
    for (const auto& [path, node] : kept) {
        const std::string whole = m_root + path;
        if (node.isDirectory)
            fs::create_directory(whole);
        else
            std::ofstream(whole, std::ios::binary) << files[path];
        const std::uint64_t id = m_nextId++;
        m_ids[inodeOf(whole)] = id;
        m_kept[path] = {id, node.isDirectory};
        if (!node.isDirectory)
            m_content[id] = files[path];
        touch(inodeOf(whole));
    }
}

void SimDisk::forgetAll()
{
    m_ids.clear();
    m_kept.clear();
    m_content.clear();
    m_unsynced.clear();
    m_removedContent.clear();
    m_journal.clear();
}

} // namespace rig
