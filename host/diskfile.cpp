#include "host/diskfile.h"

#include "common/global.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include <QJsonDocument>
#include <QMutex>
#include <QMutexLocker>

namespace host {

namespace {

QMutex namingMutex; // the functions that name things are for one thread

constexpr qint64 maxRecordBytes = 64 * 1024;

} // namespace

QString syncFile(QFile* file)
{
    if (!file->flush())
        return QStringLiteral("cannot write %1: %2").arg(file->fileName(), file->errorString());
    // A file system that cannot sync says EINVAL; then the content is as safe as it gets.
    if (::fsync(file->handle()) != 0 && errno != EINVAL && errno != ENOTSUP)
        return QStringLiteral("cannot write %1: %2").arg(file->fileName(), qt_error_string(errno));
    return QString();
}

void syncDirectory(const QDir& dir)
{
    const int descriptor = ::open(QFile::encodeName(dir.absolutePath()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    ::fsync(descriptor);
    ::close(descriptor);
}

QString renamePath(const QString& from, const QString& to)
{
    if (std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0)
        return QString();
    return QStringLiteral("cannot move %1 to %2: %3").arg(from, to, qt_error_string(errno));
}

QString removeDirectory(const QString& path)
{
    QDir dir(path);
    if (!dir.exists() || dir.removeRecursively())
        return QString();
    return QStringLiteral("cannot remove %1").arg(path);
}

QString saveRecord(const QString& path, const QJsonObject& record)
{
    return Global::safeSaving(path, QJsonDocument(record).toJson());
}

QJsonObject loadRecord(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QJsonObject();
    return QJsonDocument::fromJson(file.read(maxRecordBytes)).object();
}

QString nextMessageName(const QDir& dir)
{
    QMutexLocker locker(&namingMutex);
    return Global::nextMessageDirName(dir);
}

QString nextTaskName(const QDir& dir)
{
    QMutexLocker locker(&namingMutex);
    return Global::nextTaskFileName(dir);
}

QString idText(quint64 id)
{
    return QString::number(id, 16).rightJustified(16, QLatin1Char('0'));
}

quint64 idFromText(const QString& text)
{
    bool ok = false;
    const quint64 id = text.toULongLong(&ok, 16);
    return ok && text.size() == 16 ? id : 0;
}

} // namespace host
