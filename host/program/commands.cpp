#include "host/program/commands.h"

#include "host/installation/names.h"
#include "host/installation/privacy.h"
#include "host/program/abonentcommands.h"
#include "host/program/exitstatus.h"
#include "host/program/identitycommands.h"
#include "host/program/keycommands.h"
#include "host/program/messagecommands.h"
#include "host/program/portcommands.h"
#include "host/program/runcommand.h"
#include "host/program/setupcommand.h"
#include "host/program/statuscommand.h"

#include <QCoreApplication>
#include <QVector>

#include <cstdio>

namespace host {

namespace {

struct Command
{
    const char* name;
    const char* help;
    int (*function)(const QStringList&, CommandStreams&);
};

const QVector<Command> commands{
    {"run", "serve until stopped", runHostCommand},
    {"setup", "lay a new installation out, also for a group", setUpCommand},
    {"send", "queue files for an abonent", sendCommand},
    {"cancel", "take messages out of the queue", cancelCommand},
    {"status", "show queue, inbox and ports", statusCommand},
    {"name", "show or set the name of this installation", nameCommand},
    {"key block", "let nobody in who has a key", keyBlock},
    {"key unblock", "take that back", keyUnblock},
    {"key", "show the key of this installation", keyCommand},
    {"port add", "define a serial port with a modem", portAdd},
    {"port list", "show the ports", portList},
    {"port remove", "remove a port", portRemove},
    {"port packet-size", "set the largest packet of the link", portPacketSize},
    {"abonent add", "tell an abonent's number and key", abonentAdd},
    {"abonent list", "show the abonents and their keys", abonentList},
    {"abonent forget-key", "forget the key of one that has a new one", abonentForgetKey},
    {"abonent block", "neither call an abonent nor let it in", abonentBlock},
    {"abonent unblock", "take that back", abonentUnblock},
    {"abonent remove", "forget an abonent", abonentRemove},
};

void printHelp(QTextStream& stream)
{
    stream << "Usage: transport-host COMMAND [OPTION...] [ARGUMENT...]\n"
              "Exchanges files with other installations over modems.\n\nCommands:\n";
    for (const Command& command : commands)
        stream << "  " << QString::fromLatin1(command.name).leftJustified(20) << command.help << "\n";
    stream << "\n\"transport-host COMMAND --help\" tells more about each.\n\n"
              "Settings and data lie beside the directory of the program, in settings/ and data/.\n"
              "Exit status: 0 done, 1 failed, 2 wrong usage, 3 the time ran out, 4 another host serves\n"
              "this installation, 5 an abonent answered with another key than the pinned one.\n";
    stream.flush();
}

// The log's echo on the Qt streams is in the log; of what the libraries say only troubles are shown.
void showTroublesOnly(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        std::fprintf(stderr, "transport-host: %s\n", displayName(text).toUtf8().constData());
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
    for (const Command& command : commands) {
        const QStringList words = QString::fromLatin1(command.name).split(QLatin1Char(' '));
        if (arguments.mid(1, words.size()) != words)
            continue;
        const QStringList own = arguments.mid(1 + words.size());
        const bool asksForHelp = own.contains(QStringLiteral("--help")) || own.contains(QStringLiteral("-h"));
        const QString error = asksForHelp || command.function == setUpCommand ? QString() : prepareInstallation();
        return error.isEmpty() ? command.function(own, io) : fail(io, error);
    }
    if (first.isEmpty())
        printHelp(err);
    else
        err << "transport-host: unknown command '" << displayName(arguments.mid(1, 2).join(QLatin1Char(' ')))
            << "': \"transport-host --help\" shows all" << Qt::endl;
    return exitWrongUsage;
}

} // namespace host
