#include "host/session/ratemeter.h"

#include <gtest/gtest.h>

using host::RateMeter;

TEST(RateMeter, TellsTheRateOfTheLastWholeWindow)
{
    RateMeter meter(1000, 5000);
    EXPECT_EQ(meter.bytesPerS(), 0);
    EXPECT_FALSE(meter.count(500, 5500));
    EXPECT_FALSE(meter.count(400, 5999));
    EXPECT_EQ(meter.bytesPerS(), 0) << "no window is whole yet";
    EXPECT_TRUE(meter.count(300, 6000));
    EXPECT_EQ(meter.bytesPerS(), 1200); // 500 + 400 + 300 in one second
    EXPECT_FALSE(meter.count(9999, 6500));
    EXPECT_EQ(meter.bytesPerS(), 1200) << "the next one is not over";
}

// Who counts late measures over the time that has passed, not over the window that was meant.
TEST(RateMeter, ALateLookMakesALongerWindow)
{
    RateMeter meter(1000, 0);
    EXPECT_TRUE(meter.count(3000, 2500));
    EXPECT_EQ(meter.bytesPerS(), 1200); // 3000 bytes in 2.5 s
    // The next window begins at the look.
    EXPECT_FALSE(meter.count(10, 3499));
    EXPECT_TRUE(meter.count(10, 3500));
    EXPECT_EQ(meter.bytesPerS(), 20);
}

TEST(RateMeter, SilenceEndsAWindowToo)
{
    RateMeter meter(100, 0);
    EXPECT_TRUE(meter.count(50, 100));
    EXPECT_EQ(meter.bytesPerS(), 500);
    EXPECT_TRUE(meter.count(0, 200));
    EXPECT_EQ(meter.bytesPerS(), 0);
}

// A gigabyte in one window is more than 31 bits of thousandths.
TEST(RateMeter, CountsBeyond32Bits)
{
    RateMeter meter(1000, 0);
    for (int i = 0; i < 999; ++i)
        EXPECT_FALSE(meter.count(4000000, i));
    EXPECT_TRUE(meter.count(4000000, 1000));
    EXPECT_EQ(meter.bytesPerS(), Q_INT64_C(4000000000));
}
