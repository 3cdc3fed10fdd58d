// Preloaded together with libptylines.so into a program that writes to its line through stdio.
// libc's streams make system calls of their own, so libptylines.so cannot limit them to the driver's
// depth. With this, standard output becomes a stream that uses write(), which is limited.
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace {

ssize_t writeAll(void*, const char* data, size_t size)
{
    size_t sent = 0;
    while (sent < size) {
        const ssize_t done = write(STDOUT_FILENO, data + sent, size - sent);
        if (done < 0 && errno == EINTR)
            continue;
        if (done < 0)
            break;
        sent += static_cast<size_t>(done);
    }
    return static_cast<ssize_t>(sent); // 0 is how a cookie stream tells an error
}

__attribute__((constructor)) void replaceStandardOutput()
{
    if (FILE* stream = fopencookie(nullptr, "w", {nullptr, writeAll, nullptr, nullptr}))
        stdout = stream;
}

} // namespace
