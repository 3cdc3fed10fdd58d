// The line as a value and in virtual time: pace, delay, noise, drops.
#include "rig/testroot.h"
#include "sim/line/line.h"
#include "tests/sim/linetext.h"

#include <gtest/gtest.h>

#include <bitset>
#include <random>

using namespace sim;
using simtest::settingsOf;

namespace {

constexpr qint64 msNs = 1000000;
constexpr qint64 secondNs = 1000 * msNs;

// Carries bytes for as long as duration, from a sender that always has more, in steps.
qint64 carriedIn(LineDirection& direction, qint64 from, qint64 duration, qint64 stepNs)
{
    qint64 carried = 0;
    direction.wake(from);
    for (qint64 now = from; now <= from + duration; now += stepNs) {
        const qint64 room = direction.room(now);
        direction.carry(QByteArray(static_cast<int>(room), 'U'), true, now);
        direction.deliver(now);
        carried += room;
    }
    return carried;
}

class PaceTest : public testing::TestWithParam<int>
{
protected:
    // Long enough for a slow line, short enough for the work of a fast one.
    const qint64 durationNs = (GetParam() > 115200 ? 2 : 20) * secondNs;
};

TEST_P(PaceTest, HoldsToWithinOnePercent)
{
    LineDirection direction(LineSettings(), GetParam(), 1);
    const double durationS = static_cast<double>(durationNs) / 1e9;
    const double expected = durationS * GetParam() / 10;
    EXPECT_NEAR(static_cast<double>(carriedIn(direction, 12345, durationNs, msNs)), expected,
                qMax(expected * 0.01, 1.0));
    EXPECT_NEAR(static_cast<double>(direction.statistics().busyNs), durationS * 1e9,
                durationS * 1e7 + 1e10 / GetParam());
}

TEST_P(PaceTest, HoldsWhenTheLoopIsLateNowAndThen)
{
    LineDirection direction(LineSettings(), GetParam(), 1);
    std::mt19937 random(rig::seed());
    qint64 carried = 0;
    qint64 now = 0;
    direction.wake(now);
    while (now < durationNs) {
        now += std::uniform_int_distribution<qint64>(msNs, random() % 50 == 0 ? 40 * msNs : 2 * msNs)(random);
        const qint64 room = direction.room(now);
        direction.carry(QByteArray(static_cast<int>(room), 'U'), true, now);
        direction.deliver(now);
        carried += room;
    }
    const double expected = static_cast<double>(now) / 1e9 * GetParam() / 10;
    EXPECT_NEAR(static_cast<double>(carried), expected, qMax(expected * 0.01, 1.0));
}

INSTANTIATE_TEST_SUITE_P(Rates, PaceTest,
                         testing::Values(300, 1200, 2400, 9600, 33600, 57600, 115200, 921600, 10000000));

TEST(LineTest, NoByteIsThroughBeforeItsTime)
{
    LineDirection direction(LineSettings(), 1000, 1); // a byte in 10 ms
    direction.wake(0);
    EXPECT_EQ(direction.room(0), 0);
    EXPECT_EQ(direction.nextRoomNs(), 10 * msNs);
    EXPECT_EQ(direction.room(10 * msNs - 1), 0);
    EXPECT_EQ(direction.room(10 * msNs), 1);
    EXPECT_EQ(direction.room(25 * msNs), 2);
    direction.carry("ab", true, 25 * msNs);
    EXPECT_EQ(direction.room(25 * msNs), 0);
    EXPECT_EQ(direction.nextRoomNs(), 30 * msNs);
    EXPECT_EQ(direction.deliver(25 * msNs), QByteArray("ab"));
    EXPECT_EQ(direction.nextDeliveryNs(), -1);
}

// Rates at which no byte takes whole nanoseconds.
TEST(LineTest, AByteIsThroughAtTheMomentThatIsTold)
{
    for (const int rate : {33600, 57600, 115200}) {
        LineDirection direction(LineSettings(), rate, 1);
        direction.wake(0);
        for (int byte = 0; byte < 100; ++byte) {
            const qint64 nextNs = direction.nextRoomNs();
            ASSERT_EQ(direction.room(nextNs - 1), 0) << rate << ", byte " << byte;
            ASSERT_EQ(direction.room(nextNs), 1) << rate << ", byte " << byte;
            direction.carry("a", true, nextNs);
        }
    }
}

TEST(LineTest, APieceOvertakesOnlyWhatArrivesLater)
{
    UnderWay underWay;
    EXPECT_EQ(underWay.nextArrivalNs(), -1);
    underWay.launch(30, "late");
    underWay.launch(10, "ab");
    underWay.launch(30, "later");
    underWay.launch(10, "cd");
    EXPECT_EQ(underWay.bytes(), 13);
    EXPECT_EQ(underWay.nextArrivalNs(), 10);
    EXPECT_EQ(underWay.lastArrivalNs(), 30);
    EXPECT_EQ(underWay.take(9), QByteArray());
    EXPECT_EQ(underWay.take(29, 3), QByteArray("abc"));
    EXPECT_EQ(underWay.take(29), QByteArray("d"));
    EXPECT_EQ(underWay.take(30), QByteArray("latelater"));
    EXPECT_TRUE(underWay.isEmpty());
}

TEST(LineTest, ALineThatIsWokenHasItsWholeGraceAgain)
{
    LineDirection direction(LineSettings(), 10000, 1);
    direction.wake(0);
    for (qint64 now = msNs; !direction.isIdle(); now += msNs)
        direction.carry({}, false, now);
    const qint64 wokenNs = 100 * msNs;
    direction.wake(wokenNs);
    direction.carry({}, false, wokenNs + msNs);
    EXPECT_FALSE(direction.isIdle());
    direction.carry({}, false, wokenNs + msNs + LineDirection::graceNs - 1);
    EXPECT_FALSE(direction.isIdle());
    direction.carry({}, false, wokenNs + msNs + LineDirection::graceNs);
    EXPECT_TRUE(direction.isIdle());
}

TEST(LineTest, AnIdleLineSavesNoTime)
{
    LineDirection direction(LineSettings(), 10000, 1);
    direction.wake(0);
    qint64 now = 0;
    while (!direction.isIdle()) {
        now += msNs;
        ASSERT_LE(now, msNs + LineDirection::graceNs);
        direction.carry({}, false, now);
    }
    EXPECT_EQ(direction.room(now + secondNs), 0);
    direction.wake(now + secondNs);
    EXPECT_EQ(direction.room(now + secondNs), 0);
    EXPECT_EQ(direction.room(now + secondNs + msNs), 1);
}

TEST(LineTest, ASenderThatWaitsKeepsTheLineBusy)
{
    LineDirection direction(LineSettings(), 10000, 1);
    direction.wake(0);
    for (qint64 now = msNs; now < 100 * msNs; now += msNs)
        direction.carry({}, true, now);
    EXPECT_FALSE(direction.isIdle());
    direction.rest();
    EXPECT_TRUE(direction.isIdle());
}

TEST(LineTest, DelaysBothWays)
{
    const LineSettings settings = settingsOf("rate=8000/4000,delay=150");
    Line line(settings, 1, true, 0);
    line.forward.wake(0);
    line.forward.carry("a", true, line.forward.nextRoomNs());
    EXPECT_EQ(line.forward.nextDeliveryNs(), 1250000 + 150 * msNs);
    EXPECT_EQ(line.forward.deliver(1250000 + 150 * msNs - 1), QByteArray());
    EXPECT_EQ(line.forward.finalStatistics().bytesLost, 1);
    EXPECT_EQ(line.forward.deliver(1250000 + 150 * msNs), QByteArray("a"));
    EXPECT_EQ(line.forward.finalStatistics().bytesLost, 0);
    line.backward.wake(0);
    line.backward.carry("b", true, line.backward.nextRoomNs());
    EXPECT_EQ(line.backward.nextDeliveryNs(), 2500000 + 150 * msNs);
}

TEST(LineTest, ACleanLineChangesNothing)
{
    LineDirection direction(LineSettings(), 1000000, 9);
    QByteArray sent;
    for (int i = 0; i < 100000; ++i)
        sent += static_cast<char>(i * 31);
    direction.wake(0);
    direction.carry(sent, true, secondNs);
    EXPECT_EQ(direction.deliver(2 * secondNs), sent);
    EXPECT_EQ(direction.statistics().bitsFlipped, 0);
    EXPECT_EQ(direction.statistics().bytesCarried, 100000);
    EXPECT_EQ(direction.statistics().bytesDelivered, 100000);
}

TEST(LineTest, EachCallAndDirectionHasItsOwnNoise)
{
    const LineSettings settings = settingsOf("ber=0.01,seed=5");
    const auto spoiled = [](LineDirection& direction) {
        direction.wake(0);
        direction.carry(QByteArray(5000, 'x'), true, 0);
        return direction.deliver(100 * secondNs);
    };
    Line first(settings, 1, true, 0);
    Line again(settings, 1, true, 0);
    Line second(settings, 2, true, 0);
    const QByteArray forward = spoiled(first.forward);
    EXPECT_EQ(forward, spoiled(again.forward));
    EXPECT_NE(forward, spoiled(first.backward));
    EXPECT_NE(forward, spoiled(second.forward));
}

TEST(LineTest, CountsWhatItSpoils)
{
    Line line(settingsOf("ber=0.01"), 1, true, 0);
    const QByteArray sent(10000, 'x');
    line.forward.wake(0);
    line.forward.carry(sent, true, 0);
    const QByteArray received = line.forward.deliver(100 * secondNs);
    ASSERT_EQ(received.size(), sent.size());
    qint64 bytes = 0;
    qint64 bits = 0;
    for (int i = 0; i < sent.size(); ++i) {
        bytes += sent.at(i) != received.at(i);
        bits += static_cast<int>(std::bitset<8>(static_cast<unsigned char>(sent.at(i) ^ received.at(i))).count());
    }
    EXPECT_GT(bytes, 0);
    EXPECT_EQ(line.forward.statistics().bytesSpoiled, bytes);
    EXPECT_EQ(line.forward.statistics().bitsFlipped, bits);
}

TEST(LineTest, NoiseGoesOffAndOn)
{
    Line line(settingsOf("ber=0.5"), 1, true, 0);
    line.setNoisy(false);
    line.forward.wake(0);
    line.forward.carry(QByteArray(1000, 'x'), true, 0);
    EXPECT_EQ(line.forward.deliver(100 * secondNs), QByteArray(1000, 'x'));
    line.setNoisy(true);
    line.forward.carry(QByteArray(1000, 'x'), true, 0);
    EXPECT_NE(line.forward.deliver(100 * secondNs), QByteArray(1000, 'x'));
}

TEST(LineTest, DropsAfterATime)
{
    const LineSettings settings = settingsOf("drop-after-seconds=2.5");
    Line line(settings, 1, true, secondNs);
    EXPECT_EQ(line.dropNs(), 3500 * msNs);
    EXPECT_FALSE(line.hasDropped(3500 * msNs - 1));
    EXPECT_TRUE(line.hasDropped(3500 * msNs));
    Line kept(settings, 2, false, secondNs);
    EXPECT_EQ(kept.dropNs(), -1);
    EXPECT_FALSE(kept.hasDropped(100 * secondNs));
}

TEST(LineTest, DropsAfterExactlySoManyBytesOfBothWays)
{
    Line line(settingsOf("drop-after-bytes=10,rate=10000"), 1, true, 0);
    line.forward.wake(0);
    line.backward.wake(0);
    line.forward.carry("abcdef", true, 10 * msNs);
    EXPECT_EQ(line.forward.deliver(secondNs, line.bytesBeforeDrop()), QByteArray("abcdef"));
    EXPECT_EQ(line.bytesBeforeDrop(), 4);
    EXPECT_FALSE(line.hasDropped(secondNs));
    line.backward.carry("123456", true, 10 * msNs);
    EXPECT_EQ(line.backward.deliver(secondNs, line.bytesBeforeDrop()), QByteArray("1234"));
    EXPECT_TRUE(line.hasDropped(secondNs));
    EXPECT_EQ(line.backward.deliver(secondNs, line.bytesBeforeDrop()), QByteArray());
    EXPECT_EQ(line.backward.finalStatistics().bytesLost, 2);
    Line kept(line.settings(), 2, false, 0);
    EXPECT_EQ(kept.bytesBeforeDrop(), -1);
}

} // namespace
