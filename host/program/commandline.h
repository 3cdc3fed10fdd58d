// What all commands share: their streams, their command line, how they end.
#pragma once

#include <QCommandLineParser>
#include <QStringList>
#include <QTextStream>

#include <optional>

namespace host {

struct CommandStreams
{
    QTextStream& out;
    QTextStream& err;
};

// The command line of one command: options, help, number of arguments.
class CommandLine
{
public:
    CommandLine(const QString& command, const QString& description);

    // arguments: without the program's and the command's names. Answers the exit status when
    // there is nothing left to do (help, wrong usage). maxArguments -1: any number.
    std::optional<int> parse(const QStringList& arguments, CommandStreams& io, int minArguments, int maxArguments);

    // Says what is wrong and how help is had; the exit status of wrong usage.
    int usage(CommandStreams& io, const QString& text) const;

    QCommandLineParser parser;

private:
    const QString m_command;
};

// Says what went wrong; the exit status of that.
int fail(CommandStreams& io, const QString& text);

// The exit status of a command whose operation answered error (empty: it is done).
int statusOf(CommandStreams& io, const QString& error);

} // namespace host
