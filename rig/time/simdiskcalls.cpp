// The calls of the C library by which programs change files, for those below a simulated disk.
// Calls that are not known here must not change anything there: the ones that could end the
// program instead.
#include "rig/time/fibers.h"
#include "rig/time/simdisk.h"
#include "rig/time/virtualtime.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <map>
#include <set>
#include <signal.h>
#include <string>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#define INTERPOSED extern "C" __attribute__((visibility("default")))

namespace {

using rig::SimDisk;
using Call = SimDisk::Call;

constexpr std::uint64_t freeBlocks = 1 << 22;
constexpr std::uint64_t blocksWhenShort = 1 << 10; // less than an inbox leaves free

bool simulating = false;
rig::Rng* entropy = nullptr; // never freed
std::set<int> alive;
std::map<int, SimDisk*> diskOfProcess;

template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::string pathOf(int descriptor)
{
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    char path[4096];
    const ssize_t size = readlink(link.c_str(), path, sizeof path);
    return size < 0 ? std::string() : std::string(path, std::size_t(size));
}

std::string pathAt(int directory, const char* path)
{
    if (path[0] == '/')
        return path;
    if (directory == AT_FDCWD) {
        char current[4096];
        return std::string(getcwd(current, sizeof current) ? current : "") + '/' + path;
    }
    return pathOf(directory) + '/' + path;
}

SimDisk* diskOf(const std::string& path)
{
    return simulating && rig::Directly::depth == 0 ? SimDisk::of(path) : nullptr;
}

SimDisk* diskOf(int descriptor)
{
    return simulating && rig::Directly::depth == 0 ? SimDisk::of(pathOf(descriptor)) : nullptr;
}

std::uint64_t inodeOf(int descriptor)
{
    struct stat info;
    return fstat(descriptor, &info) == 0 ? info.st_ino : 0;
}

std::uint64_t inodeOf(const std::string& path)
{
    struct stat info;
    return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

// True: the call goes on. Otherwise errno is set.
bool passes(SimDisk* disk, Call call)
{
    const int error = disk->before(call);
    if (error != 0)
        errno = error;
    return error == 0;
}

[[noreturn]] void refuseToSimulate(const char* call, const std::string& path)
{
    std::fprintf(stderr, "simulated disk: %s is not simulated: %s\n", call, path.c_str());
    std::abort();
}

int openOn(SimDisk* disk, const std::string& path, int flags, mode_t mode)
{
    const bool changes = (flags & O_ACCMODE) != O_RDONLY || (flags & (O_CREAT | O_TRUNC));
    if (!changes)
        return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path.c_str(), flags, mode));
    if ((flags & O_TMPFILE) == O_TMPFILE)
        refuseToSimulate("O_TMPFILE", path);
    const bool isNew = (flags & O_CREAT) && inodeOf(path) == 0;
    if (!passes(disk, isNew ? Call::Create : Call::Open))
        return -1;
    const bool stillNew = (flags & O_CREAT) && inodeOf(path) == 0; // it took time
    const int descriptor = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path.c_str(), flags, mode));
    if (descriptor >= 0 && stillNew)
        disk->made(path, inodeOf(descriptor), false);
    else if (descriptor >= 0 && (flags & O_TRUNC))
        disk->written(inodeOf(descriptor));
    return descriptor;
}

class DiskCalls : public rig::FileCalls
{
public:
    int open(const char* path, int flags, mode_t mode) override
    {
        const std::string whole = pathAt(AT_FDCWD, path);
        if (SimDisk* disk = diskOf(whole))
            return openOn(disk, whole, flags, mode);
        return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
    }

    ssize_t write(int fd, const void* data, std::size_t size) override
    {
        SimDisk* disk = diskOf(fd);
        if (!disk)
            return syscall(SYS_write, fd, data, size);
        const bool wasDead = disk->isDead();
        const int error = disk->before(Call::Write);
        if (error != 0 && !wasDead) // some of it gets through
            (void)!syscall(SYS_write, fd, data, disk->bytesBeforeFailure(size));
        disk->written(inodeOf(fd));
        if (error == 0)
            return syscall(SYS_write, fd, data, size);
        errno = error;
        return -1;
    }

    int close(int fd) override { return static_cast<int>(syscall(SYS_close, fd)); }
};

int renameBetween(const std::string& from, const std::string& to, unsigned flags)
{
    SimDisk* disk = diskOf(from);
    if (disk && !passes(disk, Call::Rename))
        return -1;
    const int result = static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags));
    if (disk && result == 0)
        disk->renamed(from, to);
    return result;
}

int removeAt(const std::string& path, int flags)
{
    SimDisk* disk = diskOf(path);
    if (!disk)
        return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path.c_str(), flags));
    if (!passes(disk, Call::Remove))
        return -1;
    // Noted only if it comes to it: a directory may not be empty.
    struct stat info;
    const bool stands = lstat(path.c_str(), &info) == 0;
    if (stands && !S_ISDIR(info.st_mode) && flags == 0)
        disk->removed(path);
    const int result = static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path.c_str(), flags));
    if (result == 0 && S_ISDIR(info.st_mode))
        disk->removed(path);
    return result;
}

int makeDirectory(const std::string& path, mode_t mode)
{
    SimDisk* disk = diskOf(path);
    if (disk && !passes(disk, Call::MakeDirectory))
        return -1;
    const int result = static_cast<int>(syscall(SYS_mkdirat, AT_FDCWD, path.c_str(), mode));
    if (disk && result == 0)
        disk->made(path, inodeOf(path), true);
    return result;
}

int resize(int fd, off_t size)
{
    SimDisk* disk = diskOf(fd);
    if (disk && !passes(disk, Call::Resize))
        return -1;
    if (disk)
        disk->written(inodeOf(fd));
    return static_cast<int>(syscall(SYS_ftruncate, fd, size));
}

int syncFile(int fd)
{
    SimDisk* disk = diskOf(fd);
    if (!disk)
        return simulating ? 0 : static_cast<int>(syscall(SYS_fsync, fd));
    if (!passes(disk, Call::Sync))
        return -1;
    struct stat info;
    if (fstat(fd, &info) == 0)
        disk->synced(info.st_ino, fd, S_ISDIR(info.st_mode));
    return 0;
}

// The times of change that the simulated clock showed.
template <typename Info>
int showTimes(long result, Info* info)
{
    const std::int64_t changed = result == 0 && simulating ? SimDisk::changedNs(info->st_dev, info->st_ino) : -1;
    if (changed >= 0) {
        const std::int64_t wallNs = changed + rig::wallClockOffsetNs();
        info->st_mtim = {wallNs / rig::nsPerS, wallNs % rig::nsPerS};
        info->st_ctim = info->st_mtim;
    }
    return static_cast<int>(result);
}

template <typename Space>
void showSpace(Space* space)
{
    const auto found = diskOfProcess.find(rig::Fibers::process());
    if (found == diskOfProcess.end())
        return;
    space->f_bsize = space->f_frsize = 4096;
    space->f_blocks = freeBlocks * 2;
    const SimDisk& disk = *found->second;
    space->f_bfree = space->f_bavail = disk.isFull() ? 0 : disk.isShort() ? blocksWhenShort : freeBlocks;
    space->f_files = space->f_ffree = space->f_favail = freeBlocks;
}

} // namespace

void rig::beginSimulatedDisks(std::uint64_t seed)
{
    static DiskCalls calls;
    entropy = new Rng(seed);
    simulating = true;
    setFileCalls(&calls);
}

void rig::setProcessAlive(int process, bool isAlive)
{
    if (isAlive)
        alive.insert(process);
    else
        alive.erase(process);
}

void rig::setDiskOfProcess(int process, SimDisk* disk)
{
    if (disk)
        diskOfProcess[process] = disk;
    else
        diskOfProcess.erase(process);
}

// ---- names ----

INTERPOSED int openat(int directory, const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const std::string whole = simulating ? pathAt(directory, path) : std::string();
    if (SimDisk* disk = diskOf(whole))
        return openOn(disk, whole, flags, mode);
    return static_cast<int>(syscall(SYS_openat, directory, path, flags, mode));
}

INTERPOSED int openat64(int directory, const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openat(directory, path, flags, mode);
}

INTERPOSED int rename(const char* from, const char* to) noexcept
{
    return renameBetween(pathAt(AT_FDCWD, from), pathAt(AT_FDCWD, to), 0);
}

INTERPOSED int renameat(int fromDirectory, const char* from, int toDirectory, const char* to) noexcept
{
    return renameBetween(pathAt(fromDirectory, from), pathAt(toDirectory, to), 0);
}

INTERPOSED int renameat2(int fromDirectory, const char* from, int toDirectory, const char* to, unsigned flags) noexcept
{
    return renameBetween(pathAt(fromDirectory, from), pathAt(toDirectory, to), flags);
}

INTERPOSED int unlink(const char* path) noexcept
{
    return removeAt(pathAt(AT_FDCWD, path), 0);
}

INTERPOSED int unlinkat(int directory, const char* path, int flags) noexcept
{
    return removeAt(pathAt(directory, path), flags);
}

INTERPOSED int rmdir(const char* path) noexcept
{
    return removeAt(pathAt(AT_FDCWD, path), AT_REMOVEDIR);
}

INTERPOSED int remove(const char* path) noexcept
{
    const std::string whole = pathAt(AT_FDCWD, path);
    struct stat info;
    return removeAt(whole, lstat(path, &info) == 0 && S_ISDIR(info.st_mode) ? AT_REMOVEDIR : 0);
}

INTERPOSED int mkdir(const char* path, mode_t mode) noexcept
{
    return makeDirectory(pathAt(AT_FDCWD, path), mode);
}

INTERPOSED int mkdirat(int directory, const char* path, mode_t mode) noexcept
{
    return makeDirectory(pathAt(directory, path), mode);
}

INTERPOSED int link(const char* from, const char* to) noexcept
{
    if (diskOf(pathAt(AT_FDCWD, to)))
        refuseToSimulate("link()", to);
    return next<int(const char*, const char*)>("link")(from, to);
}

INTERPOSED int linkat(int fromDirectory, const char* from, int toDirectory, const char* to, int flags) noexcept
{
    if (diskOf(pathAt(toDirectory, to)))
        refuseToSimulate("linkat()", to);
    return next<int(int, const char*, int, const char*, int)>("linkat")(fromDirectory, from, toDirectory, to, flags);
}

INTERPOSED int symlink(const char* from, const char* to) noexcept
{
    if (diskOf(pathAt(AT_FDCWD, to)))
        refuseToSimulate("symlink()", to);
    return next<int(const char*, const char*)>("symlink")(from, to);
}

// ---- content ----

INTERPOSED int ftruncate(int fd, off_t size) noexcept
{
    return resize(fd, size);
}

INTERPOSED int ftruncate64(int fd, off64_t size) noexcept
{
    return resize(fd, size);
}

INTERPOSED ssize_t pwrite64(int fd, const void* data, std::size_t size, off64_t offset)
{
    if (diskOf(fd))
        refuseToSimulate("pwrite()", pathOf(fd));
    return syscall(SYS_pwrite64, fd, data, size, offset);
}

INTERPOSED int fsync(int fd)
{
    return syncFile(fd);
}

INTERPOSED int fdatasync(int fd)
{
    return syncFile(fd);
}

// ---- what stands beside ----

INTERPOSED int fchmod(int fd, mode_t mode) noexcept
{
    SimDisk* disk = diskOf(fd);
    return disk && !passes(disk, Call::Attribute) ? -1 : static_cast<int>(syscall(SYS_fchmod, fd, mode));
}

INTERPOSED int chmod(const char* path, mode_t mode) noexcept
{
    SimDisk* disk = simulating ? diskOf(pathAt(AT_FDCWD, path)) : nullptr;
    return disk && !passes(disk, Call::Attribute) ? -1 : static_cast<int>(syscall(SYS_fchmodat, AT_FDCWD, path, mode));
}

INTERPOSED int futimens(int fd, const timespec times[2]) noexcept
{
    SimDisk* disk = diskOf(fd);
    return disk && !passes(disk, Call::Attribute) ? -1
                                                  : static_cast<int>(syscall(SYS_utimensat, fd, nullptr, times, 0));
}

INTERPOSED int statx(int directory, const char* path, int flags, unsigned mask, struct statx* info) noexcept
{
    const int result = static_cast<int>(syscall(SYS_statx, directory, path, flags, mask, info));
    if (result != 0 || !simulating)
        return result;
    const std::int64_t changed = SimDisk::changedNs(makedev(info->stx_dev_major, info->stx_dev_minor), info->stx_ino);
    if (changed >= 0) {
        const std::int64_t wallNs = changed + rig::wallClockOffsetNs();
        info->stx_ctime = {wallNs / rig::nsPerS, static_cast<std::uint32_t>(wallNs % rig::nsPerS), 0};
        info->stx_mtime = info->stx_ctime;
    }
    return result;
}

INTERPOSED int stat(const char* path, struct stat* info) noexcept
{
    return showTimes(syscall(SYS_newfstatat, AT_FDCWD, path, info, 0), info);
}

INTERPOSED int stat64(const char* path, struct stat64* info) noexcept
{
    return showTimes(syscall(SYS_newfstatat, AT_FDCWD, path, info, 0), info);
}

INTERPOSED int lstat(const char* path, struct stat* info) noexcept
{
    return showTimes(syscall(SYS_newfstatat, AT_FDCWD, path, info, AT_SYMLINK_NOFOLLOW), info);
}

INTERPOSED int lstat64(const char* path, struct stat64* info) noexcept
{
    return showTimes(syscall(SYS_newfstatat, AT_FDCWD, path, info, AT_SYMLINK_NOFOLLOW), info);
}

INTERPOSED int fstat(int fd, struct stat* info) noexcept
{
    return showTimes(syscall(SYS_newfstatat, fd, "", info, AT_EMPTY_PATH), info);
}

INTERPOSED int fstat64(int fd, struct stat64* info) noexcept
{
    return showTimes(syscall(SYS_newfstatat, fd, "", info, AT_EMPTY_PATH), info);
}

INTERPOSED int fstatat(int directory, const char* path, struct stat* info, int flags) noexcept
{
    return showTimes(syscall(SYS_newfstatat, directory, path, info, flags), info);
}

INTERPOSED int fstatat64(int directory, const char* path, struct stat64* info, int flags) noexcept
{
    return showTimes(syscall(SYS_newfstatat, directory, path, info, flags), info);
}

INTERPOSED int fstatvfs(int fd, struct statvfs* space) noexcept
{
    const int result = next<int(int, struct statvfs*)>("fstatvfs")(fd, space);
    if (result == 0 && simulating)
        showSpace(space);
    return result;
}

INTERPOSED int fstatvfs64(int fd, struct statvfs64* space) noexcept
{
    const int result = next<int(int, struct statvfs64*)>("fstatvfs64")(fd, space);
    if (result == 0 && simulating)
        showSpace(space);
    return result;
}

INTERPOSED int statvfs(const char* path, struct statvfs* space) noexcept
{
    const int result = next<int(const char*, struct statvfs*)>("statvfs")(path, space);
    if (result == 0 && simulating)
        showSpace(space);
    return result;
}

INTERPOSED int statvfs64(const char* path, struct statvfs64* space) noexcept
{
    const int result = next<int(const char*, struct statvfs64*)>("statvfs64")(path, space);
    if (result == 0 && simulating)
        showSpace(space);
    return result;
}

// ---- processes and chance ----

INTERPOSED int kill(pid_t process, int signal) noexcept
{
    if (process < rig::firstProcess)
        return static_cast<int>(syscall(SYS_kill, process, signal));
    if (alive.count(process) != 0)
        return 0;
    errno = ESRCH;
    return -1;
}

INTERPOSED int getentropy(void* data, std::size_t size)
{
    if (!entropy) {
        return syscall(SYS_getrandom, data, size, 0) == static_cast<long>(size) ? 0 : -1;
    }
    for (std::size_t i = 0; i < size; ++i)
        static_cast<unsigned char*>(data)[i] = static_cast<unsigned char>(entropy->next());
    return 0;
}

INTERPOSED ssize_t getrandom(void* data, std::size_t size, unsigned flags)
{
    if (!entropy)
        return syscall(SYS_getrandom, data, size, flags);
    getentropy(data, size);
    return static_cast<ssize_t>(size);
}
