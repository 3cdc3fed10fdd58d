// A line of the log: its layout, its echo on the debug stream, its thread's column.
#include "common/logfile.h"
#include "common/logger.h"
#include "rig/time/virtualclock.h"
#include "tests/common/loggerfixture.h"

#include <QRegularExpression>
#include <QThread>
#include <gtest/gtest.h>

#include <cstddef>
#include <ctime>
#include <memory>
#include <vector>

using namespace logtest;

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
    rig::VirtualClock clock;
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
    rig::VirtualClock clock;
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
