#include "host/crc32.h"

#include <gtest/gtest.h>

using host::crc32;

// The check value that every catalogue of this CRC gives, and zlib's answers.
TEST(Crc32, KnownValues)
{
    EXPECT_EQ(crc32("123456789"), 0xCBF43926u);
    EXPECT_EQ(crc32(""), 0u);
    EXPECT_EQ(crc32(QByteArray(1, '\0')), 0xD202EF8Du);
    EXPECT_EQ(crc32(QByteArray(32, '\xFF')), 0xFF6CAB0Bu);
}

TEST(Crc32, GoesOnFromAnEarlierPart)
{
    EXPECT_EQ(crc32("6789", crc32("12345")), 0xCBF43926u);
}
