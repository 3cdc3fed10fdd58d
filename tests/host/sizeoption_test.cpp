#include "host/program/sizeoption.h"

#include <QString>
#include <gtest/gtest.h>

#include <optional>

TEST(SizeFromText, NumbersWithAndWithoutALetter)
{
    using host::sizeFromText;
    EXPECT_EQ(sizeFromText(QStringLiteral("0")), qint64(0));
    EXPECT_EQ(sizeFromText(QStringLiteral("1000")), qint64(1000));
    EXPECT_EQ(sizeFromText(QStringLiteral("64K")), qint64(65536));
    EXPECT_EQ(sizeFromText(QStringLiteral("500m")), qint64(524288000));
    EXPECT_EQ(sizeFromText(QStringLiteral("8G")), qint64(8589934592));
    EXPECT_EQ(sizeFromText(QStringLiteral("2T")), qint64(2199023255552));
    EXPECT_EQ(sizeFromText(QStringLiteral("8192T")), qint64(9007199254740992));
    for (const char* wrong :
         {"", "K", "-1", "+1", "1.5G", "1KB", " 1", "1 K", "8193T", "99999999999999999999", "x", "0x10"})
        EXPECT_EQ(sizeFromText(QString::fromLatin1(wrong)), std::nullopt) << wrong;
}
