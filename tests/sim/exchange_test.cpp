// Whole calls through the exchange: two programs on real serial ports and the lines between them.
#include "sim/line/moments.h"
#include "tests/sim/exchangefixture.h"

#include <QElapsedTimer>
#include <gtest/gtest.h>

using namespace simtest;

TEST_F(ExchangeTest, AModemAnswersItsProgram)
{
    make(quick());
    EXPECT_TRUE(at(1).hasLine(QSerialPort::DataSetReadySignal));
    EXPECT_TRUE(at(1).hasLine(QSerialPort::ClearToSendSignal));
    EXPECT_FALSE(at(1).hasLine(QSerialPort::DataCarrierDetectSignal));
    at(1).send("AT\r");
    EXPECT_TRUE(at(1).expect("AT\r\r\nOK\r\n"));
    at(2).send("ATI1\r");
    EXPECT_TRUE(at(2).expect("ATI1\r\r\n102\r\n\r\nOK\r\n"));
}

TEST_F(ExchangeTest, ACallCarriesBytesBothWays)
{
    make(quick("rate=115200/57600"));
    at(2);
    at(1).send("ATE0D102\r");
    ASSERT_TRUE(at(2).expect("\r\nRING\r\n"));
    EXPECT_FALSE(at(2).hasLine(QSerialPort::DataCarrierDetectSignal));
    at(2).send("ATE0A\r");
    // Each side is told the speed at which it receives.
    ASSERT_TRUE(at(2).expect("\r\nCONNECT 115200\r\n"));
    ASSERT_TRUE(at(1).expect("\r\nCONNECT 57600\r\n"));
    EXPECT_TRUE(at(1).hasLine(QSerialPort::DataCarrierDetectSignal));
    EXPECT_TRUE(at(2).hasLine(QSerialPort::DataCarrierDetectSignal));
    EXPECT_EQ(exchange->activeCalls(), 1);

    const QByteArray there = pattern(6000);
    const QByteArray back = pattern(3000);
    at(1).send(there);
    at(2).send(back);
    EXPECT_TRUE(at(2).expect(there));
    EXPECT_TRUE(at(1).expect(back));

    ASSERT_TRUE(at(1).port.setDataTerminalReady(false));
    EXPECT_TRUE(at(1).expect("\r\nNO CARRIER\r\n"));
    EXPECT_TRUE(at(2).expect("\r\nNO CARRIER\r\n"));
    EXPECT_FALSE(at(1).hasLine(QSerialPort::DataCarrierDetectSignal));
    EXPECT_FALSE(at(2).hasLine(QSerialPort::DataCarrierDetectSignal));
    ASSERT_TRUE(waitForEnds(1));
    const CallStatistics call = lastCall();
    EXPECT_EQ(call.call, 1);
    EXPECT_EQ(call.caller, 1);
    EXPECT_EQ(call.called, 2);
    EXPECT_EQ(call.number, QStringLiteral("102"));
    EXPECT_TRUE(call.connected);
    EXPECT_EQ(call.end, QStringLiteral("modem1 hung up"));
    EXPECT_EQ(call.forward.bytesCarried, 6000);
    EXPECT_EQ(call.forward.bytesDelivered, 6000);
    EXPECT_EQ(call.backward.bytesCarried, 3000);
    EXPECT_EQ(call.forward.bitsFlipped, 0);
    EXPECT_NEAR(static_cast<double>(call.forward.busyNs), 6000 * 10 / 115200.0 * 1e9, 1e6);
    EXPECT_GT(call.connectedNs, call.forward.busyNs);
    EXPECT_EQ(exchange->activeCalls(), 0);
}

namespace {

class ExchangeRateTest : public ExchangeTest, public testing::WithParamInterface<int>
{
};

} // namespace

TEST_P(ExchangeRateTest, TheLineHoldsItsRate)
{
    constexpr double expectedSeconds = 0.7;
    const int rate = GetParam();
    make(quick(qPrintable(QStringLiteral("rate=%1").arg(rate))));
    connectCall();
    const QByteArray block = pattern(static_cast<int>(rate / 10 * expectedSeconds));
    QElapsedTimer timer;
    timer.start();
    at(1).send(block);
    ASSERT_TRUE(waitFor([&] {
        at(2).received += at(2).port.readAll();
        return at(2).received.size() >= block.size();
    }));
    const double seconds = static_cast<double>(timer.nsecsElapsed()) / 1e9;
    EXPECT_EQ(at(2).received, block);
    // Never faster; slower only as far as a busy machine makes this program late.
    EXPECT_GE(seconds, expectedSeconds * 0.99);
    EXPECT_LE(seconds, expectedSeconds * 8);
}

INSTANTIATE_TEST_SUITE_P(Rates, ExchangeRateTest, testing::Values(9600, 33600, 921600));

TEST_F(ExchangeTest, TheDriversDepthFillsAndEmptiesByTheLine)
{
    make(quick("rate=9600"));
    connectCall();
    QElapsedTimer timer;
    timer.start();
    at(1).send(pattern(8000));
    // All but the first part stays in the program: the driver takes 4096 bytes and no more
    // than the line has carried since.
    ASSERT_TRUE(waitFor([&] { return at(1).port.bytesToWrite() <= 8000 - 4096; }));
    const qint64 inDriver = 8000 - at(1).port.bytesToWrite();
    EXPECT_LE(inDriver, 4096 + 1 + 960 * timer.elapsed() / 1000);
}

TEST_F(ExchangeTest, TheLineDelays)
{
    make(quick("rate=115200,delay=300"));
    connectCall();
    QElapsedTimer timer;
    timer.start();
    at(1).send("x");
    ASSERT_TRUE(at(2).expect("x"));
    EXPECT_GE(timer.elapsed(), 300);
}

TEST_F(ExchangeTest, BytesUnderWayArriveAfterAHangUp)
{
    make(quick("rate=115200,delay=300"));
    connectCall();
    at(1).send("last words");
    ASSERT_TRUE(waitFor([&] { return drained(at(1)); }));
    ASSERT_TRUE(at(1).port.setDataTerminalReady(false));
    EXPECT_TRUE(at(2).expect("last words\r\nNO CARRIER\r\n"));
    EXPECT_EQ(at(2).received, QByteArray());
}

TEST_F(ExchangeTest, TheEscapeAndAthEndACall)
{
    make(quick());
    at(1).send("ATS12=5\r");
    ASSERT_TRUE(at(1).expect("OK\r\n"));
    connectCall();
    at(1).send("data");
    ASSERT_TRUE(at(2).expect("data"));
    // The guard time before it, as the program has to keep it.
    QElapsedTimer guard;
    guard.start();
    ASSERT_TRUE(waitFor([&] { return guard.elapsed() > 150; }));
    at(1).send("+++");
    ASSERT_TRUE(at(1).expect("\r\nOK\r\n"));
    EXPECT_TRUE(at(1).hasLine(QSerialPort::DataCarrierDetectSignal));
    at(1).send("ATO\r");
    ASSERT_TRUE(at(1).expect("CONNECT 115200\r\n"));
    at(1).send("more");
    ASSERT_TRUE(at(2).expect("+++more"));
    guard.restart();
    ASSERT_TRUE(waitFor([&] { return guard.elapsed() > 150; }));
    at(1).send("+++");
    ASSERT_TRUE(at(1).expect("\r\nOK\r\n"));
    at(1).send("\rATH\r");
    ASSERT_TRUE(at(1).expect("\r\nOK\r\n"));
    EXPECT_FALSE(at(1).hasLine(QSerialPort::DataCarrierDetectSignal));
    EXPECT_TRUE(at(2).expect("\r\nNO CARRIER\r\n"));
}

// Commands are taken at once: a program that waits for room must not count on the line's pace then.
TEST_F(ExchangeTest, ProgramsAreToldTheLinesPaceInDataModeOnly)
{
    make(quick("rate=115200/57600"));
    at(1).send("ATS12=5\r");
    ASSERT_TRUE(at(1).expect("OK\r\n"));
    EXPECT_TRUE(waitForPaces(0, 0)) << pace(1) << ' ' << pace(2);
    connectCall();
    EXPECT_TRUE(waitForPaces(11520, 5760)) << pace(1) << ' ' << pace(2);
    QElapsedTimer guard;
    guard.start();
    ASSERT_TRUE(waitFor([&] { return guard.elapsed() > 150; }));
    at(1).send("+++");
    ASSERT_TRUE(at(1).expect("\r\nOK\r\n"));
    EXPECT_TRUE(waitForPaces(0, 5760)) << pace(1) << ' ' << pace(2);
    at(1).send("ATO\r");
    ASSERT_TRUE(at(1).expect("CONNECT 57600\r\n"));
    EXPECT_TRUE(waitForPaces(11520, 5760)) << pace(1) << ' ' << pace(2);
    ASSERT_TRUE(at(1).port.setDataTerminalReady(false));
    ASSERT_TRUE(at(2).expect("\r\nNO CARRIER\r\n"));
    EXPECT_TRUE(waitForPaces(0, 0)) << pace(1) << ' ' << pace(2);
}

TEST_F(ExchangeTest, AnsweringByItself)
{
    make(quick());
    at(2).send("ATS0=2\r");
    ASSERT_TRUE(at(2).expect("OK\r\n"));
    at(1).send("ATD102\r");
    ASSERT_TRUE(at(2).expect("\r\nRING\r\n"));
    ASSERT_TRUE(at(2).expect("\r\nRING\r\n"));
    EXPECT_TRUE(at(2).expect("CONNECT 115200\r\n"));
    EXPECT_TRUE(at(1).expect("CONNECT 115200\r\n"));
}

TEST_F(ExchangeTest, RingingByThePin)
{
    make(quick(), 2, RingStyle::Pin);
    at(2);
    at(1).send("ATD102\r");
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(waitFor([&] { return at(2).hasLine(QSerialPort::RingIndicatorSignal); }));
        ASSERT_TRUE(waitFor([&] { return !at(2).hasLine(QSerialPort::RingIndicatorSignal); }));
    }
    at(2).send("ATE0A\r");
    ASSERT_TRUE(at(2).expect("CONNECT 115200\r\n"));
    EXPECT_FALSE(at(2).hasLine(QSerialPort::RingIndicatorSignal));
    EXPECT_FALSE(at(2).received.contains("RING"));
}

TEST_F(ExchangeTest, NobodyHasTheNumber)
{
    make(quick());
    at(1).send("ATE0D999\r");
    EXPECT_TRUE(at(1).expect("\r\nNO CARRIER\r\n"));
    ASSERT_TRUE(waitForEnds(1));
    EXPECT_EQ(lastCall().called, 0);
    EXPECT_FALSE(lastCall().connected);
    EXPECT_EQ(lastCall().end, QStringLiteral("nobody has that number"));
}

TEST_F(ExchangeTest, BusyOffHookInACallAndOneself)
{
    make(quick(), 3);
    at(1).send("ATE0D101\r");
    EXPECT_TRUE(at(1).expect("\r\nBUSY\r\n"));
    at(2).send("ATH1\r");
    ASSERT_TRUE(at(2).expect("OK\r\n"));
    at(1).send("ATD102\r");
    EXPECT_TRUE(at(1).expect("\r\nBUSY\r\n"));
    at(2).send("ATH\r");
    ASSERT_TRUE(at(2).expect("OK\r\n"));
    connectCall();
    at(3).send("ATE0D102\r");
    EXPECT_TRUE(at(3).expect("\r\nBUSY\r\n"));
    at(3).send("ATD101\r");
    EXPECT_TRUE(at(3).expect("\r\nBUSY\r\n"));
}

TEST_F(ExchangeTest, BusyWhileItRings)
{
    make(quick(), 3);
    at(2);
    at(1).send("ATE0D102\r");
    ASSERT_TRUE(at(2).expect("\r\nRING\r\n"));
    at(3).send("ATE0D102\r");
    EXPECT_TRUE(at(3).expect("\r\nBUSY\r\n"));
    at(2).send("ATE0A\r");
    EXPECT_TRUE(at(2).expect("CONNECT 115200\r\n"));
    EXPECT_TRUE(at(1).expect("CONNECT 115200\r\n"));
}

TEST_F(ExchangeTest, WhoDialsWhileItRingsEndsBothCalls)
{
    make(quick());
    at(2);
    at(1).send("ATE0D102\r");
    ASSERT_TRUE(at(2).expect("\r\nRING\r\n"));
    at(2).send("ATE0D101\r");
    EXPECT_TRUE(at(2).expect("\r\nNO DIALTONE\r\n"));
    EXPECT_TRUE(at(1).expect("\r\nNO CARRIER\r\n"));
    ASSERT_TRUE(waitForEnds(2));
    EXPECT_EQ(exchange->endedCalls().at(0).end, QStringLiteral("modem2 dialled instead of answering"));
    EXPECT_EQ(exchange->endedCalls().at(1).end, QStringLiteral("no dial tone"));
}

TEST_F(ExchangeTest, NoAnswer)
{
    CallSettings settings = quick();
    settings.noAnswerAfterMs = 250;
    make(settings);
    at(2);
    QElapsedTimer timer;
    timer.start();
    at(1).send("ATE0D102\r");
    EXPECT_TRUE(at(1).expect("\r\nNO ANSWER\r\n"));
    EXPECT_GE(timer.elapsed(), 250);
    EXPECT_TRUE(at(2).expect("\r\nRING\r\n"));
    // Whoever answers now finds nobody.
    at(2).send("ATA\r");
    EXPECT_TRUE(at(2).expect("\r\nNO CARRIER\r\n"));
}

TEST_F(ExchangeTest, S7ShortensTheWait)
{
    make(quick());
    at(1).send("ATE0S7=1D102\r");
    EXPECT_TRUE(at(1).expect("\r\nNO ANSWER\r\n"));
    ASSERT_TRUE(waitForEnds(1));
    EXPECT_GE(lastCall().waitedNs, 1000 * nsPerMs);
    EXPECT_LT(lastCall().waitedNs, 30000 * nsPerMs);
}

TEST_F(ExchangeTest, TheCallerGivesUp)
{
    make(quick());
    at(2);
    at(1).send("ATE0D102\r");
    ASSERT_TRUE(at(2).expect("\r\nRING\r\n"));
    at(1).send("\r");
    ASSERT_TRUE(at(1).expect("\r\nNO CARRIER\r\n"));
    ASSERT_TRUE(waitForEnds(1));
    EXPECT_EQ(lastCall().end, QStringLiteral("modem1 hung up"));
    at(2).send("ATA\r");
    EXPECT_TRUE(at(2).expect("\r\nNO CARRIER\r\n"));
}

TEST_F(ExchangeTest, PausesOfTheDialStringAreKept)
{
    make(quick());
    at(2);
    QElapsedTimer timer;
    timer.start();
    at(1).send("ATE0S8=1DT102,\r");
    ASSERT_TRUE(at(2).expect("\r\nRING\r\n"));
    EXPECT_GE(timer.elapsed(), 1000);
}

TEST_F(ExchangeTest, TrainingTakesItsTime)
{
    CallSettings settings = quick();
    settings.trainingMs = 300;
    make(settings);
    at(2);
    at(1).send("ATE0D102\r");
    ASSERT_TRUE(at(2).expect("\r\nRING\r\n"));
    QElapsedTimer timer;
    timer.start();
    at(2).send("ATA\r");
    ASSERT_TRUE(at(2).expect("CONNECT"));
    EXPECT_GE(timer.elapsed(), 300);
}

TEST_F(ExchangeTest, DtrDroppedAndRaisedWithoutACallDoesNothing)
{
    make(quick());
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(at(1).port.setDataTerminalReady(false));
        at(1).port.close();
        ASSERT_TRUE(at(1).port.open(QIODevice::ReadWrite));
        ASSERT_TRUE(at(1).port.setDataTerminalReady(true));
    }
    at(1).send("ATE0\r");
    ASSERT_TRUE(at(1).expect("OK\r\n"));
    EXPECT_FALSE(at(1).received.contains("NO CARRIER"));
    connectCall();
    at(1).send("still there");
    EXPECT_TRUE(at(2).expect("still there"));
}

TEST_F(ExchangeTest, AShortDtrDropHangsUpToo)
{
    make(quick());
    connectCall();
    ASSERT_TRUE(at(2).port.setDataTerminalReady(false));
    ASSERT_TRUE(at(2).port.setDataTerminalReady(true));
    EXPECT_TRUE(at(1).expect("\r\nNO CARRIER\r\n"));
    ASSERT_TRUE(waitForEnds(1));
    EXPECT_EQ(lastCall().end, QStringLiteral("modem2 hung up"));
}

TEST_F(ExchangeTest, SeveralCallsAtOnce)
{
    make(quick(), 4);
    connectCall(1, 2);
    connectCall(3, 4);
    at(1).send("from one");
    at(3).send("from three");
    EXPECT_TRUE(at(2).expect("from one"));
    EXPECT_TRUE(at(4).expect("from three"));
    EXPECT_EQ(exchange->activeCalls(), 2);
    EXPECT_EQ(exchange->dropCarrier(4), QString());
    EXPECT_TRUE(at(3).expect("NO CARRIER"));
    at(2).send("still");
    EXPECT_TRUE(at(1).expect("still"));
}

TEST_F(ExchangeTest, NumbersAreTakenOnceAndHaveDigits)
{
    make(quick());
    QString error;
    ModemSettings settings;
    settings.number = QStringLiteral("1-01");
    EXPECT_EQ(exchange->addModem(settings, &error), 0);
    EXPECT_EQ(error, QStringLiteral("the number 101 is that of modem1 already"));
    settings.number = QStringLiteral("none");
    EXPECT_EQ(exchange->addModem(settings, &error), 0);
    EXPECT_EQ(error, QStringLiteral("'none' is no telephone number: it has no digits"));
    EXPECT_EQ(exchange->modemCount(), 2);
    settings.number = QStringLiteral("+7 (495) 123-45-67");
    EXPECT_EQ(exchange->addModem(settings, &error), 3);
    at(1).send("ATE0D74951234567\r");
    EXPECT_TRUE(at(3).expect("RING"));
}

TEST_F(ExchangeTest, StoppingEndsItsCalls)
{
    make(quick());
    connectCall();
    exchange->stop();
    EXPECT_TRUE(at(1).expect("\r\nNO CARRIER\r\n"));
    EXPECT_FALSE(at(1).hasLine(QSerialPort::DataCarrierDetectSignal));
    ASSERT_EQ(exchange->endedCalls().size(), 1);
    EXPECT_EQ(lastCall().end, QStringLiteral("the exchange stopped"));
    exchange->start();
    at(1).send("AT\r");
    EXPECT_TRUE(at(1).expect("OK\r\n"));
}

TEST_F(ExchangeTest, TheObserverHearsWhatHappensAndMayUseTheExchange)
{
    exchange = std::make_unique<Exchange>(quick());
    std::mutex mutex;
    QStringList heard;
    int modems = -1;
    exchange->setObserver([&](const ExchangeEvent& event) {
        const int count = exchange->modemCount();
        std::lock_guard<std::mutex> locker(mutex);
        modems = count;
        heard += QStringLiteral("%1 %2").arg(event.modem).arg(event.text);
    });
    ASSERT_EQ(add(QStringLiteral("101")), 1);
    ASSERT_EQ(add(QStringLiteral("102")), 2);
    exchange->start();
    connectCall();
    ASSERT_EQ(exchange->dropCarrier(1), QString());
    ASSERT_TRUE(at(1).expect("NO CARRIER"));
    const QStringList expected = {"1 command ATE0DT102",
                                  "1 calls modem2",
                                  "2 answer RING",
                                  "2 command ATA",
                                  "0 call 1: modem1 and modem2 are connected",
                                  "1 DCD raised",
                                  "1 answer CONNECT 115200",
                                  "0 call 1 ended: carrier dropped by command",
                                  "1 DCD dropped",
                                  "1 answer NO CARRIER"};
    EXPECT_TRUE(waitFor([&] {
        std::lock_guard<std::mutex> locker(mutex);
        int found = 0;
        for (const QString& text : heard)
            found += found < expected.size() && text == expected.at(found);
        // DTR is looked at now and then: a busy exchange may notice it after the first command.
        return found == expected.size() && heard.contains(QStringLiteral("1 DTR raised"));
    })) << heard.join('\n').toStdString();
    std::lock_guard<std::mutex> locker(mutex);
    EXPECT_EQ(modems, 2);
}

TEST_F(ExchangeTest, AProgramThatDoesNotReadLosesOnlyWhatNobodyCanKeep)
{
    make(quick("rate=10000000"));
    connectCall();
    // Not read: what the port, the pty and the modem hold is kept, in order.
    at(2).port.setReadBufferSize(1);
    const QByteArray block = pattern(300000);
    at(1).send(block);
    ASSERT_TRUE(waitFor([&] { return drained(at(1)) && at(1).port.bytesToWrite() == 0; }));
    ASSERT_EQ(exchange->dropCarrier(1), QString());
    ASSERT_TRUE(waitForEnds(1));
    EXPECT_EQ(lastCall().forward.bytesCarried, 300000);
    EXPECT_GT(lastCall().forward.bytesLost, 0);
    at(2).port.setReadBufferSize(0);
    ASSERT_TRUE(waitFor([&] {
        at(2).received += at(2).port.readAll();
        return at(2).received.size() >= 65536;
    }));
    EXPECT_TRUE(block.startsWith(at(2).received.left(65536)));
}
