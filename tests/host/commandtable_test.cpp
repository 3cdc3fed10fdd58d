// The help as a user sees it, against the table that the commands are read by.
#include "host/program/commandtable.h"
#include "host/transporthost.h"
#include "tests/host/calledcommand.h"

#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;

namespace {

QStringList wordsOf(const Command& command)
{
    return QString::fromLatin1(command.name).split(QLatin1Char(' '));
}

// The lines of text that belong to a heading: indented, and up to an empty line.
QStringList section(const QString& text, const QString& heading)
{
    QStringList found;
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (int i = lines.indexOf(heading) + 1; i > 0 && i < lines.size() && !lines.at(i).isEmpty(); ++i)
        found.append(lines.at(i));
    return found;
}

// The first column of those lines; a line that goes on in the second column has none.
QStringList firstColumn(const QStringList& lines)
{
    static const QRegularExpression entry(QStringLiteral("^  (\\S+(?: \\S+)*)"));
    QStringList found;
    for (const QString& line : lines) {
        const QRegularExpressionMatch match = entry.match(line);
        if (match.hasMatch())
            found.append(match.captured(1));
    }
    return found;
}

} // namespace

TEST(CommandTable, TheHelpListsEveryCommandAndNoOther)
{
    QStringList expected;
    for (const Command& command : commandTable()) {
        expected.append(QStringLiteral("  ") + QString::fromLatin1(command.name).leftJustified(20) +
                        QString::fromLatin1(command.summary));
    }
    const Called help = callCommand({QStringLiteral("--help")});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(section(help.out, QStringLiteral("Commands:")), expected);
}

TEST(CommandTable, TheHelpOfACommandListsItsOptionsAndNoOthers)
{
    for (const Command& command : commandTable()) {
        QStringList expected{QStringLiteral("-h, --help")};
        for (const CommandOption& option : command.options) {
            const QString name = QStringLiteral("--") + QLatin1String(option.name);
            expected.append(option.value ? QStringLiteral("%1 <%2>").arg(name, QLatin1String(option.value)) : name);
        }
        const Called help = callCommand(wordsOf(command) + QStringList{QStringLiteral("--help")});
        EXPECT_EQ(help.status, 0) << command.name;
        EXPECT_EQ(firstColumn(section(help.out, QStringLiteral("Options:"))), expected) << command.name;
    }
}

TEST(CommandTable, TheHelpOfACommandNamesItAndItsArguments)
{
    for (const Command& command : commandTable()) {
        QString usage = QStringLiteral("Usage: transport-host %1 [options]").arg(QLatin1String(command.name));
        QStringList names;
        for (const CommandArgument& argument : command.arguments) {
            const QString name = QString::fromLatin1(argument.name);
            names.append(name);
            switch (argument.count) {
            case CommandArgument::Count::One: usage += QLatin1Char(' ') + name; break;
            case CommandArgument::Count::NoneOrOne: usage += QStringLiteral(" [%1]").arg(name); break;
            case CommandArgument::Count::OneOrMore: usage += QStringLiteral(" %1...").arg(name); break;
            }
        }
        const QString help = callCommand(wordsOf(command) + QStringList{QStringLiteral("--help")}).out;
        EXPECT_EQ(help.section(QLatin1Char('\n'), 0, 0).trimmed(), usage);
        EXPECT_TRUE(help.contains(QString::fromLatin1(command.description))) << command.name;
        EXPECT_EQ(firstColumn(section(help, QStringLiteral("Arguments:"))), names) << command.name;
    }
}

// "key" would take the arguments of "key block".
TEST(CommandTable, NoCommandHidesAnother)
{
    const std::vector<Command>& table = commandTable();
    for (size_t i = 0; i < table.size(); ++i) {
        for (size_t later = i + 1; later < table.size(); ++later)
            EXPECT_NE(wordsOf(table[later]).mid(0, wordsOf(table[i]).size()), wordsOf(table[i]))
                << table[i].name << " hides " << table[later].name;
    }
}

TEST(CommandTable, AnOptionOfTheTableIsTakenAndAnotherIsNot)
{
    for (const Command& command : commandTable()) {
        for (const CommandOption& option : command.options) {
            QStringList arguments = wordsOf(command);
            arguments.append(QStringLiteral("--") + QLatin1String(option.name));
            if (option.value)
                arguments.append(QStringLiteral("1"));
            EXPECT_EQ(callCommand(arguments + QStringList{QStringLiteral("--help")}).status, 0)
                << command.name << " " << option.name;
        }
        const Called wrong =
            callCommand(wordsOf(command) + QStringList{QStringLiteral("--no-such-option"), QStringLiteral("--help")});
        EXPECT_EQ(wrong.status, 2) << command.name;
        EXPECT_TRUE(wrong.err.contains(QStringLiteral("no-such-option"))) << command.name;
    }
}

TEST(CommandTable, ASwitchHasNoStandardAndChoicesHaveTheirPlace)
{
    for (const Command& command : commandTable()) {
        for (const CommandOption& option : command.options) {
            EXPECT_TRUE(option.value || *option.standard == '\0') << command.name << " " << option.name;
            EXPECT_EQ(QString::fromLatin1(option.help).contains(QStringLiteral("%1")), option.choices != nullptr)
                << command.name << " " << option.name;
        }
        for (const CommandArgument& argument : command.arguments)
            EXPECT_EQ(QString::fromLatin1(argument.help).contains(QStringLiteral("%1")), argument.choices != nullptr)
                << command.name << " " << argument.name;
    }
}

// The user reads phrases beside the commands and whole sentences about options and arguments.
TEST(CommandTable, SummariesArePhrasesAndHelpIsSentences)
{
    static const QRegularExpression phrase(QStringLiteral("^[a-z][A-Za-z', ]*[a-z]$"));
    static const QRegularExpression word(QStringLiteral("^[A-Z]+$"));
    static const QRegularExpression sentence(QStringLiteral("^([A-Z]|%1)[^#]*\\.$"),
                                             QRegularExpression::DotMatchesEverythingOption);
    for (const Command& command : commandTable()) {
        EXPECT_TRUE(phrase.match(QString::fromLatin1(command.summary)).hasMatch()) << command.summary;
        EXPECT_TRUE(sentence.match(QString::fromLatin1(command.description)).hasMatch()) << command.description;
        for (const CommandOption& option : command.options) {
            EXPECT_TRUE(sentence.match(QString::fromLatin1(option.help)).hasMatch()) << option.help;
            EXPECT_TRUE(!option.value || word.match(QString::fromLatin1(option.value)).hasMatch()) << option.value;
        }
        for (const CommandArgument& argument : command.arguments) {
            EXPECT_TRUE(sentence.match(QString::fromLatin1(argument.help)).hasMatch()) << argument.help;
            EXPECT_TRUE(word.match(QString::fromLatin1(argument.name)).hasMatch()) << argument.name;
        }
    }
}

TEST(CommandTable, TheHelpTellsWhatAnOptionIsWhereItIsNotGiven)
{
    for (const Command& command : commandTable()) {
        for (const CommandOption& option : command.options) {
            const QString told = QStringLiteral("(default %1)").arg(QLatin1String(option.standard));
            EXPECT_TRUE(*option.standard == '\0' || QString::fromLatin1(option.help).contains(told))
                << command.name << " " << option.name;
        }
    }
    // What "run" does without an option is said by its options as the host takes them.
    const QString help = callCommand({QStringLiteral("run"), QStringLiteral("--help")}).out.simplified();
    const HostOptions standard;
    const auto expectDefault = [&](const char* option, const QString& said, qint64 bytes, qint64 expected) {
        EXPECT_TRUE(help.section(QLatin1String(option), 1, 1)
                        .section(QLatin1String(" --"), 0, 0)
                        .contains(QStringLiteral("(default %1)").arg(said)))
            << option << qPrintable(help);
        EXPECT_EQ(bytes, expected) << option;
    };
    constexpr qint64 mebi = 1024 * 1024;
    expectDefault("--retry-seconds", QStringLiteral("1"), standard.retryUnitMs, 1000);
    expectDefault("--silence-seconds", QStringLiteral("120"), standard.silenceMs, 120000);
    expectDefault("--abonent-quota", QStringLiteral("8G"), standard.limits.ofAbonent.bytes, 8192 * mebi);
    expectDefault("--unproved-quota", QStringLiteral("16M"), standard.limits.ofUnproved.bytes, 16 * mebi);
    expectDefault("--total-quota", QStringLiteral("32G"), standard.limits.ofAll.bytes, 32768 * mebi);
    expectDefault("--keep-free", QStringLiteral("16M"), standard.limits.keepFreeBytes, 16 * mebi);
}

// Scripts of users call them: a name that is gone breaks them, and one that is new is looked for in
// the documents.
TEST(CommandTable, EveryCommandAndOptionIsInTheDocumentsUnderItsName)
{
    QFile page(QStringLiteral(SOURCE_DIR "/docs/reference-host.md"));
    ASSERT_TRUE(page.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(page.readAll());
    QStringList named;
    static const QRegularExpression optionName(QStringLiteral("--([a-z]+(?:-[a-z]+)*)"));
    QRegularExpressionMatchIterator it = optionName.globalMatch(text);
    while (it.hasNext())
        named.append(it.next().captured(1));
    QStringList known{QStringLiteral("help")};
    for (const Command& command : commandTable()) {
        const QStringList words = wordsOf(command);
        const QRegularExpression mention(
            words.size() == 1 ? QStringLiteral("`%1\\b").arg(words.first())
                              : QStringLiteral("`%1 ([a-z-]+\\\\?\\|)*%2\\b").arg(words.first(), words.last()));
        EXPECT_TRUE(mention.match(text).hasMatch()) << command.name << mention.pattern().toStdString();
        for (const CommandOption& option : command.options) {
            known.append(QString::fromLatin1(option.name));
            EXPECT_TRUE(named.contains(QLatin1String(option.name))) << command.name << " --" << option.name;
        }
    }
    for (const QString& name : named)
        EXPECT_TRUE(known.contains(name)) << "no command takes --" << name.toStdString();
}
