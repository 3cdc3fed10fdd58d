// Command lines of a modem and its answers, registers and profiles.
#include "tests/sim/modemfixture.h"

#include <gtest/gtest.h>

using namespace simtest;

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
