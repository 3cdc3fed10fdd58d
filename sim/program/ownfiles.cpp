#include "sim/program/ownfiles.h"

#include <QDir>
#include <QFile>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sim {

namespace {

constexpr mode_t ownerOnly = 0700;
constexpr mode_t othersWrite = S_IWGRP | S_IWOTH;

QString reason()
{
    return QString::fromLocal8Bit(strerror(errno));
}

// False with errno when one of the directories cannot be made.
bool makeDirectories(const QString& path)
{
    for (int end = path.indexOf(QLatin1Char('/'), 1);; end = path.indexOf(QLatin1Char('/'), end + 1)) {
        const QByteArray part = QFile::encodeName(path.left(end));
        if (::mkdir(part.constData(), ownerOnly) != 0 && errno != EEXIST)
            return false;
        if (end < 0)
            return true;
    }
}

QString whyNotOpened(const QString& path)
{
    struct stat status
    {
    };
    const int error = errno;
    if (::lstat(QFile::encodeName(path).constData(), &status) == 0 && S_ISLNK(status.st_mode))
        return QStringLiteral("%1 is a link; give the directory itself with --link-dir").arg(path);
    errno = error;
    return QStringLiteral("cannot use the directory %1: %2; give another with --link-dir").arg(path, reason());
}

// Empty for a directory in which nobody else can put something in our way.
QString whyNotOurs(const QString& path, int fd)
{
    struct stat status
    {
    };
    if (fstat(fd, &status) != 0)
        return whyNotOpened(path);
    if (status.st_uid != geteuid())
        return QStringLiteral("the directory %1 belongs to somebody else; give one of your own with --link-dir")
            .arg(path);
    if (status.st_mode & othersWrite)
        return QStringLiteral(
                   "others may write in the directory %1; \"chmod go-w %1\" ends that, or give another with --link-dir")
            .arg(path);
    if (flock(fd, LOCK_EX | LOCK_NB) == 0)
        return QString();
    if (errno == EWOULDBLOCK)
        return QStringLiteral("another phone-exchange serves the directory %1; end it, or give another with --link-dir")
            .arg(path);
    return QStringLiteral("cannot lock the directory %1: %2; give another with --link-dir").arg(path, reason());
}

} // namespace

LinkDirectory::~LinkDirectory()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

bool LinkDirectory::take(const QString& path, QString* error)
{
    const QString clean = QDir::cleanPath(path);
    if (!makeDirectories(clean)) {
        *error = QStringLiteral("cannot make the directory %1: %2; give another with --link-dir").arg(path, reason());
        return false;
    }
    const int fd = ::open(QFile::encodeName(clean).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    *error = fd < 0 ? whyNotOpened(path) : whyNotOurs(path, fd);
    if (error->isEmpty()) {
        m_fd = fd;
        return true;
    }
    if (fd >= 0)
        ::close(fd);
    return false;
}

bool replaceFile(const QString& path, const QByteArray& text, QString* error)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat status
    {
    };
    if (::lstat(name.constData(), &status) == 0 && !S_ISREG(status.st_mode)) {
        *error = QStringLiteral("cannot write %1: it is a link or no regular file; name the file itself").arg(path);
        return false;
    }
    // Under a name that nobody can foresee, then moved: a link that was put there meanwhile is
    // replaced, not followed.
    QTemporaryFile file(path + QStringLiteral(".XXXXXX"));
    if (!file.open() || file.write(text) != text.size() || !file.flush()) {
        *error = QStringLiteral("cannot write %1: %2; name another place").arg(path, file.errorString());
        return false;
    }
    if (std::rename(QFile::encodeName(file.fileName()).constData(), name.constData()) != 0) {
        *error = QStringLiteral("cannot write %1: %2; name another place").arg(path, reason());
        return false;
    }
    file.setAutoRemove(false);
    return true;
}

} // namespace sim
