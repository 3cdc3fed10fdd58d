// phone-exchange: parses its command line and runs an exchange until it is told to end.
#include "sim/program/controlserver.h"
#include "sim/program/ownfiles.h"
#include "sim/program/programoptions.h"
#include "sim/program/stopsignals.h"
#include "sim/pty/signaltable.h"

#include <QFile>

#include <csignal>
#include <cstdio>
#include <mutex>

using namespace sim;

namespace {

enum ExitStatus
{
    Ended = 0,
    CannotRun = 1,
    BadOptions = 2
};

// Two threads print.
void print(const QString& text)
{
    static std::mutex mutex;
    const QByteArray bytes = text.toLocal8Bit() + '\n';
    std::lock_guard<std::mutex> locker(mutex);
    fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    fflush(stdout);
}

int complain(const QString& problem, ExitStatus status)
{
    fprintf(stderr, "phone-exchange: %s\n", problem.toLocal8Bit().constData());
    return status;
}

void printEvent(const ExchangeEvent& event)
{
    const QString who = event.modem > 0 ? QStringLiteral("modem%1 ").arg(event.modem) : QString();
    print(QString::asprintf("%10.3f ", static_cast<double>(event.timeNs) / 1e9) + who + event.text);
}

// Where the modems' signals are kept, for programs that preload the object.
void nameTable(const ProgramOptions& options)
{
    if (!options.tablePath.isEmpty())
        qputenv(signalTableVariable, QFile::encodeName(options.tablePath));
    else if (!qEnvironmentVariableIsSet(signalTableVariable) && !options.linkDir.isEmpty())
        qputenv(signalTableVariable, QFile::encodeName(options.linkDir + QStringLiteral("/lines")));
}

bool addModems(Exchange& exchange, const ProgramOptions& options, QByteArray* listing, QString* error)
{
    for (const ModemSettings& settings : options.modems) {
        const int modem = exchange.addModem(settings, error);
        if (modem == 0)
            return false;
        const ModemStatus status = exchange.status(modem);
        *listing +=
            QStringLiteral("modem%1 %2 %3\n").arg(QString::number(modem), status.number, status.portPath).toLocal8Bit();
    }
    return true;
}

void printStatistics(const QVector<CallStatistics>& calls)
{
    for (const CallStatistics& call : calls)
        print(call.toText());
    print(QStringLiteral("calls: %1").arg(calls.size()));
}

int runExchange(const ProgramOptions& options)
{
    QString error;
    signal(SIGPIPE, SIG_IGN);
    const int stopFd = stopSignalDescriptor();
    if (stopFd < 0)
        return complain(QStringLiteral("no descriptor for signals: ") + qt_error_string(), CannotRun);
    // Before anything is made in it: it may be that of an exchange that runs.
    LinkDirectory linkDirectory;
    if (!options.linkDir.isEmpty() && !linkDirectory.take(options.linkDir, &error))
        return complain(error, CannotRun);
    nameTable(options);

    Exchange exchange(options.exchange);
    Control control(&exchange);
    ControlServer server(&control, print);
    if (!options.quiet)
        exchange.setObserver(printEvent);
    QByteArray listing;
    if (!addModems(exchange, options, &listing, &error))
        return complain(error, CannotRun);
    if (!options.controlPath.isEmpty() && !server.listen(options.controlPath, &error))
        return complain(error, CannotRun);
    exchange.start();
    if (!options.quiet)
        print(QString::fromLocal8Bit(listing.trimmed()));
    if (!options.readyPath.isEmpty() && !replaceFile(options.readyPath, listing, &error))
        return complain(error, CannotRun);

    server.run(stopFd);
    exchange.stop();
    const QVector<CallStatistics> calls = exchange.endedCalls();
    printStatistics(calls);
    if (!options.statisticsPath.isEmpty() && !replaceFile(options.statisticsPath, statisticsJson(calls), &error))
        return complain(error, CannotRun);
    return Ended;
}

} // namespace

int main(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    ProgramOptions options;
    QString error;
    if (!options.parse(arguments, &error))
        return complain(error, BadOptions);
    if (options.showHelp) {
        fputs(ProgramOptions::helpText().toLocal8Bit().constData(), stdout);
        return Ended;
    }
    if (options.showVersion) {
        print(QStringLiteral("phone-exchange 1.0.0"));
        return Ended;
    }
    return runExchange(options);
}
