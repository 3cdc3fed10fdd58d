// Whole calls through the exchange: two programs on real serial ports, the lines between
// them, and the faults.
#include "rig/deadline.h"
#include "rig/testroot.h"
#include "sim/exchange/exchange.h"
#include "sim/line/moments.h"
#include "sim/pty/signaltable.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSerialPort>
#include <gtest/gtest.h>

#include <map>
#include <sys/ioctl.h>

using namespace sim;
using testsupport::waitFor;

namespace {

// A program at a modem: a real serial port and what came from it.
class Program
{
public:
    explicit Program(const QString& path)
    {
        port.setPortName(path);
        port.open(QIODevice::ReadWrite);
        port.setDataTerminalReady(true);
    }

    void send(const QByteArray& bytes) { port.write(bytes); }

    // Waits until text has come, and forgets all up to its end.
    bool expect(const QByteArray& text)
    {
        const bool found = waitFor([&] {
            received += port.readAll();
            return received.contains(text);
        });
        if (found)
            received.remove(0, received.indexOf(text) + text.size());
        return found;
    }

    bool hasLine(QSerialPort::PinoutSignal pin) { return port.pinoutSignals() & pin; }

    QSerialPort port;
    QByteArray received;
};

class ExchangeTest : public testing::Test
{
protected:
    // Quick where the exchange's own pauses are not the matter of a test.
    CallSettings quick(const char* line = "rate=115200") const
    {
        CallSettings settings;
        QString error;
        EXPECT_TRUE(settings.line.change(QString::fromLatin1(line), &error)) << error.toStdString();
        settings.ringIntervalMs = 100;
        settings.ringLengthMs = 50;
        return settings;
    }

    void make(const CallSettings& settings, int modems = 2, RingStyle ringStyle = RingStyle::Text)
    {
        exchange = std::make_unique<Exchange>(settings);
        for (int i = 1; i <= modems; ++i)
            ASSERT_EQ(add(QString::number(100 + i), ringStyle), i);
        exchange->start();
    }

    int add(const QString& number, RingStyle ringStyle = RingStyle::Text)
    {
        ModemSettings settings;
        settings.number = number;
        settings.ringStyle = ringStyle;
        settings.linkPath = QStringLiteral("%1/modem%2").arg(testsupport::installRoot(), number);
        QString error;
        const int modem = exchange->addModem(settings, &error);
        EXPECT_GT(modem, 0) << error.toStdString();
        return modem;
    }

    // The program at a modem; opened when first asked for.
    Program& at(int modem)
    {
        auto& program = m_programs[modem];
        if (!program)
            program = std::make_unique<Program>(exchange->portPath(modem));
        return *program;
    }

    void replug(int modem) { m_programs.erase(modem); }

    void connectCall(int caller = 1, int called = 2)
    {
        at(called);
        at(caller).send("ATE0DT" + QByteArray::number(100 + called) + "\r");
        ASSERT_TRUE(at(called).expect("\r\nRING\r\n"));
        at(called).send("ATA\r");
        ASSERT_TRUE(at(called).expect("CONNECT "));
        ASSERT_TRUE(at(called).expect("\r\n"));
        ASSERT_TRUE(at(caller).expect("CONNECT "));
        ASSERT_TRUE(at(caller).expect("\r\n"));
    }

    bool waitForEnds(int count)
    {
        return waitFor([&] { return exchange->endedCalls().size() >= count; });
    }

    CallStatistics lastCall() const { return exchange->endedCalls().last(); }

    // At which bytes leave a modem's driver, as programs are told: in bytes/s, 0 where that is not known.
    int pace(int modem) const
    {
        const QString slave = QFileInfo(exchange->portPath(modem)).canonicalFilePath();
        const SignalRow* row = signalRow(findSignalTable(), QFileInfo(slave).fileName().toInt());
        return row ? row->drainBytesPerS.load() : -1;
    }

    bool waitForPaces(int ofFirst, int ofSecond)
    {
        return waitFor([&] { return pace(1) == ofFirst && pace(2) == ofSecond; });
    }

    std::unique_ptr<Exchange> exchange;

private:
    std::map<int, std::unique_ptr<Program>> m_programs;
};

// Whether the modem has taken all that the program wrote.
bool drained(Program& program)
{
    int bytes = -1;
    return program.port.bytesToWrite() == 0 && ioctl(program.port.handle(), TIOCOUTQ, &bytes) == 0 && bytes == 0;
}

QByteArray pattern(int size)
{
    QByteArray bytes;
    for (int i = 0; i < size; ++i)
        bytes += static_cast<char>(i * 7 + i / 251);
    return bytes;
}

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

class ExchangeRateTest : public ExchangeTest, public testing::WithParamInterface<int>
{
};

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

} // namespace
