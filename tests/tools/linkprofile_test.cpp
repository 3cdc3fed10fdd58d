// The rule that finds settings for a line: the values that docs/tuning-derivation.md works out by
// hand, the limits of the keys, and that more of something never asks for less.
#include "com/formats/ccomsettings.h"
#include "common/settingskeys.h"
#include "rig/testroot.h"
#include "tools/linkprofile.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using tune::expectedGoodput;
using tune::Goodput;
using tune::LineFacts;
using tune::LinkProfile;
using tune::recommendedProfile;

namespace tune {

void PrintTo(const LinkProfile& p, std::ostream* out)
{
    *out << "packet " << p.packetSize << ", write " << p.maxBytesToWrite << ", queue " << p.maxBytesInQueue
         << ", resend " << p.resendIntervalMs << ", confirm " << p.confirmationIntervalMs;
}

void PrintTo(const LineFacts& line, std::ostream* out)
{
    *out << line.rate << " bit/s, " << line.delayMs << " ms, " << line.bitErrorRate << ", " << line.bufferBytes;
}

} // namespace tune

namespace {

LineFacts line(int rate, int delayMs, double bitErrorRate, int bufferBytes = 4096)
{
    LineFacts facts;
    facts.rate = rate;
    facts.delayMs = delayMs;
    facts.bitErrorRate = bitErrorRate;
    facts.bufferBytes = bufferBytes;
    return facts;
}

LinkProfile profile(int packet, int write, int queue, int resend, int confirm)
{
    LinkProfile result;
    result.packetSize = packet;
    result.maxBytesToWrite = write;
    result.maxBytesInQueue = queue;
    result.resendIntervalMs = resend;
    result.confirmationIntervalMs = confirm;
    return result;
}

bool isInRange(Setting setting, int value)
{
    const SettingKey& key = settingKey(setting);
    return value >= key.minimum && value <= key.maximum;
}

void expectValid(const LineFacts& facts)
{
    const LinkProfile p = recommendedProfile(facts);
    EXPECT_TRUE(isInRange(Setting::DetailsTransportComMaxBytesToWrite, p.maxBytesToWrite))
        << testing::PrintToString(facts);
    EXPECT_TRUE(isInRange(Setting::DetailsTransportComMaxBytesInQueue, p.maxBytesInQueue))
        << testing::PrintToString(facts);
    EXPECT_TRUE(isInRange(Setting::DetailsTransportComResendInterval, p.resendIntervalMs))
        << testing::PrintToString(facts);
    EXPECT_TRUE(isInRange(Setting::DetailsTransportComConfirmationInterval, p.confirmationIntervalMs))
        << testing::PrintToString(facts);
    // A full packet of that size is what a host's block makes, and the queue takes one.
    EXPECT_GE(p.packetSize, 16);
    EXPECT_LE(p.packetSize, p.maxBytesToWrite);
    EXPECT_GE(p.maxBytesInQueue, 512);
    // The peer confirms before we repeat.
    EXPECT_LT(p.confirmationIntervalMs, p.resendIntervalMs);
    const Goodput goodput = expectedGoodput(facts);
    EXPECT_GE(goodput.oneWay, 0) << testing::PrintToString(facts);
    EXPECT_LT(goodput.oneWay, 1);
    EXPECT_LE(goodput.bothWays, goodput.oneWay);
    EXPECT_GE(goodput.bothWays, 0) << testing::PrintToString(facts);
}

class Draw
{
public:
    double logBetween(double low, double high)
    {
        return low * std::pow(high / low, std::uniform_real_distribution<>(0, 1)(m_engine));
    }

    LineFacts facts()
    {
        const auto whole = [&](int most) { return std::uniform_int_distribution<>(0, most)(m_engine); };
        const double bitErrorRate = whole(3) == 0 ? 0 : logBetween(1e-8, tune::highestBitErrorRate);
        return line(static_cast<int>(logBetween(tune::lowestRate, tune::highestRate)),
                    whole(1) ? whole(tune::longestDelayMs) : whole(300), bitErrorRate,
                    whole(1) ? 4096 : whole(tune::largestBufferBytes));
    }

private:
    std::mt19937 m_engine{rig::seed()};
};

} // namespace

// docs/tuning-derivation.md, "The arithmetic, by example".
TEST(LinkProfileRule, GivesWhatTheDocumentWorksOut)
{
    EXPECT_EQ(recommendedProfile(line(115200, 0, 0)), profile(3714, 3714, 26344, 2539, 645));
    EXPECT_EQ(recommendedProfile(line(9600, 0, 1e-4)), profile(123, 512, 890, 1899, 257));
    EXPECT_EQ(recommendedProfile(line(921600, 0, 1e-5)), profile(527, 4608, 10008, 206, 50));
    EXPECT_EQ(recommendedProfile(line(115200, 100, 1e-4)), profile(230, 576, 4376, 664, 50));
}

TEST(LinkProfileRule, ExpectsWhatTheDocumentWorksOut)
{
    EXPECT_NEAR(expectedGoodput(line(115200, 0, 0)).oneWay, 0.995, 0.0005);
    EXPECT_NEAR(expectedGoodput(line(115200, 0, 0)).bothWays, 0.983, 0.0005);
    EXPECT_NEAR(expectedGoodput(line(9600, 0, 1e-4)).oneWay, 0.815, 0.0005);
    EXPECT_NEAR(expectedGoodput(line(9600, 0, 1e-4)).bothWays, 0.743, 0.0005);
    EXPECT_NEAR(expectedGoodput(line(115200, 100, 1e-4)).oneWay, 0.701, 0.0005);
}

TEST(LinkProfileRule, StaysWithinTheRangesWhateverTheLine)
{
    Draw draw;
    for (int i = 0; i < 20000; ++i)
        expectValid(draw.facts());
}

TEST(LinkProfileRule, StaysWithinTheRangesAtAndBeyondTheLimits)
{
    for (const int rate : {-1, 0, 1, tune::lowestRate, tune::highestRate, 2147483647}) {
        for (const int delayMs : {-5, 0, tune::longestDelayMs, 2147483647}) {
            for (const double bitErrorRate :
                 {-1.0, 0.0, 1e-300, 1e-7, tune::highestBitErrorRate, 1.0, double(INFINITY), double(NAN)}) {
                for (const int bufferBytes : {-1, 0, tune::largestBufferBytes, 2147483647})
                    expectValid(line(rate, delayMs, bitErrorRate, bufferBytes));
            }
        }
    }
}

TEST(LinkProfileRule, MoreNoiseNeverAsksForLargerPacketsNorPromisesMore)
{
    Draw draw;
    for (int i = 0; i < 5000; ++i) {
        const LineFacts less = draw.facts();
        LineFacts more = less;
        more.bitErrorRate = std::min(tune::highestBitErrorRate, less.bitErrorRate * draw.logBetween(1, 100) + 1e-9);
        EXPECT_LE(recommendedProfile(more).packetSize, recommendedProfile(less).packetSize)
            << testing::PrintToString(less);
        EXPECT_LE(expectedGoodput(more).oneWay, expectedGoodput(less).oneWay + 0.02)
            << testing::PrintToString(less) << " and " << more.bitErrorRate;
    }
}

// The resend interval only nearly: where the window stands still much of the time, the
// factor may fall faster than the round trip grows.
TEST(LinkProfileRule, LongerDelayNeverShortensTheResendIntervalNorTheQueue)
{
    constexpr double nearly = 0.95;
    constexpr int wholeBytes = 6; // six packets, each of a whole number of bytes
    Draw draw;
    for (int i = 0; i < 5000; ++i) {
        const LineFacts nearLine = draw.facts();
        LineFacts farLine = nearLine;
        farLine.delayMs += 500;
        EXPECT_GE(recommendedProfile(farLine).resendIntervalMs, nearly * recommendedProfile(nearLine).resendIntervalMs)
            << testing::PrintToString(nearLine);
        EXPECT_GE(recommendedProfile(farLine).maxBytesInQueue + wholeBytes,
                  recommendedProfile(nearLine).maxBytesInQueue)
            << testing::PrintToString(nearLine);
    }
}

// A slow line hands its bytes over later, and their confirmations come later.
TEST(LinkProfileRule, SlowerLinesWaitLonger)
{
    for (const double bitErrorRate : {0.0, 1e-6, 1e-5, 1e-4, 1e-3}) {
        int last = 60000;
        for (const int rate : {1200, 2400, 4800, 9600, 14400, 33600, 57600, 115200, 230400, 460800, 921600}) {
            const int resend = recommendedProfile(line(rate, 0, bitErrorRate)).resendIntervalMs;
            EXPECT_LE(resend, last) << rate << ' ' << bitErrorRate;
            last = resend;
        }
    }
}

// A busy line carries all that may be unconfirmed within one round trip, unless driver and
// modem hold less than that.
TEST(LinkProfileRule, WaitsLongerThanAConfirmationTakes)
{
    Draw draw;
    for (int i = 0; i < 5000; ++i) {
        const LineFacts facts = draw.facts();
        const LinkProfile p = recommendedProfile(facts);
        const double bytesPerMs = facts.rate / 10000.0;
        const double unconfirmed = (p.maxBytesInQueue + p.packetSize) / bytesPerMs;
        const double longest =
            2 * (facts.bufferBytes + p.packetSize) / bytesPerMs + p.confirmationIntervalMs + 2 * facts.delayMs;
        EXPECT_GE(p.resendIntervalMs, 1.2 * std::min(unconfirmed, longest)) << testing::PrintToString(facts);
    }
}

// The longest resend interval there is, 60 s, must outlast a round trip.
TEST(LinkProfileRule, SlowLinesHavePacketsSmallEnoughForTheResendInterval)
{
    for (const int rate : {300, 600, 1200}) {
        const LinkProfile p = recommendedProfile(line(rate, 0, 0));
        const double unconfirmedMs = (p.maxBytesInQueue + p.packetSize) * 10000.0 / rate;
        EXPECT_GE(p.resendIntervalMs, 1.79 * unconfirmedMs) << rate;
    }
    // 60 s / 1.8 less a round trip of 1.03 s, through six packets of 1/30 s a byte.
    EXPECT_EQ(recommendedProfile(line(300, 0, 0)).packetSize, 161);
}

// 111 packets of 4096 bytes in 20 s.
TEST(LinkProfileRule, PromisesNoMoreThanTheWindowHolds)
{
    EXPECT_LT(expectedGoodput(line(921600, 10000, 0)).oneWay, 0.25);
    EXPECT_GT(expectedGoodput(line(921600, 10000, 0)).oneWay, 0.2);
}

TEST(LinkProfileRule, ReachesWhatIsWantedOfEachKindOfLine)
{
    EXPECT_GE(expectedGoodput(line(57600, 0, 0)).oneWay, 0.99);
    EXPECT_GE(expectedGoodput(line(115200, 0, 0)).oneWay, 0.99);
    for (const int rate : {9600, 14400, 28800, 33600, 921600})
        EXPECT_GE(expectedGoodput(line(rate, 0, 0)).oneWay, 0.97) << rate;
    for (const int rate : {9600, 33600, 57600, 115200}) {
        EXPECT_GE(expectedGoodput(line(rate, 0, 1e-4)).oneWay, 0.71) << rate;
        EXPECT_GE(expectedGoodput(line(rate, 0, 1e-4)).bothWays, 0.69) << rate;
        EXPECT_GE(expectedGoodput(line(rate, 100, 0)).oneWay, 0.97) << rate;
        EXPECT_GE(expectedGoodput(line(rate, 100, 1e-5)).oneWay, 0.90) << rate;
        EXPECT_GE(expectedGoodput(line(rate, 100, 1e-4)).oneWay, 0.55) << rate;
    }
}
