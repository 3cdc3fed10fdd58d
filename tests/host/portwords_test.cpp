// The words for a port's settings against the numbers that stand in its record.
#include "host/program/portwords.h"

#include <gtest/gtest.h>

using namespace host;

TEST(PortWords, EachWordHasItsNumberAndEachNumberItsWord)
{
    for (const QVector<PortWord>* words : {&flowControlWords, &parityWords, &stopBitsWords, &dataBitsWords}) {
        for (const PortWord& word : *words) {
            qint32 value = -1;
            EXPECT_TRUE(valueOf(*words, QString::fromLatin1(word.word), &value)) << word.word;
            EXPECT_EQ(value, word.value) << word.word;
            EXPECT_EQ(wordOf(*words, word.value), QString::fromLatin1(word.word));
        }
    }
}

// As the serial port's enumerations number them, in which one and a half stop bits are 3.
TEST(PortWords, OddNumbers)
{
    EXPECT_EQ(wordOf(stopBitsWords, 3), QStringLiteral("1.5"));
    EXPECT_EQ(wordOf(parityWords, 2), QStringLiteral("even"));
    EXPECT_EQ(wordOf(parityWords, 1), QStringLiteral("1")) << "a number that no word has is shown as it is";
    EXPECT_EQ(wordOf(dataBitsWords, -5), QStringLiteral("-5"));
}

TEST(PortWords, WhatIsNoWordChangesNothing)
{
    for (const char* wrong : {"", "None", "none ", "9", "hardware,software"}) {
        qint32 value = 77;
        EXPECT_FALSE(valueOf(flowControlWords, QString::fromLatin1(wrong), &value)) << wrong;
        EXPECT_EQ(value, 77) << wrong;
    }
}

TEST(PortWords, ChoicesAsTheHelpShowsThem)
{
    EXPECT_EQ(flowControlChoices(), QStringLiteral("none, hardware, software"));
    EXPECT_EQ(parityChoices(), QStringLiteral("none, even, odd, space, mark"));
    EXPECT_EQ(stopBitsChoices(), QStringLiteral("1, 1.5, 2"));
    EXPECT_EQ(dataBitsChoices(), QStringLiteral("5, 6, 7, 8"));
    // A header and a check of ten bytes, and at least one byte of data.
    EXPECT_EQ(packetSizeRange(), QStringLiteral("11 to 16384"));
}
