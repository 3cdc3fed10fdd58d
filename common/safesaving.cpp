#include "common/csettings.h"
#include "common/global.h"
#include "common/logger.h"
#include "common/plantedlinks.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QIODevice>
#include <QThread>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int deviceWaitMs = 1;
constexpr int writePauseMs = 1;

void log(const QString& text)
{
    debug(QStringLiteral("Global"), text, DebugAlways, DebugFlagNone);
}

QString newPathOf(const QString& path)
{
    return QStringLiteral("%1.new").arg(path);
}

QString backupPathOf(const QString& path)
{
    return QStringLiteral("%1.old").arg(path);
}

QString lastSystemError()
{
    return qt_error_string(errno);
}

// Not with QFile: if a rename fails, it copies block by block, and a crash meanwhile would leave an
// incomplete file under the target name.
bool renameFile(const QString& from, const QString& to, QString* error)
{
    if (std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0)
        return true;
    *error = lastSystemError();
    return false;
}

// Some file systems cannot sync, as some on the network; the content is as safe there as it can be.
bool syncToDisk(int descriptor, QString* error)
{
    int result = -1;
    do {
        result = ::fsync(descriptor);
    } while (result != 0 && errno == EINTR);
    if (result == 0 || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)
        return true;
    *error = lastSystemError();
    return false;
}

// So that the renames survive a power failure, as far as the file system can do that.
void syncDirectoryOf(const QString& path)
{
    const QByteArray directory = QFile::encodeName(QFileInfo(path).absolutePath());
    const int descriptor = ::open(directory.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0)
        return;
    ::fsync(descriptor);
    ::close(descriptor);
}

QString renameFailed(const QString& path)
{
    return QStringLiteral("Не удалось переименовать файл %1").arg(path);
}

// If path cannot be examined, it is not therefore missing.
bool isMissing(const QString& path)
{
    struct stat facts = {};
    return ::stat(QFile::encodeName(path).constData(), &facts) != 0 && errno == ENOENT;
}

// A plain file, not a link to one: a backup is made by renaming a file.
bool isPlainFile(const QString& path)
{
    struct stat facts = {};
    return ::lstat(QFile::encodeName(path).constData(), &facts) == 0 && S_ISREG(facts.st_mode);
}

// A number of settings.ini that is read when it is first needed and then kept.
class KeptSetting
{
public:
    using Getter = int (CSettings::*)();
    explicit constexpr KeptSetting(Getter getter) : m_getter(getter) {}
    int value()
    {
        if (m_value.load() < 0)
            m_value.store((CSettings().*m_getter)());
        return m_value.load();
    }

private:
    const Getter m_getter;
    std::atomic<int> m_value{-1}; // -1: not read; none of the settings kept here can be negative
};

KeptSetting maxWritingTimeMs(&CSettings::detailsMaxWritingTime);
KeptSetting dirPermissions(&CSettings::dirPermissions);
KeptSetting filePermissions(&CSettings::filePermissions);

bool openSideFile(QFile& file, const QString& path, QString* error)
{
    const int descriptor = openEmpty(QFile::encodeName(path));
    *error = lastSystemError();
    return descriptor >= 0 &&
           file.open(descriptor, QIODevice::WriteOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle);
}

// Every byte of data on the disk, or an error text.
bool writeToDisk(QFile& file, const QByteArray& data, QString* error)
{
    if (!Global::writeData(file, data, 0) || !file.flush()) {
        *error = file.errorString();
        return false;
    }
    return syncToDisk(file.handle(), error);
}

void logFilePermissionsFailed(const QString& path, const QString& error)
{
    log(QStringLiteral("Не удалось изменить права доступа 0x%1 для файла %2 (0x%3). %4")
            .arg(QString::number(filePermissions.value(), 16), path, QString::number(int(QFile::permissions(path)), 16),
                 error));
}

QString writingFailed(const QString& error)
{
    log(QStringLiteral("safeSaving failed 6. Не удалось записать все данные в файл за отведенное время. %1")
            .arg(error));
    return QStringLiteral("Не удалось записать все данные в файл за отведенное время. %1").arg(error);
}

QString putInFreePlace(const QString& path, const QString& newPath)
{
    QString error;
    if (!renameFile(newPath, path, &error)) {
        log(QStringLiteral("safeSaving failed 4. Не удалось переименовать файл %1. %2").arg(newPath, error));
        return renameFailed(newPath);
    }
    syncDirectoryOf(path);
    return {};
}

void rollBack(const QString& path, const QString& backupPath, const QString& newPath, const QString& newError)
{
    QString backupError;
    if (renameFile(backupPath, path, &backupError))
        log(QStringLiteral("safeSaving failed 2. Не удалось переименовать файл %1. %2").arg(newPath, newError));
    else
        log(QStringLiteral("safeSaving failed 3. Не удалось переименовать файл %1. %2").arg(backupPath, backupError));
}

QString swapIn(const QString& path, const QString& newPath)
{
    if (!QFile::exists(path))
        return putInFreePlace(path, newPath);

    const QString backupPath = backupPathOf(path);
    if (QFile::exists(backupPath) && !QFile::remove(backupPath)) {
        log(QStringLiteral(
                "safeSaving file removing failed. Не удалось удалить старый файл при безопасном сохранении %1.")
                .arg(backupPath));
        return QStringLiteral("Не удалось удалить файл %1").arg(backupPath);
    }
    QString error;
    if (!renameFile(path, backupPath, &error)) {
        log(QStringLiteral("safeSaving failed 1. Не удалось переименовать файл %1. %2").arg(path, error));
        return renameFailed(path);
    }
    if (!renameFile(newPath, path, &error)) {
        rollBack(path, backupPath, newPath, error);
        return renameFailed(newPath);
    }
    syncDirectoryOf(path);
    QFile backup(backupPath);
    if (!backup.remove()) {
        log(QStringLiteral(
                "safeSaving file removing failed. Не удалось удалить старый файл при безопасном сохранении %1. %2")
                .arg(backupPath, backup.errorString()));
    }
    return {};
}

// "каталога" is for the directory that was asked for, "внутреннего каталога" for those above it that
// were created too.
bool setDirPermissions(const QString& path, bool isInner)
{
    const int wanted = dirPermissions.value();
    QString error;
    if (changePermissions(path, QFileDevice::Permissions(wanted), &error))
        return true;
    const QString pattern =
        isInner ? QStringLiteral("Не удалось изменить права доступа 0x%1 для внутреннего каталога %2 (0x%3). %4")
                : QStringLiteral("Не удалось изменить права доступа 0x%1 для каталога %2 (0x%3). %4");
    log(pattern.arg(QString::number(wanted, 16), path, QString::number(int(QFile::permissions(path)), 16), error));
    return false;
}

// path and those above it that do not exist, the innermost first.
QStringList missingDirectories(const QString& path)
{
    QStringList missing;
    for (QString current = path; !QFile::exists(current); current = QFileInfo(current).path())
        missing.append(current);
    return missing;
}

} // namespace

QString Global::safeSaving(const QString& path, const QByteArray& data)
{
    makePath(QFileInfo(path).absoluteDir()); // reports for itself; the opening shows whether it matters
    const QString newPath = newPathOf(path);
    QFile file;
    QString error;
    // NOLINTNEXTLINE(misc-redundant-expression): a second try
    if (!openSideFile(file, newPath, &error) && !openSideFile(file, newPath, &error)) {
        log(QStringLiteral("safeSaving failed 7. Не удалось открыть файл для записи. %1.").arg(error));
        return QStringLiteral("Не удалось открыть файл для записи. %1.").arg(error);
    }
    const bool isWritten = writeToDisk(file, data, &error);
    // Through the open file: somebody may have put another one under its name.
    if (isWritten && !file.setPermissions(QFileDevice::Permissions(filePermissions.value())))
        logFilePermissionsFailed(newPath, file.errorString());
    file.close();
    if (isWritten)
        return swapIn(path, newPath);
    QFile torn(newPath);
    if (!torn.remove())
        log(QStringLiteral("safeSaving failed 5. Не удалось удалить временный файл при ошибке записи. %1.")
                .arg(torn.errorString()));
    return writingFailed(error);
}

QString Global::safeSaving(const QString& path, const QString& newPath)
{
    // The file may still be only in the system's memory. If it cannot be opened, the renames will
    // show that.
    QString error;
    const int descriptor =
        ::open(QFile::encodeName(newPath).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    const bool isSynced = descriptor < 0 || syncToDisk(descriptor, &error);
    if (descriptor >= 0)
        ::close(descriptor);
    return isSynced ? swapIn(path, newPath) : writingFailed(error);
}

QString Global::recoverSaving(const QString& path, bool* recovered)
{
    if (recovered)
        *recovered = false;
    const QString backupPath = backupPathOf(path);
    if (!isMissing(path) || !isPlainFile(backupPath))
        return {};
    QString error;
    if (!renameFile(backupPath, path, &error)) {
        log(QStringLiteral("recoverSaving failed. Не удалось переименовать файл %1. %2").arg(backupPath, error));
        return renameFailed(backupPath);
    }
    syncDirectoryOf(path);
    log(QStringLiteral("recoverSaving. Файл %1 восстановлен после прерванного сохранения.").arg(path));
    if (recovered)
        *recovered = true;
    return {};
}

QStringList Global::recoverSavings(const QDir& dir)
{
    const QString suffix = backupPathOf(QString());
    QStringList paths;
    for (const QString& name : dir.entryList(QDir::Files | QDir::Hidden, QDir::Name)) {
        if (!name.endsWith(suffix))
            continue;
        const QString path = dir.absoluteFilePath(name.left(name.length() - suffix.length()));
        bool recovered = false;
        recoverSaving(path, &recovered);
        if (recovered)
            paths.append(path);
    }
    return paths;
}

bool Global::writeData(QIODevice& device, const QByteArray& data, int timeoutMs)
{
    if (data.isEmpty())
        return true;
    if (timeoutMs == 0)
        timeoutMs = maxWritingTimeMs.value();
    qint64 written = device.write(data);
    if (written < 0)
        return false;
    if (written == data.size())
        return true;
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        device.waitForBytesWritten(deviceWaitMs);
        QThread::msleep(writePauseMs);
        const qint64 more = device.write(data.constData() + written, data.size() - written);
        if (more < 0)
            return false;
        written += more;
        // Before the check for completeness: if it comes too late, it has failed.
        if (timeoutMs > 0 && timer.elapsed() > timeoutMs)
            return false;
        if (!device.isOpen())
            return false;
        if (written == data.size())
            return true;
    }
}

bool Global::makePath(const QDir& dir)
{
    const QString path = QDir::cleanPath(dir.absolutePath());
    const QStringList created = missingDirectories(path);
    if (!QDir().mkpath(path)) {
        log(QStringLiteral("Не удалось создать путь %1").arg(path));
        return false;
    }
    bool allSet = true;
    for (const QString& directory : created) {
        allSet = setDirPermissions(directory, directory != path) && allSet;
        syncDirectoryOf(directory);
    }
    return allSet;
}

bool Global::setFilePermissions(const QString& path)
{
    const int wanted = filePermissions.value();
    QString error;
    if (changePermissions(path, QFileDevice::Permissions(wanted), &error))
        return true;
    logFilePermissionsFailed(path, error);
    return false;
}
