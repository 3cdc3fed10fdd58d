// What holds while the log asks for the summary, by a summary of our own in place of the real one.
#include "common/csysteminfo.h"
#include "common/logger.h"
#include "tests/common/logsupport.h"

#include <gtest/gtest.h>

namespace {

int summaries = 0;
bool lockWasFree = false;

} // namespace

QString CSystemInfo::summaryInfo()
{
    ++summaries;
    QMutex& mutex = LoggerData::debugData()->mutex;
    if (mutex.tryLock()) {
        lockWasFree = true;
        mutex.unlock();
    }
    return QStringLiteral("Сводка\n\n");
}

TEST(LogSummary, IsAskedForOnceForANewFileUnderTheLock)
{
    qputenv("USER", "operator");
    debug(QStringLiteral("CComServer"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
    debug(QStringLiteral("CComServer"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
    EXPECT_EQ(summaries, 1);
    EXPECT_FALSE(lockWasFree);
    const QStringList lines = logtest::logLines();
    ASSERT_EQ(lines.size(), 4);
    EXPECT_EQ(lines.at(0), QStringLiteral("Сводка"));
    EXPECT_EQ(lines.at(1), QString());
}

TEST(LogSummary, IsNotAskedForWhereAFileStands)
{
    logtest::beginEmptyLog();
    debug(QStringLiteral("CComServer"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
    EXPECT_EQ(summaries, 0);
    EXPECT_EQ(logtest::logLines().size(), 1);
}

TEST(LogSummary, HeadsEachNewFile)
{
    qputenv("USER", "operator");
    debug(QStringLiteral("CComServer"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
    ASSERT_TRUE(QFile::remove(logtest::logPath()));
    debug(QStringLiteral("CComServer"), QStringLiteral("text"), DebugAlways, DebugFlagFileOnly);
    EXPECT_EQ(summaries, 2);
    EXPECT_EQ(logtest::logLines().size(), 3);
}
