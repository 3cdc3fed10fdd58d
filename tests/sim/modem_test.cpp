// Every command and answer of a modem, fed byte by byte in a time of the test's own.
#include "sim/line/moments.h"
#include "sim/modem/modem.h"

#include <QStringList>
#include <gtest/gtest.h>

using namespace sim;

namespace {

// What a modem did, in order: "dial 123 +0", "answer", "hangUp", "RI 1".
class RecordingHost : public ModemHost
{
public:
    void toProgram(const QByteArray& bytes) override { program += bytes; }
    void toLine(char byte) override { line += byte; }
    void dial(const QString& number, qint64 pauseNs) override
    {
        calls += QStringLiteral("dial %1 +%2").arg(number).arg(pauseNs / nsPerMs);
    }
    void answer() override { calls += QStringLiteral("answer"); }
    void hangUp() override { calls += QStringLiteral("hangUp"); }
    void setCarrierDetect(bool raised) override { carrier = raised; }
    void setRingIndicator(bool raised) override { calls += QStringLiteral("RI %1").arg(raised); }
    void trace(const QString&) override {}

    QByteArray takeProgram() { return std::exchange(program, {}); }
    QStringList takeCalls() { return std::exchange(calls, {}); }

    QByteArray program;
    QByteArray line;
    QStringList calls;
    bool carrier = false;
};

class ModemTest : public testing::Test
{
protected:
    void type(const QByteArray& bytes)
    {
        for (const char byte : bytes)
            modem.byteFromProgram(byte, now);
    }

    // What the modem answers to a command, without its echo.
    QByteArray ask(const QByteArray& command)
    {
        host.takeProgram();
        type(command + '\r');
        QByteArray answer = host.takeProgram();
        if (answer.startsWith(command + '\r'))
            answer.remove(0, command.size() + 1);
        return answer;
    }

    void passMs(qint64 ms)
    {
        now += ms * nsPerMs;
        modem.advance(now);
    }

    void connectCall(int speed = 33600)
    {
        type("ATD102\r");
        modem.connected(speed, now);
        host.takeProgram();
        host.takeCalls();
    }

    static QByteArray framed(const QByteArray& text) { return "\r\n" + text + "\r\n"; }

    RecordingHost host;
    Modem modem{&host, QStringLiteral("101")};
    qint64 now = nsPerSecond;
};

const QByteArray ok("\r\nOK\r\n");
const QByteArray error("\r\nERROR\r\n");
const QByteArray noCarrier("\r\nNO CARRIER\r\n");

TEST_F(ModemTest, AnswersOkWithEcho)
{
    type("AT\r");
    EXPECT_EQ(host.takeProgram(), QByteArray("AT\r\r\nOK\r\n"));
}

TEST_F(ModemTest, EchoGoesOffAndOn)
{
    EXPECT_EQ(ask("ATE0"), ok);
    type("AT\r");
    EXPECT_EQ(host.takeProgram(), ok);
    EXPECT_EQ(ask("ATE1"), ok);
    type("AT\r");
    EXPECT_EQ(host.takeProgram(), "AT\r" + ok);
    EXPECT_EQ(ask("ATE2"), error);
}

TEST_F(ModemTest, TakesLowerCaseBlanksAndBackspace)
{
    EXPECT_EQ(ask("at"), ok);
    EXPECT_EQ(ask("aT e0 v1 q0"), ok);
    type("ATE1X\bX9\b4\r");
    EXPECT_EQ(host.takeProgram(), ok);
    type("ATE5\b1\r");
    EXPECT_EQ(host.takeProgram(), "ATE5\b1\r" + ok);
}

TEST_F(ModemTest, IgnoresWhatIsNoCommandLine)
{
    type("ATE0\r");
    host.takeProgram();
    type("\r\n+++\rhello\rBT\r");
    EXPECT_EQ(host.takeProgram(), QByteArray());
    type("xAT\r");
    EXPECT_EQ(host.takeProgram(), ok);
    type("AAT\r");
    EXPECT_EQ(host.takeProgram(), ok);
    type("\rATH\r");
    EXPECT_EQ(host.takeProgram(), ok);
}

TEST_F(ModemTest, RepeatsTheLastLine)
{
    type("ATE0S8?\r");
    EXPECT_EQ(host.takeProgram(), "ATE0S8?\r" + framed("002") + ok);
    type("A/");
    EXPECT_EQ(host.takeProgram(), framed("002") + ok);
}

TEST_F(ModemTest, RefusesWhatItDoesNotKnow)
{
    for (const char* line : {"ATG", "AT&", "AT&A", "AT\\", "ATX5", "AT&D4", "AT&C2", "ATH2", "ATI9", "ATS100=1",
                             "ATS0=256", "ATS1=3", "ATQ2", "ATV2", "AT+IPR=9600", "AT!"})
        EXPECT_EQ(ask(line), error) << line;
    EXPECT_EQ(ask("ATE1G"), error);
}

TEST_F(ModemTest, RefusesALineThatIsTooLong)
{
    EXPECT_EQ(ask("AT" + QByteArray(Modem::maxCommandLength, 'L')), ok);
    EXPECT_EQ(ask("AT" + QByteArray(Modem::maxCommandLength + 1, 'L')), error);
    EXPECT_EQ(ask("AT"), ok);
}

TEST_F(ModemTest, AcceptsWhatInitStringsHold)
{
    for (const char* line : {"AT&F1&C1&D2X4L1M1S0=0", "ATZ", "AT&F", "AT&K3&Q5&R1&S0W2\\N3%C3", "ATB0N1Y0P",
                             "ATT&G0&L0&M0&P1&T4&X0&Y0&J0", "ATF1C1"})
        EXPECT_EQ(ask(line), ok) << line;
}

TEST_F(ModemTest, AnswersInNumbers)
{
    type("ATE0V0\r");
    EXPECT_EQ(host.takeProgram(), QByteArray("ATE0V0\r0\r"));
    type("ATG\r");
    EXPECT_EQ(host.takeProgram(), QByteArray("4\r"));
    modem.ring(now);
    EXPECT_EQ(host.takeProgram(), QByteArray("2\r"));
    const struct
    {
        CallFailure failure;
        const char* answer;
    } failures[] = {{CallFailure::NoCarrier, "3\r"},
                    {CallFailure::NoDialTone, "6\r"},
                    {CallFailure::Busy, "7\r"},
                    {CallFailure::NoAnswer, "8\r"}};
    for (const auto& failure : failures) {
        type("ATD1\r");
        modem.callFailed(failure.failure);
        EXPECT_EQ(host.takeProgram(), QByteArray(failure.answer));
    }
    type("ATS12?\r");
    EXPECT_EQ(host.takeProgram(), QByteArray("050\r\n0\r"));
    const struct
    {
        int speed;
        const char* answer;
    } speeds[] = {{600, "9\r"},    {1200, "5\r"},    {2400, "10\r"},  {4800, "11\r"},  {7200, "13\r"},
                  {9600, "12\r"},  {12000, "14\r"},  {14400, "15\r"}, {19200, "16\r"}, {38400, "17\r"},
                  {57600, "18\r"}, {115200, "19\r"}, {33600, "1\r"}};
    for (const auto& speed : speeds) {
        type("ATD1\r");
        modem.connected(speed.speed, now);
        EXPECT_EQ(host.takeProgram(), QByteArray(speed.answer)) << speed.speed;
        modem.carrierLost();
        EXPECT_EQ(host.takeProgram(), QByteArray("3\r"));
    }
    type("ATV1\r");
    EXPECT_EQ(host.takeProgram(), ok);
}

TEST_F(ModemTest, QuietModemSaysNothing)
{
    EXPECT_EQ(ask("ATQ1"), QByteArray());
    EXPECT_EQ(ask("AT"), QByteArray());
    EXPECT_EQ(ask("ATQ0"), ok);
}

TEST_F(ModemTest, DefaultRegisters)
{
    const struct
    {
        int index;
        const char* value;
    } defaults[] = {{0, "000"}, {1, "000"}, {2, "043"}, {3, "013"}, {4, "010"},
                    {5, "008"}, {7, "060"}, {8, "002"}, {12, "050"}};
    for (const auto& item : defaults)
        EXPECT_EQ(ask("ATS" + QByteArray::number(item.index) + "?"), framed(item.value) + ok) << item.index;
}

TEST_F(ModemTest, RegistersAreSetSelectedAndRead)
{
    EXPECT_EQ(ask("ATS7=30S7?"), framed("030") + ok);
    EXPECT_EQ(ask("ATS8"), ok);
    EXPECT_EQ(ask("AT?"), framed("002") + ok);
    EXPECT_EQ(ask("AT=9"), ok);
    EXPECT_EQ(ask("AT?"), framed("009") + ok);
    EXPECT_EQ(ask("ATS99=255S99?"), framed("255") + ok);
    EXPECT_EQ(ask("ATS7="), ok);
    EXPECT_EQ(modem.registerValue(7), 0);
}

TEST_F(ModemTest, LineEndsAreThoseOfS3AndS4)
{
    type("ATE0S3=36S4=38\r");
    EXPECT_EQ(host.takeProgram(), QByteArray("ATE0S3=36S4=38\r$&OK$&"));
    type("AT\r$");
    EXPECT_EQ(host.takeProgram(), QByteArray("$&OK$&"));
}

TEST_F(ModemTest, Information)
{
    EXPECT_EQ(ask("ATI"), framed("PHONE-EXCHANGE MODEM") + ok);
    EXPECT_EQ(ask("ATI1"), framed("101") + ok);
    EXPECT_EQ(ask("ATI2"), ok);
    EXPECT_EQ(ask("ATI3"), framed("1.0") + ok);
    const QByteArray settings = framed("E1 Q0 V1 X4 &C1 &D2 S0=0 S2=43 S3=13 S4=10 S5=8 S7=60 S8=2 S12=50");
    EXPECT_EQ(ask("ATI4"), settings + ok);
    EXPECT_EQ(ask("AT&V"), settings + ok);
}

TEST_F(ModemTest, ProfilesAreStoredAndTakenBack)
{
    EXPECT_EQ(ask("ATS7=11X3&W"), ok);
    EXPECT_EQ(ask("AT&F"), ok);
    EXPECT_EQ(modem.registerValue(7), 60);
    EXPECT_EQ(ask("ATZ"), ok);
    EXPECT_EQ(modem.registerValue(7), 11);
    EXPECT_EQ(ask("ATS7=12"), ok);
    modem.powerOn();
    EXPECT_EQ(modem.registerValue(7), 11);
}

TEST_F(ModemTest, Dials)
{
    type("ATE0\r");
    host.takeProgram();
    type("ATD102\r");
    EXPECT_EQ(host.takeCalls(), QStringList("dial 102 +0"));
    EXPECT_EQ(modem.state(), ModemState::Dialling);
    EXPECT_EQ(host.takeProgram(), QByteArray());
    EXPECT_FALSE(host.carrier);
    modem.connected(9600, now);
    EXPECT_EQ(host.takeProgram(), QByteArray("\r\nCONNECT 9600\r\n"));
    EXPECT_EQ(modem.state(), ModemState::Data);
    EXPECT_TRUE(host.carrier);
}

TEST_F(ModemTest, DialModifiers)
{
    const struct
    {
        const char* command;
        const char* call;
    } dials[] = {
        {"ATDT102", "dial 102 +0"},
        {"ATDP102", "dial 102 +0"},
        {"atdt 555-12 34", "dial 5551234 +0"},
        {"ATD(495)+7.12/3", "dial 4957123 +0"},
        {"ATD8W102", "dial 8102 +0"},
        {"ATD8,102", "dial 8102 +2000"},
        {"ATDT9,,,P102", "dial 9102 +6000"},
        {"ATD*70#AbCd", "dial *70#ABCD +0"},
        {"ATD102!3R@", "dial 1023 +0"},
        {"ATE1V1DT77", "dial 77 +0"},
    };
    for (const auto& dial : dials) {
        type(QByteArray(dial.command) + '\r');
        EXPECT_EQ(host.takeCalls(), QStringList(dial.call)) << dial.command;
        modem.callFailed(CallFailure::Busy);
    }
    EXPECT_EQ(ask("ATS8=0"), ok);
    type("ATD1,,2\r");
    EXPECT_EQ(host.takeCalls(), QStringList("dial 12 +0"));
}

TEST_F(ModemTest, BadDialStringsAreRefused)
{
    for (const char* line : {"ATD12X3", "ATDS", "ATDS=4", "ATD12$"}) {
        EXPECT_EQ(ask(line), error) << line;
        EXPECT_EQ(host.takeCalls(), QStringList()) << line;
        EXPECT_EQ(modem.state(), ModemState::OnHook);
    }
}

TEST_F(ModemTest, DialsAgainStoredAndInParts)
{
    type("ATD5551\r");
    modem.callFailed(CallFailure::Busy);
    host.takeCalls();
    type("ATDL\r");
    EXPECT_EQ(host.takeCalls(), QStringList("dial 5551 +0"));
    modem.callFailed(CallFailure::Busy);
    EXPECT_EQ(ask("AT&Z2=555-77"), ok);
    EXPECT_EQ(ask("AT&Z4=1"), error);
    EXPECT_EQ(ask("AT&Z1"), error);
    type("ATDS=2\r");
    EXPECT_EQ(host.takeCalls(), QStringList("dial 55577 +0"));
    modem.callFailed(CallFailure::Busy);
    EXPECT_EQ(ask("ATD81;"), ok);
    EXPECT_EQ(modem.state(), ModemState::OffHook);
    EXPECT_EQ(host.takeCalls(), QStringList());
    type("ATD02\r");
    EXPECT_EQ(host.takeCalls(), QStringList("dial 8102 +0"));
}

TEST_F(ModemTest, ANumberDoesNotGrowForEver)
{
    type("ATD0123456789\r");
    modem.callFailed(CallFailure::Busy);
    int dialled = 0;
    for (int i = 0; i < 20; ++i) {
        host.takeCalls();
        type("ATDL;\r"); // the first half
        type("ATDL\r");
        for (const QString& call : host.takeCalls()) {
            EXPECT_LE(call.size(), Modem::maxCommandLength + QStringLiteral("dial  +0").size());
            ++dialled;
        }
        if (modem.state() == ModemState::Dialling)
            modem.callFailed(CallFailure::Busy);
    }
    EXPECT_EQ(dialled, 4) << "20, 40, 80 and 160 digits, and then no more";
    EXPECT_EQ(ask("AT"), ok);
}

TEST_F(ModemTest, ANumberThatWasTooLongIsForgotten)
{
    const QByteArray most(Modem::maxCommandLength - 2, '1'); // with "D" and ";" a whole line
    EXPECT_EQ(ask("ATD" + most + ';'), ok);
    EXPECT_EQ(ask("ATD222;"), error);
    type("ATD333\r");
    EXPECT_EQ(host.takeCalls(), QStringList("dial 333 +0"));
}

TEST_F(ModemTest, FailuresAsTheResultLevelTells)
{
    const struct
    {
        const char* level;
        CallFailure failure;
        const char* answer;
    } cases[] = {
        {"X0", CallFailure::Busy, "NO CARRIER"},
        {"X1", CallFailure::Busy, "NO CARRIER"},
        {"X2", CallFailure::Busy, "NO CARRIER"},
        {"X3", CallFailure::Busy, "BUSY"},
        {"X4", CallFailure::Busy, "BUSY"},
        {"X0", CallFailure::NoDialTone, "NO CARRIER"},
        {"X1", CallFailure::NoDialTone, "NO CARRIER"},
        {"X2", CallFailure::NoDialTone, "NO DIALTONE"},
        {"X3", CallFailure::NoDialTone, "NO CARRIER"},
        {"X4", CallFailure::NoDialTone, "NO DIALTONE"},
        {"X0", CallFailure::NoAnswer, "NO CARRIER"},
        {"X2", CallFailure::NoAnswer, "NO CARRIER"},
        {"X3", CallFailure::NoAnswer, "NO ANSWER"},
        {"X4", CallFailure::NoAnswer, "NO ANSWER"},
        {"X4", CallFailure::NoCarrier, "NO CARRIER"},
    };
    type("ATE0\r");
    for (const auto& item : cases) {
        type(QByteArray("AT") + item.level + "\rATD1\r");
        host.takeProgram();
        modem.callFailed(item.failure);
        EXPECT_EQ(host.takeProgram(), framed(item.answer)) << item.level;
        EXPECT_EQ(modem.state(), ModemState::OnHook);
    }
    type("ATX0\rATDW1\r");
    host.takeProgram();
    modem.callFailed(CallFailure::NoDialTone);
    EXPECT_EQ(host.takeProgram(), framed("NO DIALTONE"));
    type("ATX0\rATD1@\r");
    host.takeProgram();
    modem.callFailed(CallFailure::NoAnswer);
    EXPECT_EQ(host.takeProgram(), framed("NO ANSWER"));
}

TEST_F(ModemTest, ConnectWithoutSpeedAtLevelZero)
{
    type("ATE0X0\rATD1\r");
    host.takeProgram();
    modem.connected(33600, now);
    EXPECT_EQ(host.takeProgram(), framed("CONNECT"));
}

TEST_F(ModemTest, AKeyGivesUpTheCall)
{
    type("ATE0\r");
    host.takeProgram();
    // A line feed after the command is part of its line end.
    type("ATD102\r\n");
    EXPECT_EQ(modem.state(), ModemState::Dialling);
    host.takeCalls();
    type("x");
    EXPECT_EQ(host.takeCalls(), QStringList("hangUp"));
    EXPECT_EQ(host.takeProgram(), noCarrier);
    EXPECT_EQ(modem.state(), ModemState::OnHook);
}

TEST_F(ModemTest, RingsAndAnswers)
{
    modem.ring(now);
    EXPECT_EQ(host.takeProgram(), framed("RING"));
    EXPECT_EQ(modem.registerValue(1), 1);
    passMs(5000);
    modem.ringPauses();
    modem.ring(now);
    EXPECT_EQ(host.takeProgram(), framed("RING"));
    EXPECT_EQ(modem.registerValue(1), 2);
    EXPECT_EQ(host.takeCalls(), QStringList());
    type("ATA\r");
    EXPECT_EQ(host.takeCalls(), QStringList("answer"));
    EXPECT_EQ(host.takeProgram(), QByteArray("ATA\r"));
    modem.ringingStopped();
    EXPECT_EQ(modem.registerValue(1), 0);
    modem.connected(33600, now);
    EXPECT_EQ(host.takeProgram(), framed("CONNECT 33600"));
    EXPECT_TRUE(host.carrier);
}

TEST_F(ModemTest, CountsTheRingsThroughAReset)
{
    EXPECT_EQ(ask("ATS0=2&W"), ok);
    modem.ring(now);
    EXPECT_EQ(ask("ATZ"), ok);
    EXPECT_EQ(modem.registerValue(1), 1);
    EXPECT_EQ(ask("AT&F"), ok);
    EXPECT_EQ(modem.registerValue(1), 1);
    EXPECT_EQ(ask("ATZ"), ok);
    modem.ring(now);
    EXPECT_EQ(host.takeCalls(), QStringList("answer"));
}

TEST_F(ModemTest, RingsByThePinOnly)
{
    RecordingHost pinHost;
    Modem pinModem(&pinHost, QStringLiteral("102"), RingStyle::Pin);
    pinModem.ring(now);
    EXPECT_EQ(pinHost.takeCalls(), QStringList("RI 1"));
    pinModem.ringPauses();
    EXPECT_EQ(pinHost.takeCalls(), QStringList("RI 0"));
    EXPECT_EQ(pinHost.takeProgram(), QByteArray());
}

TEST_F(ModemTest, AnswersByItselfAfterS0Rings)
{
    EXPECT_EQ(ask("ATS0=3"), ok);
    modem.ring(now);
    modem.ring(now);
    EXPECT_EQ(host.takeCalls(), QStringList());
    modem.ring(now);
    EXPECT_EQ(host.takeProgram(), framed("RING") + framed("RING") + framed("RING"));
    EXPECT_EQ(host.takeCalls(), QStringList("answer"));
    EXPECT_EQ(modem.state(), ModemState::Answering);
}

TEST_F(ModemTest, DoesNotRingWhileDtrIsDown)
{
    modem.setDtr(false);
    modem.ring(now);
    EXPECT_EQ(host.takeProgram(), QByteArray());
    EXPECT_EQ(ask("AT&D0"), ok);
    modem.ring(now);
    EXPECT_EQ(host.takeProgram(), framed("RING"));
}

TEST_F(ModemTest, DoesNotRingOffHook)
{
    EXPECT_EQ(ask("ATH1"), ok);
    EXPECT_EQ(modem.state(), ModemState::OffHook);
    modem.ring(now);
    EXPECT_EQ(host.takeProgram(), QByteArray());
    EXPECT_EQ(ask("ATH0"), ok);
    EXPECT_EQ(modem.state(), ModemState::OnHook);
}

TEST_F(ModemTest, DataIsTransparent)
{
    connectCall();
    QByteArray all;
    for (int i = 0; i < 256; ++i)
        all += static_cast<char>(i);
    type(all + "AT\r\nATH\r");
    EXPECT_EQ(host.line, all + "AT\r\nATH\r");
    EXPECT_EQ(host.takeProgram(), QByteArray());
    EXPECT_EQ(modem.nextEventNs(), -1);
}

TEST_F(ModemTest, EscapesAfterTheGuardTime)
{
    connectCall();
    type("data");
    passMs(1000);
    type("+++");
    EXPECT_EQ(modem.nextEventNs(), now + nsPerSecond);
    passMs(999);
    EXPECT_EQ(modem.state(), ModemState::Data);
    EXPECT_EQ(host.takeProgram(), QByteArray());
    passMs(1);
    EXPECT_EQ(modem.state(), ModemState::OnlineCommand);
    EXPECT_EQ(host.takeProgram(), ok);
    EXPECT_EQ(host.line, QByteArray("data+++"));
    EXPECT_TRUE(host.carrier);
    EXPECT_EQ(ask("AT"), ok);
}

TEST_F(ModemTest, DoesNotEscapeWithoutGuardTimes)
{
    connectCall();
    // Too soon after data.
    type("data");
    passMs(999);
    type("+++");
    passMs(5000);
    EXPECT_EQ(modem.state(), ModemState::Data);
    // Data too soon after it.
    type("+++");
    passMs(999);
    type("x");
    passMs(5000);
    EXPECT_EQ(modem.state(), ModemState::Data);
    // Too slow: each is a first one.
    type("++");
    passMs(1000);
    type("+");
    passMs(5000);
    EXPECT_EQ(modem.state(), ModemState::Data);
    // Four.
    type("++++");
    passMs(5000);
    EXPECT_EQ(modem.state(), ModemState::Data);
    EXPECT_EQ(host.takeProgram(), QByteArray());
    // Behind CONNECT the guard time begins anew.
    modem.carrierLost();
    passMs(5000);
    connectCall();
    type("+++");
    passMs(5000);
    EXPECT_EQ(modem.state(), ModemState::Data);
    EXPECT_EQ(host.takeProgram(), QByteArray());
    // And then a proper one, byte by byte.
    for (int i = 0; i < 3; ++i) {
        type("+");
        passMs(300);
    }
    passMs(700);
    EXPECT_EQ(modem.state(), ModemState::OnlineCommand);
}

TEST_F(ModemTest, GuardTimeIsS12AndEscapeByteS2)
{
    EXPECT_EQ(ask("ATS12=10S2=42"), ok);
    connectCall();
    passMs(200);
    type("***");
    passMs(199);
    EXPECT_EQ(modem.state(), ModemState::Data);
    passMs(1);
    EXPECT_EQ(modem.state(), ModemState::OnlineCommand);
}

TEST_F(ModemTest, NoGuardTimeEscapesAtOnce)
{
    EXPECT_EQ(ask("ATE0S12=0"), ok);
    connectCall();
    type("x+++");
    EXPECT_EQ(modem.state(), ModemState::OnlineCommand);
    EXPECT_EQ(host.takeProgram(), ok);
    type("ATO\r");
    EXPECT_EQ(modem.state(), ModemState::Data);
}

TEST_F(ModemTest, AnEscapeByteAbove127IsNone)
{
    EXPECT_EQ(ask("ATS2=200"), ok);
    connectCall();
    passMs(2000);
    type("\xc8\xc8\xc8");
    passMs(2000);
    EXPECT_EQ(modem.state(), ModemState::Data);
}

TEST_F(ModemTest, GoesBackOnline)
{
    EXPECT_EQ(ask("ATO"), noCarrier);
    connectCall(2400);
    passMs(1000);
    type("+++");
    passMs(1000);
    host.takeProgram();
    EXPECT_EQ(ask("ATD5"), error);
    EXPECT_EQ(ask("ATA"), error);
    EXPECT_EQ(ask("ATO"), framed("CONNECT 2400"));
    EXPECT_EQ(modem.state(), ModemState::Data);
    host.line.clear();
    type("more");
    EXPECT_EQ(host.line, QByteArray("more"));
}

TEST_F(ModemTest, HangsUp)
{
    EXPECT_EQ(ask("ATH"), ok);
    EXPECT_EQ(host.takeCalls(), QStringList());
    for (const char* command : {"ATH", "ATH0", "ATZ"}) {
        connectCall();
        passMs(1000);
        type("+++");
        passMs(1000);
        EXPECT_EQ(ask(command), ok) << command;
        EXPECT_EQ(host.takeCalls(), QStringList("hangUp")) << command;
        EXPECT_FALSE(host.carrier);
        EXPECT_EQ(modem.state(), ModemState::OnHook);
    }
}

TEST_F(ModemTest, LosesCarrier)
{
    modem.carrierLost();
    EXPECT_EQ(host.takeProgram(), QByteArray());
    connectCall();
    modem.carrierLost();
    EXPECT_EQ(host.takeProgram(), noCarrier);
    EXPECT_FALSE(host.carrier);
    EXPECT_EQ(ask("AT"), ok);
}

TEST_F(ModemTest, CarrierDetectAsConfigured)
{
    EXPECT_FALSE(host.carrier);
    EXPECT_EQ(ask("AT&C0"), ok);
    EXPECT_TRUE(host.carrier);
    connectCall();
    modem.carrierLost();
    EXPECT_TRUE(host.carrier);
    EXPECT_EQ(ask("AT&C1"), ok);
    EXPECT_FALSE(host.carrier);
}

TEST_F(ModemTest, DtrDropHangsUp)
{
    connectCall();
    modem.dtrDropped(now);
    EXPECT_EQ(host.takeCalls(), QStringList("hangUp"));
    EXPECT_EQ(host.takeProgram(), noCarrier);
    EXPECT_FALSE(host.carrier);
    EXPECT_EQ(modem.state(), ModemState::OnHook);
    // Nothing to hang up, nothing to say.
    modem.dtrDropped(now);
    EXPECT_EQ(host.takeCalls(), QStringList());
    EXPECT_EQ(host.takeProgram(), QByteArray());
}

TEST_F(ModemTest, DtrDropWhileDialling)
{
    type("ATE0\rATD5\r");
    host.takeProgram();
    host.takeCalls();
    modem.dtrDropped(now);
    EXPECT_EQ(host.takeCalls(), QStringList("hangUp"));
    EXPECT_EQ(modem.state(), ModemState::OnHook);
}

TEST_F(ModemTest, DtrDropAsConfigured)
{
    EXPECT_EQ(ask("AT&D0"), ok);
    connectCall();
    modem.dtrDropped(now);
    EXPECT_EQ(modem.state(), ModemState::Data);
    modem.carrierLost();

    EXPECT_EQ(ask("AT&D1"), ok);
    connectCall();
    modem.dtrDropped(now);
    EXPECT_EQ(modem.state(), ModemState::OnlineCommand);
    EXPECT_EQ(host.takeProgram(), ok);
    EXPECT_EQ(host.takeCalls(), QStringList());
    modem.carrierLost();

    EXPECT_EQ(ask("AT&D3S7=9"), ok);
    connectCall();
    modem.dtrDropped(now);
    EXPECT_EQ(modem.state(), ModemState::OnHook);
    EXPECT_EQ(modem.registerValue(7), 60);
}

} // namespace
