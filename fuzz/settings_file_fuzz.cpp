// The settings file with any contents: every value that is used is within its limits, and
// the file then lists each key with the value that was used.
#include "common/csettings.h"
#include "common/global.h"
#include "common/settingskeys.h"
#include "fuzz/check.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QStringList>

#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>

using fuzz::require;

namespace {

// Each file gets a time of its own: two edits within a millisecond would not be noticed.
void giveNewTime(const QString& path)
{
    static time_t seconds = 1000000000;
    const timespec time{++seconds, 0};
    const timespec times[2] = {time, time};
    utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0);
}

void writeFile(const QString& path, const QByteArray& contents)
{
    QFile file(path);
    require(file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered), "the root can be written");
    file.write(contents);
    file.close();
    giveNewTime(path);
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    require(file.open(QIODevice::ReadOnly), "the settings file is there");
    return file.readAll();
}

// Every value as it is used, as text, in the order of the keys.
QStringList valuesInUse()
{
    CSettings settings;
    QStringList values{QVariant(settings.debugAll()).toString()};
    for (int level = 1; level <= lastDebugCategory; ++level)
        values += QVariant(settings.debugCategory(level)).toString();
    for (const int number :
         {settings.dirPermissions(), settings.filePermissions(), settings.detailsMaxWritingTime(),
          settings.detailsTransportServerThreadStopTimeout(), settings.detailsTransportComAtOkTimeout(),
          settings.detailsTransportComAtReadyCheckTimeout(), settings.detailsTransportComDsrCheckInterval(),
          settings.detailsTransportComOpenInterval(), settings.detailsTransportComConnectTimeout(),
          settings.detailsTransportComResetTimeout(), settings.detailsTransportComMaxBytesToWrite(),
          settings.detailsTransportComMaxBytesInQueue(), settings.detailsTransportComResendInterval(),
          settings.detailsTransportComConfirmationInterval(), settings.detailsTransportComAdaptive()})
        values += QString::number(number);
    values += settings.detailsTransportComControlSymbol();
    return values;
}

void checkLimits(const QStringList& values)
{
    require(values.size() == settingCount, "every key was asked for");
    for (int i = 0; i < settingCount; ++i) {
        const SettingKey& key = settingKey(Setting(i));
        const int value = values.at(i).toInt();
        require(key.type != SettingKey::Int || (value >= key.minimum && value <= key.maximum),
                "a number is within its limits");
    }
}

// Read from a copy, since two objects on one file share what they have read.
void checkFileLists(const QStringList& values, const QByteArray& contents)
{
    static const QString copy = Global::settingsDir().absoluteFilePath(QStringLiteral("copy.ini"));
    writeFile(copy, contents);
    const QSettings file(copy, QSettings::IniFormat);
    for (int i = 0; i < settingCount; ++i) {
        const SettingKey& key = settingKey(Setting(i));
        require(file.contains(key.key()), "the file lists every key");
        const QVariant value = file.value(key.key());
        const QString text = key.type == SettingKey::Bool ? QVariant(value.toBool()).toString() : value.toString();
        require(key.type == SettingKey::Int ? text.toInt() == values.at(i).toInt() : text == values.at(i),
                "the value listed is the one used");
    }
}

} // namespace

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const QString path = Global::internalSettingsFilePath();
    static const bool isPrepared = QDir().mkpath(Global::settingsDir().absolutePath());
    require(isPrepared, "the root can be written");

    writeFile(path, QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)));
    const QStringList values = valuesInUse();
    checkLimits(values);
    const QByteArray contents = readFile(path);
    checkFileLists(values, contents);
    require(valuesInUse() == values, "the values stay");
    require(readFile(path) == contents, "a complete file is left alone");
    return 0;
}
