// The command line of phone-exchange.
#include "sim/program/programoptions.h"

#include <QDir>
#include <gtest/gtest.h>

using namespace sim;

namespace {

ProgramOptions parsed(const char* line)
{
    ProgramOptions options;
    QString error;
    EXPECT_TRUE(options.parse(QString::fromLatin1(line).split(QLatin1Char(' '), Qt::SkipEmptyParts), &error))
        << line << ": " << error.toStdString();
    return options;
}

QString faultOf(const char* line)
{
    ProgramOptions options;
    QString error;
    EXPECT_FALSE(options.parse(QString::fromLatin1(line).split(QLatin1Char(' '), Qt::SkipEmptyParts), &error)) << line;
    return error;
}

} // namespace

TEST(ProgramOptionsTest, TwoModemsOnAUsualLineByDefault)
{
    const ProgramOptions options = parsed("");
    ASSERT_EQ(options.modems.size(), 2);
    EXPECT_EQ(options.modems.at(0).number, QStringLiteral("101"));
    EXPECT_EQ(options.modems.at(1).number, QStringLiteral("102"));
    EXPECT_EQ(options.modems.at(0).ringStyle, RingStyle::Text);
    EXPECT_EQ(options.modems.at(0).depthBytes, 4096);
    EXPECT_EQ(options.modems.at(0).linkPath, QString());
    EXPECT_EQ(options.exchange.line.rateForward, 33600);
    EXPECT_FALSE(options.quiet || options.showHelp || options.showVersion);
}

TEST(ProgramOptionsTest, ModemsGetTheirOwnNumbersRingsAndLinks)
{
    const ProgramOptions options =
        parsed("--modems 3 --number 2=555-1234 --ring pin --ring 3=line --depth 512 --link-dir /ports");
    ASSERT_EQ(options.modems.size(), 3);
    EXPECT_EQ(options.modems.at(0).number, QStringLiteral("101"));
    EXPECT_EQ(options.modems.at(1).number, QStringLiteral("555-1234"));
    EXPECT_EQ(options.modems.at(2).number, QStringLiteral("103"));
    EXPECT_EQ(options.modems.at(1).ringStyle, RingStyle::Pin);
    EXPECT_EQ(options.modems.at(2).ringStyle, RingStyle::Text);
    EXPECT_EQ(options.modems.at(2).depthBytes, 512);
    EXPECT_EQ(options.modems.at(2).linkPath, QStringLiteral("/ports/modem3"));
}

TEST(ProgramOptionsTest, LineAndTimesReachTheirSettings)
{
    const ProgramOptions options =
        parsed("--rate=9600/2400 --delay 120 --ber 1e-5 --drop-times=2 --ring-interval 0.01 --ring-length 2 "
               "--no-answer-after 0 --training 1.5");
    EXPECT_EQ(options.exchange.line.rateForward, 9600);
    EXPECT_EQ(options.exchange.line.rateBackward, 2400);
    EXPECT_EQ(options.exchange.line.delayMs, 120);
    EXPECT_EQ(options.exchange.line.dropTimes, 2);
    EXPECT_EQ(options.exchange.ringIntervalMs, 10);
    EXPECT_EQ(options.exchange.ringLengthMs, 2000);
    EXPECT_EQ(options.exchange.noAnswerAfterMs, 0);
    EXPECT_EQ(options.exchange.trainingMs, 1500);
}

TEST(ProgramOptionsTest, PathsAreTakenFromTheWorkingDirectory)
{
    const ProgramOptions options =
        parsed("--table lines --control=/run/control --ready-file a/../ready --stats s.json");
    const QDir here = QDir::current();
    EXPECT_EQ(options.tablePath, here.absoluteFilePath(QStringLiteral("lines")));
    EXPECT_EQ(options.controlPath, QStringLiteral("/run/control"));
    EXPECT_EQ(QDir::cleanPath(options.readyPath), here.absoluteFilePath(QStringLiteral("ready")));
    EXPECT_EQ(options.statisticsPath, here.absoluteFilePath(QStringLiteral("s.json")));
}

TEST(ProgramOptionsTest, Switches)
{
    EXPECT_TRUE(parsed("--quiet").quiet);
    EXPECT_TRUE(parsed("--help").showHelp);
    EXPECT_TRUE(parsed("--version").showVersion);
}

TEST(ProgramOptionsTest, EachFaultSaysWhatToWrite)
{
    const struct
    {
        const char* line;
        const char* told;
    } faults[] = {
        {"--modem 2", "there is no option '--modem'; --help shows those there are"},
        {"modems", "there is no option 'modems'; --help shows those there are"},
        {"--modems", "--modems wants a value: --modems N"},
        {"--modems 0", "'0' is no value for --modems; give a whole number from 1 to 1000"},
        {"--modems=1001", "'1001' is no value for --modems; give a whole number from 1 to 1000"},
        {"--depth 65537", "'65537' is no value for --depth; give a whole number from 1 to 65536"},
        {"--quiet=yes", "--quiet takes no value; write it alone"},
        {"--table=", "--table wants a path"},
        {"--number 101", "'101' is no value for --number; give a modem and its number, as 1=5551234"},
        {"--number 0=101", "'0=101' is no value for --number; give a modem and its number, as 1=5551234"},
        {"--number 1=xyz", "'1=xyz' is no value for --number; give a modem and its number, as 1=5551234"},
        {"--number 3=5", "there is no modem 3 of 2; give more with --modems"},
        {"--ring 3=pin", "there is no modem 3 of 2; give more with --modems"},
        {"--number 1=10-2", "modems 1 and 2 have the same number 102; give one another with --number"},
        {"--ring bell", "'bell' is no value for --ring; give line or pin, or for one modem as 2=pin"},
        {"--ring 0=pin", "'0=pin' is no value for --ring; give line or pin, or for one modem as 2=pin"},
        {"--ring-interval 0.009", "'0.009' is no value for --ring-interval; give seconds from 0.01 to 86400"},
        {"--training nan", "'nan' is no value for --training; give seconds from 0 to 86400"},
        {"--training 86401", "'86401' is no value for --training; give seconds from 0 to 86400"},
        {"--delay soon", "'soon' is no value for delay; give milliseconds each way from 0 to 60000, as 120"},
    };
    for (const auto& fault : faults)
        EXPECT_EQ(faultOf(fault.line), QString::fromLatin1(fault.told)) << fault.line;
}

TEST(ProgramOptionsTest, TheHelpFitsATerminal)
{
    const QString help = ProgramOptions::helpText();
    EXPECT_TRUE(help.contains(QStringLiteral("\n  --modems N ")));
    EXPECT_TRUE(help.contains(QStringLiteral("\n  --version ")));
    for (const QString& line : help.split(QLatin1Char('\n')))
        EXPECT_LE(line.size(), 110) << line.toStdString();
}
