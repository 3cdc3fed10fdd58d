// What a crash left of a save is brought back.
#include "tests/common/safesavingfixture.h"

#include <QFile>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

using namespace logtest;
using testing::ElementsAre;
using testsupport::SystemCallWatch;

TEST_F(SafeSaving, RecoveryOfAMissingTarget)
{
    put(u("target.old"), "old");
    put(u("target.new"), "perhaps torn");
    bool recovered = false;
    EXPECT_EQ(Global::recoverSaving(target, &recovered), QString());
    EXPECT_TRUE(recovered);
    EXPECT_EQ(content(u("target")), "old");
    EXPECT_EQ(names(), (QStringList{u("target"), u("target.new")}));
    EXPECT_EQ(save("new"), QString());
    EXPECT_EQ(content(u("target")), "new");
    EXPECT_EQ(names(), onlyTarget);
}

TEST_F(SafeSaving, RecoveryOutlivesAPowerFailure)
{
    put(u("target.old"), "old");
    const SystemCallWatch watch(directory.toStdString());
    EXPECT_EQ(Global::recoverSaving(target), QString());
    EXPECT_THAT(watch.callsOf({"rename", "fsync"}), ElementsAre("rename /target.old /target", "fsync "));
}

TEST_F(SafeSaving, NothingToRecover)
{
    bool recovered = true;
    EXPECT_EQ(Global::recoverSaving(target, &recovered), QString());
    EXPECT_FALSE(recovered);
    put(u("target"), "new");
    put(u("target.old"), "old");
    recovered = true;
    EXPECT_EQ(Global::recoverSaving(target, &recovered), QString());
    EXPECT_FALSE(recovered);
    EXPECT_EQ(content(u("target")), "new");
    EXPECT_EQ(content(u("target.old")), "old");
    EXPECT_EQ(globalLog(), QStringList());
}

TEST_F(SafeSaving, SideFileAloneIsNeverPromoted)
{
    put(u("target.new"), "perhaps torn");
    EXPECT_EQ(Global::recoverSaving(target), QString());
    EXPECT_FALSE(QFile::exists(target));
}

TEST_F(SafeSaving, DirectoryIsNoBackup)
{
    putFullDirectory(u("target.old"));
    EXPECT_EQ(Global::recoverSaving(target), QString());
    EXPECT_FALSE(QFile::exists(target));
}

TEST_F(SafeSaving, TargetThatCannotBeLookedAtIsNotReplaced)
{
    put(u("target"), "new");
    put(u("target.old"), "old");
    {
        const SystemCallWatch watch(directory.toStdString(), failing("stat", target, EIO));
        bool recovered = true;
        EXPECT_EQ(Global::recoverSaving(target, &recovered), QString());
        EXPECT_FALSE(recovered);
    }
    EXPECT_EQ(content(u("target")), "new");
}

TEST_F(SafeSaving, RecoveryThatFails)
{
    put(u("target.old"), "old");
    bool recovered = true;
    const SystemCallWatch watch(directory.toStdString(), failing("rename", backup, EIO));
    EXPECT_EQ(Global::recoverSaving(target, &recovered), u("Не удалось переименовать файл ") + backup);
    EXPECT_FALSE(recovered);
    EXPECT_EQ(content(u("target.old")), "old");
}

TEST_F(SafeSaving, RecoveryOfADirectory)
{
    put(u("a.old"), "a");
    put(u("b.old"), "older");
    put(u("b"), "b");
    put(u(".c.old"), "c");
    put(u("d.new"), "d");
    put(u("below/e.old"), "e");
    ASSERT_TRUE(QDir().mkpath(pathOf(u("f.old"))));
    QStringList recovered = Global::recoverSavings(QDir(directory));
    recovered.sort();
    EXPECT_EQ(recovered, (QStringList{pathOf(u(".c")), pathOf(u("a"))}));
    EXPECT_EQ(content(u("a")), "a");
    EXPECT_EQ(content(u("b")), "b");
    EXPECT_EQ(content(u(".c")), "c");
    EXPECT_EQ(content(u("below/e.old")), "e");
    EXPECT_EQ(Global::recoverSavings(QDir(directory)), QStringList());
    EXPECT_EQ(Global::recoverSavings(QDir(pathOf(u("missing")))), QStringList());
}
