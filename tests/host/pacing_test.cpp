// How often the session protocol has its pass, and how much it writes in one.
#include "host/channel/pacing.h"

#include <gtest/gtest.h>

using host::Pacing;

namespace {

constexpr int block = 500;

// Time in which so many bytes a second come in, and bytesOutPerS go out, noted every 10 ms.
void runFor(Pacing* pacing, qint64* nowMs, qint64 forMs, int bytesInPerS, int bytesOutPerS = 0)
{
    for (const qint64 endMs = *nowMs + forMs; *nowMs < endMs; *nowMs += 10) {
        pacing->received(bytesInPerS / 100, *nowMs);
        pacing->beginWriting(false, *nowMs);
        if (bytesOutPerS > 0)
            pacing->written(bytesOutPerS / 100, *nowMs);
    }
}

// How many blocks of a pass that begins now.
int blocksOfAPass(Pacing* pacing, qint64 nowMs, int most = 10000)
{
    pacing->beginWriting(false, nowMs);
    int blocks = 0;
    while (blocks < most && pacing->mayWrite()) {
        pacing->written(block, nowMs);
        ++blocks;
    }
    return blocks;
}

} // namespace

TEST(Pacing, WaitsTenMillisecondsForWhateverComes)
{
    Pacing pacing(0);
    EXPECT_EQ(pacing.pauseMs(false, 0), 10);
    pacing.beginWriting(false, 0);
    EXPECT_EQ(pacing.pauseMs(false, 0), 10);
}

TEST(Pacing, LooksLessOftenWhileAFileComesIn)
{
    Pacing pacing(0);
    qint64 nowMs = 0;
    runFor(&pacing, &nowMs, 2000, 11500);
    EXPECT_EQ(pacing.pauseMs(false, nowMs), 10);
    EXPECT_EQ(pacing.pauseMs(true, nowMs), 20);
}

TEST(Pacing, LooksMoreOftenOnAFastLine)
{
    Pacing pacing(0);
    qint64 nowMs = 0;
    runFor(&pacing, &nowMs, 2000, 20100);
    EXPECT_EQ(pacing.pauseMs(true, nowMs), 5);
    runFor(&pacing, &nowMs, 2000, 19900);
    EXPECT_EQ(pacing.pauseMs(true, nowMs), 20);
    runFor(&pacing, &nowMs, 2000, 0);
    EXPECT_EQ(pacing.pauseMs(false, nowMs), 10) << "nothing has come for a while";
}

// The channel waits for room in the driver while it writes.
TEST(Pacing, APassThatSentLastsFiveMilliseconds)
{
    Pacing pacing(0);
    pacing.rested(100);
    pacing.beginWriting(false, 100);
    pacing.written(block, 100);
    EXPECT_EQ(pacing.pauseMs(false, 100), 5);
    EXPECT_EQ(pacing.pauseMs(false, 103), 2);
    EXPECT_EQ(pacing.pauseMs(false, 105), 0);
    EXPECT_EQ(pacing.pauseMs(false, 250), 0);
}

// 60 bytes take 17 ms at 33600 bit/s, 62 ms at 9600.
TEST(Pacing, PassesAreRarerOnASlowLine)
{
    const struct
    {
        int bytesPerS, sendingMs, receivingMs;
    } lines[] = {{11500, 5, 20}, {3400, 17, 20}, {2000, 25, 30}, {900, 25, 40}};
    for (const auto& line : lines) {
        Pacing receiving(0);
        qint64 nowMs = 0;
        runFor(&receiving, &nowMs, 2000, line.bytesPerS);
        EXPECT_EQ(receiving.pauseMs(true, nowMs), line.receivingMs) << line.bytesPerS;
        EXPECT_EQ(receiving.pauseMs(false, nowMs), 10) << line.bytesPerS;

        Pacing sending(0);
        nowMs = 0;
        runFor(&sending, &nowMs, 2000, 0, line.bytesPerS);
        sending.rested(nowMs);
        EXPECT_EQ(sending.pauseMs(false, nowMs), line.sendingMs) << line.bytesPerS;
        EXPECT_EQ(sending.pauseMs(false, nowMs + 4), line.sendingMs - 4) << line.bytesPerS;
    }
}

TEST(Pacing, AFullChannelIsAskedAgainSoon)
{
    Pacing pacing(0);
    pacing.rested(100);
    pacing.beginWriting(true, 100);
    EXPECT_EQ(pacing.pauseMs(true, 101), 4);
}

TEST(Pacing, WritesWhateverThereIsWhileThePeerOnlyAnswers)
{
    Pacing pacing(0);
    EXPECT_EQ(blocksOfAPass(&pacing, 0), 10000) << "nothing is known yet";
    qint64 nowMs = 0;
    runFor(&pacing, &nowMs, 2000, 200);
    EXPECT_EQ(blocksOfAPass(&pacing, nowMs), 10000);
}

// 30 ms of 11500 bytes/s are 345 bytes; those of 92100, 2763.
TEST(Pacing, WritesLittleAPassWhileThePeerSendsToo)
{
    Pacing pacing(0);
    qint64 nowMs = 0;
    runFor(&pacing, &nowMs, 2000, 11500);
    EXPECT_EQ(blocksOfAPass(&pacing, nowMs), 1) << "one block always goes";
    runFor(&pacing, &nowMs, 2000, 92100);
    EXPECT_EQ(blocksOfAPass(&pacing, nowMs), 6);
}

// Passes of 100 ms: 2 x 100 ms of 11500 bytes/s are 2300 bytes.
TEST(Pacing, LongPassesCarryMore)
{
    Pacing pacing(0);
    qint64 nowMs = 0;
    runFor(&pacing, &nowMs, 2000, 11500);
    blocksOfAPass(&pacing, nowMs);
    EXPECT_EQ(blocksOfAPass(&pacing, nowMs + 100), 5);
}

// A trickle the other way does not hold up a line that carries much.
TEST(Pacing, TheFasterWayCounts)
{
    Pacing pacing(0);
    qint64 nowMs = 0;
    runFor(&pacing, &nowMs, 2000, 1000, 92100);
    EXPECT_EQ(blocksOfAPass(&pacing, nowMs), 6);
}
