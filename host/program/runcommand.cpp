#include "host/program/runcommand.h"

#include "host/installation/coredumps.h"
#include "host/installation/names.h"
#include "host/installation/privacy.h"
#include "host/program/sizeoption.h"
#include "host/program/terminalview.h"
#include "host/transporthost.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace host {

namespace {

int signalPipe[2] = {-1, -1};

// A second signal ends the process at once.
void onSignal(int number)
{
    const int savedErrno = errno;
    const char byte = static_cast<char>(number);
    if (write(signalPipe[1], &byte, 1) != 1)
        _exit(128 + number);
    signal(number, SIG_DFL);
    errno = savedErrno;
}

bool catchSignals()
{
    if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        action.sa_handler = onSignal;
        action.sa_flags = SA_RESTART;
        sigaction(number, &action, nullptr);
    }
    signal(SIGPIPE, SIG_IGN);
    return true;
}

TerminalView* messageView = nullptr; // not owned; set while the host runs

// The log's echo on the Qt debug stream stays out of the picture: it is in the log.
void onQtMessage(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type == QtDebugMsg || type == QtInfoMsg)
        return;
    if (messageView)
        QMetaObject::invokeMethod(
            messageView, [text] { messageView->showTrouble(text); }, Qt::QueuedConnection);
    else
        std::fprintf(stderr, "%s\n", displayName(text).toUtf8().constData());
    if (type == QtFatalMsg)
        std::fprintf(stderr, "%s\n", displayName(text).toUtf8().constData());
}

// An option that is a number of at least min; false when it is not.
bool numberOption(const QCommandLineParser& parser, const QString& name, double min, double* value)
{
    if (!parser.isSet(name))
        return true;
    bool ok = false;
    const double number = parser.value(name).toDouble(&ok);
    if (!ok || number < min || number > 1e9)
        return false;
    *value = number;
    return true;
}

void addOptions(QCommandLineParser* parser)
{
    parser->addOption({QStringLiteral("exit-when-sent"), QStringLiteral("End when nothing is left in the queue.")});
    parser->addOption({QStringLiteral("exit-when-received"), QStringLiteral("End when N messages were received."),
                       QStringLiteral("N")});
    parser->addOption(
        {QStringLiteral("timeout"),
         QStringLiteral("End after S seconds; with status 3 when something that was waited for is not done by then."),
         QStringLiteral("S")});
    parser->addOption({QStringLiteral("retry-seconds"),
                       QStringLiteral("The unit of the pauses between calls (default 1): with 1, a first call that "
                                      "failed is repeated after half a minute to three minutes."),
                       QStringLiteral("S")});
    parser->addOption(
        {QStringLiteral("silence-seconds"),
         QStringLiteral(
             "A connection on which nothing comes for so long is dead (default 120). Give both ends the same."),
         QStringLiteral("S")});
    parser->addOption(
        {QStringLiteral("max-size"),
         QStringLiteral("Refuse messages of more than SIZE: bytes, or with K, M, G or T behind the number, 1024 each."),
         QStringLiteral("SIZE")});
    parser->addOption({QStringLiteral("abonent-quota"),
                       QStringLiteral("So much of each abonent may stand in the inbox or be under way (default 8G)."),
                       QStringLiteral("SIZE")});
    parser->addOption({QStringLiteral("unproved-quota"),
                       QStringLiteral("So much of all those with unknown keys together (default 16M)."),
                       QStringLiteral("SIZE")});
    parser->addOption({QStringLiteral("total-quota"), QStringLiteral("So much of all together (default 32G)."),
                       QStringLiteral("SIZE")});
    parser->addOption({QStringLiteral("keep-free"),
                       QStringLiteral("Receive nothing that would leave less free on the disk (default 16M)."),
                       QStringLiteral("SIZE")});
    parser->addOption(
        {QStringLiteral("known-only"), QStringLiteral("Let in only those whose keys are known; so it is by default.")});
    parser->addOption(
        {QStringLiteral("accept-unknown"),
         QStringLiteral("Let those with unknown keys leave messages, marked as unproved; they get nothing.")});
    parser->addOption(
        {QStringLiteral("keep-connected"), QStringLiteral("Keep connections although nothing is left to send.")});
    parser->addOption({QStringLiteral("no-calls"), QStringLiteral("Only answer calls.")});
    parser->addOption(
        {QStringLiteral("allow-shared"),
         QStringLiteral("Run although others may change the installation: its settings, data, program or plug-ins.")});
    parser->addOption(
        {QStringLiteral("core-dumps"), QStringLiteral("Let a crash leave a core dump. It holds the secret key.")});
    parser->addOption({QStringLiteral("events"),
                       QStringLiteral("Append machine-readable progress to FILE, one JSON object a line."),
                       QStringLiteral("FILE")});
    parser->addOption(
        {QStringLiteral("plain"), QStringLiteral("Print plain lines, as is done where the output is no terminal.")});
    parser->addOption({QStringLiteral("quiet"), QStringLiteral("Print nothing but errors.")});
}

// What is wrong with a size among the options; empty when all is well.
QString readLimits(const QCommandLineParser& parser, InboxLimits* limits)
{
    struct
    {
        const char* name;
        qint64 min;
        qint64* value;
    } const sizes[] = {{"max-size", 0, &limits->maxMessageBytes},
                       {"abonent-quota", 1, &limits->ofAbonent.bytes},
                       {"unproved-quota", 1, &limits->ofUnproved.bytes},
                       {"total-quota", 1, &limits->ofAll.bytes},
                       {"keep-free", 0, &limits->keepFreeBytes}};
    for (const auto& size : sizes) {
        const QString name = QString::fromLatin1(size.name);
        if (!parser.isSet(name))
            continue;
        const std::optional<qint64> bytes = sizeFromText(parser.value(name));
        if (!bytes)
            return QStringLiteral("--%1 needs a size: a number of bytes, or one with K, M, G or T behind it, as 500M")
                .arg(name);
        if (*bytes < size.min)
            return QStringLiteral("--%1 0 would let no content in at all: give a size, as 500M").arg(name);
        *size.value = *bytes;
    }
    return QString();
}

// Null and *wrong set to what is wrong.
std::optional<HostOptions> readOptions(const QCommandLineParser& parser, QString* wrong)
{
    HostOptions options;
    double received = -1;
    double timeout = -1;
    double retry = 1;
    double silence = HostOptions().silenceMs / 1000.0;
    struct
    {
        const char* name;
        double min;
        double* value;
    } const numbers[] = {{"exit-when-received", 0, &received},
                         {"timeout", 0, &timeout},
                         {"retry-seconds", 0.001, &retry},
                         {"silence-seconds", 3, &silence}};
    for (const auto& number : numbers) {
        if (!numberOption(parser, QString::fromLatin1(number.name), number.min, number.value)) {
            *wrong = QStringLiteral("--%1 needs a number of at least %2")
                         .arg(QString::fromLatin1(number.name), QString::number(number.min));
            return std::nullopt;
        }
    }
    options.exitWhenSent = parser.isSet(QStringLiteral("exit-when-sent"));
    options.exitWhenReceived = static_cast<int>(received);
    options.timeoutMs = timeout < 0 ? -1 : static_cast<qint64>(timeout * 1000);
    options.retryUnitMs = static_cast<qint64>(retry * 1000);
    options.silenceMs = static_cast<int>(qMin(silence, 2e6) * 1000);
    *wrong = readLimits(parser, &options.limits);
    if (!wrong->isEmpty())
        return std::nullopt;
    options.acceptUnknown = parser.isSet(QStringLiteral("accept-unknown"));
    if (options.acceptUnknown && parser.isSet(QStringLiteral("known-only"))) {
        *wrong = QStringLiteral("--accept-unknown and --known-only exclude one another");
        return std::nullopt;
    }
    options.keepConnections = parser.isSet(QStringLiteral("keep-connected"));
    options.placeCalls = !parser.isSet(QStringLiteral("no-calls"));
    options.eventsPath = parser.value(QStringLiteral("events"));
    return options;
}

// Whether the installation is safe enough to run, or the user has said that it may be shared.
bool isTrusted(const QCommandLineParser& parser, CommandStreams& io)
{
    const QStringList troubles = parser.isSet(QStringLiteral("allow-shared")) ? QStringList() : installationTroubles();
    for (const QString& trouble : troubles)
        io.err << "transport-host: " << trouble << Qt::endl;
    if (!troubles.isEmpty())
        io.err << "transport-host: not started: see what was changed there before you end it; --allow-shared runs all "
                  "the same"
               << Qt::endl;
    return troubles.isEmpty();
}

} // namespace

int runHostCommand(const QStringList& arguments, CommandStreams& io)
{
    CommandLine line(
        QStringLiteral("run"),
        QStringLiteral(
            "Serves the ports until it is stopped (Ctrl+C): answers calls, and calls those for whom messages wait."));
    addOptions(&line.parser);
    if (const std::optional<int> status = line.parse(arguments, io, 0, 0))
        return *status;
    QString wrong;
    const std::optional<HostOptions> options = readOptions(line.parser, &wrong);
    if (!options)
        return line.usage(io, wrong);
    if (!isTrusted(line.parser, io))
        return static_cast<int>(HostEnd::Failed);
    const QString dumps = line.parser.isSet(QStringLiteral("core-dumps")) ? QString() : forbidCoreDumps();
    if (!dumps.isEmpty())
        return fail(io, dumps);

    TransportHost host(*options);
    const bool isTerminal = isatty(fileno(stdout)) != 0 && !line.parser.isSet(QStringLiteral("plain"));
    TerminalView view(&host, line.parser.isSet(QStringLiteral("quiet")) ? ViewKind::Quiet
                             : isTerminal                               ? ViewKind::Live
                                                                        : ViewKind::Plain);
    messageView = &view;
    qInstallMessageHandler(onQtMessage);
    if (!catchSignals()) {
        io.err << "transport-host: cannot catch signals" << Qt::endl;
        return static_cast<int>(HostEnd::Failed);
    }
    QSocketNotifier notifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &host, [&host, &notifier] {
        notifier.setEnabled(false);
        host.stop(HostEnd::Done);
    });
    HostEnd end = HostEnd::Done;
    QObject::connect(&host, &TransportHost::ended, &host, [&end](HostEnd how) {
        end = how;
        QCoreApplication::quit();
    });
    const QString error = host.start(&end);
    if (!error.isEmpty()) {
        QCoreApplication::processEvents();
        qInstallMessageHandler(nullptr);
        io.err << "transport-host: " << displayName(error) << Qt::endl;
        return static_cast<int>(end);
    }
    QCoreApplication::exec();
    // Journal records of the last moments.
    QCoreApplication::processEvents();
    qInstallMessageHandler(nullptr);
    view.finish();
    if (end == HostEnd::TimedOut)
        io.err << "transport-host: the time ran out: " << host.queue().size() << " queued, " << host.receivedCount()
               << " received" << Qt::endl;
    if (end == HostEnd::KeyChanged)
        io.err << "transport-host: an abonent answered with another key than the pinned one; \"transport-host status\" "
                  "tells more"
               << Qt::endl;
    if (host.isStuck()) {
        io.err << "transport-host: the channel's server did not stop in time" << Qt::endl;
        std::_Exit(static_cast<int>(HostEnd::Failed));
    }
    return static_cast<int>(end);
}

} // namespace host
