// How a modem dials, rings and answers.
#include "tests/sim/modemfixture.h"

#include <gtest/gtest.h>

using namespace simtest;

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
