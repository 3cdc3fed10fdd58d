// The settings store: each key, the file's life, other processes, other threads.
#include "common/csettings.h"
#include "tests/common/logsupport.h"
#include "tests/common/refusedchmod.h"
#include "tests/support/blockedthread.h"

#include <QCoreApplication>
#include <QThread>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <vector>

using namespace logtest;

namespace {

struct BoolKey
{
    const char* key;
    bool defaultValue;
    bool (CSettings::*getter)();
    int level; // of the logger; 0: none
};

const BoolKey boolKeys[] = {
    {"Debug/all", false, &CSettings::debugAll, 0},
    {"Debug/ipcData", false, &CSettings::debugIpcData, 1},
    {"Debug/ipcExtra", false, &CSettings::debugIpcExtra, 2},
    {"Debug/ipcSecurityDaemon", true, &CSettings::debugIpcSecurityDaemon, 3},
    {"Debug/ipcTransport", false, &CSettings::debugIpcTransport, 4},
    {"Debug/transportAbonents", false, &CSettings::debugTransportAbonents, 5},
    {"Debug/transportTransit", true, &CSettings::debugTransportTransit, 6},
    {"Debug/transportConnects", true, &CSettings::debugTransportConnects, 7},
    {"Debug/transportDataLifetime", false, &CSettings::debugTransportDataLifetime, 8},
    {"Debug/transportBaseProtocol", false, &CSettings::debugTransportBaseProtocol, 9},
    {"Debug/transportProtocol", true, &CSettings::debugTransportProtocol, 10},
    {"Debug/transportProtocolAttaches", false, &CSettings::debugTransportProtocolAttaches, 11},
    {"Debug/transportIpSocketError", true, &CSettings::debugTransportIpSocketError, 12},
    {"Debug/transportComPortError", true, &CSettings::debugTransportComPortError, 13},
    {"Debug/transportComAtCommands", true, &CSettings::debugTransportComAtCommands, 14},
    {"Debug/transportComPackets", false, &CSettings::debugTransportComPackets, 15},
    {"Debug/transportComData", false, &CSettings::debugTransportComData, 16},
    {"Debug/transportTasks", true, &CSettings::debugTransportTasks, 17},
    {"Debug/journals", true, &CSettings::debugJournals, 18},
    {"Debug/messagesAutodelete", true, &CSettings::debugMessagesAutodelete, 19},
    {"Debug/messagesLock", false, &CSettings::debugMessagesLock, 20},
};

constexpr int lowest = std::numeric_limits<int>::min();
constexpr int highest = std::numeric_limits<int>::max();

struct IntKey
{
    const char* key;
    int defaultValue;
    int minimum;
    int maximum;
    int (CSettings::*getter)();
};

const IntKey intKeys[] = {
    {"Permissions/dirPermissions", 30583, 28945, 30583, &CSettings::dirPermissions},
    {"Permissions/filePermissions", 26214, 24576, 26214, &CSettings::filePermissions},
    {"Details/maxWritingTime", 5000, 100, 10000, &CSettings::detailsMaxWritingTime},
    {"Details/transportServerThreadStopTimeout", 10000, 100, 60000,
     &CSettings::detailsTransportServerThreadStopTimeout},
    {"Details/transportComAtOkTimeout", 1000, lowest, highest, &CSettings::detailsTransportComAtOkTimeout},
    {"Details/transportComAtReadyCheckTimeout", 60000, lowest, highest,
     &CSettings::detailsTransportComAtReadyCheckTimeout},
    {"Details/transportComDsrCheckInterval", 1000, lowest, highest, &CSettings::detailsTransportComDsrCheckInterval},
    {"Details/transportComOpenInterval", 3000, lowest, highest, &CSettings::detailsTransportComOpenInterval},
    {"Details/transportComConnectTimeout", 30000, lowest, highest, &CSettings::detailsTransportComConnectTimeout},
    {"Details/transportComResetTimeout", 2000, 1100, 60000, &CSettings::detailsTransportComResetTimeout},
    {"Details/transportComMaxBytesToWrite", 1024, 32, 32768, &CSettings::detailsTransportComMaxBytesToWrite},
    {"Details/transportComMaxBytesInQueue", 10240, 128, 1048576, &CSettings::detailsTransportComMaxBytesInQueue},
    {"Details/transportComResendInterval", 2000, 100, 60000, &CSettings::detailsTransportComResendInterval},
    {"Details/transportComConfirmationInterval", 500, 50, 30000, &CSettings::detailsTransportComConfirmationInterval},
};

const QString symbolKey = QStringLiteral("Details/transportComControlSymbol");

QString keyText(const char* key)
{
    return QString::fromLatin1(key);
}

bool boolOf(const BoolKey& key)
{
    CSettings settings;
    return (settings.*key.getter)();
}

int intOf(const IntKey& key)
{
    CSettings settings;
    return (settings.*key.getter)();
}

QString boolText(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

// Whether value stands in the file as it is, and is what the getter returns.
void expectKept(const IntKey& key, int value)
{
    const QString text = QString::number(value);
    editSettings(iniOf(keyText(key.key), text));
    EXPECT_EQ(intOf(key), value) << key.key;
    EXPECT_EQ(settingsOnDisk().value(keyText(key.key)), text) << key.key;
}

void expectReplaced(const IntKey& key, const QString& text)
{
    editSettings(iniOf(keyText(key.key), text));
    EXPECT_EQ(intOf(key), key.defaultValue) << key.key << " was " << qPrintable(text);
    EXPECT_EQ(settingsOnDisk().value(keyText(key.key)), QString::number(key.defaultValue))
        << key.key << " was " << qPrintable(text);
}

// Data of level 0 cannot be written: a file stands in its place.
void blockData()
{
    ASSERT_TRUE(writeFile(rootPath(QStringLiteral("data/0"))));
}

QStringList expectedKeys()
{
    QStringList keys{symbolKey};
    for (const BoolKey& key : boolKeys)
        keys.append(keyText(key.key));
    for (const IntKey& key : intKeys)
        keys.append(keyText(key.key));
    keys.sort();
    return keys;
}

void consultEverything()
{
    CSettings settings;
    for (const BoolKey& key : boolKeys)
        (settings.*key.getter)();
    for (const IntKey& key : intKeys)
        (settings.*key.getter)();
    settings.detailsTransportComControlSymbol();
}

} // namespace

// --- Keys and values ------------------------------------------------------------------------

TEST(SettingsKeys, MissingSwitchesReturnTheirDefaultsAndEnterTheFile)
{
    QMap<QString, QString> expected;
    for (const BoolKey& key : boolKeys) {
        EXPECT_EQ(boolOf(key), key.defaultValue) << key.key;
        expected.insert(keyText(key.key), boolText(key.defaultValue));
        EXPECT_EQ(settingsOnDisk(), expected) << key.key;
    }
    EXPECT_EQ(expected.size(), 21);
}

TEST(SettingsKeys, SwitchesInTheFileCountAndStay)
{
    for (const BoolKey& key : boolKeys) {
        const QByteArray content = iniOf(keyText(key.key), boolText(!key.defaultValue));
        editSettings(content);
        EXPECT_EQ(boolOf(key), !key.defaultValue) << key.key;
        EXPECT_EQ(contentOf(settingsPath()), content);
    }
}

TEST(SettingsKeys, EachLevelOfTheLogHasItsSwitch)
{
    for (const BoolKey& key : boolKeys) {
        if (key.level == 0)
            continue;
        editSettings(iniOf(keyText(key.key), boolText(!key.defaultValue)));
        EXPECT_EQ(CSettings().debugCategory(key.level), !key.defaultValue) << key.key;
        EXPECT_EQ(settingsOnDisk().keys(), QStringList{keyText(key.key)});
    }
}

TEST(SettingsKeys, LevelsWithoutASwitchAreOnAndNameNoKey)
{
    for (const int level : {lowest, -1, 0, 21, 22, 1000, highest})
        EXPECT_TRUE(CSettings().debugCategory(level)) << level;
    EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST(SettingsKeys, SwitchesConvertAsQtConvertsTexts)
{
    const BoolKey& defaultTrue = boolKeys[7];
    const BoolKey& defaultFalse = boolKeys[1];
    for (const char* text : {"true", "TRUE", "1", "2", "-1", "yes", "no", "off", "abc", "00", "0.0"}) {
        editSettings(iniOf(keyText(defaultFalse.key), keyText(text)));
        EXPECT_TRUE(boolOf(defaultFalse)) << text;
        EXPECT_EQ(settingsOnDisk().value(keyText(defaultFalse.key)), keyText(text));
    }
    for (const char* text : {"", "0", "false", "False", "FALSE", "true, true", "@Invalid()"}) {
        editSettings(iniOf(keyText(defaultTrue.key), keyText(text)));
        EXPECT_FALSE(boolOf(defaultTrue)) << text;
        EXPECT_EQ(settingsOnDisk().value(keyText(defaultTrue.key)), keyText(text));
    }
}

TEST(SettingsKeys, MissingNumbersReturnTheirDefaultsAndEnterTheFile)
{
    QMap<QString, QString> expected;
    for (const IntKey& key : intKeys) {
        EXPECT_EQ(intOf(key), key.defaultValue) << key.key;
        expected.insert(keyText(key.key), QString::number(key.defaultValue));
        EXPECT_EQ(settingsOnDisk(), expected) << key.key;
    }
}

TEST(SettingsKeys, NumbersInRangeAreKept)
{
    for (const IntKey& key : intKeys) {
        expectKept(key, key.minimum);
        expectKept(key, key.maximum);
        expectKept(key, key.maximum - 1);
        expectKept(key, key.minimum + 1);
    }
}

TEST(SettingsKeys, NumbersWithoutARangeMayBeNegative)
{
    for (const IntKey& key : intKeys) {
        if (key.minimum == lowest) {
            expectKept(key, -5);
            expectKept(key, 0);
        }
    }
}

TEST(SettingsKeys, OddPermissionBitsAreKept)
{
    expectKept(intKeys[1], 0x6100);
    expectKept(intKeys[0], 0x7123);
}

TEST(SettingsKeys, NumbersOutOfRangeAreReplaced)
{
    for (const IntKey& key : intKeys) {
        expectReplaced(key, QString::number(qint64(key.minimum) - 1));
        expectReplaced(key, QString::number(qint64(key.maximum) + 1));
    }
    expectReplaced(intKeys[0], QStringLiteral("28672")); // 0x7000
    expectReplaced(intKeys[2], QStringLiteral("99"));
    expectReplaced(intKeys[2], QStringLiteral("10001"));
}

TEST(SettingsKeys, WhatIsNoDecimalNumberIsReplaced)
{
    for (const IntKey& key : intKeys) {
        for (const char* text : {"", "abc", "0x7777", "30000.0", "3e4", "true", "30000 ms", "30000, 30000"})
            expectReplaced(key, keyText(text));
    }
}

TEST(SettingsKeys, HugeNumbersDoNotWrapIntoTheRange)
{
    for (const IntKey& key : intKeys) {
        // The default plus or minus multiples of 2^32, and what no 64 bits hold.
        for (const qint64 turns : {1, -1, 2, 1000000})
            expectReplaced(key, QString::number(turns * 4294967296 + key.defaultValue));
        expectReplaced(key, QStringLiteral("99999999999999999999999999"));
        expectReplaced(key, QStringLiteral("-99999999999999999999999999"));
    }
}

TEST(SettingsKeys, TheControlSymbolIsACarriageReturnUnlessSet)
{
    EXPECT_EQ(CSettings().detailsTransportComControlSymbol(), QStringLiteral("\r"));
    EXPECT_EQ(settingsOnDisk().value(symbolKey), QStringLiteral("\\r"));

    for (const char* text : {"\\r\\n", "\\n", "\";\"", "", "abc"}) {
        editSettings(iniOf(symbolKey, keyText(text)));
        const QString expected = keyText(text)
                                     .replace(QStringLiteral("\\r"), QStringLiteral("\r"))
                                     .replace(QStringLiteral("\\n"), QStringLiteral("\n"))
                                     .remove(QLatin1Char('"'));
        EXPECT_EQ(CSettings().detailsTransportComControlSymbol(), expected) << text;
        EXPECT_EQ(settingsOnDisk().value(symbolKey), keyText(text));
    }
}

TEST(SettingsKeys, AreCaseSensitive)
{
    editSettings("[details]\nmaxWritingTime=200\n[Details]\nMaxWritingTime=300\n");
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 5000);
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Details/maxWritingTime")), QStringLiteral("5000"));
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("details/maxWritingTime")), QStringLiteral("200"));
}

TEST(SettingsKeys, AFileFullOfRubbishIsAsGoodAsAnEmptyOne)
{
    QByteArray rubbish;
    for (int i = 0; i < 5000; ++i)
        rubbish.append(char(i * 7919 % 251));
    editSettings(rubbish);
    for (const BoolKey& key : boolKeys)
        EXPECT_EQ(boolOf(key), key.defaultValue) << key.key;
    for (const IntKey& key : intKeys)
        EXPECT_EQ(intOf(key), key.defaultValue) << key.key;
}

TEST(SettingsKeys, ConsultingEverythingListsEverything)
{
    consultEverything();
    EXPECT_EQ(settingsOnDisk().keys(), expectedKeys());
}

// The page for operators: a row for each key, with what this program does.
TEST(SettingsKeys, AreDocumentedAsTheyAre)
{
    const QString page = QString::fromUtf8(contentOf(QStringLiteral(SETTINGS_PAGE)));
    ASSERT_FALSE(page.isEmpty());
    const auto name = [](const char* key) {
        return QLatin1Char('`') + keyText(key).section(QLatin1Char('/'), 1) + QLatin1Char('`');
    };
    for (const BoolKey& key : boolKeys)
        EXPECT_TRUE(page.contains(QStringLiteral("| ") + name(key.key) + QStringLiteral(" | ") +
                                  boolText(key.defaultValue) + QStringLiteral(" |")))
            << key.key;
    for (const IntKey& key : intKeys) {
        const QString range = key.minimum == lowest ? QStringLiteral("any")
                                                    : QStringLiteral("%1 to %2").arg(key.minimum).arg(key.maximum);
        const QStringList row = page.section(QStringLiteral("\n| ") + name(key.key) + QStringLiteral(" | "), 1)
                                    .section(QLatin1Char('\n'), 0, 0)
                                    .split(QStringLiteral(" | "));
        ASSERT_GE(row.size(), 4) << key.key;
        EXPECT_TRUE(row.at(0).startsWith(QStringLiteral("int"))) << key.key;
        EXPECT_EQ(row.at(1).section(QLatin1Char(' '), 0, 0), QString::number(key.defaultValue)) << key.key;
        EXPECT_TRUE(row.at(2).startsWith(range)) << key.key;
    }
    EXPECT_TRUE(page.contains(QStringLiteral("| `transportComControlSymbol` | text | `\\r` ")));
}

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
    const testsupport::SystemCallWatch watch(testsupport::installRoot().toStdString(),
                                             [](testsupport::SystemCall& call) {
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
    const testsupport::SystemCallWatch watch(testsupport::installRoot().toStdString(), testsupport::refusedChmod());
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
    const testsupport::SystemCallWatch watch(testsupport::installRoot().toStdString(), testsupport::refusedChmod());
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
        const testsupport::SystemCallWatch watch(testsupport::installRoot().toStdString(),
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

// --- Threads --------------------------------------------------------------------------------------

TEST(SettingsThreads, AllShareOneStoreFromTheFirstUseOn)
{
    constexpr int threadCount = 8;
    constexpr int rounds = 40;
    std::atomic<int> ready{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([&, number] {
            ++ready;
            while (ready < threadCount)
                std::this_thread::yield();
            for (int round = 0; round < rounds; ++round) {
                const BoolKey& boolKey = boolKeys[(number + round) % 21];
                const IntKey& intKey = intKeys[(number * 3 + round) % 14];
                if (boolOf(boolKey) != boolKey.defaultValue || intOf(intKey) != intKey.defaultValue)
                    ++wrong;
                CSettings settings;
                if (settings.detailsTransportComControlSymbol() != QStringLiteral("\r"))
                    ++wrong;
                if (round % 8 == 0)
                    settings.write(QStringLiteral("Own/thread%1").arg(number), round);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    consultEverything();
    const QMap<QString, QString> onDisk = settingsOnDisk();
    for (int number = 0; number < threadCount; ++number)
        EXPECT_EQ(onDisk.value(QStringLiteral("Own/thread%1").arg(number)), QStringLiteral("32"));
    EXPECT_EQ(onDisk.size(), expectedKeys().size() + threadCount);
}

TEST(SettingsThreads, OneOperationWaitsForAnother)
{
    std::unique_ptr<testsupport::ObservedThread> other;
    {
        const testsupport::SystemCallWatch watch(
            testsupport::installRoot().toStdString(), [&](testsupport::SystemCall& call) {
                // In the middle of this thread's operation, where Qt holds no lock of its own.
                if ((call.name == "chmod" || call.name == "fchmod") &&
                    call.path == rootPath(QStringLiteral("settings")).toStdString() && !other) {
                    other = std::make_unique<testsupport::ObservedThread>([] { CSettings().debugIpcData(); });
                    EXPECT_TRUE(other->sleepsBeforeItsEnd());
                }
                return 0;
            });
        EXPECT_FALSE(CSettings().debugAll());
    }
    ASSERT_TRUE(other);
    other->join();
    EXPECT_EQ(settingsOnDisk().size(), 2);
}

TEST(SettingsThreads, ReadWhileAnotherProcessEditsAndDeletes)
{
    constexpr int threadCount = 4;
    std::atomic<bool> stops{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    editSettings("[Details]\nmaxWritingTime=200\n");
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([&] {
            while (!stops) {
                const int value = CSettings().detailsMaxWritingTime();
                if (value != 5000 && (value < 200 || value > 260))
                    ++wrong;
            }
        });
    }
    for (int edit = 0; edit < 60; ++edit) {
        if (edit % 5 == 4)
            QFile::remove(settingsPath());
        else
            editSettings("[Details]\nmaxWritingTime=" + QByteArray::number(200 + edit) + "\n");
        std::this_thread::yield();
    }
    stops = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    editSettings("[Details]\nmaxWritingTime=777\n");
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 777);
}
