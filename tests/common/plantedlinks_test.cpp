// What another user has planted where files are made, written to or removed.
#include "common/global.h"
#include "common/logger.h"
#include "common/plantedlinks.h"
#include "tests/common/logsupport.h"
#include "tests/support/systemcalls.h"

#include <QFileInfo>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

using namespace logtest;
using testsupport::SystemCall;
using testsupport::SystemCallWatch;

namespace {

QByteArray encoded(const QString& path)
{
    return QFile::encodeName(path);
}

QString tooManyLinks()
{
    return QString::fromLocal8Bit(std::strerror(ELOOP));
}

// A file and a directory of the user's that nobody else may touch.
class PlantedLinks : public testing::Test
{
protected:
    PlantedLinks()
    {
        umask(022);
        EXPECT_TRUE(writeFile(victim, "content"));
        EXPECT_TRUE(writeFile(victimDirectory + QStringLiteral("/inside"), "inside"));
        EXPECT_EQ(chmod(encoded(victim).constData(), 0600), 0);
        EXPECT_EQ(chmod(encoded(victimDirectory).constData(), 0700), 0);
    }
    ~PlantedLinks() override
    {
        EXPECT_EQ(contentOf(victim), "content");
        EXPECT_EQ(modeOf(victim), 0600);
        EXPECT_EQ(contentOf(victimDirectory + QStringLiteral("/inside")), "inside");
        EXPECT_EQ(modeOf(victimDirectory), 0700);
        EXPECT_FALSE(QFile::exists(missing));
    }

    // Plants each kind in turn and calls back.
    template <typename Check>
    void forEachPlanted(const QString& path, Check check)
    {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(path).path()));
        for (const QString& to : {victim, victimDirectory, missing}) {
            SCOPED_TRACE(qPrintable(QStringLiteral("link to ") + to));
            ASSERT_EQ(symlink(encoded(to).constData(), encoded(path).constData()), 0);
            check();
            unlink(encoded(path).constData());
        }
        {
            SCOPED_TRACE("second name");
            ASSERT_EQ(link(encoded(victim).constData(), encoded(path).constData()), 0);
            check();
            unlink(encoded(path).constData());
        }
        {
            SCOPED_TRACE("pipe");
            ASSERT_EQ(mkfifo(encoded(path).constData(), 0666), 0);
            check();
            unlink(encoded(path).constData());
        }
    }

    const QString victim = rootPath(QStringLiteral("private/victim"));
    const QString victimDirectory = rootPath(QStringLiteral("private/directory"));
    const QString missing = rootPath(QStringLiteral("private/missing"));
    const QString target = rootPath(QStringLiteral("shared/target"));
    const QString side = target + QStringLiteral(".new");
    const QString backup = target + QStringLiteral(".old");
};

} // namespace

TEST_F(PlantedLinks, InPlaceOfTheSideFileAreReplaced)
{
    int saving = 0;
    forEachPlanted(side, [&] {
        const QByteArray data = QByteArray::number(++saving);
        EXPECT_EQ(Global::safeSaving(target, data), QString());
        EXPECT_EQ(contentOf(target), data);
        EXPECT_TRUE(QFileInfo(target).isFile() && !QFileInfo(target).isSymLink());
        EXPECT_FALSE(QFileInfo(side).isSymLink() || QFile::exists(side));
    });
}

// Its owner could read, and change, whatever is saved after it.
TEST_F(PlantedLinks, SideFileOfAnotherUserIsReplaced)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only the superuser can make another user's file";
    ASSERT_TRUE(writeFile(side, "theirs"));
    ASSERT_EQ(chown(encoded(side).constData(), 65534, 65534), 0);
    const int theirs = open(encoded(side).constData(), O_RDONLY);
    EXPECT_EQ(Global::safeSaving(target, QByteArray("ours")), QString());
    struct stat facts = {};
    ASSERT_EQ(stat(encoded(target).constData(), &facts), 0);
    EXPECT_EQ(facts.st_uid, geteuid());
    char bytes[16] = {};
    EXPECT_EQ(read(theirs, bytes, sizeof bytes), 6);
    close(theirs);
}

TEST_F(PlantedLinks, InPlaceOfTheBackupAreRemoved)
{
    ASSERT_TRUE(writeFile(target, "old"));
    int saving = 0;
    forEachPlanted(backup, [&] {
        const QByteArray data = QByteArray::number(++saving);
        EXPECT_EQ(Global::safeSaving(target, data), QString());
        EXPECT_EQ(contentOf(target), data);
        EXPECT_FALSE(QFileInfo(backup).isSymLink() || QFile::exists(backup));
    });
}

TEST_F(PlantedLinks, InPlaceOfTheTargetAreReplaced)
{
    int saving = 0;
    forEachPlanted(target, [&] {
        const QByteArray data = QByteArray::number(++saving);
        EXPECT_EQ(Global::safeSaving(target, data), QString());
        EXPECT_EQ(contentOf(target), data);
        EXPECT_FALSE(QFileInfo(target).isSymLink());
    });
}

// A backup is a file that stood under the target's name.
TEST_F(PlantedLinks, AreNoBackups)
{
    ASSERT_TRUE(QDir().mkpath(QFileInfo(backup).path()));
    for (const QString& to : {victim, victimDirectory, missing}) {
        ASSERT_EQ(symlink(encoded(to).constData(), encoded(backup).constData()), 0);
        bool recovered = true;
        EXPECT_EQ(Global::recoverSaving(target, &recovered), QString());
        EXPECT_FALSE(recovered);
        EXPECT_EQ(Global::recoverSavings(QFileInfo(backup).dir()), QStringList());
        EXPECT_FALSE(QFileInfo(target).isSymLink() || QFile::exists(target));
        ASSERT_EQ(unlink(encoded(backup).constData()), 0);
    }
}

TEST_F(PlantedLinks, AreNotGivenPermissions)
{
    const QString path = rootPath(QStringLiteral("link"));
    for (const QString& to : {victim, victimDirectory, missing}) {
        ASSERT_EQ(symlink(encoded(to).constData(), encoded(path).constData()), 0);
        EXPECT_FALSE(Global::setFilePermissions(path));
        QString error;
        EXPECT_FALSE(changePermissions(path, QFileDevice::Permissions(0x7777), &error));
        EXPECT_EQ(error, tooManyLinks());
        ASSERT_EQ(unlink(encoded(path).constData()), 0);
    }
    ASSERT_TRUE(writeFile(path));
    ASSERT_EQ(chmod(encoded(path).constData(), 0), 0);
    obeyPermissionBits();
    QString error;
    EXPECT_TRUE(changePermissions(path, QFileDevice::Permissions(0x6666), &error)) << qPrintable(error);
    EXPECT_EQ(modeOf(path), 0666);
}

// The directory is exchanged between its making and the setting of its permissions.
TEST_F(PlantedLinks, InPlaceOfANewDirectoryAreNotGivenPermissions)
{
    const QString path = rootPath(QStringLiteral("shared/made"));
    ASSERT_TRUE(QDir().mkpath(rootPath(QStringLiteral("shared"))));
    Global::setFilePermissions(victim + QStringLiteral("none")); // the settings are read
    const SystemCallWatch watch(path.toStdString(), [&](SystemCall& call) {
        if (call.name == "mkdir") {
            EXPECT_EQ(symlink(encoded(victimDirectory).constData(), encoded(path).constData()), 0);
            return EEXIST;
        }
        return 0;
    });
    EXPECT_FALSE(Global::makePath(QDir(path)));
}

TEST_F(PlantedLinks, InPlaceOfTheAccessProbeAreReplaced)
{
    const QString directory = rootPath(QStringLiteral("shared"));
    for (unsigned seed = 1; seed <= 3; ++seed) {
        const auto seeded = [&] {
            QT_WARNING_PUSH
            QT_WARNING_DISABLE_DEPRECATED
            qsrand(seed);
            QT_WARNING_POP
        };
        seeded();
        QT_WARNING_PUSH
        QT_WARNING_DISABLE_DEPRECATED
        const QString probe = directory + QStringLiteral("/.accessTest_%1.txt").arg(qrand());
        QT_WARNING_POP
        forEachPlanted(probe, [&] {
            seeded();
            EXPECT_TRUE(Global::checkAccess(QDir(directory)));
            EXPECT_FALSE(QFileInfo(probe).isSymLink() || QFile::exists(probe));
        });
    }
}

// A second name cannot be told from a backup's, and is appended to; systems forbid others to make one.
TEST_F(PlantedLinks, InPlaceOfTheLogAreRefused)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(QDir().mkpath(logDirPath()));
    for (const QString& to : {victim, victimDirectory, missing}) {
        for (const bool isEmergency : {false, true}) {
            ASSERT_EQ(symlink(encoded(to).constData(), encoded(logPath()).constData()), 0);
            MessageRecorder recorder;
            if (isEmergency)
                emergecyDebug(QStringLiteral("text"));
            else
                debug(QStringLiteral("Label"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
            EXPECT_EQ(
                recorder.texts(QtWarningMsg),
                QStringList{
                    QStringLiteral("Ошибка открытия файла для записи: \"%1\" \"%2\"").arg(logPath(), tooManyLinks())});
            ASSERT_EQ(unlink(encoded(logPath()).constData()), 0);
        }
    }
    debug(QStringLiteral("Label"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
    EXPECT_TRUE(logTexts().contains(QStringLiteral("text")));
}

TEST_F(PlantedLinks, PipeOfAnotherUserDoesNotHoldUpTheLog)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only the superuser can make another user's pipe";
    qputenv("USER", "operator");
    ASSERT_TRUE(QDir().mkpath(logDirPath()));
    ASSERT_EQ(mkfifo(encoded(logPath()).constData(), 0666), 0);
    ASSERT_EQ(chown(encoded(logPath()).constData(), 65534, 65534), 0);
    MessageRecorder recorder;
    debug(QStringLiteral("Label"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
    EXPECT_EQ(recorder.texts(QtWarningMsg).size(), 1);
}

// The log's directory is exchanged for a link between its making and the setting of its permissions.
TEST_F(PlantedLinks, InPlaceOfTheLogDirectoryAreNotGivenPermissions)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(QDir().mkpath(rootPath(QStringLiteral("data/0"))));
    MessageRecorder recorder;
    {
        const SystemCallWatch watch(logDirPath().toStdString(), [&](SystemCall& call) {
            if (call.is("mkdir", logDirPath().toStdString())) {
                EXPECT_EQ(symlink(encoded(victimDirectory).constData(), encoded(logDirPath()).constData()), 0);
                return EEXIST;
            }
            return 0;
        });
        debug(QStringLiteral("Label"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
    }
    EXPECT_EQ(recorder.texts(QtDebugMsg),
              QStringList{QStringLiteral("Не удалось изменить права доступа для каталога \"%1\" \"%2\"")
                              .arg(logDirPath(), QString::fromLocal8Bit(std::strerror(ELOOP)))});
}

TEST_F(PlantedLinks, WhatIsOursIsAppendedToOnlyWhereItIsOursAlone)
{
    ASSERT_TRUE(QDir().mkpath(rootPath(QStringLiteral("shared"))));
    const QByteArray path = encoded(rootPath(QStringLiteral("shared/own")));
    const int made = openOwnForAppending(path);
    EXPECT_GE(made, 0) << "made where there is none";
    close(made);
    const int again = openOwnForAppending(path);
    EXPECT_GE(again, 0);
    close(again);
    const QByteArray second = path + ".second";
    ASSERT_EQ(link(path.constData(), second.constData()), 0);
    EXPECT_LT(openOwnForAppending(path), 0);
    EXPECT_EQ(errno, EMLINK);
    ASSERT_EQ(unlink(second.constData()), 0);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(path.constData(), 65534, 65534), 0);
        EXPECT_LT(openOwnForAppending(path), 0);
        EXPECT_EQ(errno, EPERM);
    }
    ASSERT_EQ(unlink(path.constData()), 0);
    ASSERT_EQ(symlink("/dev/null", path.constData()), 0);
    const int device = openOwnForAppending(path);
    EXPECT_GE(device, 0) << "as before";
    close(device);
}

TEST_F(PlantedLinks, ToADeviceOfTheAdministratorsChoiceAreFollowed)
{
    ASSERT_TRUE(QDir().mkpath(rootPath(QStringLiteral("shared"))));
    const QString path = rootPath(QStringLiteral("shared/log"));
    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/null"), path));
    const int appending = openForAppending(encoded(path));
    EXPECT_GE(appending, 0);
    close(appending);
    if (geteuid() == 0) {
        ASSERT_EQ(lchown(encoded(path).constData(), 65534, 65534), 0);
        EXPECT_LT(openForAppending(encoded(path)), 0);
        EXPECT_EQ(errno, ELOOP);
    }
}
