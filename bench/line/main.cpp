// bench-line: a connected line between two ports, for programs that are measured on it.
#include "bench/line/directline.h"
#include "bench/line/latenesswatch.h"
#include "sim/program/stopsignals.h"
#include "sim/pty/signaltable.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStringList>

#include <cstdio>

namespace {

enum ExitStatus
{
    Ended = 0,
    CannotRun = 1,
    BadOptions = 2
};

constexpr int mostDepthBytes = 65536; // more than a pty holds cannot be reached

constexpr char help[] = "Usage: bench-line --table FILE [--line KEY=VALUE,...] [--depth BYTES]\n"
                        "       bench-line --watch\n"
                        "Makes two ports with a line between them, prints their paths as one line of JSON, and\n"
                        "carries bytes until SIGTERM; then prints what it carried, and how late it was woken, as\n"
                        "another. Programs on the ports need libptylines.so and PTYLINES_TABLE=FILE.\n"
                        "\n"
                        "  --table FILE   the table of modem lines; made if missing\n"
                        "  --line TEXT    as rate=115200,delay=100,ber=1e-5,seed=7 (33600 bit/s without noise);\n"
                        "                 keys as for a line of phone-exchange, except those that drop a call\n"
                        "  --depth BYTES  what a program may have outstanding in its driver, 1 to 65536 (4096)\n"
                        "  --watch        no line: tell, until standard input ends, when a process that sleeps\n"
                        "                 was woken late: seconds of the monotonic clock, milliseconds\n"
                        "Exit status: 0 ended as told, 1 it cannot run, 2 an option is wrong.\n";

int complain(const QString& problem, ExitStatus status)
{
    fprintf(stderr, "bench-line: %s\n", problem.toLocal8Bit().constData());
    return status;
}

bool print(const QJsonObject& object)
{
    return printf("%s\n", QJsonDocument(object).toJson(QJsonDocument::Compact).constData()) > 0 && fflush(stdout) == 0;
}

int runLine(const sim::LineSettings& settings, int depthBytes)
{
    const int stopFd = sim::stopSignalDescriptor();
    if (stopFd < 0)
        return complain(QStringLiteral("no descriptor for signals: ") + qt_error_string(), CannotRun);
    benchline::DirectLine line(settings, depthBytes);
    if (!line.problem().isEmpty())
        return complain(line.problem(), CannotRun);
    if (!print({{QStringLiteral("ports"), QJsonArray{line.portPath(0), line.portPath(1)}}}))
        return complain(QStringLiteral("cannot print the ports: ") + qt_error_string(), CannotRun);
    if (!line.run(stopFd))
        return complain(QStringLiteral("a port failed"), CannotRun);
    if (!print(line.statistics()))
        return complain(QStringLiteral("cannot print what was carried: ") + qt_error_string(), CannotRun);
    return Ended;
}

} // namespace

int main(int argc, char* argv[])
{
    sim::LineSettings settings;
    QString table;
    int depthBytes = sim::PtyEndpoint::defaultDepthBytes;
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QFile::decodeName(argv[i]));
    while (!arguments.isEmpty()) {
        const QString option = arguments.takeFirst();
        if (option == QLatin1String("--help")) {
            fputs(help, stdout);
            return Ended;
        }
        if (option == QLatin1String("--watch"))
            return benchline::watchLateness();
        if (arguments.isEmpty())
            return complain(QStringLiteral("%1: unknown, or without its value; see --help").arg(option), BadOptions);
        const QString value = arguments.takeFirst();
        QString error;
        bool good = true;
        if (option == QLatin1String("--table")) {
            table = value;
        } else if (option == QLatin1String("--line")) {
            good = settings.change(value, &error);
            if (good && (settings.dropAfterSeconds > 0 || settings.dropAfterBytes > 0)) {
                good = false;
                error = QStringLiteral("there is no call here that could drop");
            }
        } else if (option == QLatin1String("--depth")) {
            depthBytes = value.toInt(&good);
            good = good && depthBytes > 0 && depthBytes <= mostDepthBytes;
        } else {
            return complain(QStringLiteral("%1: unknown; see --help").arg(option), BadOptions);
        }
        if (!good)
            return complain(option + QStringLiteral(": ") +
                                (error.isEmpty() ? QStringLiteral("a number of bytes from 1 to 65536") : error),
                            BadOptions);
    }
    if (table.isEmpty())
        return complain(QStringLiteral("--table FILE is needed"), BadOptions);
    qputenv(sim::signalTableVariable, QFile::encodeName(table));
    return runLine(settings, depthBytes);
}
