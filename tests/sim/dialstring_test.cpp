#include "sim/modem/dialstring.h"

#include <gtest/gtest.h>

using namespace sim;

TEST(DialStringTest, DigitsAndModifiers)
{
    const DialString dial = parseDialString("T0,W(12)34-56.78/9+*#AD,@;ignored");
    EXPECT_TRUE(dial.valid);
    EXPECT_EQ(dial.number, QStringLiteral("0123456789*#AD"));
    EXPECT_EQ(dial.pauses, 2);
    EXPECT_TRUE(dial.waitsForTone);
    EXPECT_TRUE(dial.waitsForQuiet);
    EXPECT_TRUE(dial.staysInCommand);
    EXPECT_FALSE(dial.pulse);
    EXPECT_FALSE(dial.last);
    EXPECT_EQ(dial.stored, -1);
}

TEST(DialStringTest, NothingIsAskedForWhereNothingIsSaid)
{
    const DialString dial = parseDialString("102");
    EXPECT_TRUE(dial.valid);
    EXPECT_EQ(dial.number, QStringLiteral("102"));
    EXPECT_EQ(dial.pauses, 0);
    EXPECT_FALSE(dial.waitsForTone || dial.waitsForQuiet || dial.staysInCommand || dial.pulse || dial.last);
    EXPECT_TRUE(parseDialString("").valid) << "the modem goes on as if it had called";
}

TEST(DialStringTest, TheLastWordOnToneOrPulseCounts)
{
    EXPECT_TRUE(parseDialString("P102").pulse);
    EXPECT_TRUE(parseDialString("TP102").pulse);
    EXPECT_FALSE(parseDialString("P1T02").pulse);
}

TEST(DialStringTest, StoredNumbersAreZeroToThree)
{
    for (int number = 0; number < 4; ++number) {
        const DialString dial = parseDialString("S=" + QByteArray::number(number));
        EXPECT_TRUE(dial.valid) << number;
        EXPECT_EQ(dial.stored, number);
        EXPECT_EQ(dial.number, QString());
    }
    EXPECT_EQ(parseDialString("S=2,5").number, QStringLiteral("5")) << "what follows is dialled after it";
    for (const char* wrong : {"S=4", "S=", "S", "S2", "S=A", "S=-1"})
        EXPECT_FALSE(parseDialString(wrong).valid) << wrong;
}

TEST(DialStringTest, WhatIsNoDialStringIsRefused)
{
    for (const char* wrong : {"E", "12E", "x", "1_2", "\x7F", "\xFF"})
        EXPECT_FALSE(parseDialString(wrong).valid) << wrong;
    for (const char* ignored : {"!1", "R1", "1 1", "L"})
        EXPECT_TRUE(parseDialString(ignored).valid) << ignored;
    EXPECT_TRUE(parseDialString("L").last);
}

TEST(DialStringTest, NumbersAreTheirDigits)
{
    EXPECT_EQ(normalizedNumber(QStringLiteral("+7 (495) 123-45.67")), QStringLiteral("74951234567"));
    EXPECT_EQ(normalizedNumber(QStringLiteral("a*#d")), QStringLiteral("A*#D"));
    EXPECT_EQ(normalizedNumber(QString::fromUtf8("номер ٣ №")), QString()) << "digits of another script are none";
    EXPECT_EQ(normalizedNumber(QString()), QString());
}
