// A modem in a connection: data, the escape to commands and back, the ways in which it ends.
#include "tests/sim/modemfixture.h"

#include <gtest/gtest.h>

using namespace simtest;

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
