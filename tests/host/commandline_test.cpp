// What the user has given to a command: parsing, help, wrong usage.
#include "host/program/commandline.h"
#include "host/program/commandtable.h"
#include "host/program/exitstatus.h"

#include <gtest/gtest.h>

using namespace host;

namespace {

QString fruits()
{
    return QStringLiteral("apple, pear");
}

Command commandOf(std::vector<CommandArgument> arguments)
{
    Command command{"pick up", "", "Picks something up.", nullptr};
    command.arguments = std::move(arguments);
    command.options = {{"kind", "KIND", "one of: %1", "apple", fruits}, {"fast", nullptr, "in a hurry"}};
    return command;
}

struct Parsed
{
    std::optional<int> status;
    QStringList arguments;
    QString kind;
    bool isFast = false;
    QString out;
    QString err;
};

Parsed parse(const Command& command, const QString& words)
{
    Parsed parsed;
    QTextStream out(&parsed.out);
    QTextStream err(&parsed.err);
    CommandStreams io{out, err};
    CommandLine given(command);
    parsed.status = given.parse(words.split(QLatin1Char(' '), Qt::SkipEmptyParts), io);
    out.flush();
    err.flush();
    parsed.arguments = given.arguments();
    parsed.kind = given.value("kind");
    parsed.isFast = given.isSet("fast");
    return parsed;
}

using Count = CommandArgument::Count;

} // namespace

TEST(CommandLineTest, ArgumentsAndOptionsInAnyOrder)
{
    const Command command = commandOf({{"WHAT", "it"}, {"MORE", "others", Count::OneOrMore}});
    const Parsed parsed = parse(command, QStringLiteral("one --kind pear two --fast three"));
    EXPECT_EQ(parsed.status, std::nullopt);
    EXPECT_EQ(parsed.arguments, (QStringList{QStringLiteral("one"), QStringLiteral("two"), QStringLiteral("three")}));
    EXPECT_EQ(parsed.kind, QStringLiteral("pear"));
    EXPECT_TRUE(parsed.isFast);
    EXPECT_EQ(parse(command, QStringLiteral("one two")).kind, QStringLiteral("apple")) << "the standard value";
    EXPECT_FALSE(parse(command, QStringLiteral("one two")).isFast);
}

TEST(CommandLineTest, CountsArguments)
{
    struct Row
    {
        Count last;
        int given;
        const char* told; // null: taken
    };
    const char* const missing = "an argument is missing";
    const char* const tooMany = "there is an argument too many";
    const Row rows[] = {
        {Count::One, 1, missing},        {Count::One, 2, nullptr},       {Count::One, 3, tooMany},
        {Count::NoneOrOne, 0, missing},  {Count::NoneOrOne, 1, nullptr}, {Count::NoneOrOne, 2, nullptr},
        {Count::NoneOrOne, 3, tooMany},  {Count::OneOrMore, 1, missing}, {Count::OneOrMore, 2, nullptr},
        {Count::OneOrMore, 50, nullptr},
    };
    for (const Row& row : rows) {
        const Command command = commandOf({{"FIRST", "it"}, {"LAST", "it", row.last}});
        const Parsed parsed = parse(command, QStringLiteral("x ").repeated(row.given));
        if (row.told) {
            EXPECT_EQ(parsed.status, std::optional<int>(exitWrongUsage)) << row.told << row.given;
            EXPECT_EQ(parsed.err, QStringLiteral("transport-host: %1\n\"transport-host pick up --help\" tells more\n")
                                      .arg(QLatin1String(row.told)));
            EXPECT_TRUE(parsed.out.isEmpty());
        } else {
            EXPECT_EQ(parsed.status, std::nullopt) << row.given << ' ' << parsed.err.toStdString();
        }
    }
}

TEST(CommandLineTest, HelpHasTheSyntaxAndTheChoices)
{
    const Command command =
        commandOf({{"WHAT", "a fruit: %1", Count::One, fruits}, {"WHERE", "there", Count::NoneOrOne}});
    for (const char* word : {"-h", "--help", "a b c --help"}) {
        const Parsed parsed = parse(command, QString::fromLatin1(word));
        EXPECT_EQ(parsed.status, std::optional<int>(exitDone)) << word;
        EXPECT_TRUE(parsed.out.startsWith(QStringLiteral("Usage: transport-host pick up [options] WHAT [WHERE]\n")))
            << parsed.out.toStdString();
        EXPECT_TRUE(parsed.out.contains(QStringLiteral("Picks something up.")));
        EXPECT_TRUE(parsed.out.contains(QStringLiteral("a fruit: apple, pear")));
        EXPECT_TRUE(parsed.out.contains(QStringLiteral("one of: apple, pear")));
        EXPECT_TRUE(parsed.err.isEmpty());
    }
    const Command many = commandOf({{"FILE", "it", Count::OneOrMore}});
    EXPECT_TRUE(parse(many, QStringLiteral("-h")).out.contains(QStringLiteral("pick up [options] FILE...\n")));
}

TEST(CommandLineTest, UnknownOptionsAreWrongUsage)
{
    const Parsed parsed = parse(commandOf({}), QStringLiteral("--slow"));
    EXPECT_EQ(parsed.status, std::optional<int>(exitWrongUsage));
    EXPECT_TRUE(parsed.err.startsWith(QStringLiteral("transport-host: "))) << parsed.err.toStdString();
    EXPECT_TRUE(parsed.err.contains(QStringLiteral("slow")));
}

// What a peer's name holds must not move the cursor of the terminal.
TEST(CommandLineTest, FailuresAreToldWithoutControlCharacters)
{
    QString text;
    QString told;
    QTextStream out(&text);
    QTextStream err(&told);
    CommandStreams io{out, err};
    EXPECT_EQ(statusOf(io, QString()), exitDone);
    EXPECT_EQ(told, QString());
    EXPECT_EQ(statusOf(io, QStringLiteral("bad \x1B[2J name")), exitFailed);
    EXPECT_TRUE(told.startsWith(QStringLiteral("transport-host: bad "))) << told.toStdString();
    EXPECT_FALSE(told.contains(QLatin1Char('\x1B')));
    EXPECT_TRUE(text.isEmpty());
}
