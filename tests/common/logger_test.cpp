// The log: layout, categories, columns, file and directory, troubles.
#include "common/csettings.h"
#include "common/functiondebug.h"
#include "common/logfile.h"
#include "common/logger.h"
#include "rig/deadline.h"
#include "rig/time/virtualclock.h"
#include "tests/common/logsupport.h"
#include "tests/common/refusedchmod.h"
#include "tests/support/blockedthread.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QSet>
#include <QThread>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <memory>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace logtest;

namespace {

const QString label = QStringLiteral("CComServer");

void logText(const char* text, DebugLevel level = DebugAlways)
{
    debug(label, QString::fromUtf8(text), level, DebugFlagFileOnly);
}

// A line without its stamp, which must be one.
QString unstamped(const QString& line)
{
    static const QRegularExpression stamp(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} "));
    return stamp.match(line).hasMatch() ? line.mid(13) : QStringLiteral("no stamp: ") + line;
}

QString blanks(int count)
{
    return QString(count, QLatin1Char(' '));
}

// The lock, which must be free, is what a later call would wait for.
bool lockIsFree()
{
    QMutex& mutex = LoggerData::debugData()->mutex;
    if (!mutex.tryLock())
        return false;
    mutex.unlock();
    return true;
}

// Runs work in a thread of its own to its end; the QThread lives on, since its address is its row.
class OwnThread
{
public:
    template <typename Work>
    explicit OwnThread(Work work) : m_thread(QThread::create(work))
    {
        m_thread->start();
        m_thread->wait();
    }
    QThread* thread() const { return m_thread.data(); }

private:
    QScopedPointer<QThread> m_thread;
};

QString systemText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

QString refusedOpening(const QString& path, const QString& reason)
{
    return QStringLiteral("Ошибка открытия файла для записи: \"%1\" \"%2\"").arg(path, reason);
}

struct Category
{
    DebugLevel level;
    int value;
    const char* key;
    bool defaultValue;
};

const Category categories[] = {
    {DebugIpcData, 1, "Debug/ipcData", false},
    {DebugIpcExtra, 2, "Debug/ipcExtra", false},
    {DebugIpcSecurityDaemon, 3, "Debug/ipcSecurityDaemon", true},
    {DebugIpcTransport, 4, "Debug/ipcTransport", false},
    {DebugTransportAbonents, 5, "Debug/transportAbonents", false},
    {DebugTransportTransit, 6, "Debug/transportTransit", true},
    {DebugTransportConnects, 7, "Debug/transportConnects", true},
    {DebugTransportDataLifetime, 8, "Debug/transportDataLifetime", false},
    {DebugTransportBaseProtocol, 9, "Debug/transportBaseProtocol", false},
    {DebugTransportProtocol, 10, "Debug/transportProtocol", true},
    {DebugTransportProtocolAttaches, 11, "Debug/transportProtocolAttaches", false},
    {DebugTransportIpSocketError, 12, "Debug/transportIpSocketError", true},
    {DebugTransportComPortError, 13, "Debug/transportComPortError", true},
    {DebugTransportComAtCommands, 14, "Debug/transportComAtCommands", true},
    {DebugTransportComPackets, 15, "Debug/transportComPackets", false},
    {DebugTransportComData, 16, "Debug/transportComData", false},
    {DebugTransportTasks, 17, "Debug/transportTasks", true},
    {DebugJournals, 18, "Debug/journals", true},
    {DebugMessagesAutodelete, 19, "Debug/messagesAutodelete", true},
    {DebugMessagesLock, 20, "Debug/messagesLock", false},
};

QByteArray everyCategoryOff()
{
    QByteArray content("[Debug]\nall=false\n");
    for (const Category& category : categories)
        content += QByteArray(category.key).mid(6) + "=false\n";
    return content;
}

} // namespace

// --- Layout -----------------------------------------------------------------------------------

TEST(LogLayout, ALineIsStampLabelIndentationText)
{
    beginEmptyLog();
    const QTime before = QTime::currentTime();
    logText("text");
    const QTime after = QTime::currentTime();
    const QByteArray content = contentOf(logPath());
    static const QRegularExpression line(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} {16}CComServer {4}text\n$"));
    EXPECT_TRUE(line.match(QString::fromUtf8(content)).hasMatch()) << content.constData();
    const QTime stamp = QTime::fromString(QString::fromUtf8(content.left(12)), QStringLiteral("hh:mm:ss.zzz"));
    // Midnight between the looks aside.
    if (before <= after) {
        EXPECT_LE(before, stamp);
        EXPECT_LE(stamp, after);
    }
}

TEST(LogLayout, StampsTellLocalTimeToTheMillisecond)
{
    // Far from UTC at every hour and with a summer time; by its rule, so that no zone data is needed.
    qputenv("TZ", "NPT-5:45NPST,M3.5.0,M10.5.0");
    tzset();
    beginEmptyLog();
    logText("the file of this day is kept");
    const QString path = logPath();
    testsupport::VirtualClock clock;
    const QStringList times{QStringLiteral("2026-01-15T01:02:03.004"), QStringLiteral("2026-07-15T23:59:59.999"),
                            QStringLiteral("1999-12-31T00:00:00.000"), QStringLiteral("1970-03-04T15:16:17.089"),
                            QStringLiteral("1969-12-31T10:00:00.250")};
    QStringList stamps;
    for (const QString& time : times) {
        const QDateTime local = QDateTime::fromString(time, Qt::ISODateWithMs);
        clock.stepWallClockMs(QDateTime::currentDateTime().msecsTo(local));
        logText("text");
        stamps.append(time.mid(11));
    }
    QStringList written;
    for (const QByteArray& line : contentOf(path).trimmed().split('\n'))
        written.append(QString::fromUtf8(line.left(12)));
    EXPECT_EQ(written.mid(1), stamps);
}

// The zone may change while the program runs: within some seconds stamps follow.
TEST(LogLayout, StampsFollowTheZone)
{
    const auto hours = [] { return logTimeStamp().left(2).toInt(); };
    qputenv("TZ", "UTC0");
    testsupport::VirtualClock clock;
    clock.advanceMs(10000);
    const int before = hours();
    qputenv("TZ", "EAST-7");
    clock.advanceMs(10000);
    const int minuteEnded = logTimeStamp().mid(3, 2).toInt();
    // Ten seconds may have begun another hour.
    const int expected = (before + 7 + (minuteEnded == 0 ? 1 : 0)) % 24;
    EXPECT_TRUE(hours() == expected || hours() == (before + 7) % 24) << before << ' ' << hours();
    qputenv("TZ", "WEST5");
    clock.stepWallClockMs(-3600000);
    EXPECT_NE(hours(), expected);
}

TEST(LogLayout, LabelsAreFittedTo25Columns)
{
    beginEmptyLog();
    const struct
    {
        const char* label;
        const char* fitted;
    } cases[] = {
        {"", "                         "},
        {"a", "                        a"},
        {"CComServer", "               CComServer"},
        {"_CFunctionDebug", "          _CFunctionDebug"},
        {"abcdefghijklmnopqrstuvwx", " abcdefghijklmnopqrstuvwx"},
        {"abcdefghijklmnopqrstuvwxy", "abcdefghijklmnopqrstuvwxy"},
        {"abcdefghijklmnopqrstuvwxyz", "abcdefghijklmnopqrstuv..."},
        {"Сервер последовательных портов", "Сервер последовательны..."},
    };
    QStringList expected;
    for (const auto& entry : cases) {
        debug(QString::fromUtf8(entry.label), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
        expected.append(QString::fromUtf8(entry.fitted) + QStringLiteral("    text"));
    }
    QStringList lines = logLines();
    for (QString& line : lines)
        line = unstamped(line);
    EXPECT_EQ(lines, expected);
}

TEST(LogLayout, LaterPartsStandUnderTheFirstAndEmptyOnesAreBare)
{
    beginEmptyLog();
    logText("one\n\nthree");
    logText("\na\n\nb\n");
    QStringList lines = logLines();
    ASSERT_EQ(lines.size(), 8);
    const QString head = blanks(15) + label + blanks(4);
    EXPECT_EQ(unstamped(lines.at(0)), head + QStringLiteral("one"));
    EXPECT_EQ(lines.at(1), QString());
    EXPECT_EQ(lines.at(2), blanks(12 + 1 + 25 + 4) + QStringLiteral("three"));
    EXPECT_EQ(lines.at(3), QString());
    EXPECT_EQ(unstamped(lines.at(4)), head + QStringLiteral("a"));
    EXPECT_EQ(lines.at(5), QString());
    EXPECT_EQ(lines.at(6), blanks(12 + 1 + 25 + 4) + QStringLiteral("b"));
    EXPECT_EQ(lines.at(7), QString());
}

TEST(LogLayout, AnEmptyTextIsABareLineEnd)
{
    beginEmptyLog();
    logText("");
    EXPECT_EQ(contentOf(logPath()), QByteArray("\n"));
}

TEST(LogLayout, MarkersInTheTextStay)
{
    beginEmptyLog();
    const QString text = QStringLiteral("100%1 %2 %3 %4 %99 %L1 %%");
    debug(label, text + QLatin1Char('\n') + text, DebugAlways, DebugFlagFileOnly);
    EXPECT_EQ(logTexts(), (QStringList{text, text}));
}

TEST(LogLayout, MarkersInTheLabelAreFilled)
{
    beginEmptyLog();
    debug(QStringLiteral("a%4b"), QStringLiteral("x"), DebugAlways, DebugFlagFileOnly);
    EXPECT_EQ(unstamped(logLines().value(0)), blanks(21) + QStringLiteral("axb    x"));
}

TEST(LogLayout, TextsGoToTheFileAsUtf8)
{
    beginEmptyLog();
    logText("Привет, мир \xF0\x9F\x93\x9E");
    EXPECT_TRUE(contentOf(logPath()).endsWith("    Привет, мир \xF0\x9F\x93\x9E\n"));
}

// --- Categories ---------------------------------------------------------------------------------

TEST(LogCategories, HaveTheirNumbers)
{
    EXPECT_EQ(int(DebugAlways), 0);
    for (const Category& category : categories)
        EXPECT_EQ(int(category.level), category.value);
    EXPECT_EQ(int(DebugFlagNone), 0);
    EXPECT_EQ(int(DebugFlagFileOnly), 1);
}

TEST(LogCategories, MissingKeysDecideByTheirDefaultsAndEnterTheFile)
{
    beginEmptyLog();
    QMap<QString, QString> expectedKeys;
    QStringList expectedTexts;
    for (const Category& category : categories) {
        logText(category.key, category.level);
        expectedKeys.insert(QString::fromLatin1(category.key),
                            category.defaultValue ? QStringLiteral("true") : QStringLiteral("false"));
        if (category.defaultValue)
            expectedTexts.append(QString::fromLatin1(category.key));
        EXPECT_EQ(settingsOnDisk(), expectedKeys);
        EXPECT_EQ(logTexts(), expectedTexts);
    }
    EXPECT_EQ(expectedTexts.size(), 10);
}

TEST(LogCategories, KeysDecideOnEveryCall)
{
    beginEmptyLog();
    QStringList expected;
    for (const Category& category : categories) {
        editSettings(everyCategoryOff());
        logText("off", category.level);
        editSettings(everyCategoryOff().replace(QByteArray(category.key).mid(6) + "=false",
                                                QByteArray(category.key).mid(6) + "=true"));
        logText(category.key, category.level);
        expected.append(QString::fromLatin1(category.key));
    }
    EXPECT_EQ(logTexts(), expected);
}

TEST(LogCategories, WhatIsOffLeavesNoTrace)
{
    qputenv("USER", "operator");
    editSettings(everyCategoryOff());
    const MessageRecorder recorder;
    debug(label, QStringLiteral("text"), DebugTransportConnects, DebugFlagNone);
    EXPECT_TRUE(recorder.messages().isEmpty());
    EXPECT_FALSE(QFile::exists(logDirPath()));
    EXPECT_TRUE(LoggerData::debugData()->tabs.isEmpty());
}

TEST(LogCategories, LevelsWithoutAKeyAreAlwaysLogged)
{
    beginEmptyLog();
    editSettings(everyCategoryOff());
    const QByteArray settings = contentOf(settingsPath());
    for (const int level : {0, 21, 22, 1000})
        logText("text", DebugLevel(level));
    EXPECT_EQ(logTexts().size(), 4);
    EXPECT_EQ(contentOf(settingsPath()), settings);
}

TEST(LogCategories, FullTracingOpensAll)
{
    beginEmptyLog();
    editSettings(everyCategoryOff());
    for (const int tracing : {1, 2}) {
        gFunctionsDebuging = tracing;
        for (const Category& category : categories)
            logText("text", category.level);
    }
    EXPECT_EQ(logTexts().size(), 40);
}

TEST(LogCategories, FullTracingIsNotReadHere)
{
    beginEmptyLog();
    editSettings(everyCategoryOff().replace("all=false", "all=true"));
    for (const int tracing : {-1, 0}) {
        gFunctionsDebuging = tracing;
        logText("text", DebugTransportConnects);
        EXPECT_EQ(gFunctionsDebuging.load(), tracing);
    }
    EXPECT_TRUE(logTexts().isEmpty());
}

// --- Echo ---------------------------------------------------------------------------------------

TEST(LogEcho, GoesToTheDebugStreamUnlessBitZeroIsSet)
{
    beginEmptyLog();
    const MessageRecorder recorder;
    for (const int flag : {0, 1, 2, 3})
        debug(label, QStringLiteral("text %1").arg(flag), DebugAlways, DebugFlag(flag));
    EXPECT_EQ(recorder.texts(QtDebugMsg),
              (QStringList{QStringLiteral("\"CComServer\" \"text 0\""), QStringLiteral("\"CComServer\" \"text 2\"")}));
    EXPECT_EQ(recorder.messages().size(), 2);
    EXPECT_EQ(recorder.messages().value(0).category, QStringLiteral("default"));
    EXPECT_EQ(logTexts().size(), 4);
}

TEST(LogEcho, ComesBeforeTheFileWithTheLabelUnfitted)
{
    beginEmptyLog();
    MessageRecorder recorder;
    QByteArray contentThen("not called");
    recorder.setHandler([&](const Message&) { contentThen = contentOf(logPath()); });
    debug(QStringLiteral("abcdefghijklmnopqrstuvwxyz"), QStringLiteral("two\nlines"), DebugAlways, DebugFlagNone);
    EXPECT_EQ(recorder.texts(QtDebugMsg),
              QStringList{QStringLiteral("\"abcdefghijklmnopqrstuvwxyz\" \"two\\nlines\"")});
    EXPECT_EQ(contentThen, QByteArray());
    EXPECT_EQ(logLines().size(), 2);
}

TEST(LogEcho, IsWhatHappensWhereNothingIsSaid)
{
    beginEmptyLog();
    const MessageRecorder recorder;
    debug(label, QStringLiteral("text"), DebugAlways);
    EXPECT_EQ(recorder.texts(QtDebugMsg).size(), 1);
}

// --- The shared record and its columns ------------------------------------------------------------

TEST(LogRecord, ComesIntoBeingWithTheFirstCall)
{
    beginEmptyLog();
    EXPECT_EQ(LoggerData::debugData(), nullptr);
    logText("text");
    DebugData* const data = LoggerData::debugData();
    ASSERT_NE(data, nullptr);
    logText("text");
    EXPECT_EQ(LoggerData::debugData(), data);
}

TEST(LogRecord, IsReplacedByTheHosts)
{
    beginEmptyLog();
    logText("before");
    DebugData* const own = LoggerData::debugData();
    DebugData host;
    host.tabs.append({nullptr, 3}); // a free row of another column
    LoggerData::initDebug(&host);
    EXPECT_EQ(LoggerData::debugData(), &host);
    EXPECT_EQ(own->tabs.size(), 1); // still there
    logText("after");
    ASSERT_EQ(host.tabs.size(), 1);
    EXPECT_EQ(host.tabs.at(0).thread, QThread::currentThread());
    EXPECT_EQ(unstamped(logLines().value(1)), blanks(15) + label + blanks(12) + QStringLiteral("after"));

    LoggerData::initDebug(nullptr);
    DebugData* const fresh = LoggerData::debugData();
    EXPECT_NE(fresh, nullptr);
    EXPECT_NE(fresh, &host);
    EXPECT_NE(fresh, own);
    EXPECT_TRUE(fresh->tabs.isEmpty());
    EXPECT_TRUE(lockIsFree());
    EXPECT_FALSE(fresh->mutex.isRecursive());
    delete own;
}

TEST(LogRecord, HasTheLayoutThatHostAndPluginShare)
{
    EXPECT_EQ(offsetof(DebugData, tabs), 0u);
    EXPECT_EQ(offsetof(DebugData, mutex), sizeof(void*));
    EXPECT_EQ(sizeof(DebugData), 2 * sizeof(void*));
    EXPECT_EQ(offsetof(Tabulation, thread), 0u);
    EXPECT_EQ(offsetof(Tabulation, level), sizeof(void*));
    EXPECT_EQ(sizeof(Tabulation), 2 * sizeof(void*));
}

TEST(LogColumns, GoByThreadAndAreTakenOver)
{
    beginEmptyLog();
    const OwnThread first([] { logText("first"); });
    const OwnThread second([] {
        logText("second\nmore");
        EXPECT_EQ(currentTabLevel(), 2);
    });
    deleteThreadTabLevel(first.thread());
    EXPECT_EQ(LoggerData::debugData()->tabs.size(), 2);
    EXPECT_EQ(LoggerData::debugData()->tabs.at(0).thread, nullptr);
    const OwnThread third([] {
        logText("third");
        EXPECT_EQ(currentTabLevel(), 1);
    });
    const OwnThread fourth([] { EXPECT_EQ(currentTabLevel(), 3); });

    const QStringList lines = logLines();
    ASSERT_EQ(lines.size(), 4);
    EXPECT_EQ(unstamped(lines.at(0)), blanks(15) + label + blanks(4) + QStringLiteral("first"));
    EXPECT_EQ(unstamped(lines.at(1)), blanks(15) + label + blanks(8) + QStringLiteral("second"));
    EXPECT_EQ(lines.at(2), blanks(38 + 8) + QStringLiteral("more"));
    EXPECT_EQ(unstamped(lines.at(3)), blanks(15) + label + blanks(4) + QStringLiteral("third"));

    const QList<Tabulation>& tabs = LoggerData::debugData()->tabs;
    ASSERT_EQ(tabs.size(), 3);
    EXPECT_EQ(tabs.at(0).thread, third.thread());
    EXPECT_EQ(tabs.at(1).thread, second.thread());
    EXPECT_EQ(tabs.at(2).thread, fourth.thread());
    for (int row = 0; row < 3; ++row)
        EXPECT_EQ(tabs.at(row).level, row + 1);
}

TEST(LogColumns, TheFirstFreeRowIsTaken)
{
    LoggerData::initDebug(nullptr);
    std::vector<std::unique_ptr<OwnThread>> threads;
    for (int number = 1; number <= 4; ++number)
        threads.push_back(std::make_unique<OwnThread>([number] { EXPECT_EQ(currentTabLevel(), number); }));
    deleteThreadTabLevel(threads.at(2)->thread());
    deleteThreadTabLevel(threads.at(1)->thread());
    const OwnThread next([] { EXPECT_EQ(currentTabLevel(), 2); });
    const OwnThread afterNext([] { EXPECT_EQ(currentTabLevel(), 3); });
    EXPECT_EQ(LoggerData::debugData()->tabs.size(), 4);
}

TEST(LogColumns, FreeingWithoutARecordOrARowDoesNothing)
{
    deleteThreadTabLevel(QThread::currentThread());
    EXPECT_EQ(LoggerData::debugData(), nullptr);
    EXPECT_EQ(currentTabLevel(), 1);
    const OwnThread silent([] {});
    deleteThreadTabLevel(silent.thread());
    deleteThreadTabLevel(nullptr);
    ASSERT_EQ(LoggerData::debugData()->tabs.size(), 1);
    EXPECT_EQ(LoggerData::debugData()->tabs.at(0).thread, QThread::currentThread());
    EXPECT_EQ(currentTabLevel(), 1);
}

// --- File and directory -----------------------------------------------------------------------------

TEST(LogFile, IsNamedByProgramUserAndDay)
{
    qputenv("USER", "operator");
    logText("text");
    EXPECT_EQ(QDir(logDirPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
              QStringList{QFileInfo(logPath()).fileName()});
}

TEST(LogFile, WithoutAUserHasTwoUnderlines)
{
    qunsetenv("USER");
    QCoreApplication::setApplicationName(QStringLiteral("app"));
    testsupport::VirtualClock clock;
    clock.stepWallClockMs(QDateTime(QDate(2025, 1, 2), QTime(12, 0)).toMSecsSinceEpoch() -
                          QDateTime::currentMSecsSinceEpoch());
    logText("text");
    EXPECT_EQ(QDir(logDirPath()).entryList(QDir::Files), QStringList{QStringLiteral("app__2025.01.02.log")});
}

TEST(LogFile, LosesWhatAFileNameMustNotHoldFromTheUser)
{
    qputenv("USER", "op/er..a:t\"or");
    logText("text");
    EXPECT_EQ(logTexts(logPath()).last(), QStringLiteral("text"));
}

TEST(LogFile, BeginsWithTheSummary)
{
    qputenv("USER", "operator");
    umask(077);
    logText("first\nmore");
    EXPECT_EQ(modeOf(logPath()), 0666);
    const QByteArray head = contentOf(logPath());
    EXPECT_TRUE(head.startsWith("Версия "));
    logText("second");
    const QByteArray content = contentOf(logPath());
    EXPECT_EQ(content.count("Версия ОС:"), 1);
    EXPECT_TRUE(content.startsWith(head));
    // Twelve lines, an empty one, then what was logged.
    const QStringList lines = logLines();
    ASSERT_EQ(lines.size(), 16);
    EXPECT_EQ(lines.at(12), QString());
    EXPECT_EQ(unstamped(lines.at(13)), blanks(15) + label + blanks(4) + QStringLiteral("first"));
    EXPECT_EQ(lines.at(14), blanks(42) + QStringLiteral("more"));
    EXPECT_EQ(unstamped(lines.at(15)), blanks(15) + label + blanks(4) + QStringLiteral("second"));
}

TEST(LogFile, ThatExistsKeepsItsPermissions)
{
    beginEmptyLog();
    ASSERT_EQ(chmod(QFile::encodeName(logPath()).constData(), 0640), 0);
    logText("text");
    EXPECT_EQ(modeOf(logPath()), 0640);
    EXPECT_EQ(logLines().size(), 1);
    // Nothing of this needed a setting.
    EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST(LogFile, OnlyTheLogsOwnDirectoryGetsPermissions)
{
    qputenv("USER", "operator");
    umask(027);
    logText("text");
    EXPECT_EQ(modeOf(rootPath(QStringLiteral("data"))), 0750);
    EXPECT_EQ(modeOf(rootPath(QStringLiteral("data/0"))), 0750);
    EXPECT_EQ(modeOf(logDirPath()), 0777);
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Permissions/dirPermissions")), QStringLiteral("30583"));
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Permissions/filePermissions")), QStringLiteral("26214"));
}

TEST(LogFile, PermissionsAreReadOnce)
{
    qputenv("USER", "operator");
    umask(0);
    editSettings("[Permissions]\ndirPermissions=28945\nfilePermissions=24576\n"); // 0x7111, 0x6000
    logText("text");
    EXPECT_EQ(modeOf(logDirPath()), 0711);
    EXPECT_EQ(modeOf(logPath()), 0600);

    editSettings("[Permissions]\ndirPermissions=30583\nfilePermissions=26214\n");
    ASSERT_TRUE(QDir(logDirPath()).removeRecursively());
    logText("text");
    EXPECT_EQ(modeOf(logDirPath()), 0711);
    EXPECT_EQ(modeOf(logPath()), 0600);
}

TEST(LogFile, PermissionsMayShutOthersOut)
{
    qputenv("USER", "operator");
    umask(0);
    editSettings("[Permissions]\ndirPermissions=30544\nfilePermissions=26176\n"); // 0x7750, 0x6640
    logText("text");
    EXPECT_EQ(modeOf(logDirPath()), 0750);
    EXPECT_EQ(modeOf(logPath()), 0640);
}

TEST(LogFile, PermissionsOutOfRangeAreNotUsed)
{
    qputenv("USER", "operator");
    umask(077);
    editSettings("[Permissions]\ndirPermissions=28672\nfilePermissions=8738\n"); // 0x7000, 0x2222
    logText("text");
    EXPECT_EQ(modeOf(logDirPath()), 0777);
    EXPECT_EQ(modeOf(logPath()), 0666);
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Permissions/dirPermissions")), QStringLiteral("30583"));
}

TEST(LogFile, LiesInTheLowestLevelThatCanBeWritten)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(writeFile(rootPath(QStringLiteral("data/0"))));
    ASSERT_TRUE(writeFile(logPath(firstDay(), 1)));
    logText("text");
    EXPECT_EQ(logTexts(logPath(firstDay(), 1)), QStringList{QStringLiteral("text")});
    // The level is kept while all goes well.
    ASSERT_TRUE(QFile::remove(rootPath(QStringLiteral("data/0"))));
    logText("more");
    EXPECT_EQ(logLines(logPath(firstDay(), 1)).size(), 2);
    EXPECT_FALSE(QFile::exists(rootPath(QStringLiteral("data/0"))));
}

TEST(LogFile, StaysThatOfItsDayUntilAFailure)
{
    beginEmptyLog();
    testsupport::VirtualClock clock;
    const QDate today = firstDay();
    logText("today");
    clock.stepWallClockMs(24 * 3600 * 1000);
    ASSERT_EQ(QDate::currentDate(), today.addDays(1));
    logText("past midnight");
    EXPECT_EQ(logTexts(logPath(today)), (QStringList{QStringLiteral("today"), QStringLiteral("past midnight")}));

    ASSERT_TRUE(QDir(logDirPath()).removeRecursively());
    ASSERT_TRUE(writeFile(logDirPath()));
    const MessageRecorder recorder;
    logText("lost");
    EXPECT_EQ(recorder.texts(QtWarningMsg).size(), 1);
    ASSERT_TRUE(QFile::remove(logDirPath()));
    logText("tomorrow");
    EXPECT_EQ(logTexts(logPath(today.addDays(1))).last(), QStringLiteral("tomorrow"));
    EXPECT_FALSE(QFile::exists(logPath(today)));
}

TEST(LogFile, IsClosedAfterEachCall)
{
    beginEmptyLog();
    logText("text");
    const auto openFiles = [] {
        return QDir(QStringLiteral("/proc/self/fd"))
            .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
            .size();
    };
    const int before = openFiles();
    for (int i = 0; i < 20; ++i)
        logText("text");
    EXPECT_EQ(openFiles(), before);
    // Moved away, it is not written to any more.
    ASSERT_TRUE(QFile::rename(logPath(), logPath() + QStringLiteral(".old")));
    logText("new");
    EXPECT_EQ(logLines(logPath() + QStringLiteral(".old")).size(), 21);
    EXPECT_EQ(logTexts().last(), QStringLiteral("new"));
}

TEST(LogFile, TruncatedMeanwhileItGoesOnAtItsEnd)
{
    beginEmptyLog();
    logText("before");
    ASSERT_TRUE(QFile::resize(logPath(), 0));
    logText("after");
    EXPECT_EQ(logTexts(), QStringList{QStringLiteral("after")});
}

// --- Troubles -----------------------------------------------------------------------------------------

TEST(LogTroubles, AMissingDirectoryComesBackAtOnce)
{
    beginEmptyLog();
    logText("before");
    ASSERT_TRUE(QDir(rootPath(QStringLiteral("data"))).removeRecursively());
    const MessageRecorder recorder;
    logText("after");
    EXPECT_EQ(logTexts().last(), QStringLiteral("after"));
    EXPECT_EQ(modeOf(logDirPath()), 0777);
    EXPECT_TRUE(contentOf(logPath()).startsWith("Версия "));
    EXPECT_TRUE(recorder.messages().isEmpty());
}

TEST(LogTroubles, ADirectoryThatCannotBeMadeLosesOneMessage)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(writeFile(logDirPath()));
    const MessageRecorder recorder;
    logText("lost");
    // What stands there is a file: it is taken for no directory.
    EXPECT_EQ(recorder.texts(QtWarningMsg),
              QStringList{QStringLiteral("Не удалось создать каталог для записи лога \"%1\"").arg(logDirPath())});
    EXPECT_EQ(recorder.messages().size(), 1);
    EXPECT_TRUE(lockIsFree());
    ASSERT_TRUE(QFile::remove(logDirPath()));
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
    EXPECT_FALSE(contentOf(logPath()).contains("lost"));
}

TEST(LogTroubles, AFailureLooksForTheLevelAgain)
{
    beginEmptyLog();
    logText("level 0");
    ASSERT_TRUE(QDir(rootPath(QStringLiteral("data/0"))).removeRecursively());
    ASSERT_TRUE(writeFile(rootPath(QStringLiteral("data/0"))));
    ASSERT_TRUE(writeFile(logPath(firstDay(), 1)));
    const MessageRecorder recorder;
    logText("lost");
    EXPECT_EQ(recorder.messages().size(), 1);
    logText("level 1");
    EXPECT_EQ(logTexts(logPath(firstDay(), 1)), QStringList{QStringLiteral("level 1")});
}

TEST(LogTroubles, AFileThatCannotBeOpenedLosesOneMessage)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(QDir().mkpath(logPath()));
    const MessageRecorder recorder;
    logText("lost");
    ASSERT_EQ(recorder.messages().size(), 1);
    const QString warning = recorder.texts(QtWarningMsg).value(0);
    const QString head = QStringLiteral("Ошибка открытия файла для записи: \"%1\" \"").arg(logPath());
    EXPECT_TRUE(warning.startsWith(head) && warning.size() > head.size() + 1) << qPrintable(warning);
    EXPECT_TRUE(lockIsFree());
    ASSERT_TRUE(QDir().rmdir(logPath()));
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
    EXPECT_FALSE(contentOf(logPath()).contains("lost"));
}

TEST(LogTroubles, AReadOnlyDirectoryLosesMessagesUntilItIsWritable)
{
    obeyPermissionBits();
    qputenv("USER", "operator");
    ASSERT_TRUE(QDir().mkpath(logDirPath()));
    ASSERT_EQ(chmod(QFile::encodeName(logDirPath()).constData(), 0555), 0);
    const MessageRecorder recorder;
    logText("lost");
    logText("lost too");
    const QString warning = refusedOpening(logPath(), systemText(EACCES));
    EXPECT_EQ(recorder.texts(QtWarningMsg), (QStringList{warning, warning}));
    ASSERT_EQ(chmod(QFile::encodeName(logDirPath()).constData(), 0755), 0);
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
}

TEST(LogTroubles, AReadOnlyFileLosesMessagesUntilItIsWritable)
{
    obeyPermissionBits();
    beginEmptyLog();
    ASSERT_EQ(chmod(QFile::encodeName(logPath()).constData(), 0444), 0);
    const MessageRecorder recorder;
    logText("lost");
    EXPECT_EQ(recorder.texts(QtWarningMsg), QStringList{refusedOpening(logPath(), systemText(EACCES))});
    ASSERT_EQ(chmod(QFile::encodeName(logPath()).constData(), 0644), 0);
    logText("there");
    EXPECT_EQ(logTexts(), QStringList{QStringLiteral("there")});
}

TEST(LogTroubles, RefusedPermissionsAreReportedAndTheLineIsWritten)
{
    qputenv("USER", "operator");
    // So that the settings have no permissions to set.
    editSettings("[Permissions]\ndirPermissions=30583\nfilePermissions=26214\n");
    const MessageRecorder recorder;
    const testsupport::SystemCallWatch watch(testsupport::installRoot().toStdString(), testsupport::refusedChmod());
    logText("text");
    ASSERT_EQ(recorder.messages().size(), 2);
    EXPECT_EQ(recorder.messages().at(0).type, QtDebugMsg);
    EXPECT_EQ(recorder.messages().at(0).text,
              QStringLiteral("Не удалось изменить права доступа для каталога \"%1\" \"%2\"")
                  .arg(logDirPath(), systemText(EPERM)));
    EXPECT_EQ(recorder.messages().at(1).type, QtWarningMsg);
    EXPECT_EQ(
        recorder.messages().at(1).text,
        QStringLiteral("Не удалось изменить права доступа для файла: \"%1\" \"%2\"").arg(logPath(), systemText(EPERM)));
    EXPECT_EQ(logTexts().last(), QStringLiteral("text"));
}

TEST(LogTroubles, AFullDiskLosesOnlyTheLinesAtHand)
{
    beginEmptyLog();
    logText("before");
    const QString kept = logPath() + QStringLiteral(".kept");
    ASSERT_TRUE(QFile::rename(logPath(), kept));
    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/full"), logPath()));
    const MessageRecorder recorder;
    const auto warnings = [&recorder] { return recorder.texts(QtWarningMsg); };
    logText("lost");
    const QString warning =
        QStringLiteral("Не удалось записать данные в лог файл. Ошибка записи.  \"%1\"").arg(systemText(ENOSPC));
    EXPECT_EQ(warnings(), QStringList{warning});
    logText("each\npart");
    EXPECT_EQ(warnings(), (QStringList{warning, warning, warning}));
    EXPECT_TRUE(lockIsFree());

    ASSERT_TRUE(QFile::remove(logPath()));
    ASSERT_TRUE(QFile::rename(kept, logPath()));
    logText("after");
    EXPECT_EQ(logTexts(), (QStringList{QStringLiteral("before"), QStringLiteral("after")}));
}

TEST(LogTroubles, ADiskThatFillsInTheMiddleOfALineKeepsItsBeginning)
{
    beginEmptyLog();
    logText("before");
    const qint64 size = QFileInfo(logPath()).size();
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit unlimited{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    const rlimit tight{rlim_t(size + 45), unlimited.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
    const MessageRecorder recorder;
    logText("0123456789");
    const QStringList whileFull = logLines();
    logText("lost");
    const QStringList stillFull = logLines();
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &unlimited), 0);
    logText("after\nroom");

    ASSERT_EQ(whileFull.size(), 2);
    EXPECT_EQ(whileFull.at(1).mid(42), QStringLiteral("012"));
    EXPECT_EQ(stillFull, whileFull);
    // The line that was cut is silent, the one that was refused is not.
    EXPECT_EQ(recorder.texts(QtWarningMsg).size(), 1);
    const QByteArray content = contentOf(logPath());
    EXPECT_FALSE(content.contains("lost"));
    EXPECT_TRUE(content.contains("    after\n"));
    EXPECT_TRUE(content.endsWith("    room\n"));
}

TEST(LogTroubles, ShortWritesAreContinuedTenTimes)
{
    for (const int failures : {10, 11}) {
        QFile::remove(logPath());
        beginEmptyLog();
        logText("before");
        const QByteArray before = contentOf(logPath());
        const MessageRecorder recorder;
        {
            int writes = 0;
            const testsupport::SystemCallWatch watch(logPath().toStdString(), [&](testsupport::SystemCall& call) {
                if (call.name != "write")
                    return 0;
                ++writes;
                // The first takes five bytes, then that many fail.
                if (writes == 1)
                    call.bytes = 5;
                return writes > 1 && writes <= 1 + failures ? ENOSPC : 0;
            });
            logText("text");
        }
        const QByteArray added = contentOf(logPath()).mid(before.size());
        if (failures == 10) {
            EXPECT_TRUE(added.endsWith("    text\n"));
            EXPECT_EQ(added.size(), 38 + 4 + 5);
        } else {
            EXPECT_EQ(added.size(), 5);
        }
        // Silently either way.
        EXPECT_TRUE(recorder.messages().isEmpty());
    }
}

TEST(LogTroubles, AnInterruptedWriteIsRepeated)
{
    beginEmptyLog();
    const MessageRecorder recorder;
    int writes = 0;
    {
        const testsupport::SystemCallWatch watch(logPath().toStdString(), [&](testsupport::SystemCall& call) {
            return call.name == "write" && ++writes <= 20 ? EINTR : 0;
        });
        logText("text");
    }
    EXPECT_EQ(writes, 21);
    EXPECT_EQ(logTexts(), QStringList{QStringLiteral("text")});
    EXPECT_TRUE(recorder.messages().isEmpty());
}

TEST(LogTroubles, AWriteThatTakesNothingIsAnError)
{
    beginEmptyLog();
    const MessageRecorder recorder;
    {
        const testsupport::SystemCallWatch watch(logPath().toStdString(), [](testsupport::SystemCall& call) {
            if (call.name == "write")
                call.bytes = 0;
            return 0;
        });
        errno = ENOENT; // of something before
        logText("lost");
    }
    EXPECT_EQ(
        recorder.texts(QtWarningMsg),
        QStringList{
            QStringLiteral("Не удалось записать данные в лог файл. Ошибка записи.  \"%1\"").arg(systemText(EIO))});
    EXPECT_EQ(contentOf(logPath()), QByteArray());
}

TEST(LogTroubles, NothingToWriteIsNoError)
{
    beginEmptyLog();
    const ExistingLog log(QFile::encodeName(logPath()));
    ASSERT_TRUE(log.isOpen());
    EXPECT_EQ(writeToLog(log.descriptor(), "", 0), 0);
    EXPECT_EQ(writeToLog(log.descriptor(), "text", 4), 4);
    EXPECT_EQ(contentOf(logPath()), QByteArray("text"));
}

TEST(LogTroubles, ARefusedWriteFindsTheFileAnew)
{
    beginEmptyLog();
    testsupport::VirtualClock clock;
    logText("before");
    clock.stepWallClockMs(24 * 3600 * 1000);
    const MessageRecorder recorder;
    {
        const testsupport::SystemCallWatch watch(
            logPath().toStdString(), [](testsupport::SystemCall& call) { return call.name == "write" ? EIO : 0; });
        logText("lost");
    }
    EXPECT_EQ(
        recorder.texts(QtWarningMsg),
        QStringList{
            QStringLiteral("Не удалось записать данные в лог файл. Ошибка записи.  \"%1\"").arg(systemText(EIO))});
    logText("after");
    EXPECT_EQ(logTexts(), QStringList{QStringLiteral("before")});
    EXPECT_EQ(logTexts(logPath(firstDay().addDays(1))).last(), QStringLiteral("after"));
}

TEST(LogTroubles, AMessageHandlerMayLog)
{
    beginEmptyLog();
    MessageRecorder recorder;
    recorder.setHandler(
        [](const Message& message) { debug(QStringLiteral("Qt"), message.text, DebugAlways, DebugFlagFileOnly); });
    debug(label, QStringLiteral("text"), DebugAlways, DebugFlagNone);
    EXPECT_EQ(logTexts(), (QStringList{QStringLiteral("\"CComServer\" \"text\""), QStringLiteral("text")}));
}

TEST(LogTroubles, AMessageHandlerMayLogTheTroublesOfTheLog)
{
    qputenv("USER", "operator");
    editSettings("[Permissions]\ndirPermissions=30583\nfilePermissions=26214\n");
    const testsupport::SystemCallWatch watch(testsupport::installRoot().toStdString(), testsupport::refusedChmod());
    MessageRecorder recorder;
    recorder.setHandler([](const Message& message) {
        debug(QStringLiteral("Qt"), message.text, DebugTransportConnects, DebugFlagFileOnly);
    });
    logText("text");
    const QStringList texts = logTexts();
    ASSERT_GE(texts.size(), 3);
    EXPECT_EQ(texts.at(texts.size() - 3), QStringLiteral("text"));
    EXPECT_TRUE(
        texts.at(texts.size() - 2).startsWith(QStringLiteral("Не удалось изменить права доступа для каталога")));
    EXPECT_TRUE(texts.at(texts.size() - 1).startsWith(QStringLiteral("Не удалось изменить права доступа для файла:")));
}

TEST(LogTroubles, AMessageHandlerThatLogsIntoABrokenLogComesToAnEnd)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(writeFile(logDirPath()));
    MessageRecorder recorder;
    recorder.setHandler(
        [](const Message& message) { debug(QStringLiteral("Qt"), message.text, DebugAlways, DebugFlagFileOnly); });
    logText("lost");
    EXPECT_EQ(recorder.texts(QtWarningMsg).size(), 1);
    logText("lost too");
    EXPECT_EQ(recorder.texts(QtWarningMsg).size(), 2);
    EXPECT_TRUE(lockIsFree());
    ASSERT_TRUE(QFile::remove(logDirPath()));
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
}

TEST(LogTroubles, AMessageHandlerMayLogWhatQtSaysWhileTheFileIsWritten)
{
    qputenv("USER", "operator");
    editSettings("[Permissions]\ndirPermissions=30583\nfilePermissions=26214\n");
    MessageRecorder recorder;
    recorder.setHandler(
        [](const Message& message) { debug(QStringLiteral("Qt"), message.text, DebugAlways, DebugFlagFileOnly); });
    testing::internal::CaptureStderr();
    {
        const testsupport::SystemCallWatch watch(testsupport::installRoot().toStdString(),
                                                 testsupport::refusedChmod([] { qWarning("from within"); }));
        logText("text");
    }
    const std::string errorOutput = testing::internal::GetCapturedStderr();
    // For the directory, and for the file.
    EXPECT_EQ(errorOutput, "Qt from within\nQt from within\n");
    EXPECT_TRUE(lockIsFree());
    EXPECT_TRUE(logTexts().contains(QStringLiteral("text")));
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
}

TEST(LogTroubles, NoLevelThatCanBeWrittenIsNoReasonToStop)
{
    qputenv("USER", "operator");
    for (int level = 0; level < 4; ++level)
        ASSERT_TRUE(writeFile(rootPath(QStringLiteral("data/%1").arg(level))));
    const MessageRecorder recorder;
    logText("lost");
    EXPECT_EQ(recorder.texts(QtCriticalMsg).size(), 1);
    EXPECT_EQ(recorder.texts(QtWarningMsg).last(),
              QStringLiteral("Не удалось создать каталог для записи лога \"%1\"").arg(logDirPath()));
    for (int level = 0; level < 4; ++level)
        ASSERT_TRUE(QFile::remove(rootPath(QStringLiteral("data/%1").arg(level))));
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
}

// --- Threads --------------------------------------------------------------------------------------------

TEST(LogThreads, MessagesDoNotMix)
{
    beginEmptyLog();
    logText("first"); // so that nothing but writing is left to do
    std::unique_ptr<testsupport::ObservedThread> other;
    {
        const testsupport::SystemCallWatch watch(logPath().toStdString(), [&](testsupport::SystemCall& call) {
            if (call.name == "write" && !other) {
                other = std::make_unique<testsupport::ObservedThread>([] { logText("between"); });
                EXPECT_TRUE(other->sleepsBeforeItsEnd());
            }
            return 0;
        });
        logText("begin\n\nend");
    }
    ASSERT_TRUE(other);
    other->join();
    const QStringList lines = logLines();
    ASSERT_EQ(lines.size(), 5);
    EXPECT_TRUE(lines.at(1).endsWith(QStringLiteral(" begin")));
    EXPECT_TRUE(lines.at(3).endsWith(QStringLiteral(" end")));
    EXPECT_TRUE(lines.at(4).endsWith(QStringLiteral(" between")));
}

TEST(LogThreads, SettingsAreReadWithoutTheLock)
{
    qputenv("USER", "operator");
    LoggerData::initDebug(nullptr);
    int looks = 0;
    {
        const testsupport::SystemCallWatch watch(rootPath(QStringLiteral("settings")).toStdString(),
                                                 [&](testsupport::SystemCall&) {
                                                     ++looks;
                                                     EXPECT_TRUE(lockIsFree());
                                                     return 0;
                                                 });
        logText("text");
    }
    EXPECT_GT(looks, 0);
    EXPECT_EQ(settingsOnDisk().keys(), (QStringList{QStringLiteral("Permissions/dirPermissions"),
                                                    QStringLiteral("Permissions/filePermissions")}));
}

TEST(LogThreads, MessagesOfManyThreadsStayWhole)
{
    qputenv("USER", "operator");
    constexpr int threadCount = 6;
    constexpr int messageCount = 60;
    std::vector<std::unique_ptr<QThread>> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back(QThread::create([number] {
            for (int message = 0; message < messageCount; ++message) {
                const QString text = QStringLiteral("%1 %2").arg(number).arg(message);
                debug(label, text + QStringLiteral(" begin\n\n") + text + QStringLiteral(" end"),
                      DebugTransportConnects, DebugFlagFileOnly);
            }
        }));
    }
    for (const auto& thread : threads)
        thread->start();
    for (const auto& thread : threads)
        thread->wait();

    const QStringList lines = logLines().mid(13);
    ASSERT_EQ(lines.size(), threadCount * messageCount * 3);
    QVector<int> next(threadCount, 0);
    QMap<int, int> columnOf;
    for (int line = 0; line < lines.size(); line += 3) {
        const QString first = unstamped(lines.at(line)).mid(25);
        const QStringList words = first.simplified().split(QLatin1Char(' '));
        ASSERT_EQ(words.size(), 3) << qPrintable(first);
        const int number = words.at(0).toInt();
        EXPECT_EQ(words.at(1).toInt(), next[number]++);
        const int column = (first.size() - first.trimmed().size()) / 4;
        EXPECT_EQ(columnOf.value(number, column), column);
        columnOf.insert(number, column);
        ASSERT_EQ(lines.at(line + 1), QString());
        ASSERT_EQ(lines.at(line + 2),
                  blanks(38 + column * 4) + words.at(0) + QLatin1Char(' ') + words.at(1) + QStringLiteral(" end"));
    }
    EXPECT_EQ(QSet<int>(columnOf.cbegin(), columnOf.cend()).size(), threadCount);
}

TEST(LogThreads, TheFirstCallsShareOneRecordAndOneSummary)
{
    qputenv("USER", "operator");
    constexpr int threadCount = 8;
    std::atomic<int> ready{0};
    std::vector<std::unique_ptr<QThread>> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back(QThread::create([&ready] {
            ++ready;
            while (ready < threadCount)
                std::this_thread::yield();
            logText("text", DebugTransportConnects);
        }));
        threads.back()->start();
    }
    for (const auto& thread : threads)
        thread->wait();
    EXPECT_EQ(LoggerData::debugData()->tabs.size(), threadCount);
    EXPECT_EQ(contentOf(logPath()).count("Версия ОС:"), 1);
    EXPECT_EQ(logLines().size(), 13 + threadCount);
}

TEST(LogThreads, TheLockIsHeldWhileTheFileIsOpen)
{
    qputenv("USER", "operator");
    LoggerData::initDebug(nullptr);
    // Opening a pipe for writing waits for a reader.
    ASSERT_TRUE(QDir().mkpath(logDirPath()));
    ASSERT_EQ(mkfifo(QFile::encodeName(logPath()).constData(), 0600), 0);
    const std::unique_ptr<QThread> thread(QThread::create([] { logText("text"); }));
    thread->start();
    EXPECT_TRUE(testsupport::waitFor([] { return !lockIsFree(); }));
    // It may have been the short hold for the column: the pipe's is for good.
    EXPECT_TRUE(testsupport::waitFor([] {
        return !LoggerData::debugData()->mutex.tryLock(20) || (LoggerData::debugData()->mutex.unlock(), false);
    }));
    const int reader = open(QFile::encodeName(logPath()).constData(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    EXPECT_TRUE(thread->wait(30000));
    EXPECT_TRUE(lockIsFree());
    close(reader);
}

TEST(LogThreads, ColumnsComeAndGoBesideLogging)
{
    beginEmptyLog();
    std::atomic<bool> stops{false};
    const std::unique_ptr<QThread> logging(QThread::create([&stops] {
        while (!stops)
            logText("text");
    }));
    logging->start();
    for (int i = 0; i < 50; ++i) {
        const OwnThread thread([] { EXPECT_LE(currentTabLevel(), 3); });
        deleteThreadTabLevel(thread.thread());
    }
    stops = true;
    logging->wait();
    EXPECT_LE(LoggerData::debugData()->tabs.size(), 2);
}
