#include "common/plantedlinks.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t newFileMode = 0666; // less the process's mask

int openAgainIfInterrupted(const char* path, int flags)
{
    int descriptor = -1;
    do {
        descriptor = ::open(path, flags | O_CLOEXEC | O_NOCTTY, newFileMode);
    } while (descriptor < 0 && errno == EINTR);
    return descriptor;
}

// Cleans up after a failure, and keeps its reason.
int closed(int descriptor, int error)
{
    ::close(descriptor);
    errno = error;
    return -1;
}

bool isTrusted(const struct stat& facts)
{
    return facts.st_uid == ::geteuid() || facts.st_uid == 0;
}

bool look(const QByteArray& path, struct stat* facts)
{
    return ::lstat(path.constData(), facts) == 0;
}

// The device behind a link that may be followed; never makes anything.
int openDevice(const QByteArray& path, int flags)
{
    struct stat facts = {};
    if (!look(path, &facts) || !S_ISLNK(facts.st_mode) || !isTrusted(facts)) {
        errno = ELOOP;
        return -1;
    }
    const int descriptor = openAgainIfInterrupted(path.constData(), flags | O_NONBLOCK);
    if (descriptor < 0) {
        errno = ELOOP;
        return -1;
    }
    if (::fstat(descriptor, &facts) != 0 || !S_ISCHR(facts.st_mode))
        return closed(descriptor, ELOOP);
    return descriptor;
}

bool isOursAlone(int descriptor)
{
    struct stat facts = {};
    return ::fstat(descriptor, &facts) == 0 && S_ISREG(facts.st_mode) && facts.st_nlink == 1 &&
           facts.st_uid == ::geteuid();
}

// A file that we may neither read nor write is still ours to change.
int openToChange(const char* path)
{
    const int descriptor = openAgainIfInterrupted(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    return descriptor >= 0 || errno != EACCES ? descriptor : openAgainIfInterrupted(path, O_PATH | O_NOFOLLOW);
}

} // namespace

int openExistingForAppending(const QByteArray& path)
{
    return ::open(path.constData(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
}

int openForAppending(const QByteArray& path)
{
    constexpr int flags = O_WRONLY | O_APPEND;
    const int descriptor = openAgainIfInterrupted(path.constData(), flags | O_CREAT | O_NOFOLLOW | O_NONBLOCK);
    if (descriptor >= 0)
        return descriptor;
    if (errno == ELOOP)
        return openDevice(path, flags);
    struct stat facts = {};
    if (errno == ENXIO && look(path, &facts) && S_ISFIFO(facts.st_mode) && isTrusted(facts))
        return ::open(path.constData(), flags | O_NOFOLLOW | O_CLOEXEC);
    return -1;
}

int openOwnForAppending(const QByteArray& path)
{
    const int descriptor = openForAppending(path);
    struct stat facts = {};
    if (descriptor < 0 || ::fstat(descriptor, &facts) != 0 || !S_ISREG(facts.st_mode) || isOursAlone(descriptor))
        return descriptor;
    return closed(descriptor, facts.st_nlink == 1 ? EPERM : EMLINK);
}

int openEmpty(const QByteArray& path)
{
    const int descriptor = openAgainIfInterrupted(path.constData(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK);
    if (descriptor >= 0) {
        if (isOursAlone(descriptor))
            return ::ftruncate(descriptor, 0) == 0 ? descriptor : closed(descriptor, errno);
        ::close(descriptor);
        return openNew(path);
    }
    if (errno == ENXIO)
        return openNew(path);
    if (errno != ELOOP)
        return -1;
    const int device = openDevice(path, O_WRONLY);
    return device >= 0 ? device : openNew(path);
}

int openNew(const QByteArray& path)
{
    // Others may make one of the same name meanwhile.
    constexpr int attempts = 10;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        const int descriptor = openAgainIfInterrupted(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW);
        if (descriptor >= 0 || errno != EEXIST)
            return descriptor;
        if (::unlink(path.constData()) != 0 && errno != ENOENT)
            return -1;
    }
    errno = EEXIST;
    return -1;
}

bool changePermissions(const QString& path, QFileDevice::Permissions permissions, QString* error)
{
    const int descriptor = openToChange(QFile::encodeName(path).constData());
    if (descriptor < 0) {
        *error = qt_error_string(errno);
        return false;
    }
    struct stat facts = {};
    const bool isLink = ::fstat(descriptor, &facts) == 0 && S_ISLNK(facts.st_mode);
    // A file opened with O_PATH can only get permissions through its name in /proc.
    const bool isPlace = (::fcntl(descriptor, F_GETFL) & O_PATH) != 0;
    QFile file;
    if (isPlace)
        file.setFileName(QStringLiteral("/proc/self/fd/%1").arg(descriptor));
    const bool isChanged =
        !isLink && (isPlace || file.open(descriptor, QIODevice::ReadOnly)) && file.setPermissions(permissions);
    if (!isChanged)
        *error = isLink ? qt_error_string(ELOOP) : file.errorString();
    ::close(descriptor);
    return isChanged;
}

bool isForeignLink(const QByteArray& path)
{
    struct stat facts = {};
    return look(path, &facts) && S_ISLNK(facts.st_mode) && !isTrusted(facts);
}
