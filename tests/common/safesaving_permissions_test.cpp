// Directories that are made, and the permissions that they and files get.
#include "tests/common/safesavingfixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>

using namespace logtest;
using testsupport::SystemCallWatch;

namespace {

struct PermissionRow
{
    int setting;
    int mode;
};

void PrintTo(const PermissionRow& row, std::ostream* out)
{
    *out << std::hex << row.setting;
}

class Permissions : public SafeSaving, public testing::WithParamInterface<PermissionRow>
{
};

class DirectoryPermissions : public Permissions
{
};

class OrdinaryFilePermissions : public Permissions
{
};

} // namespace

TEST_P(DirectoryPermissions, BecomeModes)
{
    logtest::editSettings("[Permissions]\ndirPermissions=" + QByteArray::number(GetParam().setting) + '\n');
    EXPECT_TRUE(Global::makePath(QDir(pathOf(u("x/y")))));
    EXPECT_EQ(logtest::modeOf(pathOf(u("x"))), GetParam().mode);
    EXPECT_EQ(logtest::modeOf(pathOf(u("x/y"))), GetParam().mode);
}

// Owner, user, group and others; on this system owner and user are one. Out of range: 0777.
INSTANTIATE_TEST_SUITE_P(Each, DirectoryPermissions,
                         testing::Values(PermissionRow{0x7777, 0777}, PermissionRow{0x7755, 0755},
                                         PermissionRow{0x7750, 0750}, PermissionRow{0x7711, 0711},
                                         PermissionRow{0x7111, 0711}, PermissionRow{0x7700, 0700},
                                         PermissionRow{0x7110, 0777}, PermissionRow{0x7778, 0777}));

TEST_P(OrdinaryFilePermissions, BecomeModes)
{
    logtest::editSettings("[Permissions]\nfilePermissions=" + QByteArray::number(GetParam().setting) + '\n');
    put(u("file"), "x");
    EXPECT_TRUE(Global::setFilePermissions(pathOf(u("file"))));
    EXPECT_EQ(logtest::modeOf(pathOf(u("file"))), GetParam().mode);
    EXPECT_EQ(save("x"), QString());
    EXPECT_EQ(logtest::modeOf(target), GetParam().mode);
    EXPECT_EQ(content(u("file")), "x");
}

INSTANTIATE_TEST_SUITE_P(Each, OrdinaryFilePermissions,
                         testing::Values(PermissionRow{0x6666, 0666}, PermissionRow{0x6644, 0644},
                                         PermissionRow{0x6640, 0640}, PermissionRow{0x6604, 0604},
                                         PermissionRow{0x6000, 0600}, PermissionRow{0x6100, 0700},
                                         PermissionRow{0x5fff, 0666}, PermissionRow{0x6667, 0666}));

TEST_F(SafeSaving, PermissionsAreReadOnce)
{
    logtest::editSettings("[Permissions]\ndirPermissions=30549\nfilePermissions=26180\n"); // 0x7755, 0x6644
    put(u("file"), "x");
    for (const char* name : {"first", "second"}) {
        EXPECT_TRUE(Global::makePath(QDir(pathOf(u(name)))));
        EXPECT_TRUE(Global::setFilePermissions(pathOf(u("file"))));
        EXPECT_EQ(logtest::modeOf(pathOf(u(name))), 0755);
        EXPECT_EQ(logtest::modeOf(pathOf(u("file"))), 0644);
        logtest::editSettings("[Permissions]\ndirPermissions=30464\nfilePermissions=24576\n");
    }
}

TEST_F(SafeSaving, DirectoriesThatExistStayAsTheyAre)
{
    ASSERT_TRUE(QDir().mkpath(pathOf(u("x"))));
    ASSERT_EQ(chmod(qPrintable(pathOf(u("x"))), 01750), 0);
    EXPECT_TRUE(Global::makePath(QDir(pathOf(u("x")))));
    EXPECT_TRUE(Global::makePath(QDir(pathOf(u("x/y/../z")))));
    EXPECT_EQ(logtest::modeOf(pathOf(u("x"))), 01750);
    EXPECT_EQ(logtest::modeOf(pathOf(u("x/z"))), 0777);
    EXPECT_FALSE(QFile::exists(pathOf(u("x/y"))));
    EXPECT_EQ(globalLog(), QStringList());
}

TEST_F(SafeSaving, NewDirectoriesOutliveAPowerFailure)
{
    const SystemCallWatch watch(directory.toStdString());
    EXPECT_TRUE(Global::makePath(QDir(pathOf(u("x/y")))));
    EXPECT_THAT(watch.callsOf({"fsync"}), testing::UnorderedElementsAre("fsync ", "fsync /x"));
}

TEST_F(SafeSaving, PathThatCannotBeMade)
{
    put(u("file"), "x");
    EXPECT_FALSE(Global::makePath(QDir(pathOf(u("file/x%1")))));
    EXPECT_FALSE(Global::makePath(QDir(pathOf(u("file")))));
    EXPECT_EQ(globalLog(), (QStringList{u("Не удалось создать путь ") + pathOf(u("file/x%1")),
                                        u("Не удалось создать путь ") + pathOf(u("file"))}));
}

TEST_F(SafeSaving, DirectoryWhosePermissionsCannotBeSet)
{
    umask(027);
    const QString path = pathOf(u("x%1"));
    {
        const SystemCallWatch watch(directory.toStdString(), failing("fchmod", path, EPERM));
        EXPECT_FALSE(Global::makePath(QDir(path)));
    }
    EXPECT_TRUE(QFileInfo(path).isDir());
    EXPECT_EQ(globalLog(), QStringList{u("Не удалось изменить права доступа 0x7777 для каталога ") + path +
                                       u(" (0x7750). Operation not permitted")});
}

TEST_F(SafeSaving, InnerDirectoryWhosePermissionsCannotBeSet)
{
    umask(027);
    const QString inner = pathOf(u("x"));
    {
        const SystemCallWatch watch(directory.toStdString(), failing("fchmod", inner, EPERM));
        EXPECT_FALSE(Global::makePath(QDir(inner + u("/y"))));
    }
    EXPECT_EQ(logtest::modeOf(inner + u("/y")), 0777);
    EXPECT_EQ(globalLog(), QStringList{u("Не удалось изменить права доступа 0x7777 для внутреннего каталога ") + inner +
                                       u(" (0x7750). Operation not permitted")});
}

TEST_F(SafeSaving, FileWhosePermissionsCannotBeSet)
{
    const QString missing = pathOf(u("missing%2"));
    EXPECT_FALSE(Global::setFilePermissions(missing));
    put(u("file"), "x");
    {
        const SystemCallWatch watch(directory.toStdString(), failing("fchmod", pathOf(u("file")), EPERM));
        EXPECT_FALSE(Global::setFilePermissions(pathOf(u("file"))));
    }
    EXPECT_EQ(globalLog(), (QStringList{u("Не удалось изменить права доступа 0x6666 для файла ") + missing +
                                            u(" (0x0). No such file or directory"),
                                        u("Не удалось изменить права доступа 0x6666 для файла ") + pathOf(u("file")) +
                                            u(" (0x6600). Operation not permitted")}));
}
