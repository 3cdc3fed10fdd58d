// Which room may reach into which: the include lines of all sources held against a table.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

// A folder whose sources may reach into themselves and into what is listed, nothing else. A
// folder inside a room is a room of its own, so files beside it stand above or below it only
// where the table says so.
struct Room
{
    const char* folder;
    QStringList mayInclude;
    const char* why;
};

const QList<Room>& rooms()
{
    static const char* const shared = "host and plug-ins share it, so it knows no channel";
    static const char* const boundary = "an interface shows nothing of the two sides that meet at it";
    static const char* const channel = "the channel knows the host by its interfaces alone";
    static const char* const roof = "entry points over the whole channel, under nobody";
    static const char* const beside = "a simulator built on the code under test agrees with its mistakes";
    static const char* const host = "a host reaches the plug-in by loading it, never by linking";
    static const char* const rig = "what judges the product is not built on it";
    static const char* const rigOver = "drives a part of the product, and that part alone";
    static const char* const tools = "main() only parses and calls";
    static const QList<Room> table{
        {"common", {}, shared},
        {"plugin/api", {}, boundary},
        {"com/formats", {"common"}, "records and checks, for hosts and tools as well"},
        {"com/port", {}, channel},
        {"com/link", {"com/port", "com/formats", "plugin/api", "common"}, channel},
        {"com/modem", {"com/port", "com/formats", "common"}, channel},
        {"com/worker", {"com/link", "com/modem", "com/port", "com/formats", "plugin/api", "common"}, channel},
        {"plugin", {"com/worker", "plugin/api", "common"}, roof},
        {"sim/line", {}, beside},
        {"sim/pty", {}, beside},
        {"sim/modem", {"sim/line", "sim/pty"}, beside},
        {"sim/exchange", {"sim/modem", "sim/line", "sim/pty"}, beside},
        {"sim/program", {"sim/exchange", "sim/modem", "sim/line", "sim/pty"}, beside},
        {"host/installation", {"com/formats", "plugin/api", "common"}, host},
        {"host/session", {"host/installation", "common"}, host},
        {"host/channel", {"host/session", "host/installation", "com/formats", "plugin/api", "common"}, host},
        {"host/store", {"host/session", "host/installation", "common"}, host},
        {"host/calls", {"host/session", "host/installation", "plugin/api", "common"}, host},
        {"host",
         {"host/channel", "host/store", "host/calls", "host/session", "host/installation", "com/formats", "plugin/api",
          "common"},
         host},
        {"host/program",
         {"host", "host/channel", "host/store", "host/calls", "host/session", "host/installation", "com/formats",
          "common"},
         host},
        {"tools", {"com/link", "com/formats", "common"}, tools},
        {"rig", {"plugin/api", "common"}, rig},
        {"rig/port", {}, rig},
        {"rig/time", {"rig"}, rig},
        {"rig/line", {"rig/time", "rig", "sim/line", "plugin/api"}, rig},
        {"rig/runs", {"rig/time"}, rig},
        {"rig/host", {"rig", "host/session"}, rigOver},
        {"rig/server", {"rig", "com/worker", "sim/exchange", "plugin/api"}, rigOver},
        {"rig/measure",
         {"rig/host", "rig/runs", "rig/line", "rig/time", "rig", "tools", "host/channel", "host/session", "com/link",
          "common"},
         rigOver},
    };
    return table;
}

// May include anything; held to the root of the tree in their include lines all the same.
const QStringList roomsOverAll{"tests", "bench", "fuzz"};

// Whoever does not speak to a serial port has no business with its headers.
const QStringList serialPortRooms{"com/port", "com/link", "com/modem", "com/worker", "rig/port", "rig/measure"};

struct Include
{
    QString file;
    int line;
    QString target;
    bool quoted;
};

QStringList sourcesBelow(const QString& folder)
{
    QStringList files;
    QDirIterator it(QStringLiteral(SOURCE_DIR "/") + folder, {"*.h", "*.cpp", "*.c"}, QDir::Files,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        files.append(it.next());
    return files;
}

// The innermost room that holds the file; empty where none does.
QString roomOf(const QString& pathFromRoot)
{
    QString found;
    for (const Room& room : rooms()) {
        const QString folder = QString::fromLatin1(room.folder);
        if (folder.size() > found.size() && pathFromRoot.startsWith(folder + QLatin1Char('/')))
            found = folder;
    }
    return found;
}

QStringList sourcesOf(const Room& room)
{
    const QString folder = QString::fromLatin1(room.folder);
    QStringList files;
    for (const QString& file : sourcesBelow(folder)) {
        if (roomOf(QDir(QStringLiteral(SOURCE_DIR)).relativeFilePath(file)) == folder)
            files.append(file);
    }
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

} // namespace

TEST(Rooms, IncludesFollowTheTable)
{
    for (const Room& room : rooms()) {
        const QStringList files = sourcesOf(room);
        EXPECT_FALSE(files.isEmpty()) << room.folder << " is in the table and has no sources";
        for (const QString& file : files) {
            for (const Include& include : includesOf(file)) {
                if (!include.quoted || isGenerated(include))
                    continue;
                const QString into = roomOf(include.target);
                EXPECT_TRUE(into == QLatin1String(room.folder) || room.mayInclude.contains(into))
                    << where(include) << "; " << room.why;
            }
        }
    }
}

// Each room stands below those that may include it, so no two can reach into each other.
TEST(Rooms, ArrowsOfTheTableRunDown)
{
    QStringList below;
    for (const Room& room : rooms()) {
        for (const QString& target : room.mayInclude)
            EXPECT_TRUE(below.contains(target)) << room.folder << " -> " << target.toStdString();
        below.append(QString::fromLatin1(room.folder));
    }
}

TEST(Rooms, SerialPortStaysInTheChannel)
{
    for (const Room& room : rooms()) {
        if (serialPortRooms.contains(QLatin1String(room.folder)))
            continue;
        for (const QString& file : sourcesOf(room)) {
            for (const Include& include : includesOf(file))
                EXPECT_FALSE(isSerialPort(include)) << where(include);
        }
    }
}

// A quoted name that starts at the root shows which room it reaches into.
TEST(Rooms, QuotedIncludesStartAtTheRoot)
{
    QStringList files;
    for (const Room& room : rooms())
        files += sourcesOf(room);
    for (const QString& folder : roomsOverAll)
        files += sourcesBelow(folder);
    int seen = 0;
    for (const QString& file : files) {
        for (const Include& include : includesOf(file)) {
            if (!include.quoted || isGenerated(include))
                continue;
            ++seen;
            EXPECT_TRUE(QFile::exists(QStringLiteral(SOURCE_DIR "/") + include.target)) << where(include);
        }
    }
    EXPECT_GT(seen, 40);
}

// A fuzzer or a benchmark is built and read without the tests.
TEST(Rooms, FuzzersAndBenchmarksReachIntoNoTests)
{
    for (const char* folder : {"bench", "fuzz"}) {
        for (const QString& file : sourcesBelow(folder)) {
            for (const Include& include : includesOf(file))
                EXPECT_FALSE(include.target.startsWith(QStringLiteral("tests/"))) << where(include);
        }
    }
}

TEST(Rooms, EverySourceHasItsRule)
{
    const QStringList folders = QDir(QStringLiteral(SOURCE_DIR)).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& folder : folders) {
        if (folder == QLatin1String("build") || roomsOverAll.contains(folder))
            continue;
        for (const QString& file : sourcesBelow(folder))
            EXPECT_FALSE(roomOf(QDir(QStringLiteral(SOURCE_DIR)).relativeFilePath(file)).isEmpty())
                << file.toStdString() << " has no rule";
    }
    // A folder inside a room would otherwise pass under the rule of the files beside it.
    for (const char* folder : {"host", "plugin", "rig"}) {
        for (const QString& inside :
             QDir(QStringLiteral(SOURCE_DIR "/") + folder).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            const QString path = folder + (QLatin1Char('/') + inside);
            EXPECT_EQ(roomOf(path + QStringLiteral("/any.h")), path) << path.toStdString() << " has no rule";
        }
    }
}
