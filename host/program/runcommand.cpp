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

// Lines that the log writes to the Qt debug stream as well are not shown: they are in the log.
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

// Reads an option that is a number of at least min; false when it is not.
bool numberOption(const CommandLine& given, const char* name, double min, double* value)
{
    if (!given.isSet(name))
        return true;
    bool ok = false;
    const double number = given.value(name).toDouble(&ok);
    if (!ok || number < min || number > 1e9)
        return false;
    *value = number;
    return true;
}

// What is wrong with an option that is a size; empty when all is well.
QString readLimits(const CommandLine& given, InboxLimits* limits)
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
        if (!given.isSet(size.name))
            continue;
        const std::optional<qint64> bytes = sizeFromText(given.value(size.name));
        if (!bytes)
            return QStringLiteral("--%1 needs a size: a number of bytes, or one with K, M, G or T behind it, as 500M")
                .arg(name);
        if (*bytes < size.min)
            return QStringLiteral("--%1 0 would let no content in at all: give a size, as 500M").arg(name);
        *size.value = *bytes;
    }
    return QString();
}

// Null with *wrong set when an option is wrong.
std::optional<HostOptions> readOptions(const CommandLine& given, QString* wrong)
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
        if (!numberOption(given, number.name, number.min, number.value)) {
            *wrong = QStringLiteral("--%1 needs a number of at least %2")
                         .arg(QString::fromLatin1(number.name), QString::number(number.min));
            return std::nullopt;
        }
    }
    options.exitWhenSent = given.isSet("exit-when-sent");
    options.exitWhenReceived = static_cast<int>(received);
    options.timeoutMs = timeout < 0 ? -1 : static_cast<qint64>(timeout * 1000);
    options.retryUnitMs = static_cast<qint64>(retry * 1000);
    options.silenceMs = static_cast<int>(qMin(silence, 2e6) * 1000);
    *wrong = readLimits(given, &options.limits);
    if (!wrong->isEmpty())
        return std::nullopt;
    options.acceptUnknown = given.isSet("accept-unknown");
    if (options.acceptUnknown && given.isSet("known-only")) {
        *wrong = QStringLiteral("--accept-unknown and --known-only exclude one another");
        return std::nullopt;
    }
    options.keepConnections = given.isSet("keep-connected");
    options.placeCalls = !given.isSet("no-calls");
    options.eventsPath = given.value("events");
    return options;
}

// Whether others cannot change the installation, or the user has allowed it to be shared.
bool isTrusted(const CommandLine& given, CommandStreams& io)
{
    const QStringList troubles = given.isSet("allow-shared") ? QStringList() : installationTroubles();
    for (const QString& trouble : troubles)
        io.err << "transport-host: " << trouble << Qt::endl;
    if (!troubles.isEmpty())
        io.err << "transport-host: not started: see what was changed there before you end it; --allow-shared runs all "
                  "the same"
               << Qt::endl;
    return troubles.isEmpty();
}

void stopAtSignal(QSocketNotifier* notifier, TransportHost* host)
{
    QObject::connect(notifier, &QSocketNotifier::activated, host, [host, notifier] {
        notifier->setEnabled(false);
        host->stop(HostEnd::Done);
    });
}

void tellEnd(const TransportHost& host, HostEnd end, CommandStreams& io)
{
    if (end == HostEnd::TimedOut)
        io.err << "transport-host: the time ran out: " << host.queue().size() << " queued, " << host.receivedCount()
               << " received" << Qt::endl;
    if (end == HostEnd::KeyChanged)
        io.err << "transport-host: an abonent answered with another key than the pinned one; \"transport-host status\" "
                  "tells more"
               << Qt::endl;
}

} // namespace

int runHost(const CommandLine& given, CommandStreams& io)
{
    QString wrong;
    const std::optional<HostOptions> options = readOptions(given, &wrong);
    if (!options)
        return given.wrongUsage(io, wrong);
    if (!isTrusted(given, io))
        return static_cast<int>(HostEnd::Failed);
    const QString dumps = given.isSet("core-dumps") ? QString() : forbidCoreDumps();
    if (!dumps.isEmpty())
        return fail(io, dumps);

    TransportHost host(*options);
    const bool isTerminal = isatty(fileno(stdout)) != 0 && !given.isSet("plain");
    TerminalView view(&host, given.isSet("quiet") ? ViewKind::Quiet : isTerminal ? ViewKind::Live : ViewKind::Plain);
    messageView = &view;
    qInstallMessageHandler(onQtMessage);
    if (!catchSignals()) {
        io.err << "transport-host: cannot catch signals" << Qt::endl;
        return static_cast<int>(HostEnd::Failed);
    }
    QSocketNotifier notifier(signalPipe[0], QSocketNotifier::Read);
    stopAtSignal(&notifier, &host);
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
    // Shows the last records of the journal.
    QCoreApplication::processEvents();
    qInstallMessageHandler(nullptr);
    view.finish();
    tellEnd(host, end, io);
    if (host.isStuck()) {
        io.err << "transport-host: the channel's server did not stop in time" << Qt::endl;
        std::_Exit(static_cast<int>(HostEnd::Failed));
    }
    return static_cast<int>(end);
}

} // namespace host
