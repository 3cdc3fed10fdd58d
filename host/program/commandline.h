// What all commands share: their streams, their options and arguments, how they end.
#pragma once

#include <QCommandLineParser>
#include <QStringList>
#include <QTextStream>

#include <optional>

namespace host {

struct Command;

struct CommandStreams
{
    QTextStream& out;
    QTextStream& err;
};

// What the user has given to one command.
class CommandLine
{
public:
    // command: outlives this object.
    explicit CommandLine(const Command& command);

    // arguments: without the program's and the command's names. Answers the exit status when
    // there is nothing left to do (help, wrong usage).
    std::optional<int> parse(const QStringList& arguments, CommandStreams& io);

    [[nodiscard]] QStringList arguments() const { return m_parser.positionalArguments(); }

    // Of an option in the command's table.
    [[nodiscard]] bool isSet(const char* option) const { return m_parser.isSet(QLatin1String(option)); }
    [[nodiscard]] QString value(const char* option) const { return m_parser.value(QLatin1String(option)); }
    [[nodiscard]] QStringList values(const char* option) const { return m_parser.values(QLatin1String(option)); }

    // Says what is wrong and how to get help; returns the exit status of wrong usage.
    int wrongUsage(CommandStreams& io, const QString& text) const;

private:
    void printHelp(QTextStream& out) const;

    const Command& m_command;
    QCommandLineParser m_parser;
};

// Says what went wrong; returns the exit status of a failure.
int fail(CommandStreams& io, const QString& text);

// The exit status of a command whose operation returned error (empty: success).
int statusOf(CommandStreams& io, const QString& error);

} // namespace host
