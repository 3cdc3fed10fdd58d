// Faults of modems and lines on command: dropped carrier, silence, unplugging, power, noise, calls from nobody.
#include "sim/line/moments.h"
#include "tests/sim/exchangefixture.h"

#include <QFile>
#include <gtest/gtest.h>

using namespace simtest;

TEST_F(ExchangeTest, CarrierDropsByCommand)
{
    make(quick());
    EXPECT_EQ(exchange->dropCarrier(1), QStringLiteral("modem1 has no connection"));
    connectCall();
    EXPECT_EQ(exchange->dropCarrier(1), QString());
    EXPECT_TRUE(at(1).expect("\r\nNO CARRIER\r\n"));
    EXPECT_TRUE(at(2).expect("\r\nNO CARRIER\r\n"));
    EXPECT_FALSE(at(1).hasLine(QSerialPort::DataCarrierDetectSignal));
    ASSERT_TRUE(waitForEnds(1));
    EXPECT_EQ(lastCall().end, QStringLiteral("carrier dropped by command"));
}

TEST_F(ExchangeTest, CarrierDropsAfterExactlySoManyBytesOfTheFirstCalls)
{
    make(quick("rate=115200,drop-after-bytes=1000,drop-times=1"));
    connectCall();
    const QByteArray block = pattern(5000);
    at(1).send(block);
    ASSERT_TRUE(at(2).expect("\r\nNO CARRIER\r\n"));
    ASSERT_TRUE(waitForEnds(1));
    EXPECT_EQ(lastCall().forward.bytesDelivered, 1000);
    EXPECT_EQ(lastCall().end, QStringLiteral("the line dropped carrier"));
    ASSERT_TRUE(at(1).expect("\r\nNO CARRIER\r\n"));
    // Its driver still holds what was not sent; the next call is not dropped.
    replug(1);
    replug(2);
    ASSERT_EQ(exchange->unplug(1), QString());
    ASSERT_EQ(exchange->plugIn(1), QString());
    connectCall();
    at(1).send(block);
    EXPECT_TRUE(at(2).expect(block));
}

TEST_F(ExchangeTest, CarrierDropsAfterATime)
{
    make(quick("drop-after-seconds=0.3"));
    connectCall();
    ASSERT_TRUE(at(1).expect("\r\nNO CARRIER\r\n"));
    ASSERT_TRUE(waitForEnds(1));
    EXPECT_GE(lastCall().connectedNs, 300 * nsPerMs);
    EXPECT_LT(lastCall().connectedNs, 10000 * nsPerMs);
}

TEST_F(ExchangeTest, ASilentModem)
{
    CallSettings settings = quick();
    settings.noAnswerAfterMs = 200;
    make(settings);
    ASSERT_EQ(exchange->setSilent(2, true), QString());
    at(2).send("AT\r");
    at(1).send("ATE0D102\r");
    EXPECT_TRUE(at(1).expect("\r\nNO ANSWER\r\n"));
    EXPECT_TRUE(waitFor([&] { return drained(at(2)); }));
    EXPECT_TRUE(at(2).hasLine(QSerialPort::DataSetReadySignal));
    ASSERT_EQ(exchange->setSilent(2, false), QString());
    at(2).send("ATI1\r");
    // What it was sent while silent is gone.
    EXPECT_TRUE(at(2).expect("ATI1\r\r\n102\r\n"));
    EXPECT_FALSE(at(2).received.contains("AT\r"));
}

TEST_F(ExchangeTest, SilenceInACallStopsItsBytesAndKeepsItsCarrier)
{
    make(quick());
    connectCall();
    ASSERT_EQ(exchange->setSilent(1, true), QString());
    at(1).send("unheard");
    at(2).send("unheard too");
    ASSERT_TRUE(waitFor([&] { return drained(at(1)) && drained(at(2)); }));
    EXPECT_TRUE(at(2).hasLine(QSerialPort::DataCarrierDetectSignal));
    ASSERT_EQ(exchange->setSilent(1, false), QString());
    at(1).send("heard");
    EXPECT_TRUE(at(2).expect("heard"));
    EXPECT_FALSE(at(2).received.contains("unheard"));
}

TEST_F(ExchangeTest, UnpluggingFailsThePortAndEndsTheCall)
{
    make(quick());
    connectCall();
    ASSERT_EQ(exchange->unplug(1), QString());
    EXPECT_TRUE(at(2).expect("\r\nNO CARRIER\r\n"));
    EXPECT_FALSE(QFile::exists(exchange->portPath(1)));
    EXPECT_TRUE(waitFor([&] { return at(1).port.error() != QSerialPort::NoError; }));
    EXPECT_FALSE(exchange->status(1).plugged);
    EXPECT_EQ(exchange->unplug(1), QStringLiteral("modem1 is unplugged already"));
    replug(1);
    ASSERT_EQ(exchange->plugIn(1), QString());
    EXPECT_EQ(exchange->plugIn(1), QStringLiteral("modem1 is plugged in already"));
    connectCall();
    at(1).send("back again");
    EXPECT_TRUE(at(2).expect("back again"));
}

TEST_F(ExchangeTest, PowerOffDropsTheLinesAndPowerOnRaisesThem)
{
    make(quick());
    connectCall();
    ASSERT_EQ(exchange->setPowered(1, false), QString());
    EXPECT_TRUE(at(2).expect("\r\nNO CARRIER\r\n"));
    EXPECT_FALSE(at(1).hasLine(QSerialPort::DataSetReadySignal));
    EXPECT_FALSE(at(1).hasLine(QSerialPort::DataCarrierDetectSignal));
    at(1).send("AT\r");
    ASSERT_TRUE(waitFor([&] { return drained(at(1)); }));
    ASSERT_EQ(exchange->setPowered(1, true), QString());
    EXPECT_TRUE(at(1).hasLine(QSerialPort::DataSetReadySignal));
    at(1).send("ATI1\r");
    EXPECT_TRUE(at(1).expect("ATI1\r\r\n101\r\n"));
}

TEST_F(ExchangeTest, BusyNoDialToneAndNoAnswerOnCommand)
{
    CallSettings settings = quick();
    settings.noAnswerAfterMs = 200;
    make(settings);
    ASSERT_EQ(exchange->setBusy(2, true), QString());
    at(1).send("ATE0D102\r");
    EXPECT_TRUE(at(1).expect("\r\nBUSY\r\n"));
    ASSERT_EQ(exchange->setBusy(2, false), QString());
    ASSERT_EQ(exchange->setDialTone(1, false), QString());
    at(1).send("ATD102\r");
    EXPECT_TRUE(at(1).expect("\r\nNO DIALTONE\r\n"));
    ASSERT_EQ(exchange->setDialTone(1, true), QString());
    ASSERT_EQ(exchange->setAnswering(2, false), QString());
    at(1).send("ATD102\r");
    EXPECT_TRUE(at(1).expect("\r\nNO ANSWER\r\n"));
    at(2).send("AT\r");
    ASSERT_TRUE(at(2).expect("OK\r\n"));
    EXPECT_FALSE(at(2).received.contains("RING"));
    ASSERT_EQ(exchange->setAnswering(2, true), QString());
    connectCall();
}

TEST_F(ExchangeTest, NoiseSpoilsTheSameBitsForTheSameSeed)
{
    QByteArray first;
    for (int round = 0; round < 2; ++round) {
        make(quick("rate=115200,ber=0.005,seed=77"));
        connectCall();
        const QByteArray block = pattern(4000);
        at(1).send(block);
        ASSERT_TRUE(waitFor([&] {
            at(2).received += at(2).port.readAll();
            return at(2).received.size() >= block.size();
        }));
        EXPECT_NE(at(2).received, block);
        if (round == 0)
            first = at(2).received;
        EXPECT_EQ(at(2).received, first);
        replug(1);
        replug(2);
        exchange.reset();
    }
}

TEST_F(ExchangeTest, NoiseGoesOffAndOnDuringACall)
{
    make(quick("rate=115200,ber=0.02"));
    connectCall();
    const QByteArray block = pattern(2000);
    ASSERT_EQ(exchange->setNoise(0, false), QString());
    at(1).send(block);
    ASSERT_TRUE(at(2).expect(block));
    ASSERT_EQ(exchange->setNoise(2, true), QString());
    // Still off at the other end of the line.
    at(1).send(block);
    ASSERT_TRUE(at(2).expect(block));
    ASSERT_EQ(exchange->setNoise(1, true), QString());
    at(1).send(block);
    ASSERT_TRUE(waitFor([&] {
        at(2).received += at(2).port.readAll();
        return at(2).received.size() >= block.size();
    }));
    EXPECT_NE(at(2).received, block);
    ASSERT_EQ(exchange->dropCarrier(1), QString());
    ASSERT_TRUE(waitForEnds(1));
    EXPECT_GT(lastCall().forward.bitsFlipped, 0);
    EXPECT_GT(lastCall().forward.bytesSpoiled, 0);
    EXPECT_EQ(lastCall().backward.bitsFlipped, 0);
}

TEST_F(ExchangeTest, AChangedLineIsThatOfLaterCalls)
{
    make(quick("rate=9600"));
    ASSERT_EQ(exchange->changeLine(QStringLiteral("rate=2400")), QString());
    EXPECT_NE(exchange->changeLine(QStringLiteral("rate=fast")), QString());
    EXPECT_EQ(exchange->line().rateForward, 2400);
    at(2);
    at(1).send("ATE0D102\r");
    ASSERT_TRUE(at(2).expect("RING\r\n"));
    at(2).send("ATA\r");
    EXPECT_TRUE(at(1).expect("CONNECT 2400\r\n"));
}

TEST_F(ExchangeTest, ACallFromNobody)
{
    make(quick());
    at(2).send("ATE0S7=1\r");
    ASSERT_TRUE(at(2).expect("OK\r\n"));
    ASSERT_EQ(exchange->ring(2, 2), QString());
    EXPECT_EQ(exchange->ring(2, 2), QStringLiteral("modem2 has a call already"));
    EXPECT_TRUE(at(2).expect("RING\r\n"));
    EXPECT_TRUE(at(2).expect("RING\r\n"));
    EXPECT_TRUE(waitFor([&] { return exchange->activeCalls() == 0; }));
    EXPECT_FALSE(at(2).received.contains("RING"));
    ASSERT_EQ(exchange->ring(2, -1), QString());
    EXPECT_TRUE(at(2).expect("RING\r\n"));
    at(2).send("ATA\r");
    EXPECT_TRUE(at(2).expect("\r\nNO CARRIER\r\n"));
    EXPECT_EQ(exchange->endedCalls().size(), 0);
}

TEST_F(ExchangeTest, SaysWhatItIsTold)
{
    make(quick());
    at(1);
    ASSERT_EQ(exchange->say(1, QStringLiteral("VOICE CALL")), QString());
    EXPECT_TRUE(at(1).expect("\r\nVOICE CALL\r\n"));
    ASSERT_EQ(exchange->setSilent(1, true), QString());
    EXPECT_EQ(exchange->say(1, QStringLiteral("x")), QStringLiteral("modem1 cannot say anything now"));
}

TEST_F(ExchangeTest, CommandsForAModemThatThereIsNot)
{
    make(quick());
    const QString none = QStringLiteral("there is no modem 3");
    EXPECT_EQ(exchange->dropCarrier(3), none);
    EXPECT_EQ(exchange->setSilent(3, true), none);
    EXPECT_EQ(exchange->setPowered(3, true), none);
    EXPECT_EQ(exchange->unplug(3), none);
    EXPECT_EQ(exchange->plugIn(3), none);
    EXPECT_EQ(exchange->setBusy(3, true), none);
    EXPECT_EQ(exchange->setDialTone(3, true), none);
    EXPECT_EQ(exchange->setAnswering(3, true), none);
    EXPECT_EQ(exchange->setNoise(3, true), none);
    EXPECT_EQ(exchange->ring(3, 1), none);
    EXPECT_EQ(exchange->say(3, none), none);
    EXPECT_EQ(exchange->portPath(0), QString());
}
