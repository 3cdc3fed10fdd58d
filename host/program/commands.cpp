#include "host/program/commands.h"

#include "host/installation/names.h"
#include "host/installation/privacy.h"
#include "host/program/commandtable.h"
#include "host/program/exitstatus.h"

#include <QCoreApplication>

#include <cstdio>

namespace host {

namespace {

void printHelp(QTextStream& stream)
{
    stream << "Usage: transport-host COMMAND [OPTION...] [ARGUMENT...]\n"
              "Exchanges files with other installations over modems.\n\nCommands:\n";
    for (const Command& command : commandTable())
        stream << "  " << QString::fromLatin1(command.name).leftJustified(20) << command.summary << "\n";
    stream << "\n\"transport-host COMMAND --help\" tells more about each.\n\n"
              "Settings and data lie beside the directory of the program, in settings/ and data/.\n"
              "Exit status: 0 done, 1 failed, 2 wrong usage, 3 the time ran out, 4 another host serves\n"
              "this installation, 5 an abonent answered with another key than the pinned one.\n";
    stream.flush();
}

// Lines that the log writes to the Qt streams as well are in the log already. Of the other messages of
// the libraries only warnings and worse are shown.
void showTroublesOnly(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        std::fprintf(stderr, "transport-host: %s\n", displayName(text).toUtf8().constData());
}

int carryOut(const Command& command, const QStringList& arguments, CommandStreams& io)
{
    const bool asksForHelp = arguments.contains(QStringLiteral("--help")) || arguments.contains(QStringLiteral("-h"));
    if (!asksForHelp && command.installation == Command::Installation::IsPrepared) {
        const QString error = prepareInstallation();
        if (!error.isEmpty())
            return fail(io, error);
    }
    CommandLine given(command);
    const std::optional<int> status = given.parse(arguments, io);
    return status ? *status : command.handler(given, io);
}

} // namespace

int runCommand(const QStringList& arguments, QTextStream& out, QTextStream& err)
{
    qInstallMessageHandler(showTroublesOnly);
    CommandStreams io{out, err};
    const QString first = arguments.value(1);
    if (first == QLatin1String("--help") || first == QLatin1String("-h") || first == QLatin1String("help")) {
        printHelp(out);
        return exitDone;
    }
    if (first == QLatin1String("--version")) {
        out << "transport-host " << QCoreApplication::applicationVersion() << Qt::endl;
        return exitDone;
    }
    for (const Command& command : commandTable()) {
        const QStringList words = QString::fromLatin1(command.name).split(QLatin1Char(' '));
        if (arguments.mid(1, words.size()) == words)
            return carryOut(command, arguments.mid(1 + words.size()), io);
    }
    if (first.isEmpty())
        printHelp(err);
    else
        err << "transport-host: unknown command '" << displayName(arguments.mid(1, 2).join(QLatin1Char(' ')))
            << "': \"transport-host --help\" shows all" << Qt::endl;
    return exitWrongUsage;
}

} // namespace host
