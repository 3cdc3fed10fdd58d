// What phone-exchange makes and removes in the file system: nothing that is not its own, and
// nothing through a link that somebody else has put there.
#include "sim/pty/ptyendpoint.h"
#include "sim/pty/signaltable.h"
#include "tests/sim/phoneexchangefixture.h"

#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using rig::waitFor;
using testsupport::PhoneExchangeTest;

namespace {

constexpr uid_t somebodyElse = 65534;

class ExchangeFiles : public PhoneExchangeTest
{
protected:
    void SetUp() override { umask(0); } // what is private must not be so by luck

    static QByteArray encoded(const QString& name) { return QFile::encodeName(name); }

    static void writeFile(const QString& name, const QByteArray& text)
    {
        QFile file(name);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(text) == text.size()) << name.toStdString();
    }

    static void makeDirectory(const QString& name, mode_t mode)
    {
        ASSERT_EQ(::mkdir(encoded(name).constData(), mode), 0) << strerror(errno);
    }

    static void makeLink(const QString& target, const QString& name)
    {
        ASSERT_EQ(::symlink(encoded(target).constData(), encoded(name).constData()), 0) << strerror(errno);
    }

    static unsigned modeOf(const QString& name)
    {
        struct stat status
        {
        };
        return ::lstat(encoded(name).constData(), &status) == 0 ? status.st_mode & 07777 : 0;
    }

    static bool isSocket(const QString& name)
    {
        struct stat status
        {
        };
        return ::lstat(encoded(name).constData(), &status) == 0 && S_ISSOCK(status.st_mode);
    }

    // A socket under that name on which nobody listens any more.
    static void leaveSocket(const QString& name)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, encoded(name).constData(), static_cast<std::size_t>(encoded(name).size()));
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0) << strerror(errno);
        ::close(fd);
    }

    // Runs it and expects that it refuses; its words.
    QByteArray refusal(const QStringList& arguments)
    {
        run(arguments + QStringList{QStringLiteral("--ready-file"), path("ready")});
        process.closeWriteChannel();
        EXPECT_TRUE(waitFor([&] { return process.state() == QProcess::NotRunning || QFile::exists(path("ready")); }));
        if (process.state() != QProcess::NotRunning && QFile::exists(path("ready"))) {
            ADD_FAILURE() << "it runs";
            process.terminate();
        }
        EXPECT_TRUE(ended());
        EXPECT_EQ(process.exitCode(), 1);
        return errors();
    }

    void quit()
    {
        process.write("quit\n");
        ASSERT_TRUE(ended());
        EXPECT_EQ(process.exitCode(), 0);
    }
};

// ---- the control socket ----

TEST_F(ExchangeFiles, ControlLeavesARegularFileAlone)
{
    writeFile(path("precious"), "three years of work");
    EXPECT_EQ(refusal({QStringLiteral("--control"), path("precious")}),
              "phone-exchange: " + encoded(path("precious")) +
                  " is no socket and is left alone; remove it or give another path with --control\n");
    EXPECT_EQ(fileText(path("precious")), QByteArray("three years of work"));
}

TEST_F(ExchangeFiles, ControlLeavesALinkAlone)
{
    writeFile(path("precious"), "three years of work");
    makeLink(path("precious"), path("control"));
    EXPECT_TRUE(refusal({QStringLiteral("--control"), path("control")}).contains("is no socket and is left alone"));
    makeLink(path("nowhere"), path("dangling"));
    EXPECT_TRUE(refusal({QStringLiteral("--control"), path("dangling")}).contains("is no socket and is left alone"));
    EXPECT_TRUE(QFileInfo(path("control")).isSymLink());
    EXPECT_FALSE(QFile::exists(path("nowhere")));
    EXPECT_EQ(fileText(path("precious")), QByteArray("three years of work"));
}

TEST_F(ExchangeFiles, ASocketLeftBehindIsReplaced)
{
    leaveSocket(path("control"));
    runReady({QStringLiteral("--control"), path("control")});
    EXPECT_TRUE(isSocket(path("control")));
    EXPECT_EQ(modeOf(path("control")), 0600u);
    quit();
    EXPECT_FALSE(isSocket(path("control")));
}

TEST_F(ExchangeFiles, ASocketOfSomebodyElseIsLeft)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a file away";
    leaveSocket(path("control"));
    ASSERT_EQ(::chown(encoded(path("control")).constData(), somebodyElse, somebodyElse), 0);
    EXPECT_TRUE(refusal({QStringLiteral("--control"), path("control")}).contains("belongs to somebody else"));
    EXPECT_TRUE(isSocket(path("control")));
}

// Also one that speaks no streams, and one whose queue of callers is full.
TEST_F(ExchangeFiles, ASocketInUseIsRefused)
{
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        const QString name = path(type == SOCK_STREAM ? "stream" : "datagram");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, encoded(name).constData(), static_cast<std::size_t>(encoded(name).size()));
        const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        const int caller = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        if (type == SOCK_STREAM) {
            ASSERT_EQ(::listen(fd, 0), 0);
            ASSERT_EQ(::connect(caller, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        }
        EXPECT_EQ(refusal({QStringLiteral("--control"), name}),
                  "phone-exchange: another process listens on the control socket " + encoded(name) +
                      "; give another with --control\n");
        EXPECT_TRUE(isSocket(name));
        ::close(caller);
        ::close(fd);
    }
}

TEST_F(ExchangeFiles, OnlyItsOwnSocketIsRemovedAtTheEnd)
{
    runReady({QStringLiteral("--control"), path("control")});
    ASSERT_TRUE(QFile::remove(path("control")));
    writeFile(path("control"), "of somebody else");
    quit();
    EXPECT_EQ(fileText(path("control")), QByteArray("of somebody else"));
}

// ---- the directory of links ----

TEST_F(ExchangeFiles, DirectoriesThatItMakesArePrivate)
{
    run({QStringLiteral("--link-dir"), path("a/b/ports"), QStringLiteral("--ready-file"), path("ready")});
    ASSERT_TRUE(waitFor([&] { return QFile::exists(path("ready")); })) << errors().constData();
    for (const char* name : {"a", "a/b", "a/b/ports"})
        EXPECT_EQ(modeOf(path(name)), 0700u) << name;
    EXPECT_EQ(modeOf(path("a/b/ports/lines")), 0600u);
    quit();
}

TEST_F(ExchangeFiles, ADirectoryOfSomebodyElseIsRefused)
{
    QString directory = QStringLiteral("/usr/share");
    if (geteuid() == 0) {
        directory = path("theirs");
        makeDirectory(directory, 0700);
        ASSERT_EQ(::chown(encoded(directory).constData(), somebodyElse, somebodyElse), 0);
    }
    EXPECT_TRUE(refusal({QStringLiteral("--link-dir"), directory})
                    .contains(" belongs to somebody else; give one of your own with --link-dir\n"));
    EXPECT_FALSE(QFileInfo::exists(directory + QStringLiteral("/lines")));
}

TEST_F(ExchangeFiles, ADirectoryThatOthersMayWriteIsRefused)
{
    for (const mode_t mode : {mode_t(0770), mode_t(0702), mode_t(01777)}) {
        const QString directory = path("ports") + QString::number(mode, 8);
        makeDirectory(directory, 0700);
        ASSERT_EQ(::chmod(encoded(directory).constData(), mode), 0);
        EXPECT_EQ(refusal({QStringLiteral("--link-dir"), directory}),
                  "phone-exchange: others may write in the directory " + encoded(directory) + "; \"chmod go-w " +
                      encoded(directory) + "\" ends that, or give another with --link-dir\n");
        EXPECT_TRUE(QDir(directory).isEmpty());
    }
}

TEST_F(ExchangeFiles, ALinkIsNoDirectory)
{
    makeDirectory(path("elsewhere"), 0700);
    makeLink(path("elsewhere"), path("ports"));
    EXPECT_TRUE(refusal({QStringLiteral("--link-dir"), path("ports")})
                    .contains(" is a link; give the directory itself with --link-dir\n"));
    EXPECT_TRUE(QDir(path("elsewhere")).isEmpty());
}

TEST_F(ExchangeFiles, AFileInPlaceOfAPortIsLeft)
{
    makeDirectory(path("ports"), 0700);
    writeFile(path("ports/modem2"), "three years of work");
    EXPECT_TRUE(refusal({QStringLiteral("--link-dir"), path("ports")})
                    .contains("/ports/modem2 is no link to a port and is left alone"));
    EXPECT_EQ(fileText(path("ports/modem2")), QByteArray("three years of work"));
    // Nor does it stay behind under a name in between.
    EXPECT_EQ(QDir(path("ports")).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot),
              (QStringList{QStringLiteral("lines"), QStringLiteral("modem2")}));
}

TEST_F(ExchangeFiles, ALinkToElsewhereInPlaceOfAPortIsLeft)
{
    makeDirectory(path("ports"), 0700);
    writeFile(path("precious"), "three years of work");
    makeLink(path("precious"), path("ports/modem1"));
    EXPECT_TRUE(refusal({QStringLiteral("--link-dir"), path("ports")})
                    .contains("/ports/modem1 is no link to a port and is left alone"));
    EXPECT_EQ(QFile::symLinkTarget(path("ports/modem1")), path("precious"));
    EXPECT_EQ(fileText(path("precious")), QByteArray("three years of work"));
}

TEST_F(ExchangeFiles, ASecondOneLeavesThePortsOfTheFirst)
{
    runReady({});
    const QString port = QFile::symLinkTarget(path("ports/modem1"));
    ASSERT_TRUE(port.startsWith(QLatin1String("/dev/pts/")));
    QProcess rival;
    rival.start(QStringLiteral(PHONE_EXCHANGE), {QStringLiteral("--link-dir"), path("ports")});
    ASSERT_TRUE(waitFor([&] { return rival.state() == QProcess::NotRunning; }, 5000)) << "it runs beside the first";
    EXPECT_EQ(rival.exitCode(), 1);
    EXPECT_EQ(rival.readAllStandardError(), "phone-exchange: another phone-exchange serves the directory " +
                                                encoded(path("ports")) + "; end it, or give another with --link-dir\n");
    EXPECT_EQ(QFile::symLinkTarget(path("ports/modem1")), port);
    quit();
    // With the first its lock is gone.
    QFile::remove(path("ready"));
    runReady({});
    quit();
}

// ---- the table of modem lines ----

class Table : public ExchangeFiles
{
protected:
    QByteArray refusedTable() { return refusal({QStringLiteral("--table"), path("table")}); }
};

TEST_F(Table, IsMadePrivate)
{
    runReady({QStringLiteral("--table"), path("table")});
    EXPECT_EQ(modeOf(path("table")), 0600u);
    quit();
    // And is used again.
    QFile::remove(path("ready"));
    runReady({QStringLiteral("--table"), path("table")});
    quit();
}

TEST_F(Table, IsNotMadeThroughALink)
{
    makeLink(path("elsewhere"), path("table"));
    EXPECT_TRUE(
        refusedTable().contains("cannot use the table of modem lines " + encoded(path("table")) + ": it is a link"));
    EXPECT_FALSE(QFile::exists(path("elsewhere")));
    writeFile(path("elsewhere"), "");
    refusedTable();
    EXPECT_EQ(QFileInfo(path("elsewhere")).size(), 0);
}

TEST_F(Table, OfSomebodyElseIsRefused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a file away";
    writeFile(path("table"), "");
    ASSERT_EQ(::chown(encoded(path("table")).constData(), somebodyElse, somebodyElse), 0);
    EXPECT_TRUE(refusedTable().contains(": it belongs to somebody else"));
    EXPECT_EQ(QFileInfo(path("table")).size(), 0);
}

TEST_F(Table, WithASecondNameOrOfAnotherKindIsRefused)
{
    writeFile(path("file"), "");
    ASSERT_EQ(::link(encoded(path("file")).constData(), encoded(path("table")).constData()), 0);
    EXPECT_TRUE(refusedTable().contains(": it is no table"));
    EXPECT_EQ(QFileInfo(path("file")).size(), 0);
    ASSERT_TRUE(QFile::remove(path("table")));
    ASSERT_EQ(::mkfifo(encoded(path("table")).constData(), 0600), 0);
    EXPECT_TRUE(refusedTable().contains(": it is no table"));
}

// ---- the files that it writes ----

TEST_F(ExchangeFiles, FilesAreNotWrittenThroughLinks)
{
    writeFile(path("precious"), "three years of work");
    makeLink(path("precious"), path("ready-link"));
    run({QStringLiteral("--ready-file"), path("ready-link")});
    process.closeWriteChannel();
    ASSERT_TRUE(ended());
    EXPECT_EQ(process.exitCode(), 1);
    EXPECT_TRUE(errors().contains("/ready-link: it is a link or no regular file; name the file itself\n"));
    makeLink(path("precious"), path("stats-link"));
    runReady({QStringLiteral("--stats"), path("stats-link")});
    process.write("quit\n");
    ASSERT_TRUE(ended());
    EXPECT_EQ(process.exitCode(), 1);
    EXPECT_EQ(fileText(path("precious")), QByteArray("three years of work"));
}

} // namespace
