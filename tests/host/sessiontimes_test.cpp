#include "host/session/sessiontimes.h"

#include <gtest/gtest.h>

using namespace host;

namespace {

SessionSettings shortSettings()
{
    SessionSettings settings;
    settings.heartbeatMs = 1000;
    settings.aliveMs = 10000;
    settings.silenceMs = 120000;
    settings.stallMs = 600000;
    settings.openingMs = 60000;
    settings.uselessMs = 300000;
    settings.strangerMs = 900000;
    return settings;
}

constexpr qint64 begin = 5000;

class Times : public ::testing::Test
{
protected:
    SessionEnd endAt(const SessionTimes::Facts& facts, qint64 afterMs) const
    {
        const auto overdue = times.overdue(facts, begin + afterMs);
        EXPECT_EQ(overdue.has_value(), overdue && !overdue->reason.isEmpty());
        return overdue ? overdue->end : SessionEnd::None;
    }

    const SessionSettings settings = shortSettings();
    SessionTimes times{settings, begin};
};

} // namespace

TEST_F(Times, AHeartbeatEachSecondOfSilence)
{
    EXPECT_FALSE(times.isHeartbeatDue(false, begin + 999));
    EXPECT_TRUE(times.isHeartbeatDue(false, begin + 1000));
    times.sent(true, begin + 1000);
    EXPECT_FALSE(times.isHeartbeatDue(false, begin + 1999));
    EXPECT_TRUE(times.isHeartbeatDue(false, begin + 2000));
}

TEST_F(Times, SeldomWhileMuchComesButNotSoonAfterAFrame)
{
    times.sent(false, begin);
    times.sent(true, begin + 18000);
    EXPECT_TRUE(times.isHeartbeatDue(true, begin + 19999));
    EXPECT_FALSE(times.isHeartbeatDue(true, begin + 20000)) << "twenty seconds after the frame";
    EXPECT_FALSE(times.isHeartbeatDue(true, begin + 22999));
    EXPECT_TRUE(times.isHeartbeatDue(true, begin + 23000));
    EXPECT_TRUE(times.isHeartbeatDue(false, begin + 20000)) << "nothing more comes";
}

TEST_F(Times, SlowHeartbeatsStayBelowAThirdOfTheSilenceLimit)
{
    SessionSettings brief = shortSettings();
    brief.silenceMs = 9000;
    SessionTimes of(brief, begin);
    of.sent(true, begin + 20000);
    EXPECT_FALSE(of.isHeartbeatDue(true, begin + 22999));
    EXPECT_TRUE(of.isHeartbeatDue(true, begin + 23000));
}

TEST_F(Times, AProvedHeartbeatTenSecondsAfterTheLastFrame)
{
    times.sent(true, begin + 9999);
    EXPECT_FALSE(times.isAliveDue(begin + 9999));
    EXPECT_TRUE(times.isAliveDue(begin + 10000));
    times.saidAlive(begin + 10000);
    EXPECT_FALSE(times.isAliveDue(begin + 19999));
    times.sent(false, begin + 15000);
    EXPECT_FALSE(times.isAliveDue(begin + 24999));
    EXPECT_TRUE(times.isAliveDue(begin + 25000));
}

TEST_F(Times, Limits)
{
    SessionTimes::Facts opening;
    opening.isOpening = true;
    EXPECT_EQ(endAt(opening, 59999), SessionEnd::None);
    EXPECT_EQ(endAt(opening, 60000), SessionEnd::OpeningTimedOut);

    EXPECT_EQ(endAt({}, 119999), SessionEnd::None);
    EXPECT_EQ(endAt({}, 120000), SessionEnd::Silence);
    times.heard(begin + 250000);
    EXPECT_EQ(endAt({}, 299999), SessionEnd::None);
    EXPECT_EQ(endAt({}, 300000), SessionEnd::Useless);
    times.useful(begin + 1);
    EXPECT_EQ(endAt({}, 300000), SessionEnd::None);

    SessionTimes::Facts waiting;
    waiting.awaitsAcknowledgement = true;
    times.useful(begin);
    times.heard(begin + 590000);
    EXPECT_EQ(endAt(waiting, 599999), SessionEnd::None);
    EXPECT_EQ(endAt(waiting, 600000), SessionEnd::Stalled);

    SessionTimes::Facts stranger;
    stranger.isStranger = true;
    times.heard(begin + 890000);
    times.useful(begin + 890000);
    EXPECT_EQ(endAt(stranger, 899999), SessionEnd::None);
    EXPECT_EQ(endAt(stranger, 900000), SessionEnd::TimeUsedUp);
}
