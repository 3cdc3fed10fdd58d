#include "host/program/commandline.h"

#include "host/installation/names.h"
#include "host/program/exitstatus.h"

namespace host {

CommandLine::CommandLine(const QString& command, const QString& description) : m_command(command)
{
    parser.setApplicationDescription(description);
    parser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")});
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsOptions);
}

std::optional<int> CommandLine::parse(const QStringList& arguments, CommandStreams& io, int minArguments,
                                      int maxArguments)
{
    if (!parser.parse(QStringList{QStringLiteral("transport-host ") + m_command} + arguments))
        return usage(io, parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) {
        // The parser writes the program's path, not the command.
        QString text = parser.helpText();
        const int options = text.indexOf(QStringLiteral(" [options]"));
        if (options >= 0)
            text.replace(0, options, QStringLiteral("Usage: transport-host ") + m_command);
        io.out << text;
        io.out.flush();
        return exitDone;
    }
    const int count = parser.positionalArguments().size();
    if (count < minArguments)
        return usage(io, QStringLiteral("an argument is missing"));
    if (maxArguments >= 0 && count > maxArguments)
        return usage(io, QStringLiteral("there is an argument too many"));
    return std::nullopt;
}

int CommandLine::usage(CommandStreams& io, const QString& text) const
{
    io.err << "transport-host: " << displayName(text) << "\n\"transport-host " << m_command << " --help\" tells more"
           << Qt::endl;
    return exitWrongUsage;
}

int fail(CommandStreams& io, const QString& text)
{
    io.err << "transport-host: " << displayName(text) << Qt::endl;
    return exitFailed;
}

int statusOf(CommandStreams& io, const QString& error)
{
    return error.isEmpty() ? exitDone : fail(io, error);
}

} // namespace host
