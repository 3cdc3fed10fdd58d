#include "host/program/commandline.h"

#include "host/installation/names.h"
#include "host/program/commandtable.h"
#include "host/program/exitstatus.h"

namespace host {

namespace {

QString helpText(const char* text, QString (*choices)())
{
    const QString help = QString::fromLatin1(text);
    return choices ? help.arg(choices()) : help;
}

QString syntaxOf(const CommandArgument& argument)
{
    const QString name = QString::fromLatin1(argument.name);
    switch (argument.count) {
    case CommandArgument::Count::One: break;
    case CommandArgument::Count::NoneOrOne: return QStringLiteral("[%1]").arg(name);
    case CommandArgument::Count::OneOrMore: return name + QStringLiteral("...");
    }
    return name;
}

} // namespace

CommandLine::CommandLine(const Command& command) : m_command(command)
{
    m_parser.setApplicationDescription(QString::fromLatin1(command.description));
    m_parser.addOption({{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")});
    m_parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsOptions);
    for (const CommandArgument& argument : command.arguments)
        m_parser.addPositionalArgument(QString::fromLatin1(argument.name), helpText(argument.help, argument.choices),
                                       syntaxOf(argument));
    for (const CommandOption& option : command.options)
        m_parser.addOption({QString::fromLatin1(option.name), helpText(option.help, option.choices),
                            QString::fromLatin1(option.value), QString::fromLatin1(option.standard)});
}

std::optional<int> CommandLine::parse(const QStringList& arguments, CommandStreams& io)
{
    if (!m_parser.parse(QStringList{QStringLiteral("transport-host ") + QLatin1String(m_command.name)} + arguments))
        return wrongUsage(io, m_parser.errorText());
    if (m_parser.isSet(QStringLiteral("help"))) {
        printHelp(io.out);
        return exitDone;
    }
    int least = 0;
    bool hasBound = true;
    for (const CommandArgument& argument : m_command.arguments) {
        least += argument.count == CommandArgument::Count::NoneOrOne ? 0 : 1;
        hasBound = hasBound && argument.count != CommandArgument::Count::OneOrMore;
    }
    const int count = m_parser.positionalArguments().size();
    if (count < least)
        return wrongUsage(io, QStringLiteral("an argument is missing"));
    if (hasBound && count > static_cast<int>(m_command.arguments.size()))
        return wrongUsage(io, QStringLiteral("there is an argument too many"));
    return std::nullopt;
}

void CommandLine::printHelp(QTextStream& out) const
{
    // The parser writes the program's path, not the command.
    QString text = m_parser.helpText();
    const int options = text.indexOf(QStringLiteral(" [options]"));
    if (options >= 0)
        text.replace(0, options, QStringLiteral("Usage: transport-host ") + QLatin1String(m_command.name));
    out << text;
    out.flush();
}

int CommandLine::wrongUsage(CommandStreams& io, const QString& text) const
{
    io.err << "transport-host: " << displayName(text) << "\n\"transport-host " << m_command.name
           << " --help\" tells more" << Qt::endl;
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
