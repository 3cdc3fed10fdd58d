#include "host/installation/diskfile.h"

#include "common/global.h"
#include "host/installation/opendirectory.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QMutex>
#include <QMutexLocker>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace host {

namespace {

QMutex namingMutex; // the functions that make names are not thread-safe

constexpr qint64 maxRecordBytes = 64 * 1024;

} // namespace

QString syncFile(QFile* file)
{
    if (!file->flush())
        return file->errorString();
    // A file system that cannot sync answers EINVAL; nothing more can be done for the content.
    return ::fsync(file->handle()) == 0 || errno == EINVAL || errno == ENOTSUP ? QString() : qt_error_string(errno);
}

void syncDirectory(const QDir& dir)
{
    const int descriptor =
        ::open(QFile::encodeName(dir.absolutePath()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
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
    const QFileInfo info(path);
    QString error;
    const OpenDirectory parent = OpenDirectory::at(info.absolutePath(), &error);
    return parent.isOpen() ? parent.removeTree(info.fileName()) : error;
}

QString savingFailed(const QString& path, const QString& error)
{
    if (error.isEmpty())
        return error;
    for (const int full : {ENOSPC, EDQUOT}) {
        if (error.endsWith(qt_error_string(full)))
            return QStringLiteral("cannot write %1: the disk is full; make room there and try again").arg(path);
    }
    return QStringLiteral("cannot write %1: %2").arg(path, error);
}

QString saveFile(const QString& path, const QByteArray& bytes)
{
    return savingFailed(path, Global::safeSaving(path, bytes));
}

QString replaceFile(const QString& path, const QByteArray& bytes)
{
    const QString newPath = path + QStringLiteral(".new");
    const QByteArray newName = QFile::encodeName(newPath);
    ::unlink(newName.constData()); // left by a program that was killed
    const int descriptor = ::open(newName.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (descriptor < 0)
        return QStringLiteral("cannot write %1: %2").arg(newPath, qt_error_string(errno));
    QFile file;
    file.open(descriptor, QIODevice::WriteOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle);
    const qint64 written = file.write(bytes);
    QString error;
    if (written != bytes.size())
        error = savingFailed(path, file.errorString());
    else if (::fsync(descriptor) != 0 && errno != EINVAL && errno != ENOTSUP)
        error = savingFailed(path, qt_error_string(errno));
    file.close();
    if (error.isEmpty()) {
        Global::setFilePermissions(newPath);
        error = renamePath(newPath, path);
    }
    if (!error.isEmpty()) {
        ::unlink(newName.constData());
        return error;
    }
    syncDirectory(QFileInfo(path).absoluteDir());
    return QString();
}

QString saveRecord(const QString& path, const QJsonObject& record)
{
    return saveFile(path, QJsonDocument(record).toJson());
}

QJsonObject loadRecord(const QString& path)
{
    const QFileInfo info(path);
    QString error;
    QFile file;
    const OpenDirectory directory = OpenDirectory::at(info.absolutePath(), &error);
    if (!directory.isOpen() || !directory.openForReading(info.fileName(), &file).isEmpty())
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
