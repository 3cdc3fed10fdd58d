// The report on build and machine at the head of every log.
#include "common/csysteminfo.h"
#include "common/global.h"
#include "rig/testroot.h"
#include "tests/common/printing.h"
#include "tests/common/streammessages.h"
#include "tests/support/systemcalls.h"

#include <QDateTime>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSysInfo>
#include <QTimeZone>
#include <gtest/gtest.h>

#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

using logtest::MessageRecorder;
using testsupport::taken;

namespace {

constexpr int valueColumn = 22;

QString u(const char* text)
{
    return QString::fromUtf8(text);
}

QString inRoot(const char* name)
{
    return rig::installRoot() + QLatin1Char('/') + QString::fromUtf8(name);
}

QString put(const char* name, const QByteArray& content)
{
    QFile file(inRoot(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return {};
    return file.fileName();
}

bool matches(const QString& text, const char* pattern)
{
    return QRegularExpression(QRegularExpression::anchoredPattern(u(pattern))).match(text).hasMatch();
}

void unsetEnvironment()
{
    for (const char* name : {"HOME", "SESSIONNAME", "SystemDrive", "WINDIR", "PATH"})
        qunsetenv(name);
}

QString outputOf(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished();
    return QString::fromLocal8Bit(process.readAllStandardOutput());
}

} // namespace

TEST(SystemInfo, ValuesStandInOneColumn)
{
    const struct
    {
        QString line;
        const char* label;
    } rows[] = {
        {CSystemInfo::HDDInfo(), "Жесткий диск:         доступно "},
        {CSystemInfo::RAMInfo(), "ОЗУ:                  свободно "},
        {CSystemInfo::OSInfo(), "Версия ОС:            "},
        {CSystemInfo::envInfo(), "Окружение:            "},
        {CSystemInfo::byteOrder(), "Порядок байт:         "},
        {CSystemInfo::uptimeInfo(), "Аптайм:               "},
        {CSystemInfo::appPathInfo(), "Каталог:              "},
        {CSystemInfo::timezoneInfo(), "Часовой пояс:         "},
        {CSystemInfo::CPUInfo(), "Процессор:            "},
        {CSystemInfo::userGroupsInfo().section(QLatin1Char('\n'), 0, 0), "Пользователь:         "},
        {CSystemInfo::userGroupsInfo().section(QLatin1Char('\n'), 1), "Группы:               "},
    };
    for (const auto& row : rows) {
        EXPECT_TRUE(row.line.startsWith(u(row.label))) << qPrintable(row.line);
        EXPECT_EQ(row.line.left(valueColumn).trimmed().right(1), u(":")) << qPrintable(row.line);
        EXPECT_EQ(row.line.at(valueColumn - 1), QLatin1Char(' ')) << qPrintable(row.line);
        EXPECT_NE(row.line.mid(valueColumn, 1), u(" ")) << qPrintable(row.line);
        EXPECT_FALSE(row.line.contains(QLatin1Char('\n'))) << qPrintable(row.line);
    }
}

TEST(SystemInfo, Disk)
{
    const QString line = CSystemInfo::HDDInfo();
    const char* const pattern = "Жесткий диск:         доступно ([0-9.]+ (?:байт|[КМГТ]Байт)) из ([0-9.]+ [КМГТ]Байт)";
    ASSERT_TRUE(matches(line, pattern)) << qPrintable(line);
    const QString df = outputOf(u("df"), {u("-B1"), u("--output=size"), Global::applicationDir().absolutePath()});
    const qint64 total = df.section(QLatin1Char('\n'), 1, 1).trimmed().toLongLong();
    ASSERT_GT(total, 0);
    EXPECT_EQ(QRegularExpression(u(pattern)).match(line).captured(2), Global::sizeString(total));
}

TEST(SystemInfo, Memory)
{
    struct sysinfo info = {};
    ASSERT_EQ(sysinfo(&info), 0);
    const QString line = CSystemInfo::RAMInfo();
    EXPECT_TRUE(matches(line, "ОЗУ:                  свободно [0-9.]+ (байт|[КМГТ]Байт) из [0-9.]+ [КМГТ]Байт"))
        << qPrintable(line);
    EXPECT_TRUE(line.endsWith(u(" из ") + Global::sizeString(qint64(info.totalram) * info.mem_unit)))
        << qPrintable(line);
}

TEST(SystemInfo, OperatingSystem)
{
    utsname names;
    ASSERT_EQ(uname(&names), 0);
    const QString line = CSystemInfo::OSInfo();
    EXPECT_TRUE(line.startsWith(u("Версия ОС:            ") + QSysInfo::productType())) << qPrintable(line);
    EXPECT_TRUE(line.endsWith(QStringLiteral(", %1 %2 %3").arg(u(names.sysname), u(names.release), u(names.machine))))
        << qPrintable(line);
    EXPECT_TRUE(matches(line, "Версия ОС:            [^ ,]+( [^,]+)?, [^ ]+ [^ ]+ [^ ]+")) << qPrintable(line);
}

TEST(SystemInfo, EnvironmentWithoutVariables)
{
    unsetEnvironment();
    EXPECT_EQ(CSystemInfo::envInfo(), u("Окружение:            "));
}

TEST(SystemInfo, EnvironmentInItsOrder)
{
    unsetEnvironment();
    qputenv("PATH", "/bin:/usr/bin");
    qputenv("WINDIR", "w");
    qputenv("SystemDrive", "d");
    qputenv("SESSIONNAME", "s");
    qputenv("HOME", "/home/me");
    qputenv("OTHER", "not shown");
    EXPECT_EQ(
        CSystemInfo::envInfo(),
        u("Окружение:            HOME - /home/me, SESSIONNAME - s, SystemDrive - d, WINDIR - w, PATH - /bin:/usr/bin"));
}

TEST(SystemInfo, EnvironmentOfOneVariable)
{
    unsetEnvironment();
    qputenv("SystemDrive", "d");
    EXPECT_EQ(CSystemInfo::envInfo(), u("Окружение:            SystemDrive - d"));
}

TEST(SystemInfo, EmptyVariablesAreSet)
{
    unsetEnvironment();
    qputenv("HOME", "");
    qputenv("PATH", "");
    EXPECT_EQ(CSystemInfo::envInfo(), u("Окружение:            HOME - , PATH - "));
}

TEST(SystemInfo, ByteOrder)
{
    const quint16 number = 1;
    const bool isLittle = *reinterpret_cast<const char*>(&number) == 1;
    EXPECT_EQ(CSystemInfo::byteOrder(), u("Порядок байт:         ") + u(isLittle ? "LittleEndian" : "BigEndian"));
}

TEST(SystemInfo, UptimeParts)
{
    EXPECT_EQ(CSystemInfo::uptimeText(0), u("0 с."));
    EXPECT_EQ(CSystemInfo::uptimeText(59), u("59 с."));
    EXPECT_EQ(CSystemInfo::uptimeText(60), u("1 м. 0 с."));
    EXPECT_EQ(CSystemInfo::uptimeText(3599), u("59 м. 59 с."));
    EXPECT_EQ(CSystemInfo::uptimeText(3600), u("1 ч. 0 м. 0 с."));
    EXPECT_EQ(CSystemInfo::uptimeText(86399), u("23 ч. 59 м. 59 с."));
    EXPECT_EQ(CSystemInfo::uptimeText(86400), u("1 д. 0 ч. 0 м. 0 с."));
    EXPECT_EQ(CSystemInfo::uptimeText(40 * 86400 + 3 * 3600 + 2 * 60 + 1), u("40 д. 3 ч. 2 м. 1 с."));
}

TEST(SystemInfo, UptimeOfTheMachine)
{
    struct sysinfo before = {};
    struct sysinfo after = {};
    sysinfo(&before);
    const QString line = CSystemInfo::uptimeInfo();
    sysinfo(&after);
    QStringList possible;
    for (long seconds = before.uptime; seconds <= after.uptime; ++seconds)
        possible.append(u("Аптайм:               ") + CSystemInfo::uptimeText(seconds));
    EXPECT_TRUE(possible.contains(line)) << qPrintable(line);
}

TEST(SystemInfo, Directory)
{
    EXPECT_EQ(CSystemInfo::appPathInfo(), u("Каталог:              ") + inRoot("bin"));
}

TEST(SystemInfo, TimeZone)
{
    const QTimeZone zone = QTimeZone::systemTimeZone();
    const QDateTime now = QDateTime::currentDateTime();
    const QString season = zone.isDaylightTime(now) ? u("летнее время") : u("стандартное время");
    EXPECT_EQ(CSystemInfo::timezoneInfo(),
              u("Часовой пояс:         ") + zone.displayName(now) + QLatin1Char(' ') + season);
}

TEST(SystemInfo, TimeZoneWithoutSummerTime)
{
    qputenv("TZ", "UTC");
    EXPECT_TRUE(CSystemInfo::timezoneInfo().endsWith(u(" стандартное время")))
        << qPrintable(CSystemInfo::timezoneInfo());
}

TEST(SystemInfo, ProcessorHasItsModel)
{
    QFile file(u("/proc/cpuinfo"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    QString text;
    for (QByteArray chunk = file.read(65536); !chunk.isEmpty(); chunk = file.read(65536))
        text += QString::fromUtf8(chunk);
    const QString model = QRegularExpression(u("model name[^\n]*?: ([^\n]*)")).match(text).captured(1);
    EXPECT_EQ(CSystemInfo::CPUInfo(),
              u("Процессор:            ") + model + u(", ") + QSysInfo::currentCpuArchitecture());
    EXPECT_EQ(text.contains(u("model name")), !model.isEmpty());
}

TEST(SystemInfo, ProcessorModelIsTheFirst)
{
    const QString path = put(
        "cpuinfo",
        "processor\t: 0\nvendor_id\t: V: W\nmodel\t\t: 6\nmodel name\t: First: CPU @ 2.0 %1  \nmodel name\t: Second\n");
    EXPECT_EQ(CSystemInfo::processorModel(path), u("First: CPU @ 2.0 %1  "));
    EXPECT_EQ(CSystemInfo::processorModel(put("b", "model name\t: No line end")), u("No line end"));
    EXPECT_EQ(CSystemInfo::processorModel(put("c", "model name\t: \n")), u(""));
    EXPECT_EQ(CSystemInfo::processorModel(put("d", "Hardware\t: Board\n")), u(""));
    EXPECT_EQ(CSystemInfo::processorModel(put("e", "")), u(""));
}

TEST(SystemInfo, ProcessorFileMissing)
{
    MessageRecorder messages;
    EXPECT_EQ(CSystemInfo::processorModel(inRoot("missing")), QString());
    EXPECT_EQ(taken(messages), QStringList{u("warning: Файл не существует: ") + inRoot("missing")});
}

TEST(SystemInfo, ProcessorFileClosed)
{
    MessageRecorder messages;
    EXPECT_EQ(CSystemInfo::processorModel(inRoot("bin")), QString()); // a directory opens for nobody
    EXPECT_EQ(taken(messages), QStringList{u("warning: Ошибка открытия файла для чтения: ") + inRoot("bin")});
}

TEST(SystemInfo, LineOfAProcessorWithoutFile)
{
    const testsupport::SystemCallWatch watch(
        "/proc/cpuinfo", [](testsupport::SystemCall& call) { return call.name == "open" ? EACCES : 0; });
    MessageRecorder messages;
    EXPECT_EQ(CSystemInfo::CPUInfo(), u("Процессор:            , ") + QSysInfo::currentCpuArchitecture());
    EXPECT_EQ(taken(messages), QStringList{u("warning: Ошибка открытия файла для чтения: /proc/cpuinfo")});
}

TEST(SystemInfo, GroupsByExactMember)
{
    const QString path = put("group", "root:x:0:\n"
                                      "one:x:1:abc\n"
                                      "two:x:2:ab\n"
                                      "three:x:3:x,ab,y\n"
                                      "four:x:4:ab,\n"
                                      "ab:x:5:other\n"
                                      "six:ab:6:\n"
                                      "seven:x:7:xab,aba\n"
                                      "short:x:8\n"
                                      "\n"
                                      "last:x:9:y,ab");
    EXPECT_EQ(CSystemInfo::groupsOf(u("ab"), path), (QStringList{u("two"), u("three"), u("four"), u("last")}));
    EXPECT_EQ(CSystemInfo::groupsOf(u("nobody"), path), QStringList());
    EXPECT_EQ(CSystemInfo::groupsOf(QString(), path), QStringList());
}

TEST(SystemInfo, GroupFileMissing)
{
    MessageRecorder messages;
    EXPECT_EQ(CSystemInfo::groupsOf(u("ab"), inRoot("missing")), QStringList());
    EXPECT_EQ(taken(messages), QStringList{u("warning: SystemInfo: Файл не существует: ") + inRoot("missing")});
}

TEST(SystemInfo, GroupFileClosed)
{
    MessageRecorder messages;
    EXPECT_EQ(CSystemInfo::groupsOf(u("ab"), inRoot("bin")), QStringList());
    EXPECT_EQ(taken(messages),
              QStringList{u("warning: SystemInfo: Ошибка открытия файла для чтения: ") + inRoot("bin")});
}

TEST(SystemInfo, UserOfNoGroup)
{
    qputenv("USER", "in%1nogroup%2whatever");
    EXPECT_EQ(CSystemInfo::userGroupsInfo(), u("Пользователь:         in%1nogroup%2whatever@") +
                                                 QSysInfo::machineHostName() + u("\nГруппы:               "));
}

TEST(SystemInfo, GroupsComeFromTheSystem)
{
    QString member;
    QStringList groups;
    for (const QString& line : outputOf(u("cat"), {u("/etc/group")}).split(QLatin1Char('\n'))) {
        const QString members = line.section(QLatin1Char(':'), 3, 3);
        if (member.isEmpty())
            member = members.section(QLatin1Char(','), 0, 0);
        if (!member.isEmpty() && members.split(QLatin1Char(',')).contains(member))
            groups.append(line.section(QLatin1Char(':'), 0, 0));
    }
    qputenv("USER", member.toLocal8Bit()); // empty where nobody is a member: of no group then
    EXPECT_TRUE(CSystemInfo::userGroupsInfo().endsWith(u("\nГруппы:               ") + groups.join(u(", "))))
        << qPrintable(CSystemInfo::userGroupsInfo());
}

TEST(SystemInfo, Header)
{
    const QString header = CSystemInfo::summaryInfo().section(QLatin1Char('\n'), 0, 0);
    EXPECT_TRUE(matches(header, "Версия [^ ]+ .*[^ ] {8}Builded at [A-Z][a-z]{2} [ 1-3][0-9] [0-9]{4} "
                                "[0-9]{2}:[0-9]{2}:[0-9]{2} with Qt 5\\.[0-9.]+"))
        << qPrintable(header);
    EXPECT_TRUE(header.endsWith(u(" with Qt " QT_VERSION_STR))) << qPrintable(header);
}

TEST(SystemInfo, SummaryHoldsEachPartOnce)
{
    MessageRecorder messages;
    const QString summary = CSystemInfo::summaryInfo();
    EXPECT_TRUE(summary.endsWith(u("\n\n")));
    EXPECT_FALSE(summary.endsWith(u("\n\n\n")));
    const QStringList lines = summary.chopped(2).split(QLatin1Char('\n'));
    ASSERT_EQ(lines.size(), 12); // the user takes two
    EXPECT_TRUE(lines.first().startsWith(u("Версия ")));
    for (const char* label : {"Версия ОС:", "Процессор:", "ОЗУ:", "Жесткий диск:", "Пользователь:", "Группы:",
                              "Окружение:", "Порядок байт:", "Аптайм:", "Часовой пояс:", "Каталог:"}) {
        EXPECT_EQ(lines.filter(QRegularExpression(QLatin1Char('^') + u(label))).size(), 1) << label;
    }
    EXPECT_EQ(taken(messages), QStringList());
}

TEST(SystemInfo, MarkersInValuesStay)
{
    qputenv("HOME", "/x%5y%10%1");
    qputenv("PATH", "/bin%11%2");
    qputenv("USER", "me%7");
    const QString summary = CSystemInfo::summaryInfo();
    EXPECT_TRUE(summary.contains(u("HOME - /x%5y%10%1"))) << qPrintable(summary);
    EXPECT_TRUE(summary.contains(u("PATH - /bin%11%2\n"))) << qPrintable(summary);
    EXPECT_TRUE(summary.contains(u("Пользователь:         me%7@"))) << qPrintable(summary);
}
