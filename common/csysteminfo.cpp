#include "common/csysteminfo.h"

#include "common/global.h"
#include "common/qtmessages.h"
#include "common/storage.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QSysInfo>
#include <QTimeZone>

#include <sys/sysinfo.h>
#include <sys/utsname.h>

namespace {

const char unknownValue[] = "unknown";

QString sizeOf(unsigned long units, unsigned int unitBytes)
{
    return Global::sizeString(qint64(quint64(units) * unitBytes));
}

// System, release and machine.
QString kernelText()
{
    utsname names;
    if (uname(&names) == 0) {
        return QStringLiteral("%1 %2 %3")
            .arg(QString::fromLocal8Bit(names.sysname), QString::fromLocal8Bit(names.release),
                 QString::fromLocal8Bit(names.machine));
    }
    const QString version = QSysInfo::kernelVersion();
    return version.isEmpty() ? QString::fromLatin1(unknownValue) : version;
}

QString headerInfo()
{
    return QStringLiteral("Версия %1 %2        Builded at %3 %4 with Qt %5")
        .arg(QStringLiteral(TRANSPORT_VERSION_TEXT), QStringLiteral(TRANSPORT_PLATFORM_TEXT), QStringLiteral(__DATE__),
             QStringLiteral(__TIME__), QStringLiteral(QT_VERSION_STR));
}

} // namespace

QString CSystemInfo::HDDInfo()
{
    const VolumeSpace volume = volumeSpace(Global::applicationDir().absolutePath());
    return QStringLiteral("Жесткий диск:         доступно %1 из %2")
        .arg(Global::sizeString(volume.freeBytes), Global::sizeString(volume.totalBytes));
}

QString CSystemInfo::RAMInfo()
{
    struct sysinfo info = {};
    sysinfo(&info);
    return QStringLiteral("ОЗУ:                  свободно %1 из %2")
        .arg(sizeOf(info.freeram, info.mem_unit), sizeOf(info.totalram, info.mem_unit));
}

QString CSystemInfo::OSInfo()
{
    const QString type = QSysInfo::productType();
    const QString version = QSysInfo::productVersion();
    const QString product = type.isEmpty() ? QString::fromLatin1(unknownValue) : type;
    // Rolling distributions have no version.
    if (version.isEmpty() || version == QLatin1String(unknownValue))
        return QStringLiteral("Версия ОС:            %1, %2").arg(product, kernelText());
    return QStringLiteral("Версия ОС:            %1 %2, %3").arg(product, version, kernelText());
}

QString CSystemInfo::envInfo()
{
    QStringList values;
    for (const char* name : {"HOME", "SESSIONNAME", "SystemDrive", "WINDIR", "PATH"}) {
        if (qEnvironmentVariableIsSet(name))
            values.append(QStringLiteral("%1 - %2").arg(QString::fromLatin1(name), qEnvironmentVariable(name)));
    }
    return QStringLiteral("Окружение:            %1").arg(values.join(QStringLiteral(", ")));
}

QString CSystemInfo::byteOrder()
{
    const bool isLittle = QSysInfo::ByteOrder == QSysInfo::LittleEndian;
    return QStringLiteral("Порядок байт:         %1")
        .arg(isLittle ? QStringLiteral("LittleEndian") : QStringLiteral("BigEndian"));
}

QString CSystemInfo::uptimeInfo()
{
    struct sysinfo info = {};
    sysinfo(&info);
    return QStringLiteral("Аптайм:               %1").arg(uptimeText(info.uptime));
}

QString CSystemInfo::uptimeText(qint64 seconds)
{
    QString text;
    const auto add = [&text](const QString& pattern, qint64 value) {
        if (value != 0 || !text.isEmpty())
            text += pattern.arg(value);
    };
    add(QStringLiteral("%1 д. "), seconds / 86400);
    add(QStringLiteral("%1 ч. "), seconds / 3600 % 24);
    add(QStringLiteral("%1 м. "), seconds / 60 % 60);
    return text + QStringLiteral("%1 с.").arg(seconds % 60);
}

QString CSystemInfo::appPathInfo()
{
    return QStringLiteral("Каталог:              %1").arg(Global::applicationDir().absolutePath());
}

QString CSystemInfo::timezoneInfo()
{
    const QDateTime now = QDateTime::currentDateTime();
    const QTimeZone zone = QTimeZone::systemTimeZone();
    const QString season =
        zone.isDaylightTime(now) ? QStringLiteral("летнее время") : QStringLiteral("стандартное время");
    return QStringLiteral("Часовой пояс:         %1 %2").arg(zone.displayName(now), season);
}

QString CSystemInfo::CPUInfo()
{
    return QStringLiteral("Процессор:            %1, %2")
        .arg(processorModel(QStringLiteral("/proc/cpuinfo")), QSysInfo::currentCpuArchitecture());
}

QString CSystemInfo::processorModel(const QString& filePath)
{
    QFile file(filePath);
    if (!file.exists()) {
        sendQtMessage(QtWarningMsg, QStringLiteral("Файл не существует: ") + filePath);
        return {};
    }
    if (!file.open(QIODevice::ReadOnly)) {
        sendQtMessage(QtWarningMsg, QStringLiteral("Ошибка открытия файла для чтения: ") + filePath);
        return {};
    }
    const QString separator = QStringLiteral(": ");
    // Until a line is empty: atEnd() does not help, because the file's size is given as 0.
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        if (!line.contains("model name"))
            continue;
        const QString text = QString::fromUtf8(line);
        const int position = text.indexOf(separator);
        return position < 0 ? QString() : text.mid(position + separator.length()).remove(QLatin1Char('\n'));
    }
    return {};
}

QString CSystemInfo::userGroupsInfo()
{
    const QString user = Global::currentSystemUserName();
    return QStringLiteral("Пользователь:         %1@%2\nГруппы:               %3")
        .arg(user, QSysInfo::machineHostName(),
             groupsOf(user, QStringLiteral("/etc/group")).join(QStringLiteral(", ")));
}

QStringList CSystemInfo::groupsOf(const QString& user, const QString& filePath)
{
    QFile file(filePath);
    if (!file.exists()) {
        sendQtMessage(QtWarningMsg, QStringLiteral("SystemInfo: Файл не существует: ") + filePath);
        return {};
    }
    if (!file.open(QIODevice::ReadOnly)) {
        sendQtMessage(QtWarningMsg, QStringLiteral("SystemInfo: Ошибка открытия файла для чтения: ") + filePath);
        return {};
    }
    QStringList groups;
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        // name:password:number:member,member
        const QStringList fields = QString::fromLocal8Bit(line).trimmed().split(QLatin1Char(':'));
        if (fields.size() >= 4 && !user.isEmpty() && fields.at(3).split(QLatin1Char(',')).contains(user))
            groups.append(fields.first());
    }
    return groups;
}

QString CSystemInfo::summaryInfo()
{
    // Joined, not by arg(): values may contain text that looks like markers.
    const QStringList lines{headerInfo(), OSInfo(),    CPUInfo(),    RAMInfo(),      HDDInfo(),    userGroupsInfo(),
                            envInfo(),    byteOrder(), uptimeInfo(), timezoneInfo(), appPathInfo()};
    return lines.join(QLatin1Char('\n')) + QStringLiteral("\n\n");
}
