// The line as text.
#include "tests/sim/linetext.h"

#include <gtest/gtest.h>

using namespace sim;
using simtest::settingsOf;

TEST(LineSettingsTest, TakesAllKeysAndSaysThemAgain)
{
    const LineSettings settings =
        settingsOf("rate=2400/1200,delay=120,ber=1e-05,burst=5/200/"
                   "0.25,drop-after-seconds=12.5,drop-after-bytes=20000,drop-times=3,seed=42");
    EXPECT_EQ(settings.rateForward, 2400);
    EXPECT_EQ(settings.rateBackward, 1200);
    EXPECT_EQ(settings.delayMs, 120);
    EXPECT_DOUBLE_EQ(settings.bitErrorRate, 1e-5);
    EXPECT_EQ(settings.burst, (BurstSettings{5, 200, 0.25}));
    EXPECT_DOUBLE_EQ(settings.dropAfterSeconds, 12.5);
    EXPECT_EQ(settings.dropAfterBytes, 20000);
    EXPECT_EQ(settings.dropTimes, 3);
    EXPECT_EQ(settings.seed, 42u);
    EXPECT_EQ(settingsOf(settings.toString().toLatin1().constData()), settings);
    EXPECT_EQ(settingsOf(LineSettings().toString().toLatin1().constData()), LineSettings());
    EXPECT_EQ(settingsOf("burst=5/200,burst=off").burst, BurstSettings());
    EXPECT_EQ(settingsOf("rate=57600").rateBackward, 57600);
}

TEST(LineSettingsTest, BadValuesChangeNothingAndSayWhatToWrite)
{
    for (const char* text : {"rate=9",
                             "rate=10000001",
                             "rate=1/2/3",
                             "rate=",
                             "rate",
                             "delay=-1",
                             "delay=60001",
                             "ber=2",
                             "ber=nan",
                             "ber=-1",
                             "burst=5",
                             "burst=0/10",
                             "burst=5/0",
                             "burst=5/10/2",
                             "drop-after-seconds=-1",
                             "drop-after-bytes=x",
                             "drop-times=-1",
                             "seed=-1",
                             "color=red",
                             "",
                             "rate=9600,delay=x"}) {
        LineSettings settings;
        QString error;
        EXPECT_FALSE(settings.change(QString::fromLatin1(text), &error)) << text;
        EXPECT_EQ(settings, LineSettings()) << text;
        EXPECT_TRUE(error.contains(QStringLiteral("; give ")) || error.contains(QStringLiteral("; write ")))
            << error.toStdString();
    }
}
