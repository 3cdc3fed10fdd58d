#include "host/installation/privacy.h"

#include "common/global.h"
#include "common/settingskeys.h"
#include "host/installation/hostsettings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host {

namespace {

constexpr mode_t ownerOnly = S_IRWXU;
constexpr mode_t ownerAndGroup = S_IRWXU | S_IRWXG | S_ISGID;
constexpr mode_t groupAndOthers = S_IRWXG | S_IRWXO;

// The modes of settings.ini: see QFileDevice::Permission.
constexpr int ownerDirectories = 0x7700;
constexpr int ownerFiles = 0x6600;
constexpr int groupDirectories = 0x7770;
constexpr int groupFiles = 0x6660;

QString settingsPath()
{
    return QDir::cleanPath(Global::settingsDir().absolutePath());
}

QString dataPath()
{
    return QDir::cleanPath(Global::dataDir().absolutePath());
}

// The facts about the entry itself, not about what a link leads to.
bool statusOf(const QString& path, struct stat* status)
{
    return ::lstat(QFile::encodeName(path).constData(), status) == 0;
}

bool exists(const QString& path)
{
    struct stat status
    {
    };
    return statusOf(path, &status) || errno != ENOENT;
}

QString userName()
{
    const passwd* user = getpwuid(geteuid());
    return user ? QString::fromLocal8Bit(user->pw_name) : QString::number(geteuid());
}

QString cannotMake(const QString& path)
{
    const QString reason = QString::fromLocal8Bit(strerror(errno));
    return QStringLiteral(
               "cannot make %1: %2; have somebody who may do so give the command \"install -d -m 700 -o %3 %4 %5\"")
        .arg(path, reason, userName(), shellWord(settingsPath()), shellWord(dataPath()));
}

// For the owner, and for the group unless it is -1, independent of the umask.
QString makePrivate(const QString& path, gid_t group)
{
    const QByteArray name = QFile::encodeName(path);
    if (::mkdir(name.constData(), ownerOnly) != 0)
        return cannotMake(path);
    const int fd = ::open(name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    const bool hasGroup = group != static_cast<gid_t>(-1);
    const bool isMade = fd >= 0 && (!hasGroup || ::fchown(fd, static_cast<uid_t>(-1), group) == 0) &&
                        ::fchmod(fd, hasGroup ? ownerAndGroup : ownerOnly) == 0;
    const QString error = isMade ? QString() : cannotMake(path);
    if (fd >= 0)
        ::close(fd);
    if (!isMade)
        ::rmdir(name.constData());
    return error;
}

// The directories of the level that a host uses by default. They are made here, so that what is made
// in them gets their group.
QString makeDataDirectories(gid_t group)
{
    for (const QDir& dir : {Global::dataDir(), Global::dataSecrecyDir(0), Global::logDir(0), Global::messagesDir(0),
                            Global::inputMessagesDir(0), Global::outputMessagesDir(0), Global::incompleteMessagesDir(0),
                            Global::tasksDir(0), Global::tasksToTransportDir(0)}) {
        const QString error = makePrivate(QDir::cleanPath(dir.absolutePath()), group);
        if (!error.isEmpty())
            return error;
    }
    return QString();
}

// New files get no rights for others that the directory does not give them. The umask is never made
// weaker.
void followMode(mode_t directory)
{
    const mode_t current = umask(groupAndOthers);
    const mode_t kept = directory & S_ISGID ? current & S_IRWXO : current;
    umask((~directory & groupAndOthers) | kept);
}

// The channel's own default is what other hosts expect of it; ours has the link measure the line.
QString writeSettings(mode_t directory)
{
    const bool isShared = directory & S_IWGRP;
    const QString error = settingsBarred(Global::internalSettingsFilePath());
    if (!error.isEmpty())
        return error;
    QSettings settings(Global::internalSettingsFilePath(), QSettings::IniFormat);
    settings.setValue(QStringLiteral("Permissions/dirPermissions"), isShared ? groupDirectories : ownerDirectories);
    settings.setValue(QStringLiteral("Permissions/filePermissions"), isShared ? groupFiles : ownerFiles);
    settings.setValue(settingKey(Setting::DetailsTransportComAdaptive).key(), 1);
    settings.sync();
    return settings.status() == QSettings::NoError
               ? QString()
               : QStringLiteral("cannot write %1: check that you may write in its directory").arg(settings.fileName());
}

// Makes what does not exist yet.
QString complete(gid_t group)
{
    const bool isNew = !exists(settingsPath());
    QString error = isNew ? makePrivate(settingsPath(), group) : QString();
    struct stat status
    {
    };
    if (!error.isEmpty() || ::stat(QFile::encodeName(settingsPath()).constData(), &status) != 0)
        return error;
    followMode(status.st_mode);
    if (status.st_mode & S_IRWXO)
        return QString(); // shared with others: its owner's decision
    if (!exists(dataPath()))
        error = makeDataDirectories(status.st_mode & S_ISGID ? status.st_gid : static_cast<gid_t>(-1));
    // Only if we may write there. Otherwise it is somebody else's, and we only read it.
    if (error.isEmpty() && !exists(Global::internalSettingsFilePath()) &&
        ::access(QFile::encodeName(settingsPath()).constData(), W_OK) == 0)
        error = writeSettings(status.st_mode);
    return error;
}

QString findGroup(const QString& name, gid_t* id)
{
    const group* entry = getgrnam(name.toLocal8Bit().constData());
    if (!entry)
        return QStringLiteral("there is no group %1: \"getent group\" shows those there are").arg(name);
    *id = entry->gr_gid;
    QVector<gid_t> own(getgroups(0, nullptr));
    getgroups(own.size(), own.data());
    if (geteuid() == 0 || getegid() == *id || own.contains(*id))
        return QString();
    return QStringLiteral("you are no member of the group %1: have an administrator add you, and log in again")
        .arg(name);
}

} // namespace

QString shellWord(const QString& path)
{
    static const QString plain = QStringLiteral("/._-+,");
    for (const QChar character : path) {
        if (!character.isLetterOrNumber() && !plain.contains(character))
            return QLatin1Char('\'') + QString(path).replace(QLatin1Char('\''), QStringLiteral("'\\''")) +
                   QLatin1Char('\'');
    }
    return path;
}

QString prepareInstallation()
{
    return complete(static_cast<gid_t>(-1));
}

QString setUpInstallation(const QString& groupName, bool* isNew)
{
    *isNew = !exists(settingsPath()) && !exists(dataPath());
    if (!*isNew)
        return QString();
    gid_t id = static_cast<gid_t>(-1);
    const QString error = groupName.isEmpty() ? QString() : findGroup(groupName, &id);
    return error.isEmpty() ? complete(id) : error;
}

} // namespace host
