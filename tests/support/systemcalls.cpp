#include "tests/support/systemcalls.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

thread_local testsupport::SystemCallWatch* currentWatch = nullptr; // not owned
thread_local bool isLooking = false; // what a judge does itself is not judged

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

// As the *at() functions understand it.
std::string pathAt(int directory, const char* path)
{
    return path[0] == '/' || directory == AT_FDCWD ? std::string(path) : pathOf(directory) + '/' + path;
}

bool fails(const char* name, const char* path, const char* target = "")
{
    const int error = testsupport::SystemCallWatch::look(name, path, target);
    if (error != 0)
        errno = error;
    return error != 0;
}

bool failsOn(const char* name, int descriptor)
{
    return currentWatch && fails(name, pathOf(descriptor).c_str());
}

bool failsAt(const char* name, int directory, const char* path)
{
    return currentWatch && fails(name, pathAt(directory, path).c_str());
}

mode_t modeOf(int flags, va_list arguments)
{
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? mode_t(va_arg(arguments, unsigned)) : 0;
}

} // namespace

testsupport::SystemCallWatch::SystemCallWatch(const std::string& prefix, Judge judge)
    : m_prefix(prefix), m_judge(std::move(judge))
{
    if (currentWatch)
        std::abort();
    currentWatch = this;
}

testsupport::SystemCallWatch::~SystemCallWatch()
{
    currentWatch = nullptr;
}

std::vector<std::string> testsupport::SystemCallWatch::callsOf(const std::vector<std::string>& names) const
{
    std::vector<std::string> found;
    for (const std::string& call : m_calls) {
        if (std::count(names.begin(), names.end(), call.substr(0, call.find(' '))) != 0)
            found.push_back(call);
    }
    return found;
}

int testsupport::SystemCallWatch::look(const char* name, const char* path, const char* target, std::size_t* bytes)
{
    if (!currentWatch || isLooking || !path)
        return 0;
    const int savedError = errno;
    isLooking = true;
    SystemCall call{name, path, target, 0, bytes ? *bytes : 0};
    const int error = currentWatch->judge(call);
    if (bytes)
        *bytes = call.bytes;
    isLooking = false;
    errno = savedError;
    return error;
}

int testsupport::SystemCallWatch::judge(SystemCall& call)
{
    if (call.path.compare(0, m_prefix.size(), m_prefix) != 0)
        return 0;
    std::string text = call.name + ' ' + call.path.substr(m_prefix.size());
    if (!call.target.empty())
        text += ' ' + (call.target.compare(0, m_prefix.size(), m_prefix) == 0 ? call.target.substr(m_prefix.size())
                                                                              : call.target);
    m_calls.push_back(text);
    call.index = m_count++;
    return m_judge ? m_judge(call) : 0;
}

#define INTERPOSED extern "C" __attribute__((visibility("default")))

INTERPOSED int open(const char* path, int flags, ...)
{
    static auto* const real = next<int(const char*, int, ...)>("open");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return fails("open", path) ? -1 : real(path, flags, mode);
}

INTERPOSED int open64(const char* path, int flags, ...)
{
    static auto* const real = next<int(const char*, int, ...)>("open64");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return fails("open", path) ? -1 : real(path, flags, mode);
}

INTERPOSED int openat(int directory, const char* path, int flags, ...)
{
    static auto* const real = next<int(int, const char*, int, ...)>("openat");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return failsAt("open", directory, path) ? -1 : real(directory, path, flags, mode);
}

INTERPOSED int openat64(int directory, const char* path, int flags, ...)
{
    static auto* const real = next<int(int, const char*, int, ...)>("openat64");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return failsAt("open", directory, path) ? -1 : real(directory, path, flags, mode);
}

INTERPOSED ssize_t write(int descriptor, const void* data, size_t size)
{
    static auto* const real = next<ssize_t(int, const void*, size_t)>("write");
    const int error =
        currentWatch ? testsupport::SystemCallWatch::look("write", pathOf(descriptor).c_str(), "", &size) : 0;
    if (error == 0)
        return real(descriptor, data, size);
    errno = error;
    return -1;
}

INTERPOSED int close(int descriptor)
{
    static auto* const real = next<int(int)>("close");
    const bool failing = failsOn("close", descriptor);
    const int error = errno;
    const int result = real(descriptor); // a failed close has closed all the same
    if (failing)
        errno = error;
    return failing ? -1 : result;
}

INTERPOSED int fsync(int descriptor)
{
    return failsOn("fsync", descriptor) ? -1 : 0;
}

INTERPOSED int rename(const char* from, const char* to) noexcept
{
    static auto* const real = next<int(const char*, const char*)>("rename");
    return fails("rename", from, to) ? -1 : real(from, to);
}

INTERPOSED int unlink(const char* path) noexcept
{
    static auto* const real = next<int(const char*)>("unlink");
    return fails("unlink", path) ? -1 : real(path);
}

INTERPOSED int renameat(int fromDirectory, const char* from, int toDirectory, const char* to) noexcept
{
    static auto* const real = next<int(int, const char*, int, const char*)>("renameat");
    if (currentWatch && fails("rename", pathAt(fromDirectory, from).c_str(), pathAt(toDirectory, to).c_str()))
        return -1;
    return real(fromDirectory, from, toDirectory, to);
}

INTERPOSED int unlinkat(int directory, const char* path, int flags) noexcept
{
    static auto* const real = next<int(int, const char*, int)>("unlinkat");
    const char* const name = (flags & AT_REMOVEDIR) != 0 ? "rmdir" : "unlink";
    return failsAt(name, directory, path) ? -1 : real(directory, path, flags);
}

INTERPOSED int mkdirat(int directory, const char* path, mode_t mode) noexcept
{
    static auto* const real = next<int(int, const char*, mode_t)>("mkdirat");
    return failsAt("mkdir", directory, path) ? -1 : real(directory, path, mode);
}

INTERPOSED int ftruncate64(int descriptor, off64_t size) noexcept
{
    static auto* const real = next<int(int, off64_t)>("ftruncate64");
    return failsOn("ftruncate", descriptor) ? -1 : real(descriptor, size);
}

INTERPOSED int mkdir(const char* path, mode_t mode) noexcept
{
    static auto* const real = next<int(const char*, mode_t)>("mkdir");
    return fails("mkdir", path) ? -1 : real(path, mode);
}

INTERPOSED int chmod(const char* path, mode_t mode) noexcept
{
    static auto* const real = next<int(const char*, mode_t)>("chmod");
    return fails("chmod", path) ? -1 : real(path, mode);
}

INTERPOSED int fchmod(int descriptor, mode_t mode) noexcept
{
    static auto* const real = next<int(int, mode_t)>("fchmod");
    return failsOn("fchmod", descriptor) ? -1 : real(descriptor, mode);
}

INTERPOSED int stat(const char* path, struct stat* info) noexcept
{
    static auto* const real = next<int(const char*, struct stat*)>("stat");
    return fails("stat", path) ? -1 : real(path, info);
}

INTERPOSED int stat64(const char* path, struct stat64* info) noexcept
{
    static auto* const real = next<int(const char*, struct stat64*)>("stat64");
    return fails("stat", path) ? -1 : real(path, info);
}

INTERPOSED int statx(int directory, const char* path, int flags, unsigned mask, struct statx* info) noexcept
{
    static auto* const real = next<int(int, const char*, int, unsigned, struct statx*)>("statx");
    return fails("stat", path) ? -1 : real(directory, path, flags, mask, info);
}
