// An installation that protects itself: laid out for its owner, or a group, alone, and not run
// while others could change it. As root and as an ordinary user.
#include "rig/deadline.h"
#include "tests/host/storetools.h"

#include <QDirIterator>
#include <QProcess>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <grp.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace hosttest;

namespace {

constexpr uid_t ordinaryUser = 65534;
constexpr uid_t somebodyElse = 65533;
constexpr int commandDeadlineMs = 60000;

enum class User
{
    Root,
    Ordinary
};

void PrintTo(User user, std::ostream* stream)
{
    *stream << (user == User::Root ? "root" : "an ordinary user");
}

QByteArray encoded(const QString& path)
{
    return QFile::encodeName(path);
}

struct stat statusOf(const QString& path)
{
    struct stat status
    {
    };
    EXPECT_EQ(::lstat(encoded(path).constData(), &status), 0) << path.toStdString() << ": " << strerror(errno);
    return status;
}

unsigned modeOf(const QString& path)
{
    return statusOf(path).st_mode & 07777;
}

void setMode(const QString& path, mode_t mode)
{
    ASSERT_EQ(::chmod(encoded(path).constData(), mode), 0) << path.toStdString() << ": " << strerror(errno);
}

void give(const QString& path, uid_t user)
{
    ASSERT_EQ(::lchown(encoded(path).constData(), user, user), 0) << path.toStdString() << ": " << strerror(errno);
}

QStringList entriesBelow(const QString& path)
{
    QStringList entries;
    QDirIterator it(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        entries.append(it.next());
    return entries;
}

// The words between the first pair of quotes: a command that the program tells to give.
QString commandIn(const QString& text)
{
    return QRegularExpression(QStringLiteral("\"([^\"]+)\"")).match(text).captured(1);
}

class Privacy : public testing::TestWithParam<User>
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(rig::isRootPrivate()) << "build where nobody else may write: " << rig::installRoot().toStdString();
        umask(0); // nothing must be private by luck
        const bool isRoot = geteuid() == 0;
        if (GetParam() == User::Root && !isRoot)
            GTEST_SKIP() << "needs root";
        m_user = isRoot && GetParam() == User::Ordinary ? ordinaryUser : geteuid();
        makeDirectory(root, 0755);
        give(root, m_user);
        makeDirectory(path("bin"), 0755);
        makeDirectory(path("bin/channelPlugins"), 0755);
        place(QStringLiteral(TRANSPORT_HOST), path("bin/transport-host"));
        place(QStringLiteral(TEST_PLUGINS_DIR "/libsocketplugin.so"), plugin);
    }

    static void place(const QString& from, const QString& to)
    {
        ASSERT_TRUE(QFile::copy(QFileInfo(from).canonicalFilePath(), to)) << from.toStdString();
        setMode(to, 0755);
    }

    QString path(const char* name) const { return root + QLatin1Char('/') + QLatin1String(name); }

    // For the user that the program runs as.
    void makeDirectory(const QString& name, mode_t mode) const
    {
        ASSERT_EQ(::mkdir(encoded(name).constData(), mode), 0) << name.toStdString() << ": " << strerror(errno);
        if (m_user != geteuid() && name != root && !name.startsWith(path("bin")))
            give(name, m_user);
    }

    void makeFile(const QString& name, const QByteArray& content, mode_t mode) const
    {
        writeFile(name, content);
        setMode(name, mode);
        give(name, m_user);
    }

    // As that user; its exit status. output: all it printed.
    int call(const QStringList& arguments)
    {
        QStringList command{path("bin/transport-host")};
        if (m_user != geteuid())
            command = QStringList{QStringLiteral("setpriv"), QStringLiteral("--reuid=%1").arg(m_user),
                                  QStringLiteral("--regid=%1").arg(m_user), QStringLiteral("--clear-groups")} +
                      command;
        command += arguments;
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(command.takeFirst(), command);
        EXPECT_TRUE(process.waitForFinished(commandDeadlineMs)) << process.errorString().toStdString();
        output = QString::fromUtf8(process.readAll());
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    int name() { return call({QStringLiteral("name"), QStringLiteral("Alice")}); }
    int run(const QStringList& options = {})
    {
        return call(QStringList{QStringLiteral("run"), QStringLiteral("--quiet"), QStringLiteral("--timeout"),
                                QStringLiteral("0.1")} +
                    options);
    }

    // Refuses, names the path, runs when told to, and does what it says must be done to run.
    void expectRefusalAndCure(const QString& about)
    {
        EXPECT_EQ(run(), 1) << output.toStdString();
        EXPECT_TRUE(output.contains(about)) << output.toStdString();
        EXPECT_TRUE(output.contains(QStringLiteral("--allow-shared"))) << output.toStdString();
        const QString cure = commandIn(output);
        EXPECT_EQ(run({QStringLiteral("--allow-shared")}), 0) << output.toStdString();
        ASSERT_FALSE(cure.isEmpty());
        EXPECT_EQ(std::system(cure.toUtf8().constData()), 0) << cure.toStdString();
        EXPECT_EQ(run(), 0) << cure.toStdString() << " was not enough: " << output.toStdString();
    }

    QByteArray permissionKeys() const
    {
        QByteArray keys;
        for (const QByteArray& line : readAll(path("settings/settings.ini")).split('\n')) {
            if (line.contains("Permissions="))
                keys += line + '\n';
        }
        return keys;
    }

    const QString root = rig::installRoot() + QStringLiteral("/host");
    const QString plugin = path("bin/channelPlugins/libsocketplugin.so");
    uid_t m_user = 0;
    QString output;
};

INSTANTIATE_TEST_SUITE_P(As, Privacy, testing::Values(User::Root, User::Ordinary),
                         [](const auto& test) { return test.param == User::Root ? "Root" : "Ordinary"; });

// ---- laying out ----

TEST_P(Privacy, TheFirstCommandMakesItForItsUserAlone)
{
    ASSERT_EQ(name(), 0) << output.toStdString();
    EXPECT_EQ(modeOf(path("settings")), 0700u);
    EXPECT_EQ(modeOf(path("data")), 0700u);
    // Owner, and user (who is the same), in the sums that the settings take.
    EXPECT_EQ(permissionKeys(), QByteArray("dirPermissions=30464\nfilePermissions=26112\n"));
    ASSERT_EQ(call({QStringLiteral("send"), QStringLiteral("Bob"), plugin}), 0) << output.toStdString();
    ASSERT_EQ(run(), 0) << output.toStdString();
    const QStringList entries = entriesBelow(path("settings")) + entriesBelow(path("data"));
    EXPECT_GT(entries.size(), 10);
    for (const QString& entry : entries) {
        EXPECT_EQ(modeOf(entry) & 077, 0u) << entry.toStdString();
        EXPECT_EQ(statusOf(entry).st_uid, m_user) << entry.toStdString();
    }
}

TEST_P(Privacy, HelpLaysNothingOut)
{
    EXPECT_EQ(call({QStringLiteral("name"), QStringLiteral("--help")}), 0);
    EXPECT_EQ(call({QStringLiteral("--help")}), 0);
    EXPECT_FALSE(QFile::exists(path("settings")));
    EXPECT_FALSE(QFile::exists(path("data")));
}

TEST_P(Privacy, SetupGivesItToAGroup)
{
    // Root may give it to any group, others to one of their own.
    const gid_t group = m_user == 0 ? 1 : m_user == ordinaryUser ? ordinaryUser : getegid();
    const QString groupName = QString::fromLocal8Bit(getgrgid(group)->gr_name);
    ASSERT_EQ(call({QStringLiteral("setup"), QStringLiteral("--group"), groupName}), 0) << output.toStdString();
    EXPECT_TRUE(output.contains(QStringLiteral("the group ") + groupName)) << output.toStdString();
    EXPECT_EQ(permissionKeys(), QByteArray("dirPermissions=30576\nfilePermissions=26208\n"));
    ASSERT_EQ(name(), 0) << output.toStdString();
    ASSERT_EQ(call({QStringLiteral("send"), QStringLiteral("Bob"), plugin}), 0) << output.toStdString();
    ASSERT_EQ(run(), 0) << output.toStdString();
    QStringList entries = entriesBelow(path("settings")) + entriesBelow(path("data"));
    EXPECT_GT(entries.size(), 10);
    entries += {path("settings"), path("data")};
    for (const QString& entry : entries) {
        const struct stat status = statusOf(entry);
        EXPECT_EQ(status.st_mode & 07, 0u) << entry.toStdString();
        EXPECT_EQ(status.st_gid, group) << entry.toStdString();
        if (S_ISDIR(status.st_mode)) {
            EXPECT_EQ(status.st_mode & 07777, 02770u) << entry.toStdString();
        }
    }
}

TEST_P(Privacy, SetupRefusesAGroupThatItCannotUse)
{
    EXPECT_EQ(call({QStringLiteral("setup"), QStringLiteral("--group"), QStringLiteral("nosuchgroup")}), 1);
    EXPECT_TRUE(output.contains(QStringLiteral("there is no group nosuchgroup"))) << output.toStdString();
    EXPECT_FALSE(QFile::exists(path("settings")));
    if (m_user == 0)
        return;
    EXPECT_EQ(call({QStringLiteral("setup"), QStringLiteral("--group"), QStringLiteral("shadow")}), 1);
    EXPECT_TRUE(output.contains(QStringLiteral("you are no member of the group shadow"))) << output.toStdString();
    EXPECT_FALSE(QFile::exists(path("settings")));
    EXPECT_FALSE(QFile::exists(path("data")));
}

TEST_P(Privacy, SetupOfAnExistingInstallationChangesNothing)
{
    ASSERT_EQ(name(), 0) << output.toStdString();
    const QByteArray before = readAll(path("settings/settings.ini"));
    EXPECT_EQ(call({QStringLiteral("setup")}), 0) << output.toStdString();
    EXPECT_TRUE(output.contains(QStringLiteral("laid out already; nothing was changed"))) << output.toStdString();
    EXPECT_EQ(call({QStringLiteral("setup"), QStringLiteral("--group"), QStringLiteral("nogroup")}), 1);
    EXPECT_TRUE(output.contains(QStringLiteral("laid out already; nothing was changed"))) << output.toStdString();
    EXPECT_EQ(readAll(path("settings/settings.ini")), before);
    EXPECT_EQ(modeOf(path("settings")), 0700u);
}

TEST_P(Privacy, ANewInstallationHasAnAdaptiveLink)
{
    ASSERT_EQ(call({QStringLiteral("setup")}), 0) << output.toStdString();
    EXPECT_TRUE(readAll(path("settings/settings.ini")).contains("[Details]\ntransportComAdaptive=1\n"));
}

// As versions before left it.
TEST_P(Privacy, AnOpenInstallationStaysAsItIs)
{
    makeDirectory(path("settings"), 0777);
    makeDirectory(path("data"), 0755);
    makeFile(path("settings/settings.ini"), "[Permissions]\ndirPermissions=30583\nfilePermissions=26214\n", 0666);
    ASSERT_EQ(name(), 0) << output.toStdString();
    EXPECT_EQ(modeOf(path("settings")), 0777u);
    EXPECT_EQ(modeOf(path("data")), 0755u);
    EXPECT_EQ(modeOf(path("settings/settings.ini")), 0666u);
    EXPECT_EQ(permissionKeys(), QByteArray("dirPermissions=30583\nfilePermissions=26214\n"));
}

TEST_P(Privacy, APermissionKeyThatStandsStays)
{
    makeDirectory(path("settings"), 0700);
    makeFile(path("settings/settings.ini"), "[Permissions]\nfilePermissions=26176\n", 0600);
    ASSERT_EQ(name(), 0) << output.toStdString();
    EXPECT_TRUE(permissionKeys().contains("filePermissions=26176\n")) << permissionKeys().constData();
    EXPECT_FALSE(permissionKeys().contains("30464")) << "told nowhere, and done all the same";
    EXPECT_EQ(modeOf(path("data")), 0700u) << "as settings/ is";
}

// By an administrator for the user who is to run it.
TEST_P(Privacy, DirectoriesThatStandReadyAreUsed)
{
    makeDirectory(path("settings"), 0700);
    makeDirectory(path("data"), 0700);
    ASSERT_EQ(name(), 0) << output.toStdString();
    EXPECT_EQ(permissionKeys(), QByteArray("dirPermissions=30464\nfilePermissions=26112\n"));
    EXPECT_EQ(run(), 0) << output.toStdString();
}

TEST_P(Privacy, WithoutTheRightToMakeItTheCureIsTold)
{
    if (m_user == 0)
        GTEST_SKIP() << "root has every right";
    give(root, 0);
    EXPECT_EQ(name(), 1);
    EXPECT_TRUE(output.contains(QStringLiteral("cannot make ") + path("settings"))) << output.toStdString();
    if (geteuid() != 0)
        return;
    EXPECT_EQ(std::system(commandIn(output).toUtf8().constData()), 0) << output.toStdString();
    EXPECT_EQ(name(), 0) << output.toStdString();
    EXPECT_EQ(run(), 0) << output.toStdString();
}

// ---- refusing ----

TEST_P(Privacy, RunRefusesOpenSettingsOrData)
{
    ASSERT_EQ(name(), 0) << output.toStdString();
    for (const char* name : {"settings", "data"}) {
        for (const mode_t mode : {mode_t(0777), mode_t(0770), mode_t(0703), mode_t(01777)}) {
            SCOPED_TRACE(QString::number(mode, 8).toStdString());
            setMode(path(name), mode);
            expectRefusalAndCure(path(name));
        }
        setMode(path(name), 02770);
        EXPECT_EQ(run(), 0) << "a group that was given it: " << output.toStdString();
        setMode(path(name), 0700);
    }
}

// Where others may look in, what lies within counts.
TEST_P(Privacy, RunRefusesWhatOthersCanReachAndWrite)
{
    ASSERT_EQ(name(), 0) << output.toStdString();
    ASSERT_EQ(run(), 0) << output.toStdString();
    const QString general = path("settings/generalSettings.ini");
    setMode(general, 0666);
    EXPECT_EQ(run(), 0) << "nobody can reach it: " << output.toStdString();
    setMode(path("settings"), 0711);
    expectRefusalAndCure(general);
    setMode(general, 0600);
    setMode(path("settings"), 0755);
    EXPECT_EQ(run(), 0) << output.toStdString();
    setMode(path("data"), 0755);
    setMode(path("data/0"), 0755);
    EXPECT_EQ(run(), 0) << output.toStdString();
    setMode(path("data/0/messages"), 0773);
    expectRefusalAndCure(path("data/0/messages"));
}

TEST_P(Privacy, RunRefusesAProgramThatOthersCanReplace)
{
    ASSERT_EQ(name(), 0) << output.toStdString();
    for (const char* name :
         {"bin", "bin/channelPlugins", "bin/transport-host", "bin/channelPlugins/libsocketplugin.so", ""}) {
        for (const mode_t mode : {mode_t(0777), mode_t(0775), mode_t(0757)}) {
            const QString place = *name ? path(name) : root;
            SCOPED_TRACE(place.toStdString());
            setMode(place, mode);
            expectRefusalAndCure(place + QLatin1Char('"'));
        }
    }
}

// A plug-in that is a link: what it leads to, and where that lies.
TEST_P(Privacy, RunLooksBehindLinks)
{
    ASSERT_EQ(name(), 0) << output.toStdString();
    makeDirectory(path("elsewhere"), 0755);
    ASSERT_TRUE(QFile::rename(plugin, path("elsewhere/plugin.so")));
    ASSERT_TRUE(QFile::link(path("elsewhere/plugin.so"), plugin));
    EXPECT_EQ(run(), 0) << output.toStdString();
    setMode(path("elsewhere/plugin.so"), 0666);
    expectRefusalAndCure(path("elsewhere/plugin.so"));
    setMode(path("elsewhere"), 0777);
    expectRefusalAndCure(path("elsewhere"));
}

// In such a directory nobody can take away what is ours.
TEST_P(Privacy, ADirectoryLikeTmpMayStandAbove)
{
    ASSERT_EQ(name(), 0) << output.toStdString();
    setMode(root, 01777);
    EXPECT_EQ(run(), 0) << output.toStdString();
}

TEST_P(Privacy, RunRefusesWhatBelongsToSomebodyElse)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    ASSERT_EQ(name(), 0) << output.toStdString();
    for (const char* name :
         {"bin", "bin/channelPlugins", "bin/transport-host", "bin/channelPlugins/libsocketplugin.so", ""}) {
        const QString place = *name ? path(name) : root;
        SCOPED_TRACE(place.toStdString());
        give(place, somebodyElse);
        expectRefusalAndCure(place);
    }
    for (const char* name : {"settings", "data"}) {
        give(path(name), somebodyElse);
        setMode(path(name), 0777);
        EXPECT_EQ(run(), 1) << output.toStdString();
        EXPECT_TRUE(output.contains(path(name) + QStringLiteral(" belongs to user 65533"))) << output.toStdString();
        EXPECT_EQ(std::system(commandIn(output).toUtf8().constData()), 0);
        expectRefusalAndCure(path(name)); // the mode
    }
    // Owned by somebody else, within what others may look into.
    setMode(path("settings"), 0755);
    give(path("settings/settings.ini"), somebodyElse);
    EXPECT_EQ(run(), 1);
    EXPECT_TRUE(output.contains(path("settings/settings.ini") + QStringLiteral(" belongs to user 65533")))
        << output.toStdString();
}

TEST_P(Privacy, OtherCommandsAreNotRefused)
{
    ASSERT_EQ(name(), 0) << output.toStdString();
    setMode(path("data"), 0777);
    EXPECT_EQ(call({QStringLiteral("status")}), 0) << output.toStdString();
}

// The files in /proc of a process that may not be dumped belong to root.
TEST_P(Privacy, ARunningHostLeavesNoCoreDump)
{
    if (m_user == 0)
        GTEST_SKIP() << "root's files in /proc are root's in any case";
    ASSERT_EQ(name(), 0) << output.toStdString();
    for (const bool isAllowed : {false, true}) {
        QStringList command{QStringLiteral("setpriv"),
                            QStringLiteral("--reuid=%1").arg(m_user),
                            QStringLiteral("--regid=%1").arg(m_user),
                            QStringLiteral("--clear-groups"),
                            path("bin/transport-host"),
                            QStringLiteral("run"),
                            QStringLiteral("--plain")};
        if (m_user == geteuid())
            command = command.mid(4);
        if (isAllowed)
            command.append(QStringLiteral("--core-dumps"));
        QProcess process;
        process.start(command.takeFirst(), command);
        ASSERT_TRUE(
            rig::waitFor([&] { return process.state() == QProcess::NotRunning || process.bytesAvailable() > 0; }));
        EXPECT_EQ(statusOf(QStringLiteral("/proc/%1/maps").arg(process.processId())).st_uid, isAllowed ? m_user : 0);
        process.terminate();
        EXPECT_TRUE(process.waitForFinished(commandDeadlineMs));
        EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().constData();
    }
}

} // namespace
