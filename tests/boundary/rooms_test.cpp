// Which room may reach into which: the include lines of all sources held against a table.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

struct Room
{
    const char* folder;
    QStringList mayInclude; // besides itself
    bool mayUseSerialPort;
    const char* why;
};

const QList<Room>& rooms()
{
    static const QList<Room> table{
        {"common", {}, false, "host and plug-ins share it, so it knows no channel"},
        {"com", {"plugin", "common"}, true, "the channel knows the host by its interfaces alone"},
        {"sim", {}, false, "a simulator built on the code under test agrees with its mistakes"},
        {"host", {"plugin", "common"}, false, "a host reaches the plug-in by loading it, never by linking"},
        {"tools", {"com", "common"}, true, "main() only parses and calls"},
    };
    return table;
}

// Inside a room: its folders, each with what it may reach into besides itself. Files beside
// the folders ("") stand above them; only program/ stands above those.
struct Inside
{
    const char* room;
    const char* folder;
    QStringList mayInclude; // folders of the same room
};

const QList<Inside>& insides()
{
    static const QList<Inside> table{
        {"host", "installation", {}},
        {"host", "session", {"installation"}},
        {"host", "channel", {"session", "installation"}},
        {"host", "store", {"session", "installation"}},
        {"host", "calls", {"session", "installation"}},
        {"host", "program", {"", "channel", "store", "calls", "session", "installation"}},
        {"sim", "line", {}},
        {"sim", "pty", {}},
        {"sim", "modem", {"line", "pty"}},
        {"sim", "exchange", {"modem", "line", "pty"}},
        {"sim", "program", {"exchange", "modem", "line", "pty"}},
    };
    return table;
}

// plugin/ is two targets: the interfaces, and the plug-in that stands on everything.
const QStringList pluginUnits{"main", "ccomplugin"};
const QStringList pluginMayInclude{"com", "common", "plugin"};

struct Include
{
    QString file;
    int line;
    QString target;
    bool quoted;
};

QStringList sourcesOf(const QString& folder)
{
    QStringList files;
    QDirIterator it(QStringLiteral(SOURCE_DIR "/") + folder, {"*.h", "*.cpp", "*.c"}, QDir::Files,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        files.append(it.next());
    return files;
}

QList<Include> includesOf(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    static const QRegularExpression pattern(QStringLiteral("^\\s*#\\s*include\\s*(?:\"([^\"]+)\"|<([^>]+)>)"));
    QList<Include> found;
    int line = 0;
    for (const QString& text : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'))) {
        ++line;
        const QRegularExpressionMatch match = pattern.match(text);
        if (!match.hasMatch())
            continue;
        const bool quoted = !match.captured(1).isEmpty();
        found.append({path, line, quoted ? match.captured(1) : match.captured(2), quoted});
    }
    return found;
}

// The entries that moc writes at the end of a source file name its own output.
bool isGenerated(const Include& include)
{
    return include.target.endsWith(QStringLiteral(".moc")) || include.target.startsWith(QStringLiteral("moc_"));
}

std::string where(const Include& include)
{
    return QStringLiteral("%1:%2 includes %3")
        .arg(include.file, QString::number(include.line), include.target)
        .toStdString();
}

bool isSerialPort(const Include& include)
{
    return include.target.startsWith(QStringLiteral("QSerialPort")) ||
           include.target.startsWith(QStringLiteral("QtSerialPort"));
}

QString roomOf(const Include& include)
{
    return include.target.section(QLatin1Char('/'), 0, 0);
}

} // namespace

TEST(Rooms, IncludesFollowTheTable)
{
    for (const Room& room : rooms()) {
        const QString folder = QString::fromLatin1(room.folder);
        for (const QString& file : sourcesOf(folder)) {
            for (const Include& include : includesOf(file)) {
                if (!include.quoted || isGenerated(include))
                    continue;
                const QString into = roomOf(include);
                EXPECT_TRUE(into == folder || room.mayInclude.contains(into)) << where(include) << "; " << room.why;
            }
        }
    }
}

TEST(Rooms, ArrowsInsideARoomRunDown)
{
    QStringList known;
    for (const Inside& inside : insides()) {
        const QString room = QString::fromLatin1(inside.room);
        const QString folder = QString::fromLatin1(inside.folder);
        known.append(room + QLatin1Char('/') + folder);
        int files = 0;
        for (const QString& file : sourcesOf(known.last())) {
            ++files;
            for (const Include& include : includesOf(file)) {
                if (!include.quoted || isGenerated(include) || roomOf(include) != room)
                    continue;
                const QStringList parts = include.target.split(QLatin1Char('/'));
                const QString into = parts.size() > 2 ? parts.at(1) : QString();
                EXPECT_TRUE(into == folder || inside.mayInclude.contains(into)) << where(include);
            }
        }
        EXPECT_GT(files, 0) << known.last().toStdString();
    }
    for (const char* room : {"host", "sim"}) {
        const QStringList folders =
            QDir(QStringLiteral(SOURCE_DIR "/") + room).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
        for (const QString& folder : folders)
            EXPECT_TRUE(known.contains(room + (QLatin1Char('/') + folder)))
                << room << "/" << folder.toStdString() << " has no rule";
    }
}

TEST(Rooms, InterfacesStandOnQtCoreAlone)
{
    int interfaces = 0;
    int plugin = 0;
    for (const QString& file : sourcesOf(QStringLiteral("plugin"))) {
        const bool isPlugin = pluginUnits.contains(QFileInfo(file).completeBaseName());
        ++(isPlugin ? plugin : interfaces);
        for (const Include& include : includesOf(file)) {
            if (!include.quoted)
                continue;
            const QStringList allowed = isPlugin ? pluginMayInclude : QStringList{"plugin"};
            EXPECT_TRUE(allowed.contains(roomOf(include))) << where(include);
        }
    }
    EXPECT_GE(interfaces, 14);
    EXPECT_EQ(plugin, 3);
}

// Whoever does not speak to a serial port has no business with its headers.
TEST(Rooms, SerialPortStaysInTheChannel)
{
    for (const Room& room : rooms()) {
        if (room.mayUseSerialPort)
            continue;
        for (const QString& file : sourcesOf(QString::fromLatin1(room.folder))) {
            for (const Include& include : includesOf(file))
                EXPECT_FALSE(isSerialPort(include)) << where(include);
        }
    }
    for (const QString& file : sourcesOf(QStringLiteral("plugin"))) {
        for (const Include& include : includesOf(file))
            EXPECT_FALSE(isSerialPort(include)) << where(include);
    }
}

// A quoted name that starts at the root shows which room it reaches into.
TEST(Rooms, QuotedIncludesStartAtTheRoot)
{
    int seen = 0;
    for (const char* folder : {"common", "com", "plugin", "sim", "host", "tools", "tests", "bench"}) {
        for (const QString& file : sourcesOf(QString::fromLatin1(folder))) {
            for (const Include& include : includesOf(file)) {
                if (!include.quoted || isGenerated(include))
                    continue;
                ++seen;
                EXPECT_TRUE(QFile::exists(QStringLiteral(SOURCE_DIR "/") + include.target)) << where(include);
            }
        }
    }
    EXPECT_GT(seen, 40);
}

TEST(Rooms, EveryFolderOfSourcesHasItsRule)
{
    QStringList known{"plugin", "tests", "bench", "fuzz"};
    for (const Room& room : rooms())
        known.append(QString::fromLatin1(room.folder));
    const QStringList folders = QDir(QStringLiteral(SOURCE_DIR)).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& folder : folders) {
        if (folder == QLatin1String("build"))
            continue;
        EXPECT_TRUE(known.contains(folder) || sourcesOf(folder).isEmpty())
            << folder.toStdString() << " has sources and no rule";
    }
}
