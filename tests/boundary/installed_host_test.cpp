// A host author's way from an installed tree to a running host: install what was built,
// build a small host against it and nothing else, run it.
#include "rig/testroot.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <gtest/gtest.h>

namespace {

constexpr int stepDeadlineMs = 240000;

struct Outcome
{
    int exitCode = -1;
    QString output; // both streams
};

Outcome runProgram(const QString& program, const QStringList& arguments)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // A build started from a build that hands job slots down must not wait for them.
    environment.remove(QStringLiteral("MAKEFLAGS"));
    // Qt is not built with the thread sanitizer, and a host author's program is not told of
    // the synchronisation inside it as the other tests are: races are not looked for here.
    environment.insert(QStringLiteral("TSAN_OPTIONS"), QStringLiteral("report_bugs=0"));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(stepDeadlineMs)) {
        process.kill();
        process.waitForFinished();
        return {-1, program + QStringLiteral(": ") + process.errorString()};
    }
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAll())};
}

Outcome runCMake(const QStringList& arguments)
{
    return runProgram(QStringLiteral(BUILD_CMAKE), arguments);
}

QStringList filesIn(const QString& directory)
{
    return QDir(directory).entryList(QDir::Files, QDir::Name);
}

QStringList headersIn(const QString& directory)
{
    return QDir(directory).entryList({QStringLiteral("*.h")}, QDir::Files, QDir::Name);
}

// One enabled port whose device does not exist; all other fields of a new record.
const QByteArray settingsOfOnePort = QByteArrayLiteral("00000003"
                                                       "00000001"
                                                       "00000400"
                                                       "01"
                                                       "00000008"
                                                       "006e006f006e0065" // "none"
                                                       "ffffffff"
                                                       "ffffffff"
                                                       "ffffffff"
                                                       "ffffffff"
                                                       "ffffffff"
                                                       "ffffffff");

class InstalledHost : public testing::Test
{
protected:
    const QString prefix = rig::installRoot() + QStringLiteral("/prefix");
    const QString hostBuild = rig::installRoot() + QStringLiteral("/host-build");

    void install(const QString& component)
    {
        const Outcome installed =
            runCMake({QStringLiteral("--install"), QStringLiteral(BUILD_DIR), QStringLiteral("--prefix"), prefix,
                      QStringLiteral("--component"), component});
        ASSERT_EQ(installed.exitCode, 0) << installed.output.toStdString();
    }

    // Installs what was built, builds the small host against it and runs it beside the plug-in.
    void buildAndRunHost(const QStringList& configureOptions)
    {
        ASSERT_NO_FATAL_FAILURE(install(QStringLiteral("runtime")));
        ASSERT_NO_FATAL_FAILURE(install(QStringLiteral("development")));

        const QStringList arguments{QStringLiteral("-S"),
                                    QStringLiteral(SOURCE_DIR "/tests/boundary/installed_host"),
                                    QStringLiteral("-B"),
                                    hostBuild,
                                    QStringLiteral("-G"),
                                    QStringLiteral(BUILD_GENERATOR),
                                    QStringLiteral("-DCMAKE_MAKE_PROGRAM=" BUILD_MAKE_PROGRAM),
                                    QStringLiteral("-DCMAKE_CXX_COMPILER=" BUILD_CXX_COMPILER),
                                    QStringLiteral("-DCMAKE_CXX_FLAGS=" BUILD_CXX_FLAGS),
                                    QStringLiteral("-DCMAKE_PREFIX_PATH=") + prefix};
        const Outcome configured = runCMake(arguments + configureOptions);
        ASSERT_EQ(configured.exitCode, 0) << configured.output.toStdString();
        const Outcome built = runCMake({QStringLiteral("--build"), hostBuild});
        ASSERT_EQ(built.exitCode, 0) << built.output.toStdString();
        const Outcome placed = runCMake({QStringLiteral("--install"), hostBuild, QStringLiteral("--prefix"), prefix});
        ASSERT_EQ(placed.exitCode, 0) << placed.output.toStdString();

        ASSERT_TRUE(QDir().mkpath(prefix + QStringLiteral("/settings")));
        QFile settings(prefix + QStringLiteral("/settings/channelCom.conf"));
        ASSERT_TRUE(settings.open(QIODevice::WriteOnly));
        settings.write(QByteArray::fromHex(settingsOfOnePort));
        settings.close();

        const Outcome ran = runProgram(prefix + QStringLiteral("/bin/installed-host"), {});
        EXPECT_EQ(ran.exitCode, 0) << ran.output.toStdString();
        const QStringList lines = ran.output.split(QLatin1Char('\n'));
        // In this order; between them are the reports of the port.
        const QStringList expected{QStringLiteral("settings ") + QString::fromLatin1(settingsOfOnePort),
                                   QStringLiteral("version 16"),
                                   QStringLiteral("channel 2 Коммутируемый канал"),
                                   QStringLiteral("journal 0 Коммутируемый канал: Запуск"),
                                   QStringLiteral("state 7 Работает"),
                                   QStringLiteral("journal 0 Коммутируемый канал: Остановка"),
                                   QStringLiteral("state 7 Выключение"),
                                   QStringLiteral("state 7 Выключен"),
                                   QStringLiteral("done")};
        int at = 0;
        for (const QString& line : lines) {
            if (at < expected.size() && line == expected[at])
                ++at;
        }
        EXPECT_EQ(at, expected.size()) << ran.output.toStdString();
        EXPECT_TRUE(lines.contains(QStringLiteral("port none Инициализация"))) << ran.output.toStdString();
        EXPECT_TRUE(lines.contains(QStringLiteral("removed 100"))) << ran.output.toStdString();
    }
};

} // namespace

TEST_F(InstalledHost, RuntimeIsTheLibraryAlone)
{
    ASSERT_NO_FATAL_FAILURE(install(QStringLiteral("runtime")));
    EXPECT_EQ(filesIn(prefix + QStringLiteral("/bin/channelPlugins")),
              (QStringList{QStringLiteral("libtransportCom.so.1"), QStringLiteral("libtransportCom.so.1.0.0")}));
    EXPECT_EQ(QFile::symLinkTarget(prefix + QStringLiteral("/bin/channelPlugins/libtransportCom.so.1")),
              prefix + QStringLiteral("/bin/channelPlugins/libtransportCom.so.1.0.0"));
    EXPECT_EQ(QDir(prefix).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList{QStringLiteral("bin")});
}

TEST_F(InstalledHost, ProgramsRunWhereTheyAreInstalled)
{
    ASSERT_NO_FATAL_FAILURE(install(QStringLiteral("programs")));
    EXPECT_EQ(filesIn(prefix + QStringLiteral("/bin")),
              (QStringList{QStringLiteral("phone-exchange"), QStringLiteral("transport-host"),
                           QStringLiteral("transport-tune")}));
    EXPECT_FALSE(QDir(prefix).entryList({QStringLiteral("lib*")}, QDir::Dirs).isEmpty());
    for (const QString& program : filesIn(prefix + QStringLiteral("/bin"))) {
        const Outcome help = runProgram(prefix + QStringLiteral("/bin/") + program, {QStringLiteral("--help")});
        EXPECT_EQ(help.exitCode, 0) << help.output.toStdString();
        EXPECT_TRUE(help.output.contains(program)) << help.output.toStdString();
    }
}

TEST_F(InstalledHost, DevelopmentHasEveryHeaderOfItsRooms)
{
    ASSERT_NO_FATAL_FAILURE(install(QStringLiteral("development")));
    for (const QString& room :
         {QStringLiteral("plugin/api"), QStringLiteral("com/formats"), QStringLiteral("common")}) {
        const QStringList headers = headersIn(QStringLiteral(SOURCE_DIR "/") + room);
        EXPECT_EQ(filesIn(prefix + QStringLiteral("/include/transportCom/") + room), headers);
        EXPECT_FALSE(headers.isEmpty());
    }
}

// Where release 1.0 had the interfaces, and nothing else.
TEST_F(InstalledHost, DevelopmentForwardsEveryInterfaceFromItsOldPlace)
{
    ASSERT_NO_FATAL_FAILURE(install(QStringLiteral("development")));
    const QStringList headersOf1_0{QStringLiteral("cabstractchannelsstate.h"),
                                   QStringLiteral("cabstractjournal.h"),
                                   QStringLiteral("cabstractprotocol.h"),
                                   QStringLiteral("cabstractprotocolfactory.h"),
                                   QStringLiteral("cchannel.h"),
                                   QStringLiteral("cchannelplugin.h"),
                                   QStringLiteral("cchannelserver.h"),
                                   QStringLiteral("channelapi_export.h"),
                                   QStringLiteral("comcalltexts.h"),
                                   QStringLiteral("entrypoints.h")};
    EXPECT_EQ(filesIn(prefix + QStringLiteral("/include/transportCom/plugin")), headersOf1_0);
}

TEST_F(InstalledHost, BuildsAndRunsAgainstTheInstalledTree)
{
    buildAndRunHost({});
}

TEST_F(InstalledHost, BuildsAndRunsWithTheIncludesOfRelease1_0)
{
    buildAndRunHost({QStringLiteral("-DINCLUDES_OF_1_0=ON")});
}
