// A program whose standard input is closed, as that of many a service: the next file that it opens
// has the descriptor 0, and that is as good as any other.
#include "common/global.h"
#include "common/logger.h"
#include "common/plantedlinks.h"
#include "tests/common/logsupport.h"
#include "tests/support/systemcalls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

using logtest::contentOf;
using logtest::logTexts;
using logtest::rootPath;
using logtest::writeFile;
using testing::ElementsAre;
using testsupport::SystemCallWatch;

TEST(ClosedInput, AFileOfTheCallerIsSyncedBeforeItTakesItsPlace)
{
    const QString directory = rootPath(QStringLiteral("files"));
    const QString target = directory + QStringLiteral("/target");
    ASSERT_TRUE(writeFile(target, "old"));
    ASSERT_TRUE(writeFile(directory + QStringLiteral("/ready"), "new"));
    ::close(STDIN_FILENO);
    const SystemCallWatch watch(directory.toStdString());
    ASSERT_EQ(Global::safeSaving(target, directory + QStringLiteral("/ready")), QString());
    EXPECT_THAT(watch.callsOf({"fsync", "rename"}),
                ElementsAre("fsync /ready", "rename /target /target.old", "rename /ready /target", "fsync "));
}

TEST(ClosedInput, AFileIsSavedWhole)
{
    const QString directory = rootPath(QStringLiteral("files"));
    ASSERT_TRUE(writeFile(directory + QStringLiteral("/target"), "old"));
    ::close(STDIN_FILENO);
    const SystemCallWatch watch(directory.toStdString());
    ASSERT_EQ(Global::safeSaving(directory + QStringLiteral("/target"), QByteArray("new")), QString());
    EXPECT_THAT(watch.callsOf({"fsync", "rename"}),
                ElementsAre("fsync /target.new", "rename /target /target.old", "rename /target.new /target", "fsync "));
    EXPECT_EQ(contentOf(directory + QStringLiteral("/target")), "new");
}

TEST(ClosedInput, ALineOfTheLogTakesOneOpening)
{
    logtest::beginEmptyLog();
    const auto logText = [](const char* text) {
        debug(QStringLiteral("label"), QString::fromLatin1(text), DebugAlways, DebugFlagFileOnly);
    };
    logText("first");
    ::close(STDIN_FILENO);
    const SystemCallWatch watch(logtest::logPath().toStdString());
    logText("second");
    EXPECT_THAT(watch.callsOf({"open"}), ElementsAre("open "));
    EXPECT_EQ(logTexts(), (QStringList{QStringLiteral("first"), QStringLiteral("second")}));
}

TEST(ClosedInput, EveryWayToOpenAFileGivesItsDescriptor)
{
    const QString path = rootPath(QStringLiteral("files/file"));
    ASSERT_TRUE(writeFile(path, "old"));
    const QString device = rootPath(QStringLiteral("files/device"));
    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/null"), device));
    for (const auto open : {openForAppending, openOwnForAppending, openExistingForAppending, openEmpty, openNew}) {
        ::close(STDIN_FILENO);
        EXPECT_EQ(open(QFile::encodeName(path)), STDIN_FILENO);
    }
    for (const auto open : {openForAppending, openOwnForAppending, openEmpty}) {
        ::close(STDIN_FILENO);
        EXPECT_EQ(open(QFile::encodeName(device)), STDIN_FILENO) << "behind a link of our own";
    }
    ::close(STDIN_FILENO);
    QString error;
    EXPECT_TRUE(changePermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner, &error)) << qPrintable(error);
    EXPECT_EQ(logtest::modeOf(path), 0600);
}
