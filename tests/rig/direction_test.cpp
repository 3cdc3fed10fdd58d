// One way of the simulated line, in a time that the test hands in.
#include "rig/line/direction.h"
#include "rig/testroot.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace rig;

namespace {

// A byte takes a millisecond, and each travels alone.
LineSettings bytesOfAMillisecond()
{
    LineSettings settings;
    settings.bitsPerSecond = 10000;
    settings.chunkBytes = 1;
    return settings;
}

QByteArray ascending(int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i);
    return bytes;
}

void send(Direction& direction, const QByteArray& bytes, std::int64_t now)
{
    ASSERT_EQ(direction.send(bytes.constData(), static_cast<std::size_t>(bytes.size()), now),
              static_cast<std::size_t>(bytes.size()));
}

// What has come by then, looked at as a program does that is woken for each event.
QByteArray receivedBy(Direction& direction, std::int64_t until)
{
    QByteArray bytes;
    while (direction.nextEventNs() <= until) {
        direction.advanceTo(direction.nextEventNs());
        bytes += direction.receiveAll();
    }
    return bytes;
}

QByteArray carried(const Faults& faults, const QByteArray& bytes)
{
    Direction direction(bytesOfAMillisecond(), rig::seed());
    direction.setFaults(faults, 0);
    send(direction, bytes, 0);
    return receivedBy(direction, 10 * nsPerS);
}

} // namespace

TEST(Direction, TellsWhenWhatWasSentArrives)
{
    LineSettings settings = bytesOfAMillisecond();
    settings.chunkBytes = 4;
    settings.delayNs = 100 * nsPerMs;
    Direction direction(settings, 1);
    EXPECT_EQ(direction.nextArrivalNs(), never);
    EXPECT_EQ(direction.lastArrivalNs(), never);
    send(direction, ascending(10), 1000 * nsPerMs);
    EXPECT_EQ(direction.nextArrivalNs(), 1104 * nsPerMs);
    EXPECT_EQ(direction.lastArrivalNs(), 1110 * nsPerMs);
    direction.advanceTo(1104 * nsPerMs);
    EXPECT_EQ(direction.receiveAll(), ascending(4));
    EXPECT_EQ(direction.nextArrivalNs(), 1108 * nsPerMs);
    EXPECT_EQ(direction.lastArrivalNs(), 1110 * nsPerMs);
    EXPECT_EQ(receivedBy(direction, 1109 * nsPerMs), ascending(8).mid(4));
    EXPECT_EQ(receivedBy(direction, 1110 * nsPerMs), ascending(10).mid(8));
    EXPECT_EQ(direction.lastArrivalNs(), never);
}

TEST(Direction, SavesNoTimeWhileNothingIsSent)
{
    Direction direction(bytesOfAMillisecond(), 1);
    send(direction, "a", 0);
    send(direction, "b", 500 * nsPerMs);
    EXPECT_EQ(direction.lastArrivalNs(), 501 * nsPerMs);
}

TEST(Direction, TheDriverTakesItsDepthAndGivesRoomAsTheLineCarries)
{
    LineSettings settings = bytesOfAMillisecond();
    settings.driverDepth = 20;
    Direction direction(settings, 1);
    const QByteArray bytes = ascending(30);
    EXPECT_EQ(direction.send(bytes.constData(), 30, 0), 20u);
    direction.advanceTo(4 * nsPerMs); // the fifth byte is on its way
    EXPECT_EQ(direction.roomToSend(), 5u);
    EXPECT_EQ(direction.send(bytes.constData() + 20, 10, 4 * nsPerMs), 5u);
    EXPECT_EQ(receivedBy(direction, nsPerS), ascending(25));
}

TEST(Direction, WhatNobodyReadsOverrunsTheInput)
{
    LineSettings settings = bytesOfAMillisecond();
    settings.inputDepth = 8;
    Direction direction(settings, 1);
    send(direction, ascending(20), 0);
    direction.advanceTo(nsPerS);
    EXPECT_EQ(direction.receiveAll(), ascending(8));
    EXPECT_EQ(direction.bytesOverrun(), 12u);
}

TEST(Direction, JitterDelaysButNothingOvertakes)
{
    LineSettings settings = bytesOfAMillisecond();
    Direction direction(settings, rig::seed());
    Faults faults;
    faults.jitterNs = 200 * nsPerMs;
    direction.setFaults(faults, 0);
    send(direction, ascending(100), 0);
    EXPECT_LT(receivedBy(direction, 50 * nsPerMs).size(), 50);
    direction.clear();
    send(direction, ascending(100), nsPerS);
    EXPECT_EQ(receivedBy(direction, 2 * nsPerS), ascending(100));
}

TEST(Direction, ALateChunkIsOvertaken)
{
    Faults faults;
    faults.delayChunk = 0.2;
    faults.delayedByNs = 50 * nsPerMs;
    QByteArray received = carried(faults, ascending(100));
    EXPECT_NE(received, ascending(100));
    std::sort(received.begin(), received.end());
    EXPECT_EQ(received, ascending(100));
}

TEST(Direction, LosesDoublesAndDamagesAtTheirRates)
{
    const QByteArray zeros(4000, '\0');
    Faults faults;
    faults.dropChunk = 0.25;
    EXPECT_NEAR(carried(faults, zeros).size(), 3000, 140); // five standard deviations, and below
    faults = Faults();
    faults.doubleChunk = 0.25;
    EXPECT_NEAR(carried(faults, zeros).size(), 5000, 140);
    faults = Faults();
    faults.bitErrorRate = 0.01;
    const QByteArray noisy = carried(faults, zeros);
    EXPECT_EQ(noisy.size(), zeros.size());
    int flipped = 0;
    for (const char byte : noisy)
        flipped += __builtin_popcount(static_cast<unsigned char>(byte));
    EXPECT_NEAR(flipped, 320, 90);
}

TEST(Direction, BurstsHitWholeStretches)
{
    Faults faults;
    faults.burst = {0.1, 200, 0.5}; // twenty bytes, each tenth of a second
    const QByteArray noisy = carried(faults, QByteArray(4000, '\0'));
    int stretches = 0;
    int hit = 0;
    int sinceHit = 100;
    for (const char byte : noisy) {
        stretches += byte != 0 && sinceHit >= 15;
        hit += byte != 0;
        sinceHit = byte != 0 ? 0 : sinceHit + 1;
    }
    EXPECT_GE(stretches, 1);
    EXPECT_GT(hit, 10 * stretches);
}

TEST(Direction, SilenceDeliversNothingAndWhatComesBehindItDoes)
{
    Direction direction(bytesOfAMillisecond(), 1);
    direction.setSilent(true);
    send(direction, ascending(10), 0);
    EXPECT_EQ(receivedBy(direction, 100 * nsPerMs), QByteArray());
    EXPECT_EQ(direction.bytesCarried(), 10u);
    direction.setSilent(false);
    send(direction, "x", 200 * nsPerMs);
    EXPECT_EQ(receivedBy(direction, 300 * nsPerMs), QByteArray("x"));
}

TEST(Direction, AHangUpLeavesNothing)
{
    Direction direction(bytesOfAMillisecond(), 1);
    send(direction, ascending(10), 0);
    direction.advanceTo(5 * nsPerMs);
    direction.clear();
    EXPECT_EQ(receivedBy(direction, nsPerS), QByteArray());
    EXPECT_EQ(direction.bytesToReceive(), 0u);
}
