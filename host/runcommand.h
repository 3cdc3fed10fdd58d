// The command that serves, and what all commands share.
#pragma once

#include <optional>

#include <QCommandLineParser>
#include <QStringList>
#include <QTextStream>

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

int runHostCommand(const QStringList& arguments, CommandStreams& io);

} // namespace host
