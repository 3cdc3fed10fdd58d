// That the watchdog of the stress tests barks, and what it says.
#include "rig/deadline.h"
#include "tests/stress/watchdog.h"

#include <QMutex>
#include <QMutexLocker>
#include <QStringList>
#include <gtest/gtest.h>

using rig::waitFor;
using testsupport::Watchdog;

namespace {

struct Heard
{
    QMutex mutex;
    QString report;

    Watchdog::Bark bark()
    {
        return [this](const QString& text) {
            QMutexLocker locker(&mutex);
            report = text;
        };
    }
    QString text()
    {
        QMutexLocker locker(&mutex);
        return report;
    }
};

} // namespace

TEST(WatchdogTest, TellsWhoStandsStillWhereAndWhatEveryPortDoes)
{
    Heard heard;
    Watchdog dog(
        50, [] { return QStringList{QStringLiteral("ttyS5: Свободен, for 3 ms")}; }, heard.bark());
    Watchdog::Watched& sleeper = dog.watch("sleeper");
    Watchdog::Watched& runner = dog.watch("runner");
    dog.watch("ended").done();
    sleeper.at("waiting for a lock");
    dog.begin();
    ASSERT_TRUE(waitFor([&] {
        runner.at("running");
        return !heard.text().isEmpty();
    }));
    const QStringList lines = heard.text().split(QLatin1Char('\n'));
    EXPECT_EQ(lines.at(0), QStringLiteral("sleeper stands still in step 'waiting for a lock'"));
    EXPECT_TRUE(lines.at(1).startsWith(QStringLiteral("sleeper: in step 'waiting for a lock' for ")));
    EXPECT_TRUE(lines.at(2).startsWith(QStringLiteral("runner: in step 'running' for ")));
    EXPECT_EQ(lines.at(3), QStringLiteral("ended: done"));
    EXPECT_EQ(lines.at(4), QStringLiteral("ttyS5: Свободен, for 3 ms"));
    // This thread and the watchdog's own, as the kernel sees them.
    EXPECT_GE(lines.filter(QStringLiteral("system call")).size(), 2);
}

TEST(WatchdogTest, KeepsQuietWhileAllMove)
{
    Heard heard;
    Watchdog dog(
        1000, [] { return QStringList(); }, heard.bark());
    Watchdog::Watched& runner = dog.watch("runner");
    dog.begin();
    EXPECT_FALSE(waitFor(
        [&] {
            runner.at("running");
            return !heard.text().isEmpty();
        },
        1300))
        << heard.text().toStdString();
}
