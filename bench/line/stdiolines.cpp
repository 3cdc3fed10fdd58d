// Preloaded beside libptylines.so into a program that writes to its line by stdio: libc's
// streams call the system by themselves, so the driver's depth would not hold for them.
// Standard output becomes a stream that writes through write(), which does.
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
