// Tracing of functions and timing of scopes.
#include "common/csettings.h"
#include "common/functiondebug.h"
#include "common/logger.h"
#include "rig/time/virtualclock.h"
#include "tests/common/logsupport.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace logtest;

namespace {

const QByteArray tracingOn("[Debug]\nall=true\n");

QStringList withoutStamps()
{
    QStringList lines = logLines();
    for (QString& line : lines)
        line = line.mid(13);
    return lines;
}

QString traceLine(const char* text)
{
    return QStringLiteral("          _CFunctionDebug    ") + QString::fromLatin1(text);
}

} // namespace

TEST(FunctionDebug, TheSwitchIsUnreadAtFirst)
{
    EXPECT_EQ(gFunctionsDebuging.load(), -1);
    EXPECT_TRUE(_CFunctionDebug::stack()->isEmpty());
    EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST(FunctionDebug, TheFirstScopeReadsTheSwitchAndListsItsKey)
{
    {
        const _CFunctionDebug trace("void f()");
    }
    EXPECT_EQ(gFunctionsDebuging.load(), 0);
    EXPECT_EQ(settingsOnDisk(), (QMap<QString, QString>{{QStringLiteral("Debug/all"), QStringLiteral("false")}}));
}

TEST(FunctionDebug, OffItRemembersEntriesAndLogsNothing)
{
    beginEmptyLog();
    const MessageRecorder recorder;
    {
        const _CFunctionDebug outer("void outer()");
        const _CFunctionDebug inner("void inner()");
    }
    const _CFunctionDebug last("../../a/b.cpp", 7, "f");
    EXPECT_EQ(*_CFunctionDebug::stack(), (QList<QString>{QStringLiteral("void outer()"), QStringLiteral("void inner()"),
                                                         QStringLiteral("a/b.cpp:7 f")}));
    EXPECT_EQ(contentOf(logPath()), QByteArray());
    EXPECT_TRUE(recorder.messages().isEmpty());
    EXPECT_EQ(LoggerData::debugData(), nullptr);
}

TEST(FunctionDebug, OffItReadsNoSettingsAfterTheFirstScope)
{
    {
        const _CFunctionDebug trace("first");
    }
    ASSERT_TRUE(QFile::remove(settingsPath()));
    {
        const _CFunctionDebug trace("second");
    }
    EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST(FunctionDebug, TheHistoryHoldsTheLast64Entries)
{
    QList<QString> expected;
    for (int i = 0; i < 70; ++i) {
        const QByteArray name = "void f" + QByteArray::number(i) + "()";
        const _CFunctionDebug trace(name.constData());
        if (i >= 6)
            expected.append(QString::fromLatin1(name));
        EXPECT_EQ(_CFunctionDebug::stack()->size(), qMin(i + 1, 64));
    }
    EXPECT_EQ(expected.size(), 64);
    EXPECT_EQ(*_CFunctionDebug::stack(), expected);
}

TEST(FunctionDebug, TheHistoryStaysInItsPlace)
{
    QList<QString>* const stack = _CFunctionDebug::stack();
    const _CFunctionDebug trace("f");
    EXPECT_EQ(_CFunctionDebug::stack(), stack);
}

TEST(FunctionDebug, OnItLogsEntryAndExit)
{
    beginEmptyLog();
    editSettings(tracingOn);
    const MessageRecorder recorder;
    {
        const _CFunctionDebug outer("void outer()");
        const _CFunctionDebug inner("../../com/ccomthread.cpp", 123, "run");
    }
    EXPECT_EQ(gFunctionsDebuging.load(), 1);
    EXPECT_EQ(withoutStamps(), (QStringList{traceLine("void outer() {"), traceLine("com/ccomthread.cpp:123 run {"),
                                            traceLine("com/ccomthread.cpp:123 run }"), traceLine("void outer() }")}));
    EXPECT_EQ(recorder.texts(QtDebugMsg).value(0), QStringLiteral("\"_CFunctionDebug\" \"void outer() {\""));
    EXPECT_EQ(recorder.messages().size(), 4);
    EXPECT_TRUE(_CFunctionDebug::stack()->isEmpty());
}

TEST(FunctionDebug, MarkersAndOtherAlphabetsInNamesStay)
{
    beginEmptyLog();
    editSettings(tracingOn);
    {
        const _CFunctionDebug plain("f%1%2");
        const _CFunctionDebug place("../../%2%3", 7, "f%1");
        const _CFunctionDebug latin("\xE9");
    }
    const QStringList texts = logTexts();
    ASSERT_EQ(texts.size(), 6);
    EXPECT_EQ(texts.at(0), QStringLiteral("f%1%2 {"));
    EXPECT_EQ(texts.at(1), QStringLiteral("%2%3:7 f%1 {"));
    EXPECT_EQ(texts.at(2), QStringLiteral("\u00E9 {"));
}

TEST(FunctionDebug, ShortFileNamesVanish)
{
    const _CFunctionDebug six("abcdef", 1, "f");
    const _CFunctionDebug three("abc", -2, "g");
    EXPECT_EQ(*_CFunctionDebug::stack(), (QList<QString>{QStringLiteral(":1 f"), QStringLiteral(":-2 g")}));
}

TEST(FunctionDebug, OnAllCategoriesAreLogged)
{
    beginEmptyLog();
    editSettings("[Debug]\nall=true\ntransportConnects=false\n");
    debug(QStringLiteral("x"), QStringLiteral("before"), DebugTransportConnects, DebugFlagFileOnly);
    const _CFunctionDebug trace("f");
    debug(QStringLiteral("x"), QStringLiteral("after"), DebugTransportConnects, DebugFlagFileOnly);
    EXPECT_EQ(logTexts(), (QStringList{QStringLiteral("f {"), QStringLiteral("after")}));
}

TEST(FunctionDebug, SwitchingOnTakesARestart)
{
    beginEmptyLog();
    {
        const _CFunctionDebug trace("f");
    }
    editSettings(tracingOn);
    EXPECT_TRUE(CSettings().debugAll());
    {
        const _CFunctionDebug trace("g");
    }
    EXPECT_EQ(gFunctionsDebuging.load(), 0);
    EXPECT_EQ(contentOf(logPath()), QByteArray());
    EXPECT_EQ(_CFunctionDebug::stack()->size(), 2);
}

TEST(FunctionDebug, SwitchingOffTakesARestart)
{
    beginEmptyLog();
    editSettings(tracingOn);
    {
        const _CFunctionDebug trace("f");
    }
    editSettings("[Debug]\nall=false\n");
    {
        const _CFunctionDebug trace("g");
    }
    EXPECT_EQ(logTexts(), (QStringList{QStringLiteral("f {"), QStringLiteral("f }"), QStringLiteral("g {"),
                                       QStringLiteral("g }")}));
}

TEST(FunctionDebug, AnyValueButZeroTraces)
{
    beginEmptyLog();
    gFunctionsDebuging = 5;
    {
        const _CFunctionDebug trace("f");
    }
    EXPECT_EQ(logTexts(), (QStringList{QStringLiteral("f {"), QStringLiteral("f }")}));
    EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST(FunctionDebug, TheEndOfAScopeGoesByTheSwitchOfThatMoment)
{
    beginEmptyLog();
    gFunctionsDebuging = 1;
    {
        const _CFunctionDebug trace("f");
        gFunctionsDebuging = 0;
    }
    {
        const _CFunctionDebug trace("g");
        gFunctionsDebuging = -1;
    }
    EXPECT_EQ(logTexts(), (QStringList{QStringLiteral("f {"), QStringLiteral(" }")}));
}

TEST(FunctionDebug, TheLogItselfIsNotTraced)
{
    qputenv("USER", "operator");
    editSettings(tracingOn);
    {
        const _CFunctionDebug trace("f");
        // Directory, file, summary, settings: all of it runs in here.
        debug(QStringLiteral("x"), QStringLiteral("text"), DebugTransportConnects, DebugFlagFileOnly);
    }
    EXPECT_EQ(logTexts().mid(13), (QStringList{QStringLiteral("f {"), QStringLiteral("text"), QStringLiteral("f }")}));
}

TEST(FunctionDebug, ScopesOfManyThreadsShareTheHistory)
{
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([number] {
            const QByteArray name = "f" + QByteArray::number(number);
            for (int i = 0; i < 500; ++i) {
                const _CFunctionDebug trace(name.constData());
                _CFunctionDebug::stack();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_EQ(_CFunctionDebug::stack()->size(), 64);
    for (const QString& name : *_CFunctionDebug::stack())
        EXPECT_TRUE(name.size() == 2 && name.at(0) == QLatin1Char('f')) << qPrintable(name);
}

TEST(FunctionMeasure, IsSilentUnderAMillisecondUnlessAlways)
{
    beginEmptyLog();
    const rig::VirtualClock clock;
    {
        const _CFunctionMeasure sometimes("quick", false);
        const _CFunctionMeasure always("name", true);
    }
    EXPECT_EQ(withoutStamps(), QStringList{QStringLiteral("        _CFunctionMeasure    0 ms - name")});
}

TEST(FunctionMeasure, LogsFromAMillisecondOn)
{
    beginEmptyLog();
    rig::VirtualClock clock;
    const MessageRecorder recorder;
    {
        const _CFunctionMeasure measure("one", false);
        clock.advanceMs(1);
    }
    {
        const _CFunctionMeasure measure("many %1", true);
        clock.advanceMs(1234567);
        // The wall clock does not count.
        clock.stepWallClockMs(-3600000);
    }
    EXPECT_EQ(logTexts(), (QStringList{QStringLiteral("1 ms - one"), QStringLiteral("1234567 ms - many %1")}));
    EXPECT_EQ(recorder.texts(QtDebugMsg).value(0), QStringLiteral("\"_CFunctionMeasure\" \"1 ms - one\""));
    EXPECT_FALSE(QFile::exists(settingsPath()));
}
