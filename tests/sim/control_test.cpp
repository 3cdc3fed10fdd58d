// Commands as text: each reaches what it names, each mistake says what to write.
#include "rig/deadline.h"
#include "sim/exchange/control.h"

#include <gtest/gtest.h>

using namespace sim;

namespace {

class ControlTest : public testing::Test
{
protected:
    void SetUp() override
    {
        QString error;
        for (const char* number : {"101", "102"}) {
            ModemSettings settings;
            settings.number = QLatin1String(number);
            ASSERT_GT(exchange.addModem(settings, &error), 0) << error.toStdString();
        }
        exchange.start();
    }

    QString ask(const char* line) { return control.execute(QString::fromLatin1(line)).text.join('\n'); }

    Exchange exchange;
    Control control{&exchange};
};

TEST_F(ControlTest, EachFaultIsSetAndCleared)
{
    const struct
    {
        const char* command;
        bool ModemFaults::*fault;
        bool whenOn;
    } faults[] = {{"silence", &ModemFaults::silent, true},
                  {"busy", &ModemFaults::busy, true},
                  {"dialtone", &ModemFaults::noDialTone, false},
                  {"answer", &ModemFaults::noAnswer, false},
                  {"noise", &ModemFaults::noNoise, false}};
    for (const auto& item : faults) {
        for (const bool on : {true, false, true}) {
            const QByteArray line = QByteArray(item.command) + " 2 " + (on ? "on" : "off");
            EXPECT_EQ(ask(line.constData()), QStringLiteral("ok")) << line.constData();
            EXPECT_EQ(exchange.status(2).faults.*item.fault, on == item.whenOn) << line.constData();
            EXPECT_FALSE(exchange.status(1).faults.*item.fault);
        }
        ask((QByteArray(item.command) + (item.whenOn ? " 2 off" : " 2 on")).constData());
    }
}

TEST_F(ControlTest, NoiseOfAll)
{
    EXPECT_EQ(ask("noise off"), QStringLiteral("ok"));
    EXPECT_TRUE(exchange.status(1).faults.noNoise);
    EXPECT_TRUE(exchange.status(2).faults.noNoise);
    EXPECT_EQ(ask("noise on"), QStringLiteral("ok"));
    EXPECT_FALSE(exchange.status(1).faults.noNoise);
}

TEST_F(ControlTest, PowerAndPlug)
{
    EXPECT_EQ(ask("power modem1 off"), QStringLiteral("ok"));
    EXPECT_FALSE(exchange.status(1).powered);
    EXPECT_EQ(exchange.status(1).modemSignals, 0);
    EXPECT_EQ(ask("power 1 on"), QStringLiteral("ok"));
    EXPECT_EQ(exchange.status(1).modemSignals, SignalDsr | SignalCts);
    EXPECT_EQ(ask("unplug modem2"), QStringLiteral("ok"));
    EXPECT_FALSE(exchange.status(2).plugged);
    EXPECT_EQ(ask("unplug 2"), QStringLiteral("error: modem2 is unplugged already"));
    EXPECT_EQ(ask("plug 2"), QStringLiteral("ok"));
    EXPECT_TRUE(exchange.status(2).plugged);
    EXPECT_EQ(ask("plug 2"), QStringLiteral("error: modem2 is plugged in already"));
}

TEST_F(ControlTest, LineIsShownAndChanged)
{
    EXPECT_EQ(ask("line rate=2400/1200 delay=5,seed=9"), QStringLiteral("ok"));
    EXPECT_EQ(exchange.line().rateBackward, 1200);
    EXPECT_EQ(exchange.line().delayMs, 5);
    EXPECT_EQ(ask("line"),
              QStringLiteral("rate=2400/1200,delay=5,ber=0,burst=off,drop-after-seconds=0,drop-after-bytes=0,"
                             "drop-times=0,seed=9\nok"));
    EXPECT_EQ(
        ask("line delay=long"),
        QStringLiteral("error: 'long' is no value for delay; give milliseconds each way from 0 to 60000, as 120"));
    EXPECT_EQ(exchange.line().delayMs, 5);
}

TEST_F(ControlTest, StatusStatisticsAndQuit)
{
    EXPECT_EQ(
        ask("status"),
        QStringLiteral("modem1 101 %1: on hook, DSR CTS, 38400 bit/s\nmodem2 102 %2: on hook, DSR CTS, 38400 bit/s\nok")
            .arg(exchange.portPath(1), exchange.portPath(2)));
    EXPECT_EQ(ask("busy 2 on"), QStringLiteral("ok"));
    EXPECT_EQ(ask("unplug 2"), QStringLiteral("ok"));
    EXPECT_TRUE(ask("status").contains(QStringLiteral(": on hook, no lines, 0 bit/s, unplugged, busy\nok")))
        << ask("status").toStdString();
    EXPECT_EQ(ask("stats"), QStringLiteral("ok"));
    EXPECT_FALSE(control.execute(QStringLiteral("status")).quit);
    EXPECT_TRUE(control.execute(QStringLiteral("quit")).quit);
    EXPECT_TRUE(control.execute(QStringLiteral("  ")).text.isEmpty());
}

TEST_F(ControlTest, HelpShowsEachCommand)
{
    const QStringList expected{
        QStringLiteral("help                  show this"),
        QStringLiteral("status                show the modems"),
        QStringLiteral("stats                 show the calls that have ended"),
        QStringLiteral("drop N                drop carrier of modem N's call"),
        QStringLiteral("silence N on|off      modem N takes everything and answers nothing"),
        QStringLiteral("power N on|off        modem N loses power: DSR falls, its port stays"),
        QStringLiteral("unplug N, plug N      modem N's port fails and vanishes, and comes back"),
        QStringLiteral("busy N on|off         who calls modem N hears busy"),
        QStringLiteral("dialtone N on|off     modem N has a dial tone, or none"),
        QStringLiteral("answer N on|off       modem N is told of calls, or is not: no answer"),
        QStringLiteral("noise [N] on|off      the noise of modem N's lines, or of all"),
        QStringLiteral("line [KEY=VALUE ...]  show or change the line of calls dialled later"),
        QStringLiteral("ring N [TIMES]        modem N is rung by nobody: answering finds no carrier"),
        QStringLiteral("say N TEXT            modem N sends its program a line of text"),
        QStringLiteral("quit                  end"),
    };
    EXPECT_EQ(Control::help(), expected) << Control::help().join('\n').toStdString();
    EXPECT_EQ(ask("help"), expected.join('\n') + QStringLiteral("\nok"));
}

TEST_F(ControlTest, RingAndSay)
{
    EXPECT_EQ(ask("ring 1"), QStringLiteral("ok"));
    EXPECT_EQ(exchange.activeCalls(), 1);
    EXPECT_EQ(ask("ring 1 2"), QStringLiteral("error: modem1 has a call already"));
    EXPECT_EQ(ask("say 2 NO  BLANKS LOST"), QStringLiteral("ok"));
}

TEST_F(ControlTest, MistakesSayWhatToWrite)
{
    const struct
    {
        const char* line;
        const char* answer;
    } mistakes[] = {
        {"jump", "error: there is no command 'jump'; write help for those there are"},
        {"drop", "error: say which modem, as: drop 1"},
        {"drop x", "error: say which modem, as: drop 1"},
        {"drop 1 2", "error: say which modem, as: drop 1"},
        {"drop 1", "error: modem1 has no connection"},
        {"drop 7", "error: there is no modem 7"},
        {"silence 1", "error: say which modem, and on or off, as: silence 1 on"},
        {"silence 1 maybe", "error: say which modem, and on or off, as: silence 1 on"},
        {"noise", "error: say which modem, and on or off, as: noise 1 on"},
        {"noise loud", "error: say on or off, as: noise off"},
        {"ring", "error: say which modem, as: ring 1"},
        {"ring 1 0", "error: '0' is no number of rings; write one, as: ring 1 3"},
        {"ring 1 x", "error: 'x' is no number of rings; write one, as: ring 1 3"},
        {"say 1", "error: say which modem and what, as: say 1 RING"},
        {"line color=red",
         "error: 'color=red' is not a property of a line; write key=value with a key of: rate, delay, ber, "
         "burst, drop-after-seconds, drop-after-bytes, drop-times, seed"},
    };
    for (const auto& mistake : mistakes)
        EXPECT_EQ(ask(mistake.line), QLatin1String(mistake.answer)) << mistake.line;
}

} // namespace
