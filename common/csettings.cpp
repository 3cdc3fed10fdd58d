#include "common/csettings.h"

#include "common/cancelguard.h"
#include "common/global.h"
#include "common/plantedlinks.h"
#include "common/qtmessages.h"

#include <QCoreApplication>
#include <QDir>
#include <QEvent>
#include <QFile>
#include <QLockFile>
#include <QMutex>
#include <QMutexLocker>

#include <atomic>
#include <memory>
#include <sys/stat.h>
#include <utility>

namespace {

// Of the settings file and its directory; not from the permission keys, which live in this very file.
constexpr auto settingsDirPermissions = QFileDevice::Permissions(0x7777);
constexpr auto settingsFilePermissions = QFileDevice::Permissions(0x6666);

// The shared object of settings.ini, made on first use and never freed.
std::atomic<SettingsPointer*> gCSettingsSettings{nullptr};

// Guards every SettingsPointer. Has no destructor, so that it serves to the end of the process.
QBasicMutex settingsMutex;

thread_local bool isOperating = false; // this thread holds the lock

// What protects every operation, in this order: no cancellation; messages are kept back until the
// lock is free again (a message handler may read settings); the lock. Qt's own messages cannot be
// kept back. If a handler of such a message starts another operation, that one is nested: it takes
// no lock and must not touch the store.
struct Operation
{
    Operation() { isOperating = true; }
    ~Operation() { isOperating = isNested; }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

    CancelGuard cancelGuard;
    MessageHold messageHold;
    const bool isNested = isOperating;
    QMutexLocker locker{isNested ? nullptr : &settingsMutex};
};

// Null for a file that is not there. In UTC, because every look-up and every log line asks for it,
// and QFileInfo's conversion into local time costs more than all the rest.
QDateTime modificationTime(const QByteArray& path)
{
    struct stat status;
    if (stat(path.constData(), &status) != 0)
        return {};
    constexpr qint64 msPerS = 1000;
    constexpr qint64 nsPerMs = 1000000;
    return QDateTime::fromMSecsSinceEpoch(status.st_mtim.tv_sec * msPerS + status.st_mtim.tv_nsec / nsPerMs, Qt::UTC);
}

bool isNoLockFile(const QString& path)
{
    struct stat facts;
    return lstat(QFile::encodeName(path).constData(), &facts) == 0 && !S_ISREG(facts.st_mode);
}

SettingsPointer* sharedSettings()
{
    if (SettingsPointer* settings = gCSettingsSettings.load(std::memory_order_acquire))
        return settings;
    // Made without the lock, because the constructor tests directories and may warn. If several
    // threads come first at the same time, one of them wins.
    auto settings = std::make_unique<SettingsPointer>(Global::internalSettingsFilePath());
    SettingsPointer* nothing = nullptr;
    if (gCSettingsSettings.compare_exchange_strong(nothing, settings.get()))
        return settings.release();
    return nothing;
}

} // namespace

// Between this check and the writing only another program's write can come in, and that is short.
QString obstacleToSettings(const QString& path, int patienceMs)
{
    if (isForeignLink(QFile::encodeName(path)))
        return path;
    const QString lockPath = path + QStringLiteral(".lock");
    // If it is a pipe, QLockFile would wait for ever to read from it.
    if (isNoLockFile(lockPath) || isNoLockFile(lockPath + QStringLiteral(".rmlock")))
        return lockPath;
    // QSettings removes a lock file that is old or whose owner is gone; the same rules here.
    QLockFile lock(lockPath);
    return !lock.tryLock(patienceMs) && lock.error() == QLockFile::LockFailedError ? lockPath : QString();
}

SettingsPointer::SettingsPointer(const QString& fileName)
    : QSettings(fileName, QSettings::IniFormat), fileInfo(fileName), writable(Global::checkSecrecy(0)),
      m_encodedPath(QFile::encodeName(QSettings::fileName()))
{
}

void SettingsPointer::sync()
{
    const Operation operation;
    if (!operation.isNested)
        syncLocked();
}

bool SettingsPointer::event(QEvent* event)
{
    if (event->type() == QEvent::UpdateRequest)
        return true;
    return QSettings::event(event);
}

void SettingsPointer::syncLocked()
{
    fileInfo.refresh();
    QDateTime modified = modificationTime(m_encodedPath);
    if (!changed && modified == lastModified)
        return;
    const bool exists = QFile::exists(fileName());
    if (!exists)
        createDirectory();
    if (changed && !canWrite())
        return;
    QSettings::sync();
    if (!exists)
        giveFilePermissions();
    if (changed) {
        // One delayed write-back is posted for each change; nothing is left for it to do.
        QCoreApplication::removePostedEvents(this, QEvent::UpdateRequest);
        fileInfo.refresh();
        modified = modificationTime(m_encodedPath);
        // Another process may have written since; its edit must not count as read.
        QSettings::sync();
    }
    lastModified = modified;
    changed = false;
}

bool SettingsPointer::canWrite()
{
    // After one refusal the lock is only checked, without waiting, until it is free.
    const QString obstacle = obstacleToSettings(fileName(), m_isRefused ? 0 : settingsLockPatienceMs);
    if (!obstacle.isEmpty()) {
        refuseWriting(obstacle);
        return false;
    }
    m_isRefused = false;
    return true;
}

void SettingsPointer::refuseWriting(const QString& path)
{
    if (std::exchange(m_isRefused, true))
        return;
    sendQtMessageItems(
        QtWarningMsg,
        "Настройки не записаны, используются значения по умолчанию. Удалите, если это осталось от другой программы:",
        path);
}

void SettingsPointer::createDirectory() const
{
    const QString path = fileInfo.absolutePath();
    if (QFile::exists(path))
        return;
    QDir().mkpath(path);
    QString error;
    if (!changePermissions(path, settingsDirPermissions, &error))
        sendQtMessageItems(QtWarningMsg, "Не удалось изменить права доступа каталога с настройками", path, error);
}

void SettingsPointer::giveFilePermissions() const
{
    // If there is nothing to write, no file is made.
    QString error;
    if (QFile::exists(fileName()) && !changePermissions(fileName(), settingsFilePermissions, &error))
        sendQtMessageItems(QtWarningMsg, "Не удалось изменить права доступа файла настроек", fileName(), error);
}

CSettings::CSettings()
{
    CancelGuard cancelGuard;
    m_settings = sharedSettings();
    m_settings->sync();
}

CSettings::~CSettings()
{
    m_settings->sync();
}

void CSettings::write(const QString& key, const QVariant& value)
{
    const Operation operation;
    if (!operation.isNested)
        writeLocked(key, value);
}

void CSettings::writeLocked(const QString& key, const QVariant& value)
{
    if (!m_settings->writable)
        return;
    m_settings->setValue(key, value);
    m_settings->changed = true;
}

bool CSettings::debugCategory(int level)
{
    if (level < 1 || level > lastDebugCategory)
        return true;
    return boolean(Setting(level));
}

bool CSettings::boolean(Setting setting)
{
    const SettingKey& declared = settingKey(setting);
    const QString key = declared.key();
    const bool defaultValue = declared.defaultNumber != 0;
    const Operation operation;
    if (operation.isNested)
        return defaultValue;
    const QVariant value = m_settings->value(key);
    // A value that QSettings reads as invalid is there all the same, and counts as false.
    if (!value.isValid() && !m_settings->contains(key)) {
        writeLocked(key, defaultValue);
        return defaultValue;
    }
    return value.toBool();
}

int CSettings::integer(Setting setting)
{
    const SettingKey& declared = settingKey(setting);
    const QString key = declared.key();
    const Operation operation;
    if (operation.isNested)
        return declared.defaultNumber;
    bool isInteger = false;
    // From the text: QVariant would shorten a large number to one that may be in the range.
    const int value = m_settings->value(key).toString().toInt(&isInteger);
    if (isInteger && value >= declared.minimum && value <= declared.maximum)
        return value;
    writeLocked(key, declared.defaultNumber);
    return declared.defaultNumber;
}

QString CSettings::text(Setting setting)
{
    const SettingKey& declared = settingKey(setting);
    const QString key = declared.key();
    const QString defaultValue = QString::fromLatin1(declared.defaultText);
    const Operation operation;
    if (operation.isNested)
        return defaultValue;
    if (!m_settings->contains(key)) {
        writeLocked(key, defaultValue);
        return defaultValue;
    }
    return m_settings->value(key, defaultValue).toString();
}
