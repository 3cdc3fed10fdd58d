// The settings store: the file's life, edits of other processes, troubles.
#include "common/csettings.h"
#include "tests/common/refusedchmod.h"
#include "tests/common/settingskeytables.h"

#include <QCoreApplication>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>

using namespace logtest;

// --- The file -------------------------------------------------------------------------------

TEST(SettingsFile, NothingIsMadeWhileNothingIsConsulted)
{
    {
        CSettings settings;
    }
    EXPECT_FALSE(QFile::exists(rootPath(QStringLiteral("settings"))));
}

TEST(SettingsFile, AWriteReachesTheDiskWhenTheHandleGoes)
{
    {
        CSettings settings;
        settings.write(QStringLiteral("Own/key"), 17);
        EXPECT_FALSE(QFile::exists(settingsPath()));
    }
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Own/key")), QStringLiteral("17"));
}

TEST(SettingsFile, IsMadeWithFixedPermissions)
{
    umask(077);
    // The keys of permissions are for other files.
    {
        CSettings settings;
        settings.write(QStringLiteral("Permissions/dirPermissions"), 0x7111);
        settings.write(QStringLiteral("Permissions/filePermissions"), 0x6000);
    }
    EXPECT_EQ(modeOf(rootPath(QStringLiteral("settings"))), 0777);
    EXPECT_EQ(modeOf(settingsPath()), 0666);

    CSettings().debugAll();
    EXPECT_EQ(settingsOnDisk().size(), 3);
    EXPECT_EQ(modeOf(settingsPath()), 0666);
}

TEST(SettingsFile, WhatExistsKeepsItsPermissions)
{
    umask(0);
    const QString directory = rootPath(QStringLiteral("settings"));
    ASSERT_EQ(mkdir(QFile::encodeName(directory).constData(), 0750), 0);
    CSettings().debugAll();
    EXPECT_EQ(modeOf(directory), 0750);
    EXPECT_EQ(modeOf(settingsPath()), 0666);

    ASSERT_EQ(chmod(QFile::encodeName(settingsPath()).constData(), 0640), 0);
    CSettings().debugIpcData();
    EXPECT_EQ(settingsOnDisk().size(), 2);
    EXPECT_EQ(modeOf(settingsPath()), 0640);
}

TEST(SettingsFile, ComesBackWhenItWasDeleted)
{
    umask(077);
    consultEverything();
    ASSERT_TRUE(QFile::remove(settingsPath()));
    CSettings().debugAll();
    EXPECT_EQ(settingsOnDisk(), (QMap<QString, QString>{{QStringLiteral("Debug/all"), QStringLiteral("false")}}));
    EXPECT_EQ(modeOf(settingsPath()), 0666);

    consultEverything();
    EXPECT_EQ(settingsOnDisk().keys(), expectedKeys());
}

TEST(SettingsFile, ComesBackWithItsDirectory)
{
    umask(077);
    editSettings("[Details]\nmaxWritingTime=200\n");
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 200);
    ASSERT_TRUE(QDir(rootPath(QStringLiteral("settings"))).removeRecursively());
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 5000);
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Details/maxWritingTime")), QStringLiteral("5000"));
    EXPECT_EQ(modeOf(rootPath(QStringLiteral("settings"))), 0777);
    EXPECT_EQ(modeOf(settingsPath()), 0666);
}

TEST(SettingsFile, DeletedUnderALivingHandleItIsMadeAnew)
{
    consultEverything();
    {
        CSettings settings;
        settings.write(QStringLiteral("Own/key"), 1);
        ASSERT_TRUE(QFile::remove(settingsPath()));
    }
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Own/key")), QStringLiteral("1"));
}

TEST(SettingsFile, EditsOfOthersAreSeenByTheNextHandle)
{
    editSettings("[Details]\nmaxWritingTime=200\n");
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 200);
    editSettings("[Details]\nmaxWritingTime=300\n");
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 300);
    editSettings("[Debug]\nall=true\n");
    EXPECT_TRUE(CSettings().debugAll());
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 5000);
    EXPECT_TRUE(CSettings().debugAll());
}

TEST(SettingsFile, IsReadOnlyWhenItsTimeHasChanged)
{
    editSettings("[Details]\nmaxWritingTime=200\n");
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 200);
    struct stat facts = {};
    ASSERT_EQ(stat(QFile::encodeName(settingsPath()).constData(), &facts), 0);
    writeFile(settingsPath(), "[Details]\nmaxWritingTime=3000\n");
    const timespec times[2] = {facts.st_mtim, facts.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, QFile::encodeName(settingsPath()).constData(), times, 0), 0);
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 200);
}

TEST(SettingsFile, EditsFromBothSidesAreMerged)
{
    editSettings("[Own]\nmine=1\ntheirs=1\n");
    {
        CSettings settings;
        settings.write(QStringLiteral("Own/mine"), 2);
        editSettings("[Own]\nmine=1\ntheirs=2\nnew=3\n");
    }
    EXPECT_EQ(settingsOnDisk(), (QMap<QString, QString>{{QStringLiteral("Own/mine"), QStringLiteral("2")},
                                                        {QStringLiteral("Own/theirs"), QStringLiteral("2")},
                                                        {QStringLiteral("Own/new"), QStringLiteral("3")}}));
}

TEST(SettingsFile, AnEditWhileItIsWrittenIsSeen)
{
    const testsupport::SystemCallWatch watch(rig::installRoot().toStdString(), [](testsupport::SystemCall& call) {
        // Between the writing and the look at the file's time.
        if (call.is("chmod", settingsPath().toStdString()))
            editSettings("[Details]\nmaxWritingTime=200\n");
        return 0;
    });
    EXPECT_FALSE(CSettings().debugAll());
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 200);
}

TEST(SettingsFile, EventsDoNotWriteBesideTheLock)
{
    umask(077);
    CSettings settings;
    settings.write(QStringLiteral("Own/key"), 1);
    QCoreApplication::processEvents();
    EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST(SettingsFile, AnUnwritableDirectoryCostsOnlyTheWriteBack)
{
    obeyPermissionBits();
    editSettings("[Details]\nmaxWritingTime=200\n");
    const QByteArray directory = QFile::encodeName(rootPath(QStringLiteral("settings")));
    ASSERT_EQ(chmod(directory.constData(), 0555), 0);
    ASSERT_EQ(chmod(QFile::encodeName(settingsPath()).constData(), 0444), 0);
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 200);
    EXPECT_EQ(CSettings().detailsTransportComResendInterval(), 2000);
    EXPECT_EQ(settingsOnDisk().size(), 1);

    ASSERT_EQ(chmod(directory.constData(), 0755), 0);
    ASSERT_EQ(chmod(QFile::encodeName(settingsPath()).constData(), 0644), 0);
    EXPECT_TRUE(CSettings().debugJournals());
    EXPECT_EQ(settingsOnDisk().size(), 3);
}

// --- Whether the store may be written --------------------------------------------------------

TEST(SettingsWritable, WithoutDataOfLevelZeroNothingIsWritten)
{
    blockData();
    for (const BoolKey& key : boolKeys)
        EXPECT_EQ(boolOf(key), key.defaultValue) << key.key;
    for (const IntKey& key : intKeys)
        EXPECT_EQ(intOf(key), key.defaultValue) << key.key;
    EXPECT_EQ(CSettings().detailsTransportComControlSymbol(), QStringLiteral("\r"));
    CSettings().write(QStringLiteral("Own/key"), 1);
    EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST(SettingsWritable, WithoutDataOfLevelZeroTheFileIsStillRead)
{
    blockData();
    const QByteArray content("[Debug]\nall=true\n[Details]\nmaxWritingTime=200\ntransportComResendInterval=1\n");
    editSettings(content);
    EXPECT_TRUE(CSettings().debugAll());
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 200);
    EXPECT_EQ(CSettings().detailsTransportComResendInterval(), 2000);
    EXPECT_EQ(contentOf(settingsPath()), content);
    editSettings("[Details]\nmaxWritingTime=300\n");
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 300);
}

TEST(SettingsWritable, IsDecidedOnceInFavour)
{
    CSettings().debugAll();
    ASSERT_TRUE(QDir(rootPath(QStringLiteral("data"))).removeRecursively());
    blockData();
    CSettings().debugIpcData();
    EXPECT_EQ(settingsOnDisk().size(), 2);
}

TEST(SettingsWritable, IsDecidedOnceAgainst)
{
    blockData();
    CSettings().debugAll();
    ASSERT_TRUE(QFile::remove(rootPath(QStringLiteral("data/0"))));
    CSettings().debugIpcData();
    EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST(SettingsWritable, TheSettingsDirectoryDoesNotDecide)
{
    obeyPermissionBits();
    const QString directory = rootPath(QStringLiteral("settings"));
    ASSERT_EQ(mkdir(QFile::encodeName(directory).constData(), 0555), 0);
    const SettingsPointer settings(directory + QStringLiteral("/other.ini"));
    EXPECT_TRUE(settings.writable);
}

// --- The shared object's class ------------------------------------------------------------------

TEST(SettingsPointerClass, StartsUnsynced)
{
    const QString path = rootPath(QStringLiteral("own/other.ini"));
    const SettingsPointer settings(path);
    EXPECT_EQ(settings.fileInfo.filePath(), path);
    EXPECT_TRUE(settings.lastModified.isNull());
    EXPECT_FALSE(settings.changed);
    EXPECT_TRUE(settings.writable);
    EXPECT_EQ(settings.format(), QSettings::IniFormat);
}

TEST(SettingsPointerClass, SyncTakesTheFilesTimeAndTheMark)
{
    umask(077);
    const QString path = rootPath(QStringLiteral("own/deep/other.ini"));
    SettingsPointer settings(path);
    settings.setValue(QStringLiteral("Own/key"), 5);
    settings.changed = true;
    settings.sync();
    EXPECT_FALSE(settings.changed);
    EXPECT_EQ(settings.lastModified, QFileInfo(path).lastModified());
    EXPECT_EQ(modeOf(path), 0666);
    EXPECT_EQ(modeOf(rootPath(QStringLiteral("own/deep"))), 0777);
    EXPECT_EQ(modeOf(rootPath(QStringLiteral("own"))), 0700);
}

// Each change posts one, and a thread without an event loop would pile them up.
TEST(SettingsPointerClass, SyncTakesBackTheDelayedWriteBack)
{
    struct Counter : QObject
    {
        bool eventFilter(QObject*, QEvent* event) override
        {
            count += event->type() == QEvent::UpdateRequest ? 1 : 0;
            return false;
        }
        int count = 0;
    } counter;
    SettingsPointer settings(rootPath(QStringLiteral("own/other.ini")));
    settings.installEventFilter(&counter);
    settings.setValue(QStringLiteral("key"), 1);
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(counter.count, 1) << "Qt no longer posts any";
    settings.changed = true;
    settings.sync();
    settings.setValue(QStringLiteral("key"), 2);
    settings.changed = true;
    settings.sync();
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(counter.count, 1);
}

TEST(SettingsPointerClass, WithoutAMarkAndANewTimeSyncDoesNothing)
{
    const QString path = rootPath(QStringLiteral("own/other.ini"));
    SettingsPointer settings(path);
    settings.setValue(QStringLiteral("Own/key"), 5);
    settings.sync();
    EXPECT_FALSE(QFile::exists(path));
    settings.changed = true;
    settings.sync();
    EXPECT_TRUE(QFile::exists(path));
}

// --- Troubles -----------------------------------------------------------------------------------

TEST(SettingsTroubles, RefusedPermissionsAreReported)
{
    const MessageRecorder recorder;
    const testsupport::SystemCallWatch watch(rig::installRoot().toStdString(), testsupport::refusedChmod());
    const QString reason = QString::fromLocal8Bit(std::strerror(EPERM));
    EXPECT_FALSE(CSettings().debugAll());
    EXPECT_EQ(recorder.texts(QtWarningMsg),
              (QStringList{QStringLiteral("Не удалось изменить права доступа каталога с настройками \"%1\" \"%2\"")
                               .arg(rootPath(QStringLiteral("settings")), reason),
                           QStringLiteral("Не удалось изменить права доступа файла настроек \"%1\" \"%2\"")
                               .arg(settingsPath(), reason)}));
    EXPECT_EQ(settingsOnDisk().size(), 1);
}

TEST(SettingsTroubles, ADirectoryThatCannotBeMadeIsReported)
{
    const MessageRecorder recorder;
    ASSERT_TRUE(writeFile(rootPath(QStringLiteral("settings"))));
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 5000);
    EXPECT_EQ(contentOf(rootPath(QStringLiteral("settings"))), QByteArray());
    EXPECT_TRUE(QFileInfo(rootPath(QStringLiteral("settings"))).isFile());
}

TEST(SettingsTroubles, AMessageHandlerMayReadSettings)
{
    MessageRecorder recorder;
    std::atomic<int> handled{0};
    recorder.setHandler([&](const Message&) {
        EXPECT_TRUE(CSettings().debugTransportConnects());
        ++handled;
    });
    const testsupport::SystemCallWatch watch(rig::installRoot().toStdString(), testsupport::refusedChmod());
    EXPECT_FALSE(CSettings().debugAll());
    EXPECT_GE(handled, 2);
}

TEST(SettingsTroubles, AHandlerOfQtsOwnMessagesGetsDefaults)
{
    MessageRecorder recorder;
    std::atomic<int> handled{0};
    recorder.setHandler([&](const Message& message) {
        if (message.text == QStringLiteral("from within")) {
            ++handled;
            EXPECT_TRUE(CSettings().debugTransportConnects());
            EXPECT_EQ(CSettings().detailsMaxWritingTime(), 5000);
            EXPECT_EQ(CSettings().detailsTransportComControlSymbol(), QStringLiteral("\r"));
            CSettings().write(QStringLiteral("Own/key"), 1);
        }
    });
    {
        const testsupport::SystemCallWatch watch(rig::installRoot().toStdString(),
                                                 testsupport::refusedChmod([] { qWarning("from within"); }));
        EXPECT_FALSE(CSettings().debugAll());
    }
    EXPECT_GE(handled, 2);
    EXPECT_EQ(settingsOnDisk().keys(), QStringList{QStringLiteral("Debug/all")});
    // And all is as ever afterwards.
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 5000);
    EXPECT_EQ(settingsOnDisk().size(), 2);
}

TEST(SettingsTroubles, AMessageHandlerMayReadSettingsWhileTheStoreIsMade)
{
    blockData();
    obeyPermissionBits();
    ASSERT_TRUE(QFile::remove(rootPath(QStringLiteral("data/0"))));
    ASSERT_EQ(chmod(QFile::encodeName(rootPath(QStringLiteral("data"))).constData(), 0555), 0);
    MessageRecorder recorder;
    std::atomic<int> handled{0};
    recorder.setHandler([&](const Message&) {
        ++handled;
        EXPECT_FALSE(CSettings().debugAll());
    });
    EXPECT_FALSE(CSettings().debugAll());
    EXPECT_EQ(handled, 1);
    EXPECT_FALSE(QFile::exists(settingsPath()));
}
