#include "tools/profilefiles.h"

#include "com/formats/ccomsettings.h"
#include "common/global.h"
#include "common/settingskeys.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

namespace tune {

namespace {

// Programs of several users share the file, so it is made with the same modes as they make it.
constexpr auto newSettingsPermissions = QFileDevice::Permissions(0x6666);

QString settingsPath(const QString& installation)
{
    return QDir(installation).absoluteFilePath(QStringLiteral("settings"));
}

QString readChannelSettings(const QString& path, ChannelComSettings* settings)
{
    const QString recovery = Global::recoverSaving(path);
    if (!recovery.isEmpty())
        return recovery;
    QFile file(path);
    if (!file.exists())
        return QString(); // no ports yet
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
    const QByteArray bytes = file.readAll();
    const QString error = settings->fromByteArray(bytes);
    if (!error.isEmpty())
        return QStringLiteral("%1: %2; nothing was changed").arg(path, error);
    // This program would not write back everything, and nothing must be lost.
    if (settings->toByteArray() != bytes)
        return QStringLiteral("%1 holds more than this program knows; nothing was changed").arg(path);
    return QString();
}

QString writeKeys(const QString& path, const LinkProfile& profile)
{
    const bool isNew = !QFile::exists(path);
    // The programs of the installation may write at the same time, and what they write must stay.
    QSettings settings(path, QSettings::IniFormat);
    settings.allKeys(); // sections are parsed, and damage is found, only when somebody asks for keys
    if (settings.status() == QSettings::FormatError) {
        return QStringLiteral("cannot understand %1: a line of it is neither [Group] nor key=value; "
                              "nothing was changed")
            .arg(path);
    }
    if (settings.status() != QSettings::NoError || !settings.isWritable())
        return QStringLiteral("cannot write %1: check its permissions").arg(path);
    const auto set = [&](Setting setting, int value) { settings.setValue(settingKey(setting).key(), value); };
    set(Setting::DetailsTransportComMaxBytesToWrite, profile.maxBytesToWrite);
    set(Setting::DetailsTransportComMaxBytesInQueue, profile.maxBytesInQueue);
    set(Setting::DetailsTransportComResendInterval, profile.resendIntervalMs);
    set(Setting::DetailsTransportComConfirmationInterval, profile.confirmationIntervalMs);
    settings.sync();
    if (settings.status() != QSettings::NoError)
        return QStringLiteral("cannot write %1: check its permissions and the room on the disk").arg(path);
    if (isNew)
        QFile(path).setPermissions(newSettingsPermissions); // fails if the file is another user's: then its modes stay
    return QString();
}

} // namespace

QString installationError(const QString& directory)
{
    if (!QFileInfo(directory).isDir())
        return QStringLiteral("there is no directory %1").arg(directory);
    if (!QFileInfo(settingsPath(directory)).isDir()) {
        return QStringLiteral("%1 is no installation: it has no directory \"settings\"; give the root of one by "
                              "--installation, or make it by naming it (\"transport-host name NAME\" from its bin/)")
            .arg(directory);
    }
    return QString();
}

bool isAdaptive(const QString& installation)
{
    // Not by QSettings: that would keep what it read, and whoever asks next would not be told that
    // the file is damaged.
    QFile file(QDir(settingsPath(installation)).absoluteFilePath(QStringLiteral("settings.ini")));
    if (!file.open(QIODevice::ReadOnly))
        return false;
    QByteArray group;
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        line = line.trimmed();
        if (line.startsWith('[') && line.endsWith(']'))
            group = line.mid(1, line.size() - 2) + '/';
        else if (group + line == settingKey(Setting::DetailsTransportComAdaptive).key().toLatin1() + "=1")
            return true;
    }
    return false;
}

QString writeProfile(const QString& installation, const LinkProfile& profile)
{
    QString error = installationError(installation);
    if (!error.isEmpty())
        return error;
    const QDir settingsDir(settingsPath(installation));
    const QString channelPath = settingsDir.absoluteFilePath(QStringLiteral("channelCom.conf"));
    ChannelComSettings channel;
    error = readChannelSettings(channelPath, &channel);
    if (!error.isEmpty())
        return error;
    if (!isAdaptive(installation))
        error = writeKeys(settingsDir.absoluteFilePath(QStringLiteral("settings.ini")), profile);
    if (!error.isEmpty())
        return error;
    channel.packetSize = profile.packetSize;
    error = Global::safeSaving(channelPath, channel.toByteArray());
    if (error.isEmpty())
        return QString();
    const QString halfDone =
        isAdaptive(installation)
            ? QString()
            : QStringLiteral("; settings.ini has its new values already: mend this and run it again");
    return QStringLiteral("%1: %2%3").arg(channelPath, error, halfDone);
}

} // namespace tune
