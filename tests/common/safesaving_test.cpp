// Replacing a file: what is saved, in which order, and what each step that fails leaves behind.
#include "tests/common/safesavingfixture.h"

#include <QFile>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>

using namespace logtest;
using testing::ElementsAre;
using testsupport::SystemCall;
using testsupport::SystemCallWatch;

// --- What is saved

TEST_F(SafeSaving, NewFileInANewDirectory)
{
    const QString path = pathOf(u("a/b/file"));
    EXPECT_EQ(Global::safeSaving(path, QByteArray("content")), QString());
    EXPECT_EQ(contentOf(path), "content");
    EXPECT_EQ(QDir(pathOf(u("a/b"))).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList{u("file")});
    EXPECT_EQ(logtest::modeOf(path), 0666);
    EXPECT_EQ(logtest::modeOf(pathOf(u("a"))), 0777);
    EXPECT_EQ(logtest::modeOf(pathOf(u("a/b"))), 0777);
    EXPECT_EQ(globalLog(), QStringList());
}

TEST_F(SafeSaving, ExistingFile)
{
    put(u("target"), "a longer content than the new one");
    EXPECT_EQ(save("new"), QString());
    EXPECT_EQ(content(u("target")), "new");
    EXPECT_EQ(names(), onlyTarget);
    EXPECT_EQ(logtest::modeOf(target), 0666);
    EXPECT_EQ(globalLog(), QStringList());
}

TEST_F(SafeSaving, AnyContent)
{
    for (const QByteArray& data : {QByteArray(), QByteArray("\0\r\n\xff", 4), patternOf('a', 3 << 20)}) {
        EXPECT_EQ(save(data), QString());
        EXPECT_TRUE(content(u("target")) == data) << data.size();
        EXPECT_EQ(names(), onlyTarget);
    }
}

TEST_F(SafeSaving, LongerSideFileOfACrashIsCutOff)
{
    put(u("target.new"), "torn, and longer than what follows");
    EXPECT_EQ(save("new"), QString());
    EXPECT_EQ(content(u("target")), "new");
    EXPECT_EQ(names(), onlyTarget);
}

TEST_F(SafeSaving, LeftBackupIsReplaced)
{
    put(u("target"), "old");
    put(u("target.old"), "older");
    EXPECT_EQ(save("new"), QString());
    EXPECT_EQ(content(u("target")), "new");
    EXPECT_EQ(names(), onlyTarget);
}

TEST_F(SafeSaving, RelativePath)
{
    ASSERT_TRUE(QDir::setCurrent(directory));
    EXPECT_EQ(Global::safeSaving(u("target"), QByteArray("1")), QString());
    EXPECT_EQ(Global::safeSaving(u("target"), QByteArray("2")), QString());
    EXPECT_EQ(content(u("target")), "2");
    EXPECT_EQ(names(), onlyTarget);
}

TEST_F(SafeSaving, FileThatIsAlreadyWritten)
{
    put(u("target"), "old");
    put(u("ready"), "new");
    EXPECT_EQ(Global::safeSaving(target, pathOf(u("ready"))), QString());
    EXPECT_EQ(content(u("target")), "new");
    EXPECT_EQ(names(), onlyTarget);
    put(u("ready"), "newer");
    EXPECT_EQ(Global::safeSaving(pathOf(u("other")), pathOf(u("ready"))), QString());
    EXPECT_EQ(content(u("other")), "newer");
    EXPECT_EQ(globalLog(), QStringList());
}

// --- In which order

TEST_F(SafeSaving, NewContentIsOnTheDiskBeforeItGetsItsName)
{
    const SystemCallWatch watch(directory.toStdString());
    ASSERT_EQ(save("new"), QString());
    EXPECT_THAT(watch.callsOf({"write", "fsync", "fchmod", "rename", "unlink"}),
                ElementsAre("write /target.new", "fsync /target.new", "fchmod /target.new",
                            "rename /target.new /target", "fsync "));
}

TEST_F(SafeSaving, OldContentIsKeptUntilTheNewOneIsInItsPlace)
{
    put(u("target"), "old");
    put(u("target.old"), "older");
    const SystemCallWatch watch(directory.toStdString());
    ASSERT_EQ(save("new"), QString());
    EXPECT_THAT(watch.callsOf({"write", "fsync", "fchmod", "rename", "unlink"}),
                ElementsAre("write /target.new", "fsync /target.new", "fchmod /target.new", "unlink /target.old",
                            "rename /target /target.old", "rename /target.new /target", "fsync ",
                            "unlink /target.old"));
}

TEST_F(SafeSaving, FileOfTheCallerIsSyncedToo)
{
    put(u("target"), "old");
    put(u("ready"), "new");
    const SystemCallWatch watch(directory.toStdString());
    ASSERT_EQ(Global::safeSaving(target, pathOf(u("ready"))), QString());
    EXPECT_THAT(watch.callsOf({"fsync", "rename", "unlink"}),
                ElementsAre("fsync /ready", "rename /target /target.old", "rename /ready /target", "fsync ",
                            "unlink /target.old"));
}

// --- Step by step, what fails

TEST_F(SafeSaving, SideFileCannotBeOpened)
{
    put(u("target"), "old");
    ASSERT_TRUE(QDir().mkpath(side));
    const SystemCallWatch watch(directory.toStdString());
    EXPECT_EQ(save("new"), u("Не удалось открыть файл для записи. Is a directory."));
    EXPECT_EQ(globalLog(), QStringList{u("safeSaving failed 7. Не удалось открыть файл для записи. Is a directory.")});
    EXPECT_EQ(content(u("target")), "old");
}

TEST_F(SafeSaving, SideFileIsOpenedTwice)
{
    for (int failures : {1, 2}) {
        int openings = 0;
        const SystemCallWatch watch(directory.toStdString(), [&](SystemCall& call) {
            return call.is("open", side.toStdString()) && ++openings <= failures ? EMFILE : 0;
        });
        EXPECT_EQ(save("new"),
                  failures == 1 ? QString() : u("Не удалось открыть файл для записи. Too many open files."));
        EXPECT_EQ(openings, 2);
    }
    EXPECT_EQ(globalLog(),
              QStringList{u("safeSaving failed 7. Не удалось открыть файл для записи. Too many open files.")});
}

TEST_F(SafeSaving, DirectoryIsNotForUs)
{
    put(u("target"), "old");
    ASSERT_EQ(chmod(qPrintable(directory), 0555), 0);
    logtest::obeyPermissionBits();
    EXPECT_EQ(save("new"), u("Не удалось открыть файл для записи. Permission denied."));
    EXPECT_EQ(content(u("target")), "old");
    EXPECT_EQ(names(), onlyTarget);
}

TEST_F(SafeSaving, DirectoryCannotBeMade)
{
    put(u("file"), "x");
    EXPECT_EQ(Global::safeSaving(pathOf(u("file/below/target")), QByteArray("new")),
              u("Не удалось открыть файл для записи. Not a directory."));
    EXPECT_EQ(globalLog(),
              (QStringList{u("Не удалось создать путь ") + pathOf(u("file/below")),
                           u("safeSaving failed 7. Не удалось открыть файл для записи. Not a directory.")}));
}

TEST_F(SafeSaving, FullDisk)
{
    put(u("target"), "old");
    ASSERT_TRUE(QFile::link(u("/dev/full"), side));
    EXPECT_EQ(save("new"), u("Не удалось записать все данные в файл за отведенное время. No space left on device"));
    EXPECT_EQ(globalLog(), QStringList{u("safeSaving failed 6. Не удалось записать все данные в файл за отведенное "
                                         "время. No space left on device")});
    EXPECT_EQ(content(u("target")), "old");
    EXPECT_EQ(names(), onlyTarget);
}

TEST_F(SafeSaving, DiskThatFillsUp)
{
    put(u("target"), "old");
    int writes = 0;
    const SystemCallWatch watch(directory.toStdString(), [&](SystemCall& call) {
        if (!call.is("write", side.toStdString()))
            return 0;
        call.bytes = 10;
        return ++writes > 1 ? ENOSPC : 0;
    });
    EXPECT_EQ(save(patternOf('a', 1000)),
              u("Не удалось записать все данные в файл за отведенное время. No space left on device"));
    EXPECT_GE(writes, 2);
    EXPECT_EQ(content(u("target")), "old");
    EXPECT_EQ(names(), onlyTarget);
}

TEST_F(SafeSaving, ShortWritesAreGoneOnWith)
{
    const SystemCallWatch watch(directory.toStdString(), [](SystemCall& call) {
        call.bytes = qMin<std::size_t>(call.bytes, 10);
        return 0;
    });
    const QByteArray data = patternOf('a', 1000);
    EXPECT_EQ(save(data), QString());
    EXPECT_EQ(content(u("target")), data);
    EXPECT_GE(watch.callsOf({"write"}).size(), 100u);
}

// Somebody makes room meanwhile: five seconds are left for that.
TEST_F(SafeSaving, DiskThatIsFullForAMomentIsWaitedFor)
{
    int writes = 0;
    const SystemCallWatch watch(directory.toStdString(), [&writes](SystemCall& call) {
        if (call.name != "write")
            return 0;
        call.bytes = ++writes == 1 ? std::size_t(10) : call.bytes;
        return writes == 2 ? ENOSPC : 0;
    });
    const QByteArray data = patternOf('a', 1000);
    EXPECT_EQ(save(data), QString());
    EXPECT_EQ(content(u("target")), data);
    EXPECT_EQ(writes, 3);
}

TEST_F(SafeSaving, DiskThatFailsLate)
{
    put(u("target"), "old");
    const SystemCallWatch watch(directory.toStdString(), failing("fsync", side, EIO));
    EXPECT_EQ(save("new"), u("Не удалось записать все данные в файл за отведенное время. Input/output error"));
    EXPECT_EQ(
        globalLog(),
        QStringList{
            u("safeSaving failed 6. Не удалось записать все данные в файл за отведенное время. Input/output error")});
    EXPECT_EQ(content(u("target")), "old");
    EXPECT_EQ(names(), onlyTarget);
}

TEST_F(SafeSaving, DiskThatFailsLateOnAFileOfTheCaller)
{
    put(u("target"), "old");
    put(u("ready"), "new");
    const SystemCallWatch watch(directory.toStdString(), failing("fsync", pathOf(u("ready")), EIO));
    EXPECT_EQ(Global::safeSaving(target, pathOf(u("ready"))),
              u("Не удалось записать все данные в файл за отведенное время. Input/output error"));
    EXPECT_EQ(content(u("target")), "old");
    EXPECT_EQ(content(u("ready")), "new");
    EXPECT_EQ(names(), (QStringList{u("ready"), u("target")}));
}

TEST_F(SafeSaving, FileSystemsThatCannotSync)
{
    put(u("target"), "old");
    for (int error : {EINVAL, ENOSYS, EOPNOTSUPP}) {
        const SystemCallWatch watch(directory.toStdString(),
                                    [error](SystemCall& call) { return call.name == "fsync" ? error : 0; });
        const QByteArray data = QByteArray::number(error);
        EXPECT_EQ(save(data), QString());
        EXPECT_EQ(content(u("target")), data);
    }
}

TEST_F(SafeSaving, InterruptedCallsAreRepeated)
{
    put(u("target"), "old");
    for (const char* name : {"open", "write", "fsync"}) {
        const SystemCallWatch watch(directory.toStdString(), failing(name, side, EINTR, 1));
        EXPECT_EQ(save(name), QString()) << name;
        EXPECT_EQ(content(u("target")), name);
    }
}

TEST_F(SafeSaving, SideFileCannotBeRemovedAfterAFailedWrite)
{
    put(u("target"), "old");
    const SystemCallWatch watch(directory.toStdString(), [&](SystemCall& call) {
        if (call.is("write", side.toStdString()))
            return ENOSPC;
        return call.is("unlink", side.toStdString()) ? EBUSY : 0;
    });
    EXPECT_EQ(save("new"), u("Не удалось записать все данные в файл за отведенное время. No space left on device"));
    EXPECT_EQ(
        globalLog(),
        (QStringList{
            u("safeSaving failed 5. Не удалось удалить временный файл при ошибке записи. Device or resource busy."),
            u("safeSaving failed 6. Не удалось записать все данные в файл за отведенное время. No space left on "
              "device")}));
    EXPECT_EQ(content(u("target")), "old");
}

TEST_F(SafeSaving, LeftBackupThatCannotBeRemovedStopsTheSave)
{
    put(u("target"), "old");
    putFullDirectory(u("target.old"));
    const SystemCallWatch watch(directory.toStdString());
    EXPECT_EQ(save("new"), u("Не удалось удалить файл ") + backup);
    EXPECT_EQ(
        globalLog(),
        QStringList{u("safeSaving file removing failed. Не удалось удалить старый файл при безопасном сохранении ") +
                    backup + u(".")});
    EXPECT_EQ(content(u("target")), "old");
    EXPECT_THAT(watch.callsOf({"rename"}), ElementsAre());
}

TEST_F(SafeSaving, TargetCannotBePutAside)
{
    put(u("target"), "old");
    const SystemCallWatch watch(directory.toStdString(), failing("rename", target, EACCES));
    EXPECT_EQ(save("new"), u("Не удалось переименовать файл ") + target);
    EXPECT_EQ(globalLog(),
              QStringList{u("safeSaving failed 1. Не удалось переименовать файл %1. Permission denied").arg(target)});
    EXPECT_EQ(content(u("target")), "old");
    EXPECT_FALSE(QFile::exists(backup));
}

TEST_F(SafeSaving, TargetCannotBePutAsideInAnothersDirectory)
{
    put(u("target"), "old");
    ASSERT_EQ(chmod(qPrintable(directory), 0555), 0);
    const QString ready = rootPath(u("ready"));
    ASSERT_TRUE(writeFile(ready, "new"));
    logtest::obeyPermissionBits();
    EXPECT_EQ(Global::safeSaving(target, ready), u("Не удалось переименовать файл ") + target);
    EXPECT_EQ(globalLog(),
              QStringList{u("safeSaving failed 1. Не удалось переименовать файл %1. Permission denied").arg(target)});
    EXPECT_EQ(content(u("target")), "old");
    EXPECT_EQ(contentOf(ready), "new");
}

TEST_F(SafeSaving, NewFileCannotTakeThePlace)
{
    put(u("target"), "old");
    const SystemCallWatch watch(directory.toStdString(), failing("rename", side, EIO));
    EXPECT_EQ(save("new"), u("Не удалось переименовать файл ") + side);
    EXPECT_EQ(globalLog(),
              QStringList{u("safeSaving failed 2. Не удалось переименовать файл %1. Input/output error").arg(side)});
    EXPECT_EQ(content(u("target")), "old");
    EXPECT_FALSE(QFile::exists(backup));
}

TEST_F(SafeSaving, MissingNewFileBringsTheOldOneBack)
{
    put(u("target"), "old");
    const QString missing = pathOf(u("missing"));
    EXPECT_EQ(Global::safeSaving(target, missing), u("Не удалось переименовать файл ") + missing);
    EXPECT_EQ(globalLog(),
              QStringList{
                  u("safeSaving failed 2. Не удалось переименовать файл %1. No such file or directory").arg(missing)});
    EXPECT_EQ(content(u("target")), "old");
    EXPECT_EQ(names(), onlyTarget);
}

TEST_F(SafeSaving, OldFileCannotBeBroughtBack)
{
    put(u("target"), "old");
    {
        const SystemCallWatch watch(directory.toStdString(), [&](SystemCall& call) {
            if (call.is("rename", side.toStdString()))
                return EIO;
            return call.is("rename", backup.toStdString()) ? EROFS : 0;
        });
        EXPECT_EQ(save("new"), u("Не удалось переименовать файл ") + side);
    }
    EXPECT_EQ(
        globalLog(),
        QStringList{u("safeSaving failed 3. Не удалось переименовать файл %1. Read-only file system").arg(backup)});
    EXPECT_EQ(names(), (QStringList{u("target.new"), u("target.old")}));
    EXPECT_EQ(content(u("target.old")), "old");
    EXPECT_EQ(content(u("target.new")), "new");
}

TEST_F(SafeSaving, NewFileCannotTakeTheFreePlace)
{
    const SystemCallWatch watch(directory.toStdString(), failing("rename", side, EIO));
    EXPECT_EQ(save("new"), u("Не удалось переименовать файл ") + side);
    EXPECT_EQ(globalLog(),
              QStringList{u("safeSaving failed 4. Не удалось переименовать файл %1. Input/output error").arg(side)});
    EXPECT_FALSE(QFile::exists(target));
}

TEST_F(SafeSaving, MissingNewFileForAFreePlace)
{
    const QString missing = pathOf(u("missing"));
    EXPECT_EQ(Global::safeSaving(target, missing), u("Не удалось переименовать файл ") + missing);
    EXPECT_EQ(globalLog(),
              QStringList{
                  u("safeSaving failed 4. Не удалось переименовать файл %1. No such file or directory").arg(missing)});
    EXPECT_EQ(names(), QStringList());
}

TEST_F(SafeSaving, BackupThatStaysIsNoFailure)
{
    put(u("target"), "old");
    {
        const SystemCallWatch watch(directory.toStdString(), failing("unlink", backup, EBUSY));
        EXPECT_EQ(save("new"), QString());
    }
    EXPECT_EQ(globalLog(), QStringList{u("safeSaving file removing failed. Не удалось удалить старый файл при "
                                         "безопасном сохранении %1. Device or resource busy")
                                           .arg(backup)});
    EXPECT_EQ(content(u("target")), "new");
    EXPECT_EQ(content(u("target.old")), "old");
    EXPECT_EQ(save("newer"), QString());
    EXPECT_EQ(content(u("target")), "newer");
    EXPECT_EQ(names(), onlyTarget);
}

TEST_F(SafeSaving, PermissionsThatCannotBeSetAreNoFailure)
{
    const SystemCallWatch watch(directory.toStdString(), failing("fchmod", side, EPERM));
    EXPECT_EQ(save("new"), QString());
    EXPECT_EQ(globalLog().size(), 1);
    EXPECT_TRUE(
        globalLog().first().startsWith(u("Не удалось изменить права доступа 0x6666 для файла %1 (0x").arg(side)));
    EXPECT_TRUE(globalLog().first().endsWith(u("). Operation not permitted")));
    EXPECT_EQ(content(u("target")), "new");
}

TEST_F(SafeSaving, MarkersInNamesStay)
{
    const QString path = pathOf(u("a%1b%2c %3"));
    ASSERT_TRUE(writeFile(path, "old"));
    const SystemCallWatch watch(directory.toStdString(), failing("rename", path, EIO));
    EXPECT_EQ(Global::safeSaving(path, QByteArray("new")), u("Не удалось переименовать файл ") + path);
    EXPECT_EQ(globalLog(),
              QStringList{u("safeSaving failed 1. Не удалось переименовать файл ") + path + u(". Input/output error")});
}

TEST_F(SafeSaving, FailuresAreEchoed)
{
    ASSERT_TRUE(QDir().mkpath(side));
    logtest::MessageRecorder messages;
    EXPECT_NE(save("new"), QString());
    EXPECT_EQ(
        messages.texts(QtDebugMsg),
        QStringList{u("\"Global\" \"safeSaving failed 7. Не удалось открыть файл для записи. Is a directory.\"")});
}
