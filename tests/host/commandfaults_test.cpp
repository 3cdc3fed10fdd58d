// Commands in an installation that is at fault: told with status 1, nothing changed, nothing left.
#include "common/global.h"
#include "tests/host/calledcommand.h"
#include "tests/host/storetools.h"
#include "tests/support/systemcalls.h"

#include <QDir>
#include <gtest/gtest.h>

#include <cerrno>

using namespace hosttest;
using testsupport::SystemCall;
using testsupport::SystemCallWatch;

namespace {

class CommandFaults : public testing::Test
{
protected:
    // In this process, whose system calls are judged.
    static Called call(const QStringList& words) { return callCommand(words); }

    void SetUp() override
    {
        ASSERT_EQ(call({QStringLiteral("name"), QStringLiteral("North")}).status, 0);
        ASSERT_TRUE(settings().startsWith(rig::installRoot()));
    }

    static QString settings() { return QDir::cleanPath(Global::settingsDir().absolutePath()) + QLatin1Char('/'); }
    static QString messages()
    {
        return QDir::cleanPath(Global::outputMessagesDir(0).absolutePath()) + QLatin1Char('/');
    }

    // What stands in a directory, beside the locks of programs.
    static QStringList entries(const QString& path)
    {
        QStringList names = QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
        names.removeAll(QStringLiteral(".lock"));
        return names;
    }

    // All writes below the installation's root find the disk full.
    static SystemCallWatch fullDisk(int* failed)
    {
        return SystemCallWatch(rig::installRoot().toStdString(), [failed](SystemCall& call) {
            const bool fails = call.name == "write";
            *failed += fails;
            return fails ? ENOSPC : 0;
        });
    }
};

} // namespace

// Of an earlier saving that was cut off: what cannot be put back is not taken for missing.
TEST_F(CommandFaults, ABackupThatCannotBePutBackIsToldAndNothingIsWritten)
{
    struct Case
    {
        const char* name;
        QStringList command;
    };
    const Case cases[] = {{"channelCom.conf", {QStringLiteral("port"), QStringLiteral("add"), QStringLiteral("ttyS0")}},
                          {"abonents.conf",
                           {QStringLiteral("abonent"), QStringLiteral("add"), QStringLiteral("Bob"),
                            QStringLiteral("--number"), QStringLiteral("1")}}};
    for (const Case& fault : cases) {
        const QString path = settings() + QString::fromLatin1(fault.name);
        ASSERT_EQ(call(fault.command).status, 0) << fault.name;
        const QByteArray before = readAll(path);
        ASSERT_TRUE(QFile::rename(path, path + QStringLiteral(".old")));
        const QStringList standing = entries(settings());
        int refused = 0;
        Called result;
        {
            const std::string backup = (path + QStringLiteral(".old")).toStdString();
            SystemCallWatch watch(std::string(), [&](SystemCall& call) {
                const bool fails = call.name == "rename" && call.path == backup;
                refused += fails;
                return fails ? EACCES : 0;
            });
            result = call(fault.command);
        }
        EXPECT_GE(refused, 1) << fault.name;
        EXPECT_EQ(result.status, 1) << fault.name;
        EXPECT_TRUE(result.err.contains(path + QStringLiteral(".old"))) << qPrintable(result.err);
        EXPECT_EQ(entries(settings()), standing) << fault.name;
        EXPECT_EQ(readAll(path + QStringLiteral(".old")), before) << fault.name;
        EXPECT_EQ(call(fault.command).status, 0) << "put back as soon as that is possible";
        EXPECT_EQ(readAll(path), before) << fault.name;
    }
}

TEST_F(CommandFaults, ASettingsDirectoryThatIsNoneIsToldUnderName)
{
    const QString path = QDir::cleanPath(Global::settingsDir().absolutePath());
    ASSERT_TRUE(QDir().rename(path, path + QStringLiteral("-aside")));
    writeFile(path, "not a directory");
    for (const QStringList& command :
         {QStringList{QStringLiteral("name"), QStringLiteral("South")}, QStringList{QStringLiteral("name")}}) {
        const Called result = call(command);
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(result.err.contains(path)) << qPrintable(result.err);
        EXPECT_EQ(result.out, QString());
    }
    EXPECT_EQ(readAll(path), QByteArray("not a directory"));
}

TEST_F(CommandFaults, ASettingsDirectoryThatTakesNothingIsToldUnderName)
{
    const QByteArray before = readAll(settings() + QStringLiteral("generalSettings.ini"));
    const QStringList standing = entries(settings());
    int refused = 0;
    Called result;
    {
        SystemCallWatch watch(settings().toStdString(), [&](SystemCall& call) {
            // New files: a lock, a side file. What is there can be read.
            const bool fails = call.name == "open" && !QFile::exists(QString::fromStdString(call.path));
            refused += fails;
            return fails ? EACCES : 0;
        });
        result = call({QStringLiteral("name"), QStringLiteral("South")});
    }
    EXPECT_GE(refused, 1);
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.err.contains(QStringLiteral("cannot write %1generalSettings.ini").arg(settings())))
        << qPrintable(result.err);
    EXPECT_EQ(readAll(settings() + QStringLiteral("generalSettings.ini")), before);
    EXPECT_EQ(entries(settings()), standing);
}

TEST_F(CommandFaults, NameOnAFullDiskKeepsTheOldOne)
{
    const QByteArray before = readAll(settings() + QStringLiteral("generalSettings.ini"));
    ASSERT_TRUE(before.contains("name=North"));
    const QStringList standing = entries(settings());
    int failed = 0;
    Called result;
    {
        const SystemCallWatch watch = fullDisk(&failed);
        result = call({QStringLiteral("name"), QStringLiteral("South")});
    }
    EXPECT_GE(failed, 1);
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.err.contains(QStringLiteral("room on the disk"))) << qPrintable(result.err);
    EXPECT_EQ(readAll(settings() + QStringLiteral("generalSettings.ini")), before);
    EXPECT_EQ(entries(settings()), standing);
}

TEST_F(CommandFaults, SendOnAFullDiskQueuesNothingAndLeavesNothing)
{
    const QString file = writeFile(rig::installRoot() + QStringLiteral("/f.txt"), QByteArray(100000, 'x'));
    ASSERT_EQ(call({QStringLiteral("send"), QStringLiteral("Bob"), file}).status, 0);
    const QStringList standing = entries(messages());
    int failed = 0;
    Called result;
    {
        const SystemCallWatch watch = fullDisk(&failed);
        result = call({QStringLiteral("send"), QStringLiteral("Bob"), file});
    }
    EXPECT_GE(failed, 1);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, QString());
    EXPECT_TRUE(result.err.contains(QStringLiteral("No space left on device"))) << qPrintable(result.err);
    EXPECT_EQ(entries(messages()), standing);
    EXPECT_TRUE(call({QStringLiteral("status")}).out.contains(QStringLiteral("queue: 1\n")));
    EXPECT_EQ(call({QStringLiteral("send"), QStringLiteral("Bob"), file}).status, 0)
        << "as soon as there is room again";
}

// The copy fits, its task does not: a message is there wholly or not at all.
TEST_F(CommandFaults, SendWhoseTaskDoesNotFitQueuesNothing)
{
    const QString file = writeFile(rig::installRoot() + QStringLiteral("/f.txt"), "x");
    int failed = 0;
    Called result;
    {
        SystemCallWatch watch(QDir::cleanPath(Global::tasksToTransportDir(0).absolutePath()).toStdString(),
                              [&](SystemCall& call) {
                                  const bool fails = call.name == "write";
                                  failed += fails;
                                  return fails ? ENOSPC : 0;
                              });
        result = call({QStringLiteral("send"), QStringLiteral("Bob"), file});
    }
    EXPECT_GE(failed, 1);
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.err.contains(QStringLiteral("00000001.task: the disk is full; make room there and try again")))
        << qPrintable(result.err);
    EXPECT_EQ(entries(messages()), QStringList());
    EXPECT_EQ(entries(Global::tasksToTransportDir(0).absolutePath()), QStringList());
}
