#include "common/global.h"

#include "common/legacyrandom.h"
#include "common/plantedlinks.h"
#include "common/qtmessages.h"

#include <QCalendar>
#include <QCoreApplication>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>

#include <atomic>
#include <memory>
#include <unistd.h>

namespace {

std::atomic<bool> gEmergecyExit{false};

QBasicMutex applicationDirMutex;

// Qt makes its calendar when the first date is used, without a lock: if two threads do so at the
// same time, one gets an empty text for its stamp. So it is made here, when the library is loaded.
[[maybe_unused]] const bool isCalendarMade = QCalendar().isValid();

QDir subDir(const QDir& parent, const QString& name)
{
    return QDir(parent.absoluteFilePath(name));
}

QString settingsFile(const QString& name)
{
    return Global::settingsDir().absoluteFilePath(name);
}

// All processes that never seeded the generator use the same probe name, so one may remove the
// other's probe: a probe that is gone counts as removed.
bool removeProbe(QFile& probe)
{
    return probe.remove() || !QFile::exists(probe.fileName());
}

} // namespace

QDir Global::applicationDir()
{
    // Without an application object Qt warns, and a message handler that logs calls this again.
    if (!QCoreApplication::instance())
        return QDir(QCoreApplication::applicationDirPath());
    // The application object computes the path on the first call, without a lock of its own.
    QMutexLocker locker(&applicationDirMutex);
    return QDir(QCoreApplication::applicationDirPath());
}

QDir Global::installDir()
{
    // Kept as text, because copies of a QDir share state that even reading changes. Never freed:
    // logging continues while static objects are destroyed.
    static std::atomic<const QString*> known{nullptr};
    if (const QString* path = known.load(std::memory_order_acquire))
        return QDir(*path);
    // From the path's text: QDir::cdUp() fails if the directory is missing.
    auto path =
        std::make_unique<const QString>(QDir::cleanPath(applicationDir().absolutePath() + QStringLiteral("/..")));
    const QDir dir(*path);
    if (!QCoreApplication::instance())
        return dir;
    const QString* nothing = nullptr;
    if (known.compare_exchange_strong(nothing, path.get()))
        (void)path.release(); // kept for good
    return dir;
}

QDir Global::settingsDir()
{
    return subDir(installDir(), QStringLiteral("settings/"));
}

QString Global::internalSettingsFilePath()
{
    return settingsFile(QStringLiteral("settings.ini"));
}

QString Global::generalSettingsFilePath()
{
    return settingsFile(QStringLiteral("generalSettings.ini"));
}

QString Global::uiSettingsFilePath()
{
    return settingsFile(QStringLiteral("ui.ini"));
}

QString Global::secrecySettingsFilePath()
{
    return settingsFile(QStringLiteral("secrecy.conf"));
}

QString Global::titlesSettingsFilePath()
{
    return settingsFile(QStringLiteral("titles.conf"));
}

QString Global::autoDeletionSettingsFilePath()
{
    return settingsFile(QStringLiteral("autoDeletion.conf"));
}

QString Global::notificationsSettingsFilePath()
{
    return settingsFile(QStringLiteral("notifications.conf"));
}

QString Global::channelEnableSettingsFilePath()
{
    return settingsFile(QStringLiteral("channels.conf"));
}

QString Global::channelIpSettingsFilePath()
{
    return settingsFile(QStringLiteral("channelIp.conf"));
}

QString Global::channelComSettingsFilePath()
{
    return settingsFile(QStringLiteral("channelCom.conf"));
}

QString Global::channelDedicatedSettingsFilePath()
{
    return settingsFile(QStringLiteral("channelDedicated.conf"));
}

QString Global::abonentsSettingsFilePath()
{
    return settingsFile(QStringLiteral("abonents.conf"));
}

QString Global::groupsSettingsFilePath()
{
    return settingsFile(QStringLiteral("groups.conf"));
}

QDir Global::notificationsAudioDir()
{
    return subDir(installDir(), QStringLiteral("settings/sounds/"));
}

QDir Global::messagesPluginsDir()
{
    return subDir(applicationDir(), QStringLiteral("messagesPlugins/"));
}

QDir Global::settingsPluginsDir()
{
    return subDir(applicationDir(), QStringLiteral("settingsPlugins/"));
}

QDir Global::channelSettingsPluginsDir()
{
    return subDir(applicationDir(), QStringLiteral("channelSettingsPlugins/"));
}

QDir Global::notificationPluginsDir()
{
    return subDir(applicationDir(), QStringLiteral("notificationPlugins/"));
}

QDir Global::channelPluginsDir()
{
    return subDir(applicationDir(), QStringLiteral("channelPlugins/"));
}

QDir Global::windowPluginsDir()
{
    return subDir(applicationDir(), QStringLiteral("windowPlugins/"));
}

QDir Global::emergecyPatchDir()
{
    return subDir(installDir(), QStringLiteral("emergecyPatch/"));
}

QDir Global::dataDir()
{
    return subDir(installDir(), QStringLiteral("data/"));
}

QDir Global::dataSecrecyDir(int level)
{
    return subDir(dataDir(), QStringLiteral("%1/").arg(level));
}

QString Global::abonentsStatesFilePath()
{
    return dataSecrecyDir(0).absoluteFilePath(QStringLiteral("abonents.states"));
}

QDir Global::logDir(int level)
{
    return subDir(dataSecrecyDir(level), QStringLiteral("log/"));
}

QString Global::journalsFilePath(int level)
{
    return dataSecrecyDir(level).absoluteFilePath(QStringLiteral("journals_2.2.db"));
}

QDir Global::journalsRenderDir(int level)
{
    return subDir(dataSecrecyDir(level), QStringLiteral("journalsRender"));
}

QDir Global::messagesDir(int level)
{
    return subDir(dataSecrecyDir(level), QStringLiteral("messages/"));
}

QDir Global::inputMessagesDir(int level)
{
    return subDir(messagesDir(level), QStringLiteral("input/"));
}

QDir Global::outputMessagesDir(int level)
{
    return subDir(messagesDir(level), QStringLiteral("output/"));
}

QDir Global::draftMessagesDir(int level)
{
    return subDir(messagesDir(level), QStringLiteral("draft/"));
}

QDir Global::incompleteMessagesDir(int level)
{
    return subDir(messagesDir(level), QStringLiteral("incomplete/"));
}

QDir Global::transitMessagesDir(int level)
{
    return subDir(messagesDir(level), QStringLiteral("transit/"));
}

QDir Global::tasksDir(int level)
{
    return subDir(dataSecrecyDir(level), QStringLiteral("tasks/"));
}

QDir Global::tasksToInterfaceDir(int level)
{
    return subDir(tasksDir(level), QStringLiteral("toInterface"));
}

QDir Global::tasksToTransportDir(int level)
{
    return subDir(tasksDir(level), QStringLiteral("toTransport"));
}

bool Global::checkAccess(const QDir& dir)
{
    if (!dir.exists() && !dir.mkpath(dir.absolutePath())) {
        sendQtMessageItems(QtWarningMsg, "Global::checkAccess: Не удалось создать каталог", dir.absolutePath());
        return false;
    }
    QFile probe(dir.absoluteFilePath(QStringLiteral(".accessTest_%1.txt").arg(legacyRandom())));
    // Its name can be guessed: if others have put something there, it is not written to.
    const int descriptor = openNew(QFile::encodeName(probe.fileName()));
    if (descriptor < 0)
        return false;
    [[maybe_unused]] const ssize_t written = ::write(descriptor, "test", 4); // a full disk does not matter
    ::close(descriptor);
    if (removeProbe(probe) || removeProbe(probe)) // NOLINT(misc-redundant-expression): a second try
        return true;
    sendQtMessageItems(QtWarningMsg, "Global::checkAccess: Не удалось удалить временный файл", probe.errorString(),
                       probe.fileName());
    return false;
}

bool Global::checkSecrecy(int level)
{
    return checkAccess(dataSecrecyDir(level));
}

int Global::currentSecrecy()
{
    for (int level = 0; level < secrecyLevels; ++level) {
        if (checkSecrecy(level))
            return level;
    }
    sendQtMessageItems(QtCriticalMsg, "Global: Error! Can not get current secrecy level.");
    return 0;
}

bool Global::isEmergecyExit()
{
    return gEmergecyExit.load();
}

void Global::setEmergecyExit(bool emergecyExit)
{
    gEmergecyExit.store(emergecyExit);
}
