#include "sim/modem/commandreader.h"

#include <gtest/gtest.h>

using sim::CommandReader;
using Result = sim::CommandReader::Result;

namespace {

// The result of the last byte; those before it end nothing.
Result type(CommandReader& reader, const QByteArray& bytes, int endByte = '\r', int eraseByte = '\b')
{
    Result result = Result::Unfinished;
    for (const char byte : bytes) {
        EXPECT_EQ(result, Result::Unfinished) << bytes.constData();
        result = reader.add(byte, endByte, eraseByte);
    }
    return result;
}

} // namespace

TEST(CommandReaderTest, TakesWhatStandsBehindAt)
{
    CommandReader reader;
    EXPECT_EQ(type(reader, "AT\r"), Result::Command);
    EXPECT_EQ(reader.command(), QByteArray());
    EXPECT_EQ(type(reader, "at e0 d 102\r"), Result::Command);
    EXPECT_EQ(reader.command(), QByteArray("E0D102"));
    EXPECT_EQ(type(reader, "aTZ\r"), Result::Command);
    EXPECT_EQ(reader.command(), QByteArray("Z"));
}

TEST(CommandReaderTest, DropsWhatStandsBeforeIt)
{
    CommandReader reader;
    EXPECT_EQ(type(reader, "noise\r\nAAAATI\r"), Result::Command);
    EXPECT_EQ(reader.command(), QByteArray("I"));
    EXPECT_EQ(type(reader, "T\rA\rT\r"), Result::Unfinished) << "the two letters belong together";
    EXPECT_EQ(reader.command(), QByteArray("I"));
}

TEST(CommandReaderTest, RepeatsTheLastCommandAtOnce)
{
    CommandReader reader;
    EXPECT_EQ(type(reader, "A/"), Result::Command);
    EXPECT_EQ(reader.command(), QByteArray()) << "there was none";
    EXPECT_EQ(type(reader, "ATD1\r"), Result::Command);
    EXPECT_EQ(type(reader, "a/"), Result::Command);
    EXPECT_EQ(reader.command(), QByteArray("D1"));
    EXPECT_EQ(type(reader, "/"), Result::Unfinished);
}

TEST(CommandReaderTest, TheBytesThatEndAndEraseAreThoseOfTheRegisters)
{
    CommandReader reader;
    EXPECT_EQ(type(reader, "ATI1\b2\r"), Result::Command);
    EXPECT_EQ(reader.command(), QByteArray("I2"));
    EXPECT_EQ(type(reader, "ATI3#4\r!", '!', '#'), Result::Command);
    EXPECT_EQ(reader.command(), QByteArray("I4"));
    EXPECT_EQ(type(reader, "AT\b\b\bI5\r"), Result::Command) << "the two letters are not taken back";
    EXPECT_EQ(reader.command(), QByteArray("I5"));
}

TEST(CommandReaderTest, ALineThatIsTooLongLeavesTheLastCommand)
{
    CommandReader reader;
    ASSERT_EQ(type(reader, "ATI\r"), Result::Command);
    EXPECT_EQ(type(reader, "AT" + QByteArray(CommandReader::maxLength + 1, 'X') + '\r'), Result::TooLong);
    EXPECT_EQ(reader.command(), QByteArray("I"));
    EXPECT_EQ(type(reader, "AT" + QByteArray(CommandReader::maxLength, 'X') + '\r'), Result::Command);
    EXPECT_EQ(reader.command(), QByteArray(CommandReader::maxLength, 'X'));
    // What was typed beyond the limit and taken back was too long all the same.
    EXPECT_EQ(type(reader, "AT" + QByteArray(CommandReader::maxLength + 1, 'X') + "\b\r"), Result::TooLong);
}

TEST(CommandReaderTest, AResetForgetsWhatHasBegun)
{
    CommandReader reader;
    ASSERT_EQ(type(reader, "ATI\r"), Result::Command);
    ASSERT_EQ(type(reader, "ATD1"), Result::Unfinished);
    reader.reset();
    EXPECT_EQ(type(reader, "02\r"), Result::Unfinished);
    EXPECT_EQ(type(reader, "A/"), Result::Command);
    EXPECT_EQ(reader.command(), QByteArray("I"));
}
