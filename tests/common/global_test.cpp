// Where everything lives, the access test and the secrecy level.
#include "common/global.h"
#include "rig/testroot.h"
#include "tests/common/printing.h"
#include "tests/common/streammessages.h"
#include "tests/support/systemcalls.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <future>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using logtest::MessageRecorder;
using rig::installRoot;
using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::SystemCall;
using testsupport::SystemCallWatch;
using testsupport::taken;

namespace {

// Asked before main() has made the application object; must not be what later calls answer.
const QString earlyInstallDir = Global::installDir().absolutePath();

// The same from a message handler that asks for a path, as one that logs does.
bool handlerMayAskEarly()
{
    static std::atomic<int> asked{0};
    asked = 0;
    const QtMessageHandler previous = qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {
        Global::applicationDir();
        ++asked;
    });
    std::promise<void> done;
    std::future<void> isDone = done.get_future();
    std::thread([&done] {
        Global::applicationDir();
        done.set_value();
    }).detach();
    const bool isInTime = isDone.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    if (!isInTime) {
        std::fprintf(stderr, "a message handler that asks for a path before there is an application hangs\n");
        std::_Exit(1);
    }
    qInstallMessageHandler(previous);
    return asked == 1;
}

const bool earlyHandlerMayAsk = handlerMayAskEarly();

QString inRoot(const QString& relative)
{
    return installRoot() + QLatin1Char('/') + relative;
}

void putFile(const QString& path)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << qPrintable(path);
}

QStringList everythingIn(const QString& path)
{
    return QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

} // namespace

TEST(Layout, ProgramStandsInADirectoryOfTheInstallation)
{
    EXPECT_EQ(Global::applicationDir().absolutePath(), inRoot(QStringLiteral("bin")));
    EXPECT_EQ(Global::installDir().path(), installRoot());
    EXPECT_TRUE(Global::installDir().isAbsolute());
}

TEST(Layout, NothingIsRememberedFromBeforeTheApplication)
{
    EXPECT_NE(earlyInstallDir, installRoot());
    EXPECT_EQ(Global::installDir().absolutePath(), installRoot());
}

TEST(Layout, AMessageHandlerMayAskBeforeTheApplication)
{
    EXPECT_TRUE(earlyHandlerMayAsk);
}

TEST(Layout, InstallationStaysWhenTheWorkingDirectoryChanges)
{
    ASSERT_TRUE(QDir::setCurrent(QStringLiteral("/")));
    EXPECT_EQ(Global::installDir().absolutePath(), installRoot());
}

TEST(Layout, FilesOfTheSettings)
{
    const struct
    {
        QString path;
        const char* expected;
    } rows[] = {
        {Global::internalSettingsFilePath(), "settings/settings.ini"},
        {Global::generalSettingsFilePath(), "settings/generalSettings.ini"},
        {Global::uiSettingsFilePath(), "settings/ui.ini"},
        {Global::secrecySettingsFilePath(), "settings/secrecy.conf"},
        {Global::titlesSettingsFilePath(), "settings/titles.conf"},
        {Global::autoDeletionSettingsFilePath(), "settings/autoDeletion.conf"},
        {Global::notificationsSettingsFilePath(), "settings/notifications.conf"},
        {Global::channelEnableSettingsFilePath(), "settings/channels.conf"},
        {Global::channelIpSettingsFilePath(), "settings/channelIp.conf"},
        {Global::channelComSettingsFilePath(), "settings/channelCom.conf"},
        {Global::channelDedicatedSettingsFilePath(), "settings/channelDedicated.conf"},
        {Global::abonentsSettingsFilePath(), "settings/abonents.conf"},
        {Global::groupsSettingsFilePath(), "settings/groups.conf"},
        {Global::abonentsStatesFilePath(), "data/0/abonents.states"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.path, inRoot(QString::fromLatin1(row.expected)));
}

TEST(Layout, DirectoriesOfTheInstallation)
{
    const struct
    {
        QDir dir;
        const char* expected;
    } rows[] = {
        {Global::settingsDir(), "settings"},
        {Global::notificationsAudioDir(), "settings/sounds"},
        {Global::messagesPluginsDir(), "bin/messagesPlugins"},
        {Global::settingsPluginsDir(), "bin/settingsPlugins"},
        {Global::channelSettingsPluginsDir(), "bin/channelSettingsPlugins"},
        {Global::notificationPluginsDir(), "bin/notificationPlugins"},
        {Global::channelPluginsDir(), "bin/channelPlugins"},
        {Global::windowPluginsDir(), "bin/windowPlugins"},
        {Global::emergecyPatchDir(), "emergecyPatch"},
        {Global::dataDir(), "data"},
    };
    for (const auto& row : rows) {
        EXPECT_TRUE(row.dir.isAbsolute()) << row.expected;
        EXPECT_EQ(row.dir.absolutePath(), inRoot(QString::fromLatin1(row.expected)));
    }
}

TEST(Layout, TreesOfTheSecrecyLevels)
{
    for (int level = 0; level <= 3; ++level) {
        const QString tree = inRoot(QStringLiteral("data/")) + QString::number(level);
        EXPECT_EQ(Global::journalsFilePath(level), tree + QStringLiteral("/journals_2.2.db"));
        const struct
        {
            QDir dir;
            const char* expected;
        } rows[] = {
            {Global::dataSecrecyDir(level), ""},
            {Global::logDir(level), "/log"},
            {Global::journalsRenderDir(level), "/journalsRender"},
            {Global::messagesDir(level), "/messages"},
            {Global::inputMessagesDir(level), "/messages/input"},
            {Global::outputMessagesDir(level), "/messages/output"},
            {Global::draftMessagesDir(level), "/messages/draft"},
            {Global::incompleteMessagesDir(level), "/messages/incomplete"},
            {Global::transitMessagesDir(level), "/messages/transit"},
            {Global::tasksDir(level), "/tasks"},
            {Global::tasksToInterfaceDir(level), "/tasks/toInterface"},
            {Global::tasksToTransportDir(level), "/tasks/toTransport"},
        };
        for (const auto& row : rows) {
            EXPECT_TRUE(row.dir.isAbsolute()) << row.expected;
            EXPECT_EQ(row.dir.absolutePath(), tree + QString::fromLatin1(row.expected));
        }
    }
    EXPECT_EQ(Global::logDir(2).absolutePath(), inRoot(QStringLiteral("data/2/log")));
}

TEST(Layout, StatesOfTheAbonentsIgnoreTheLevel)
{
    ASSERT_TRUE(QDir().mkpath(inRoot(QStringLiteral("data"))));
    putFile(inRoot(QStringLiteral("data/0")));
    ASSERT_EQ(Global::currentSecrecy(), 1);
    EXPECT_EQ(Global::abonentsStatesFilePath(), inRoot(QStringLiteral("data/0/abonents.states")));
}

TEST(Layout, GettersTouchNothing)
{
    const SystemCallWatch watch(installRoot().toStdString());
    Global::settingsDir();
    Global::internalSettingsFilePath();
    Global::channelPluginsDir();
    Global::dataDir();
    Global::logDir(3);
    Global::tasksToTransportDir(1);
    EXPECT_THAT(watch.callsOf({"mkdir", "write", "rename", "unlink", "chmod"}), IsEmpty());
    EXPECT_EQ(everythingIn(installRoot()), QStringList{QStringLiteral("bin")});
}

TEST(Layout, ManyThreadsAskAtOnce)
{
    QStringList paths[4];
    std::vector<std::thread> threads;
    for (QStringList& found : paths) {
        threads.emplace_back([&found] {
            for (int i = 0; i < 100; ++i)
                found.append(Global::logDir(i % 4).absolutePath());
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const QStringList& found : paths)
        EXPECT_EQ(found.last(), inRoot(QStringLiteral("data/3/log")));
}

TEST(EmergecyExit, IsAFlag)
{
    EXPECT_FALSE(Global::isEmergecyExit());
    Global::setEmergecyExit(true);
    EXPECT_TRUE(Global::isEmergecyExit());
    Global::setEmergecyExit(false);
    EXPECT_FALSE(Global::isEmergecyExit());
}

TEST(Access, CreatesTheDirectoryAndLeavesItEmpty)
{
    const QString path = inRoot(QStringLiteral("a/b/c"));
    MessageRecorder messages;
    EXPECT_TRUE(Global::checkAccess(QDir(path)));
    EXPECT_TRUE(QFileInfo(path).isDir());
    EXPECT_EQ(everythingIn(path), QStringList());
    EXPECT_EQ(taken(messages), QStringList());
}

TEST(Access, ProbeHoldsFourBytesUntilItIsRemoved)
{
    const QString path = inRoot(QStringLiteral("probed"));
    QStringList probes;
    QByteArrayList contents;
    const SystemCallWatch watch(path.toStdString(), [&](SystemCall& call) {
        if (call.name == "unlink") {
            QFile probe(QString::fromStdString(call.path));
            if (probe.open(QIODevice::ReadOnly))
                contents.append(probe.readAll());
            probes.append(QFileInfo(probe).fileName());
        }
        return 0;
    });
    EXPECT_TRUE(Global::checkAccess(QDir(path)));
    EXPECT_EQ(contents, QByteArrayList{"test"});
    ASSERT_EQ(probes.size(), 1);
    const QRegularExpression pattern(QStringLiteral("^\\.accessTest_[0-9]+\\.txt$"));
    EXPECT_TRUE(pattern.match(probes.first()).hasMatch()) << qPrintable(probes.first());
}

// Programs that never seed the generator all begin with the same number.
TEST(Access, ProbeIsNamedByTheOldGenerator)
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    qsrand(5);
    const int drawn = qrand();
    qsrand(5);
    QT_WARNING_POP
    const QString path = inRoot(QStringLiteral("probed"));
    ASSERT_TRUE(QDir().mkpath(path));
    const SystemCallWatch watch(path.toStdString());
    EXPECT_TRUE(Global::checkAccess(QDir(path)));
    EXPECT_THAT(watch.callsOf({"unlink"}), ElementsAre("unlink /.accessTest_" + std::to_string(drawn) + ".txt"));
}

TEST(Access, DirectoryThatCannotBeMade)
{
    putFile(inRoot(QStringLiteral("file")));
    const QString path = inRoot(QStringLiteral("file/below"));
    MessageRecorder messages;
    EXPECT_FALSE(Global::checkAccess(QDir(path)));
    EXPECT_EQ(taken(messages),
              QStringList{QStringLiteral("warning: Global::checkAccess: Не удалось создать каталог \"%1\"").arg(path)});
}

TEST(Access, DirectoryThatTakesNoFiles)
{
    const QString path = inRoot(QStringLiteral("readonly"));
    ASSERT_TRUE(QDir().mkpath(path));
    ASSERT_EQ(chmod(qPrintable(path), 0555), 0);
    logtest::obeyPermissionBits();
    MessageRecorder messages;
    EXPECT_FALSE(Global::checkAccess(QDir(path)));
    EXPECT_EQ(taken(messages), QStringList());
}

TEST(Access, FullDiskTakesFilesAllTheSame)
{
    const QString path = inRoot(QStringLiteral("full"));
    ASSERT_TRUE(QDir().mkpath(path));
    const SystemCallWatch watch(path.toStdString(), [](SystemCall& call) { return call.name == "write" ? ENOSPC : 0; });
    EXPECT_TRUE(Global::checkAccess(QDir(path)));
    EXPECT_EQ(everythingIn(path), QStringList());
}

TEST(Access, RemovalIsTriedTwice)
{
    const QString path = inRoot(QStringLiteral("busy"));
    int removals = 0;
    MessageRecorder messages;
    {
        const SystemCallWatch watch(
            path.toStdString(), [&](SystemCall& call) { return call.name == "unlink" && ++removals == 1 ? EBUSY : 0; });
        EXPECT_TRUE(Global::checkAccess(QDir(path)));
    }
    EXPECT_EQ(removals, 2);
    EXPECT_EQ(everythingIn(path), QStringList());
    EXPECT_EQ(taken(messages), QStringList());
}

TEST(Access, ProbeThatCannotBeRemoved)
{
    const QString path = inRoot(QStringLiteral("busy"));
    QString probe;
    int removals = 0;
    MessageRecorder messages;
    {
        const SystemCallWatch watch(path.toStdString(), [&](SystemCall& call) {
            if (call.name != "unlink")
                return 0;
            ++removals;
            probe = QString::fromStdString(call.path);
            return EBUSY;
        });
        EXPECT_FALSE(Global::checkAccess(QDir(path)));
    }
    EXPECT_EQ(removals, 2);
    EXPECT_EQ(taken(messages),
              QStringList{QStringLiteral("warning: Global::checkAccess: Не удалось удалить временный файл "
                                         "\"Device or resource busy\" \"%1\"")
                              .arg(probe)});
}

// Another program with the same random numbers was quicker.
TEST(Access, ProbeTakenAwayByAnotherCountsAsRemoved)
{
    const QString path = inRoot(QStringLiteral("shared"));
    MessageRecorder messages;
    const SystemCallWatch watch(path.toStdString(), [](SystemCall& call) {
        if (call.name == "unlink")
            syscall(SYS_unlinkat, AT_FDCWD, call.path.c_str(), 0);
        return 0;
    });
    EXPECT_TRUE(Global::checkAccess(QDir(path)));
    EXPECT_EQ(taken(messages), QStringList());
}

TEST(Secrecy, CheckCreatesTheTreeOfTheLevel)
{
    EXPECT_TRUE(Global::checkSecrecy(2));
    EXPECT_EQ(everythingIn(inRoot(QStringLiteral("data"))), QStringList{QStringLiteral("2")});
    EXPECT_EQ(everythingIn(inRoot(QStringLiteral("data/2"))), QStringList());
}

TEST(Secrecy, LowestLevelThatPasses)
{
    MessageRecorder messages;
    EXPECT_EQ(Global::currentSecrecy(), 0);
    // The levels above are left alone.
    EXPECT_EQ(everythingIn(inRoot(QStringLiteral("data"))), QStringList{QStringLiteral("0")});
    EXPECT_EQ(taken(messages), QStringList());
    // Tested again by every call.
    for (int level = 0; level < 3; ++level) {
        const QString tree = inRoot(QStringLiteral("data/")) + QString::number(level);
        ASSERT_TRUE(!QFile::exists(tree) || QDir().rmdir(tree));
        putFile(tree);
        EXPECT_EQ(Global::currentSecrecy(), level + 1);
    }
    // A file in place of the tree cannot be made a directory.
    ASSERT_TRUE(QFile::remove(inRoot(QStringLiteral("data/0"))));
    EXPECT_EQ(Global::currentSecrecy(), 0);
}

TEST(Secrecy, RightsDecide)
{
    for (const char* tree : {"data/0", "data/1"})
        ASSERT_TRUE(QDir().mkpath(inRoot(QString::fromLatin1(tree))));
    ASSERT_EQ(chmod(qPrintable(inRoot(QStringLiteral("data/0"))), 0555), 0);
    logtest::obeyPermissionBits();
    EXPECT_EQ(Global::currentSecrecy(), 1);
    ASSERT_EQ(chmod(qPrintable(inRoot(QStringLiteral("data/0"))), 0755), 0);
    EXPECT_EQ(Global::currentSecrecy(), 0);
}

TEST(Secrecy, NoLevelPasses)
{
    putFile(inRoot(QStringLiteral("data")));
    QStringList expected;
    for (int level = 0; level < 4; ++level) {
        expected.append(QStringLiteral("warning: Global::checkAccess: Не удалось создать каталог \"%1/%2\"")
                            .arg(inRoot(QStringLiteral("data")))
                            .arg(level));
    }
    expected.append(QStringLiteral("critical: Global: Error! Can not get current secrecy level."));
    MessageRecorder messages;
    for (int call = 0; call < 2; ++call) {
        EXPECT_EQ(Global::currentSecrecy(), 0);
        EXPECT_EQ(taken(messages), expected);
    }
    // Nothing of it went to a log.
    EXPECT_EQ(everythingIn(installRoot()), (QStringList{QStringLiteral("bin"), QStringLiteral("data")}));
}
