// That the soak's own instruments measure what they say, and find what they are there for.
#include "rig/line/line.h"
#include "rig/time/virtualtime.h"
#include "tests/soak/linkrun.h"
#include "tests/soak/scenario.h"
#include "tests/soak/sessionrun.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QSerialPort>
#include <QThread>
#include <QTimer>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/select.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

using namespace soak;
using namespace rig;

namespace {

constexpr std::int64_t wallMs = 1700000000000;

// Of the machine: how long things really take.
std::int64_t cpuMs()
{
    timespec time;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return time.tv_sec * 1000 + time.tv_nsec / nsPerMs;
}

// The channel tells each damaged packet to Qt's debug output.
void keepQuiet(QtMsgType, const QMessageLogContext&, const QString&) {}

class VirtualTimeTest : public testing::Test
{
protected:
    void SetUp() override { startVirtualTime(wallMs); }
};

class LineTest : public testing::Test
{
protected:
    void SetUp() override { startVirtualTime(wallMs); }

    void open(const LineSettings& settings, std::uint64_t seed = 1)
    {
        line = std::make_unique<Line>(settings, seed);
        for (int end = 0; end < 2; ++end) {
            ports[end].setPortName(QString::fromStdString(Line::path(end)));
            ASSERT_TRUE(ports[end].open(QIODevice::ReadWrite)) << ports[end].errorString().toStdString();
        }
    }

    QByteArray readFor(int end, int ms)
    {
        QByteArray bytes;
        const std::int64_t until = nowNs() + ms * nsPerMs;
        while (nowNs() < until) {
            ports[end].waitForReadyRead(static_cast<int>((until - nowNs()) / nsPerMs) + 1);
            bytes += ports[end].readAll();
        }
        return bytes;
    }

    void TearDown() override
    {
        for (QSerialPort& port : ports)
            port.close();
    }

    std::unique_ptr<Line> line;
    std::array<QSerialPort, 2> ports;
};

Scenario lossyScenario(std::uint64_t seed)
{
    Scenario scenario;
    scenario.seed = seed;
    scenario.line.bitsPerSecond = 115200;
    scenario.line.delayNs = 50 * nsPerMs;
    scenario.channel.packetSize = 32;
    for (EndSettings& end : scenario.ends) {
        end.periodMs = 50;
        end.writing = Writing::Blocks;
        end.writesPerTurn = 150;
    }
    Phase phase;
    phase.durationNs = 40 * nsPerS;
    for (Faults& faults : phase.faults)
        faults.dropChunk = 0.02;
    scenario.phases.push_back(phase);
    return scenario;
}

} // namespace

TEST_F(VirtualTimeTest, sleepsTakeTheirTimeOnTheClockAndNoneOnTheMachine)
{
    const std::int64_t before = cpuMs();
    QElapsedTimer timer;
    timer.start();
    QThread::sleep(3600);
    usleep(500000);
    const timespec second{1, 0};
    nanosleep(&second, nullptr);
    clock_nanosleep(CLOCK_MONOTONIC, 0, &second, nullptr);
    EXPECT_NEAR(timer.elapsed(), 3602500, 1);
    EXPECT_LT(cpuMs() - before, 1000);
}

TEST_F(VirtualTimeTest, absoluteSleepEndsAtItsTime)
{
    timespec until;
    clock_gettime(CLOCK_MONOTONIC, &until);
    until.tv_sec += 7;
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_EQ(now.tv_sec, until.tv_sec);
}

TEST_F(VirtualTimeTest, pollAndSelectWaitOutTheirTimeouts)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    QElapsedTimer timer;
    timer.start();
    pollfd waited{ends[0], POLLIN, 0};
    EXPECT_EQ(poll(&waited, 1, 60000), 0);
    EXPECT_NEAR(timer.elapsed(), 60000, 1);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(ends[0], &readable);
    timeval timeout{90, 0};
    EXPECT_EQ(select(ends[0] + 1, &readable, nullptr, nullptr, &timeout), 0);
    EXPECT_NEAR(timer.elapsed(), 150000, 1);
    EXPECT_FALSE(FD_ISSET(ends[0], &readable));

    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(poll(&waited, 1, 60000), 1);
    FD_SET(ends[0], &readable);
    EXPECT_EQ(select(ends[0] + 1, &readable, nullptr, nullptr, &timeout), 1);
    EXPECT_TRUE(FD_ISSET(ends[0], &readable));
    EXPECT_NEAR(timer.elapsed(), 150000, 1);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(VirtualTimeTest, wallClockStepsAndTheSteadyOneDoesNot)
{
    QElapsedTimer timer;
    timer.start();
    EXPECT_NEAR(static_cast<double>(QDateTime::currentMSecsSinceEpoch()), static_cast<double>(wallMs), 1);
    EXPECT_EQ(time(nullptr), wallMs / 1000);
    stepWallClock(-3600000);
    EXPECT_NEAR(static_cast<double>(QDateTime::currentMSecsSinceEpoch()), static_cast<double>(wallMs - 3600000), 1);
    timeval now;
    gettimeofday(&now, nullptr);
    EXPECT_EQ(now.tv_sec, wallMs / 1000 - 3600);
    EXPECT_LE(timer.elapsed(), 1);
}

TEST_F(VirtualTimeTest, timersOfAnEventLoopRunInOrder)
{
    QEventLoop loop;
    QElapsedTimer timer;
    timer.start();
    QVector<int> order;
    QTimer::singleShot(7200000, &loop, [&] { loop.quit(); });
    QTimer::singleShot(5000, &loop, [&] { order.append(2); });
    QTimer::singleShot(1000, &loop, [&] { order.append(1); });
    loop.exec();
    EXPECT_EQ(order, QVector<int>({1, 2}));
    EXPECT_NEAR(timer.elapsed(), 7200000, 50);
}

TEST_F(VirtualTimeTest, loopThatOnlyLooksAtTheClockEnds)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 100) {
    }
}

TEST_F(LineTest, bytesTakeTheirTimeOnTheLine)
{
    LineSettings settings;
    settings.bitsPerSecond = 9600;
    settings.delayNs = 250 * nsPerMs;
    open(settings);
    QElapsedTimer timer;
    timer.start();
    ports[0].write(QByteArray(960, 'x')); // a second
    ports[0].flush();
    QByteArray bytes;
    while (bytes.size() < 960) {
        ASSERT_TRUE(ports[1].waitForReadyRead(5000));
        bytes += ports[1].readAll();
    }
    EXPECT_NEAR(timer.elapsed(), 1250, 2);
    EXPECT_EQ(bytes, QByteArray(960, 'x'));
}

TEST_F(LineTest, driverTakesNoMoreThanItsDepth)
{
    LineSettings settings;
    settings.bitsPerSecond = 1200;
    open(settings);
    ports[0].write(QByteArray(10000, 'x'));
    ports[0].flush();
    EXPECT_NEAR(static_cast<double>(ports[0].bytesToWrite()), 10000 - 4096, settings.chunkBytes);
}

TEST_F(LineTest, modemLinesShowTheCarrier)
{
    open(LineSettings());
    EXPECT_TRUE(ports[0].pinoutSignals() & QSerialPort::DataCarrierDetectSignal);
    EXPECT_TRUE(ports[0].pinoutSignals() & QSerialPort::DataSetReadySignal);
    line->setCarrier(false);
    EXPECT_FALSE(ports[0].pinoutSignals() & QSerialPort::DataCarrierDetectSignal);
}

TEST_F(LineTest, bitErrorsComeAtTheirRate)
{
    LineSettings settings;
    settings.bitsPerSecond = 921600;
    open(settings);
    Faults faults;
    faults.bitErrorRate = 1e-3;
    line->setFaults(0, faults);
    const int size = 100000;
    ports[0].write(QByteArray(size, '\0'));
    QByteArray bytes;
    while (ports[0].bytesToWrite() > 0) {
        ports[0].waitForBytesWritten(100);
        bytes += readFor(1, 1);
    }
    bytes += readFor(1, 200);
    ASSERT_EQ(bytes.size(), size);
    int flipped = 0;
    for (const char byte : bytes)
        flipped += __builtin_popcount(static_cast<unsigned char>(byte));
    // 800 expected, standard deviation 28.
    EXPECT_NEAR(flipped, 800, 150);
}

TEST_F(LineTest, chunksAreDroppedDoubledAndOvertaken)
{
    LineSettings settings;
    settings.chunkBytes = 1;
    open(settings);
    const auto carry = [&](const Faults& faults) {
        line->setFaults(0, faults);
        QByteArray sent;
        for (int i = 0; i < 200; ++i)
            sent.append(static_cast<char>(i));
        ports[0].write(sent);
        ports[0].flush();
        return std::make_pair(sent, readFor(1, 2000));
    };
    Faults drop;
    drop.dropChunk = 0.2;
    EXPECT_NEAR(carry(drop).second.size(), 160, 35);
    Faults twice;
    twice.doubleChunk = 0.2;
    EXPECT_NEAR(carry(twice).second.size(), 240, 35);
    Faults late;
    late.delayChunk = 0.2;
    late.delayedByNs = 20 * nsPerMs;
    auto [sent, received] = carry(late);
    EXPECT_NE(received, sent);
    std::sort(received.begin(), received.end());
    std::sort(sent.begin(), sent.end());
    EXPECT_EQ(received, sent);
    Faults silence;
    silence.silence = true;
    EXPECT_EQ(carry(silence).second.size(), 0);
    Faults garbage;
    garbage.garbagePerSecond = 10;
    garbage.garbageBytes = 50;
    EXPECT_GT(carry(garbage).second.size(), 200);
}

TEST(ScenarioTest, isTheSameForItsSeed)
{
    for (const Kind kind : allKinds)
        EXPECT_EQ(describe(makeScenario(kind, 42)), describe(makeScenario(kind, 42)));
    EXPECT_NE(describe(makeScenario(Kind::Link, 42)), describe(makeScenario(Kind::Link, 43)));
}

// The instruments must see it when a stream breaks: it does between peers without our
// safeguards, on a line that loses every fiftieth chunk.
TEST(SafeguardTest, withoutThemStreamsBreakAndItIsSeen)
{
    qInstallMessageHandler(keepQuiet);
    startVirtualTime(wallMs);
    Scenario scenario = lossyScenario(1);
    scenario.plainPeer = {true, true};
    EXPECT_FALSE(runLink(scenario).violations.empty());
}

TEST(SafeguardTest, withThemTheyDoNot)
{
    qInstallMessageHandler(keepQuiet);
    startVirtualTime(wallMs);
    const Scenario scenario = lossyScenario(1);
    const RunResult result = runLink(scenario);
    EXPECT_EQ(result.violations, std::vector<std::string>());
    EXPECT_GT(result.bytesDelivered, 100000u);
    EXPECT_GT(result.faults, 100u);
}

// A driver full of repeats stands in front of every new packet here: a session that takes
// that for a dead connection never gets anything across.
TEST(SessionTest, slowestLineGetsFilesAcross)
{
    startVirtualTime(wallMs);
    Scenario scenario;
    scenario.seed = 1;
    scenario.kind = Kind::Session;
    scenario.line.bitsPerSecond = 1200;
    Phase phase;
    phase.durationNs = nsPerS;
    phase.fileSizes = {std::vector<int>{6000}, std::vector<int>{6000}};
    scenario.phases.push_back(phase);
    const RunResult result = runSessions(scenario);
    EXPECT_EQ(result.violations, std::vector<std::string>());
    EXPECT_EQ(result.bytesDelivered, 12000u);
    EXPECT_EQ(result.connections, 1u);
}
