// Replacing files, writing in bounded time, directories and permissions.
#include "common/global.h"
#include "rig/testroot.h"
#include "tests/common/logsupport.h"
#include "tests/common/printing.h"
#include "tests/support/systemcalls.h"

#include <QElapsedTimer>
#include <QFile>
#include <QIODevice>
#include <QThread>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using logtest::contentOf;
using logtest::rootPath;
using logtest::writeFile;
using testing::ElementsAre;
using testsupport::SystemCall;
using testsupport::SystemCallWatch;

namespace {

QString u(const char* text)
{
    return QString::fromUtf8(text);
}

// The texts logged so far under the label "Global", the label checked.
QStringList globalLog()
{
    const QString label = QStringLiteral("Global").rightJustified(25) + QStringLiteral("    ");
    QStringList texts;
    for (const QString& line : logtest::logLines()) {
        EXPECT_EQ(line.mid(13, label.length()), label);
        texts.append(line.mid(13 + label.length()));
    }
    return texts;
}

QByteArray patternOf(char first, int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char(first + i % 7);
    return bytes;
}

// The files of a directory of the test's own, with "target" in it as what is saved to.
class SafeSaving : public testing::Test
{
protected:
    SafeSaving()
    {
        umask(077); // the permissions seen are those that were set
        logtest::beginEmptyLog();
        QDir().mkpath(directory);
    }

    QString pathOf(const QString& name) const { return directory + QLatin1Char('/') + name; }
    void put(const QString& name, const QByteArray& content) { ASSERT_TRUE(writeFile(pathOf(name), content)); }
    QByteArray content(const QString& name) const { return contentOf(pathOf(name)); }
    QStringList names() const
    {
        return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                                         QDir::Name);
    }
    // In the way of a file: a directory that unlink() and rmdir() refuse.
    void putFullDirectory(const QString& name) { put(name + u("/inside"), "x"); }
    QString save(const QByteArray& data) { return Global::safeSaving(target, data); }

    const QString directory = rootPath(u("files"));
    const QString target = pathOf(u("target"));
    const QString side = pathOf(u("target.new"));
    const QString backup = pathOf(u("target.old"));
    const QStringList onlyTarget{u("target")};
};

// Fails the calls of this name on this file with error; times < 0: always.
testsupport::Judge failing(const char* name, const QString& path, int error, int times = -1)
{
    return [name, file = path.toStdString(), error, left = times](SystemCall& call) mutable {
        if (!call.is(name, file) || left == 0)
            return 0;
        --left;
        return error;
    };
}

} // namespace

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

// --- After a crash

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

// --- Each call of a save in turn, failing or killing the process

namespace {

const QByteArray older("older, of another size");
const QByteArray oldContent = patternOf('a', 3000);
const QByteArray newContent = patternOf('k', 50000);
const QByteArray thirdContent = patternOf('r', 700);

// What a child process tells.
struct Report
{
    int calls;
    bool reached;
};

enum class Outcome
{
    Saved,
    Refused,
    Killed,
    Broken
};

constexpr int killedCode = 99;

enum class Fault
{
    FailsOnce,
    FailsForGood,
    Kills,
    TearsAndKills,
    FillsTheDisk
};

struct FaultRow
{
    const char* name;
    Fault fault;
    int error;
};

void PrintTo(const FaultRow& row, std::ostream* out)
{
    *out << row.name;
}

const FaultRow faultRows[] = {
    {"EioOnce", Fault::FailsOnce, EIO},
    {"EioForGood", Fault::FailsForGood, EIO},
    {"EnospcOnce", Fault::FailsOnce, ENOSPC},
    {"EnospcForGood", Fault::FailsForGood, ENOSPC},
    {"EaccesOnce", Fault::FailsOnce, EACCES},
    {"EaccesForGood", Fault::FailsForGood, EACCES},
    {"Killed", Fault::Kills, 0},
    {"KilledAmidAWrite", Fault::TearsAndKills, 0},
    {"DiskFillsUp", Fault::FillsTheDisk, ENOSPC},
};

class SafeSavingUnderFaults : public SafeSaving, public testing::WithParamInterface<FaultRow>
{
protected:
    SafeSavingUnderFaults()
        : report(static_cast<Report*>(
              mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        // Thousands of messages about the faults would hide the one that matters.
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    }
    ~SafeSavingUnderFaults() override { munmap(report, sizeof(Report)); }

    // Everything is done in child processes, each of which begins like a program at its start.
    static int exitCodeOf(const std::function<int()>& work)
    {
        const pid_t child = fork();
        if (child == 0)
            _exit(work());
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
            return -1;
        return WEXITSTATUS(status);
    }

    // A save with the fault at the call of this index. Negative: none.
    Outcome saveWithFault(const std::string& prefix, int faultIndex)
    {
        *report = Report{0, false};
        const int code = exitCodeOf([&] {
            const SystemCallWatch watch(prefix, [&](SystemCall& call) { return judge(call, faultIndex); });
            const bool isSaved = save(newContent).isEmpty();
            report->calls = watch.count();
            return isSaved ? 0 : 1;
        });
        switch (code) {
        case 0: return Outcome::Saved;
        case 1: return Outcome::Refused;
        case killedCode: return Outcome::Killed;
        }
        return Outcome::Broken;
    }

    int judge(SystemCall& call, int faultIndex)
    {
        if (faultIndex < 0 || call.index < faultIndex)
            return 0;
        report->reached = true;
        // The lock beside settings.ini is Qt's own: torn or left, it is waited for half a minute.
        if (QByteArray::fromStdString(call.path).endsWith(".lock"))
            return 0;
        const bool isNow = call.index == faultIndex;
        switch (GetParam().fault) {
        case Fault::FailsOnce: return isNow ? GetParam().error : 0;
        case Fault::FailsForGood: return GetParam().error;
        case Fault::Kills: _exit(killedCode);
        case Fault::TearsAndKills:
            // The half of a write is on the disk when the process ends at its next call.
            if (isNow && call.name == "write") {
                call.bytes /= 2;
                return 0;
            }
            _exit(killedCode);
        case Fault::FillsTheDisk:
            if (call.name != "write")
                return 0;
            call.bytes /= 2;
            return isNow && call.bytes > 0 ? 0 : GetParam().error;
        }
        return 0;
    }

    void tryEveryCall(const std::string& prefix, const std::function<void()>& prepare, bool oldStood);
    void expectNothingLost(Outcome outcome, bool oldStood);

    Report* const report; // shared with the child
};

void SafeSavingUnderFaults::tryEveryCall(const std::string& prefix, const std::function<void()>& prepare, bool oldStood)
{
    prepare();
    ASSERT_EQ(saveWithFault(prefix, -1), Outcome::Saved);
    const int calls = report->calls;
    ASSERT_GT(calls, 8);
    for (int index = 0; index < calls; ++index) {
        for (bool isRecovered : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << "call " << index << " of " << calls << (isRecovered ? ", recovered" : ""));
            prepare();
            const Outcome outcome = saveWithFault(prefix, index);
            ASSERT_TRUE(report->reached);
            expectNothingLost(outcome, oldStood);
            if (isRecovered) {
                EXPECT_EQ(exitCodeOf([this] { return Global::recoverSaving(target).isEmpty() ? 0 : 1; }), 0);
                const QByteArray found = content(u("target"));
                EXPECT_TRUE(found == newContent || (oldStood ? found == oldContent : !QFile::exists(target)));
            }
            EXPECT_EQ(exitCodeOf([this] { return save(thirdContent).isEmpty() ? 0 : 1; }), 0);
            EXPECT_TRUE(content(u("target")) == thirdContent);
            EXPECT_FALSE(QFile::exists(side));
            if (HasFailure())
                return;
        }
    }
}

void SafeSavingUnderFaults::expectNothingLost(Outcome outcome, bool oldStood)
{
    const bool isThere = QFile::exists(target);
    const bool isNew = isThere && content(u("target")) == newContent;
    const bool isOld =
        oldStood ? (isThere ? content(u("target")) == oldContent : content(u("target.old")) == oldContent) : !isThere;
    switch (outcome) {
    case Outcome::Saved: EXPECT_TRUE(isNew) << "reported as saved, but it is not"; return;
    case Outcome::Refused: EXPECT_TRUE(isOld) << "refused, but what stood there is gone"; return;
    case Outcome::Killed: EXPECT_TRUE(isNew || isOld) << "neither old nor new is whole"; return;
    case Outcome::Broken: ADD_FAILURE() << "the process crashed"; return;
    }
}

} // namespace

TEST_P(SafeSavingUnderFaults, OfANewFile)
{
    tryEveryCall(
        directory.toStdString(), [this] { QDir(directory).removeRecursively(); }, false);
}

TEST_P(SafeSavingUnderFaults, OfAnExistingFile)
{
    tryEveryCall(
        directory.toStdString(),
        [this] {
            QDir(directory).removeRecursively();
            put(u("target"), oldContent);
        },
        true);
}

TEST_P(SafeSavingUnderFaults, WithABackupAndASideFileLeft)
{
    tryEveryCall(
        directory.toStdString(),
        [this] {
            QDir(directory).removeRecursively();
            put(u("target"), oldContent);
            put(u("target.old"), older);
            put(u("target.new"), older);
        },
        true);
}

TEST_P(SafeSavingUnderFaults, AfterACrashBetweenTheRenames)
{
    tryEveryCall(
        directory.toStdString(),
        [this] {
            QDir(directory).removeRecursively();
            put(u("target.old"), oldContent);
            put(u("target.new"), older);
        },
        true);
}

// Settings and log, which are begun by the save, are hit too.
TEST_P(SafeSavingUnderFaults, OfTheWholeInstallation)
{
    tryEveryCall(
        testsupport::installRoot().toStdString(),
        [this] {
            for (const char* tree : {"files", "data", "settings"})
                QDir(rootPath(u(tree))).removeRecursively();
            put(u("target"), oldContent);
        },
        true);
}

INSTANTIATE_TEST_SUITE_P(Each, SafeSavingUnderFaults, testing::ValuesIn(faultRows),
                         [](const auto& test) { return std::string(test.param.name); });

// --- Writing in bounded time

namespace {

// Takes of each write what a script says; -1: an error, and the last entry for good.
class ScriptedDevice : public QIODevice
{
public:
    explicit ScriptedDevice(QList<qint64> script) : m_script(std::move(script)) { open(WriteOnly | Unbuffered); }

    bool isSequential() const override { return true; }
    bool waitForBytesWritten(int msecs) override
    {
        waits.append(msecs);
        return false;
    }

    QByteArray taken;
    QList<int> waits;
    int writes = 0;
    std::function<void(int write)> onWrite;

protected:
    qint64 readData(char*, qint64) override { return -1; }
    qint64 writeData(const char* data, qint64 size) override
    {
        const int number = writes++;
        if (onWrite)
            onWrite(number);
        const qint64 accepted = qMin(m_script.at(qMin(number, m_script.size() - 1)), size);
        if (accepted > 0)
            taken.append(data, int(accepted));
        return accepted;
    }

private:
    const QList<qint64> m_script;
};

constexpr qint64 everything = 1 << 30;

void waitOut(const QElapsedTimer& timer, qint64 ms)
{
    while (timer.elapsed() <= ms)
        QThread::yieldCurrentThread();
}

} // namespace

TEST(WriteData, EmptyDataTouchesNothing)
{
    QFile closed(rootPath(u("never")));
    EXPECT_TRUE(Global::writeData(closed, QByteArray(), 1));
    ScriptedDevice device({-1});
    EXPECT_TRUE(Global::writeData(device, QByteArray(), 0));
    EXPECT_EQ(device.writes, 0);
    EXPECT_FALSE(QFile::exists(logtest::settingsPath()));
}

TEST(WriteData, AllAtOnce)
{
    ScriptedDevice device({everything});
    EXPECT_TRUE(Global::writeData(device, "abcdef", 1));
    EXPECT_EQ(device.taken, "abcdef");
    EXPECT_EQ(device.writes, 1);
    EXPECT_EQ(device.waits, QList<int>());
}

TEST(WriteData, PieceByPiece)
{
    ScriptedDevice device({2, 0, 1, 0, everything});
    EXPECT_TRUE(Global::writeData(device, "abcdef", 60000));
    EXPECT_EQ(device.taken, "abcdef");
    EXPECT_EQ(device.waits, (QList<int>{1, 1, 1, 1}));
}

TEST(WriteData, Errors)
{
    ScriptedDevice atOnce({-1});
    EXPECT_FALSE(Global::writeData(atOnce, "abcdef", -1));
    EXPECT_EQ(atOnce.writes, 1);
    ScriptedDevice later({2, 0, -1});
    EXPECT_FALSE(Global::writeData(later, "abcdef", -1));
    EXPECT_EQ(later.writes, 3);
    QFile closed(rootPath(u("never")));
    EXPECT_FALSE(Global::writeData(closed, "abcdef", -1));
}

TEST(WriteData, DeviceThatCloses)
{
    ScriptedDevice device({2, 0, everything});
    device.onWrite = [&](int write) {
        if (write == 1)
            device.close();
    };
    EXPECT_FALSE(Global::writeData(device, "abcdef", -1));
    EXPECT_EQ(device.writes, 2);
}

TEST(WriteData, DeviceThatClosesWithTheLastByte)
{
    ScriptedDevice device({2, everything});
    device.onWrite = [&](int write) {
        if (write == 1)
            device.close();
    };
    EXPECT_FALSE(Global::writeData(device, "abcdef", -1));
    EXPECT_EQ(device.taken, "abcdef");
}

TEST(WriteData, TimeIsUp)
{
    QElapsedTimer timer;
    timer.start();
    ScriptedDevice device({0});
    EXPECT_FALSE(Global::writeData(device, "abcdef", 50));
    EXPECT_GE(timer.elapsed(), 50);
    EXPECT_GT(device.writes, 1);
}

// What comes too late has failed, even when it is whole.
TEST(WriteData, TimeIsLookedAtBeforeCompleteness)
{
    QElapsedTimer timer;
    timer.start();
    ScriptedDevice device({2, everything});
    device.onWrite = [&](int write) {
        if (write == 1)
            waitOut(timer, 60); // the time given counts from the first write, which was earlier
    };
    EXPECT_FALSE(Global::writeData(device, "abcdef", 20));
    EXPECT_EQ(device.taken, "abcdef");
}

TEST(WriteData, FirstWriteTakesItsTime)
{
    QElapsedTimer timer;
    timer.start();
    ScriptedDevice device({everything});
    device.onWrite = [&](int) { waitOut(timer, 30); };
    EXPECT_TRUE(Global::writeData(device, "abcdef", 5));
}

TEST(WriteData, NoLimit)
{
    logtest::editSettings("[Details]\nmaxWritingTime=100\n");
    QElapsedTimer timer;
    timer.start();
    ScriptedDevice device({0, everything});
    device.onWrite = [&](int write) {
        if (write == 1)
            waitOut(timer, 150);
    };
    EXPECT_TRUE(Global::writeData(device, "abcdef", -1));
}

TEST(WriteData, TimeOfTheSettings)
{
    logtest::editSettings("[Details]\nmaxWritingTime=100\n");
    for (int round = 0; round < 2; ++round) {
        QElapsedTimer timer;
        timer.start();
        ScriptedDevice device({0});
        EXPECT_FALSE(Global::writeData(device, "abcdef", 0));
        EXPECT_GE(timer.elapsed(), 100);
        EXPECT_LT(timer.elapsed(), 9000);
        // Read once: a change counts from the next start.
        logtest::editSettings("[Details]\nmaxWritingTime=10000\n");
    }
}

TEST(WriteData, TimeByDefault)
{
    QElapsedTimer timer;
    timer.start();
    ScriptedDevice device({2, 0, everything});
    device.onWrite = [&](int write) {
        if (write == 1)
            waitOut(timer, 200);
    };
    EXPECT_TRUE(Global::writeData(device, "abcdef", 0));
    EXPECT_EQ(logtest::settingsOnDisk().value(u("Details/maxWritingTime")), u("5000"));
}

TEST(WriteData, GivenTimeNeedsNoSettings)
{
    ScriptedDevice device({0});
    EXPECT_FALSE(Global::writeData(device, "abcdef", 5));
    EXPECT_FALSE(QFile::exists(logtest::settingsPath()));
}

// --- Directories and permissions

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
