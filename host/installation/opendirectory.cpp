#include "host/installation/opendirectory.h"

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace host {

namespace {

constexpr int directoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int maxDepth = 16; // of a tree that is removed: each level needs a descriptor

QString linkText(const QString& path)
{
    return QStringLiteral("%1 is a link, and links are not followed here: remove it").arg(path);
}

bool isLink(int directory, const QByteArray& name)
{
    struct stat facts = {};
    return ::fstatat(directory, name.constData(), &facts, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(facts.st_mode);
}

// 0, or the error number.
int removeEntry(int directory, const char* name, int depth);

int removeContent(int descriptor, int depth)
{
    DIR* const entries = ::fdopendir(descriptor); // owns the descriptor from now on
    if (!entries) {
        const int error = errno;
        ::close(descriptor);
        return error;
    }
    int error = 0;
    while (error == 0) {
        errno = 0;
        const dirent* const entry = ::readdir(entries);
        if (!entry) {
            error = errno;
            break;
        }
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..")
            error = removeEntry(::dirfd(entries), name.constData(), depth);
    }
    ::closedir(entries);
    return error;
}

int removeEntry(int directory, const char* name, int depth)
{
    struct stat facts = {};
    if (::fstatat(directory, name, &facts, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : errno;
    if (!S_ISDIR(facts.st_mode))
        return ::unlinkat(directory, name, 0) == 0 || errno == ENOENT ? 0 : errno;
    if (depth == 0)
        return ELOOP;
    const int descriptor = ::openat(directory, name, directoryFlags);
    if (descriptor < 0)
        return errno;
    const int error = removeContent(descriptor, depth - 1);
    if (error != 0)
        return error;
    return ::unlinkat(directory, name, AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : errno;
}

} // namespace

OpenDirectory::OpenDirectory(OpenDirectory&& other) noexcept
    : m_descriptor(std::exchange(other.m_descriptor, -1)), m_path(std::move(other.m_path))
{
}

OpenDirectory& OpenDirectory::operator=(OpenDirectory&& other) noexcept
{
    std::swap(m_descriptor, other.m_descriptor);
    std::swap(m_path, other.m_path);
    return *this;
}

OpenDirectory::~OpenDirectory()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

OpenDirectory OpenDirectory::at(const QString& path, QString* error)
{
    const QByteArray encoded = QFile::encodeName(path);
    const int descriptor = ::open(encoded.constData(), directoryFlags);
    if (descriptor >= 0)
        return OpenDirectory(descriptor, path);
    const int number = errno;
    *error = isLink(AT_FDCWD, encoded)
                 ? linkText(path)
                 : QStringLiteral("cannot use the directory %1: %2").arg(path, qt_error_string(number));
    return OpenDirectory();
}

OpenDirectory OpenDirectory::below(const QString& name, QString* error) const
{
    const QByteArray encoded = QFile::encodeName(name);
    const int descriptor = ::openat(m_descriptor, encoded.constData(), directoryFlags);
    if (descriptor >= 0)
        return OpenDirectory(descriptor, pathOf(name));
    const int number = errno;
    *error = isLink(m_descriptor, encoded)
                 ? linkText(pathOf(name))
                 : QStringLiteral("cannot use the directory %1: %2").arg(pathOf(name), qt_error_string(number));
    return OpenDirectory();
}

QString OpenDirectory::pathOf(const QString& name) const
{
    return m_path + QLatin1Char('/') + name;
}

QString OpenDirectory::makeDirectory(const QString& name) const
{
    if (::mkdirat(m_descriptor, QFile::encodeName(name).constData(), 0777) == 0)
        return QString();
    return QStringLiteral("cannot create %1: %2").arg(pathOf(name), qt_error_string(errno));
}

QString OpenDirectory::createFile(const QString& name, QFile* file) const
{
    return open(name, O_RDWR | O_CREAT | O_EXCL, file);
}

QString OpenDirectory::openForReading(const QString& name, QFile* file) const
{
    return open(name, O_RDONLY, file);
}

QString OpenDirectory::openForWriting(const QString& name, QFile* file) const
{
    return open(name, O_RDWR, file);
}

QString OpenDirectory::open(const QString& name, int flags, QFile* file) const
{
    const bool isForReading = (flags & O_ACCMODE) == O_RDONLY;
    const auto cannot = [&](const QString& reason) { // both at once: a name may contain "%2"
        const QString text =
            isForReading ? QStringLiteral("cannot read %1: %2") : QStringLiteral("cannot write %1: %2");
        return text.arg(pathOf(name), reason);
    };
    const QByteArray encoded = QFile::encodeName(name);
    // O_NONBLOCK: a pipe must be refused, not waited for.
    const int descriptor =
        ::openat(m_descriptor, encoded.constData(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
    if (descriptor < 0) {
        const int number = errno;
        return isLink(m_descriptor, encoded) ? linkText(pathOf(name)) : cannot(qt_error_string(number));
    }
    struct stat facts = {};
    QString fault;
    if (::fstat(descriptor, &facts) != 0)
        fault = qt_error_string(errno);
    else if (!S_ISREG(facts.st_mode))
        fault = QStringLiteral("it is not a regular file");
    else if (!isForReading && facts.st_nlink > 1)
        fault = QStringLiteral("it has another name elsewhere");
    const QIODevice::OpenMode mode = isForReading ? QIODevice::ReadOnly : QIODevice::ReadWrite | QIODevice::Unbuffered;
    if (fault.isEmpty() && file->open(descriptor, mode, QFileDevice::AutoCloseHandle))
        return QString();
    ::close(descriptor);
    return cannot(fault.isEmpty() ? file->errorString() : fault);
}

QString OpenDirectory::removeTree(const QString& name) const
{
    const int error = removeEntry(m_descriptor, QFile::encodeName(name).constData(), maxDepth);
    return error == 0 ? QString() : QStringLiteral("cannot remove %1: %2").arg(pathOf(name), qt_error_string(error));
}

QString OpenDirectory::moveDirectory(const QString& name, const OpenDirectory& to, const QString& newName) const
{
    if (::renameat(m_descriptor, QFile::encodeName(name).constData(), to.m_descriptor,
                   QFile::encodeName(newName).constData()) == 0)
        return QString();
    return QStringLiteral("cannot move %1 to %2: %3").arg(pathOf(name), to.pathOf(newName), qt_error_string(errno));
}

QString OpenDirectory::sync() const
{
    if (::fsync(m_descriptor) == 0 || errno == EINVAL || errno == ENOTSUP)
        return QString();
    return QStringLiteral("cannot write %1: %2").arg(m_path, qt_error_string(errno));
}

} // namespace host
