// The recommended settings on simulated lines, in simulated time: they get what the rule
// promises.
#include "rig/measure/linkmeasure.h"
#include "rig/runs/runprocess.h"
#include "rig/testroot.h"

#include <QDir>
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

namespace {

// What one seed's noise and a short transfer may take off.
constexpr double margin = 0.035;

struct Case
{
    const char* name;
    int rate;
    int delayMs;
    double bitErrorRate;
    bool bothWays;
    int seconds; // of a transfer without loss
};

void PrintTo(const Case& line, std::ostream* out)
{
    *out << line.rate << " bit/s, " << line.delayMs << " ms, " << line.bitErrorRate
         << (line.bothWays ? ", both ways" : ", one way");
}

class RecommendedSettings : public testing::TestWithParam<Case>
{
};

} // namespace

TEST_P(RecommendedSettings, GetWhatTheRulePromises)
{
    const Case& c = GetParam();
    rig::measure::Course course;
    course.line.rate = c.rate;
    course.line.delayMs = c.delayMs;
    course.line.bitErrorRate = c.bitErrorRate;
    course.bytes[0] = std::int64_t(c.seconds) * c.rate / 10;
    course.bytes[1] = c.bothWays ? course.bytes[0] : 0;
    const tune::LinkProfile profile = tune::recommendedProfile(course.line);
    const QString settingsDir = rig::installRoot() + QStringLiteral("/settings");
    ASSERT_TRUE(QDir().mkpath(settingsDir));
    std::ofstream(settingsDir.toStdString() + "/settings.ini")
        << rig::settingsText(rig::measure::channelSettings(profile));

    rig::beginRunProcess();
    const rig::measure::Outcome outcome = rig::measure::run(course, profile);
    EXPECT_EQ(outcome.error, "");
    const tune::Goodput expected = tune::expectedGoodput(course.line);
    EXPECT_GE(outcome.share[0], (c.bothWays ? expected.bothWays : expected.oneWay) - margin);
    if (c.bothWays) {
        EXPECT_GE(outcome.share[1], expected.bothWays - margin);
    }
}

// The handshake, the greetings, what each side has got, and the first offer.
TEST(SessionOpening, IsSoonOverOnTheSlowestLine)
{
    rig::measure::Course course;
    course.line.rate = 1200;
    course.line.delayMs = 300;
    course.bytes[0] = 1; // so that nothing else is on the line
    const tune::LinkProfile profile = tune::recommendedProfile(course.line);
    const QString settingsDir = rig::installRoot() + QStringLiteral("/settings");
    ASSERT_TRUE(QDir().mkpath(settingsDir));
    std::ofstream(settingsDir.toStdString() + "/settings.ini")
        << rig::settingsText(rig::measure::channelSettings(profile));

    rig::beginRunProcess();
    const rig::measure::Outcome outcome = rig::measure::run(course, profile);
    EXPECT_EQ(outcome.error, "");
    const auto tell = [](const char* what, const rig::measure::Outcome::Moment& moment) {
        std::printf("%s after %.2f s, %lld bytes carried from the caller, %lld from the answerer\n", what,
                    moment.seconds, static_cast<long long>(moment.bytes[0]), static_cast<long long>(moment.bytes[1]));
    };
    tell("both proved", outcome.bothProved);
    tell("first offer", outcome.firstOffer);
    // Three times across the line, and the handshake's bytes, at 120 a second.
    EXPECT_GT(outcome.bothProved.seconds, 3 * 0.3 + (50 + 114 + 65) / 120.0);
    EXPECT_LT(outcome.bothProved.seconds, 6);
    EXPECT_LT(outcome.firstOffer.seconds, 10);
    EXPECT_LT(outcome.firstOffer.bytes[0] + outcome.firstOffer.bytes[1], 1000);
}

// What is not measured must not be told as if it were.
TEST(LinkMeasure, refusesAProfileThatIsNotInForce)
{
    rig::measure::Course course;
    course.line.rate = 9600;
    course.bytes[0] = 1000;
    tune::LinkProfile profile;
    profile.maxBytesInQueue = 100; // below the key's range
    const QString settingsDir = rig::installRoot() + QStringLiteral("/settings");
    ASSERT_TRUE(QDir().mkpath(settingsDir));
    std::ofstream(settingsDir.toStdString() + "/settings.ini")
        << rig::settingsText(rig::measure::channelSettings(profile));

    rig::beginRunProcess();
    EXPECT_EQ(rig::measure::run(course, profile).error, "settings that the channel does not take");
}

INSTANTIATE_TEST_SUITE_P(
    Lines, RecommendedSettings,
    testing::Values(Case{"slow", 9600, 0, 0, false, 120}, //
                    Case{"slowNoisyBoth", 9600, 0, 1e-4, true, 200}, Case{"clean", 115200, 0, 0, false, 60},
                    Case{"cleanBoth", 115200, 0, 0, true, 60}, Case{"noise", 115200, 0, 1e-5, false, 60},
                    Case{"noisy", 57600, 0, 1e-4, false, 60}, Case{"farNoise", 33600, 100, 1e-5, false, 120},
                    Case{"fast", 921600, 0, 0, false, 20}),
    [](const testing::TestParamInfo<Case>& line) { return std::string(line.param.name); });
