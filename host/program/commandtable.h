// The commands of the program: what each is called, takes and does. Its help, its parsing and its
// handler come from this one table, so that they cannot differ.
#pragma once

#include "host/program/commandline.h"

#include <QString>

#include <vector>

namespace host {

struct CommandArgument
{
    enum class Count
    {
        One,
        NoneOrOne,
        OneOrMore, // only as the last argument
    };

    const char* name;
    const char* help; // %1 in it: the text that choices gives
    Count count = Count::One;
    QString (*choices)() = nullptr;
};

struct CommandOption
{
    const char* name;
    const char* value; // its name in the help; null: the option has no value
    const char* help; // %1 in it: the text that choices gives
    const char* standard = ""; // the value when the option is not given
    QString (*choices)() = nullptr;
};

struct Command
{
    enum class Installation
    {
        IsPrepared, // before the command runs
        IsLeftAlone,
    };

    const char* name; // of one word or two
    const char* summary; // for the list of all commands
    const char* description; // for the command's own help
    int (*handler)(const CommandLine& given, CommandStreams& io);
    std::vector<CommandArgument> arguments = {};
    std::vector<CommandOption> options = {};
    Installation installation = Installation::IsPrepared;
};

// In the order of the help. A command comes before any whose name is the beginning of its own.
[[nodiscard]] const std::vector<Command>& commandTable();

} // namespace host
