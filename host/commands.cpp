#include "host/commands.h"

#include "common/global.h"
#include "host/diskfile.h"
#include "host/names.h"
#include "host/runcommand.h"
#include "host/terminalview.h"
#include "host/transporthost.h"

#include <functional>

#include <signal.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

namespace host {

namespace {

constexpr int done = static_cast<int>(HostEnd::Done);
constexpr int failed = static_cast<int>(HostEnd::Failed);
constexpr int wrongUsage = static_cast<int>(HostEnd::Usage);

using Streams = CommandStreams;

int fail(Streams& io, const QString& text)
{
    io.err << "transport-host: " << text << Qt::endl;
    return failed;
}

// ---- names ----

int nameCommand(const QStringList& arguments, Streams& io)
{
    CommandLine line(QStringLiteral("name"), QStringLiteral("Shows or sets the name of this installation, as the others know it."));
    line.parser.addPositionalArgument(QStringLiteral("NAME"), QStringLiteral("The new name."), QStringLiteral("[NAME]"));
    if (const std::optional<int> status = line.parse(arguments, io, 0, 1))
        return *status;
    Identity identity;
    const QStringList values = line.parser.positionalArguments();
    if (!values.isEmpty()) {
        if (!isValidAbonentName(values.first()))
            return line.usage(io, QStringLiteral("'%1' cannot be a name: it needs letters or digits, at most %2 bytes, and no control characters")
                                      .arg(displayName(values.first()), QString::number(maxAbonentNameBytes)));
        const QString error = saveOwnName(values.first());
        return error.isEmpty() ? done : fail(io, error);
    }
    const QString error = loadIdentity(&identity);
    if (!error.isEmpty())
        return fail(io, error);
    if (identity.name.isEmpty())
        return fail(io, QStringLiteral("this installation has no name yet: set it with \"transport-host name NAME\""));
    io.out << identity.name << Qt::endl;
    return done;
}

// ---- ports ----

struct Word
{
    const char* word;
    int value;
};
// The values are those of QSerialPort's enumerations.
const QVector<Word> flowWords{{"none", 0}, {"hardware", 1}, {"software", 2}};
const QVector<Word> parityWords{{"none", 0}, {"even", 2}, {"odd", 3}, {"space", 4}, {"mark", 5}};
const QVector<Word> stopWords{{"1", 1}, {"1.5", 3}, {"2", 2}};
const QVector<Word> dataWords{{"5", 5}, {"6", 6}, {"7", 7}, {"8", 8}};

QString wordOf(const QVector<Word>& words, int value)
{
    for (const Word& word : words) {
        if (word.value == value)
            return QString::fromLatin1(word.word);
    }
    return QString::number(value);
}

QString wordList(const QVector<Word>& words)
{
    QStringList list;
    for (const Word& word : words)
        list.append(QString::fromLatin1(word.word));
    return list.join(QStringLiteral(", "));
}

bool wordValue(const QVector<Word>& words, const QString& text, qint32* value)
{
    for (const Word& word : words) {
        if (text == QLatin1String(word.word)) {
            *value = word.value;
            return true;
        }
    }
    return false;
}

QString portLine(const ComPortRecord& port)
{
    return QStringLiteral("%1  %2 baud, %3 data bits, parity %4, stop bits %5, flow control %6, init string '%7'%8")
        .arg(port.portName, QString::number(port.baudRate), wordOf(dataWords, port.dataBits), wordOf(parityWords, port.parity),
             wordOf(stopWords, port.stopBits), wordOf(flowWords, port.flowControl), displayName(port.initString),
             port.enabled ? QString() : QStringLiteral(", disabled"));
}

int findPort(const ComSettingsRecord& settings, const QString& name)
{
    for (int i = 0; i < settings.ports.size(); ++i) {
        if (settings.ports.at(i).portName == name)
            return i;
    }
    return -1;
}

int portAdd(const QStringList& arguments, Streams& io)
{
    CommandLine line(QStringLiteral("port add"), QStringLiteral("Defines a serial port with a modem, or changes one that is defined."));
    QCommandLineParser& parser = line.parser;
    parser.addPositionalArgument(QStringLiteral("DEVICE"), QStringLiteral("The serial port, as /dev/ttyS0 or ttyS0."));
    parser.addOption({QStringLiteral("baud"), QStringLiteral("Speed between computer and modem (default 115200)."), QStringLiteral("N"), QStringLiteral("115200")});
    parser.addOption({QStringLiteral("init"), QStringLiteral("Sent to the modem when the port opens; \\r, \\n and \\t stand for the characters (default ATZ\\r)."), QStringLiteral("TEXT"), QStringLiteral("ATZ\\r")});
    parser.addOption({QStringLiteral("flow"), QStringLiteral("Flow control: %1 (default hardware).").arg(wordList(flowWords)), QStringLiteral("WORD"), QStringLiteral("hardware")});
    parser.addOption({QStringLiteral("data-bits"), QStringLiteral("Data bits: %1 (default 8).").arg(wordList(dataWords)), QStringLiteral("N"), QStringLiteral("8")});
    parser.addOption({QStringLiteral("parity"), QStringLiteral("Parity: %1 (default none).").arg(wordList(parityWords)), QStringLiteral("WORD"), QStringLiteral("none")});
    parser.addOption({QStringLiteral("stop-bits"), QStringLiteral("Stop bits: %1 (default 1).").arg(wordList(stopWords)), QStringLiteral("N"), QStringLiteral("1")});
    parser.addOption({QStringLiteral("disabled"), QStringLiteral("Keep the definition but do not use the port.")});
    if (const std::optional<int> status = line.parse(arguments, io, 1, 1))
        return *status;
    ComPortRecord port;
    port.portName = parser.positionalArguments().first();
    port.initString = parser.value(QStringLiteral("init"));
    port.enabled = !parser.isSet(QStringLiteral("disabled"));
    bool ok = false;
    port.baudRate = parser.value(QStringLiteral("baud")).toInt(&ok);
    if (!ok || port.baudRate <= 0)
        return line.usage(io, QStringLiteral("--baud needs a positive number"));
    if (!wordValue(flowWords, parser.value(QStringLiteral("flow")), &port.flowControl))
        return line.usage(io, QStringLiteral("--flow is one of %1").arg(wordList(flowWords)));
    if (!wordValue(dataWords, parser.value(QStringLiteral("data-bits")), &port.dataBits))
        return line.usage(io, QStringLiteral("--data-bits is one of %1").arg(wordList(dataWords)));
    if (!wordValue(parityWords, parser.value(QStringLiteral("parity")), &port.parity))
        return line.usage(io, QStringLiteral("--parity is one of %1").arg(wordList(parityWords)));
    if (!wordValue(stopWords, parser.value(QStringLiteral("stop-bits")), &port.stopBits))
        return line.usage(io, QStringLiteral("--stop-bits is one of %1").arg(wordList(stopWords)));
    ComSettingsRecord settings;
    const QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    const int index = findPort(settings, port.portName);
    if (index < 0)
        settings.ports.append(port);
    else
        settings.ports[index] = port;
    const QString saveError = saveComSettings(settings);
    return saveError.isEmpty() ? done : fail(io, saveError);
}

int portList(const QStringList& arguments, Streams& io)
{
    CommandLine line(QStringLiteral("port list"), QStringLiteral("Shows the ports that are defined."));
    if (const std::optional<int> status = line.parse(arguments, io, 0, 0))
        return *status;
    ComSettingsRecord settings;
    const QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    for (const ComPortRecord& port : qAsConst(settings.ports))
        io.out << portLine(port) << Qt::endl;
    io.out << "packets of at most " << settings.packetSize << " bytes" << Qt::endl;
    return done;
}

int portRemove(const QStringList& arguments, Streams& io)
{
    CommandLine line(QStringLiteral("port remove"), QStringLiteral("Removes the definition of a port."));
    line.parser.addPositionalArgument(QStringLiteral("DEVICE"), QStringLiteral("The port as it was defined."));
    if (const std::optional<int> status = line.parse(arguments, io, 1, 1))
        return *status;
    ComSettingsRecord settings;
    QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    const QString name = line.parser.positionalArguments().first();
    const int index = findPort(settings, name);
    if (index < 0)
        return fail(io, QStringLiteral("no port %1 is defined: \"transport-host port list\" shows those that are").arg(name));
    settings.ports.removeAt(index);
    error = saveComSettings(settings);
    return error.isEmpty() ? done : fail(io, error);
}

int portPacketSize(const QStringList& arguments, Streams& io)
{
    CommandLine line(QStringLiteral("port packet-size"), QStringLiteral("Sets the largest packet of the link, for all ports (default 1024)."));
    line.parser.addPositionalArgument(QStringLiteral("BYTES"), QStringLiteral("11 to 16384. Small ones suit bad lines."));
    if (const std::optional<int> status = line.parse(arguments, io, 1, 1))
        return *status;
    bool ok = false;
    const int bytes = line.parser.positionalArguments().first().toInt(&ok);
    if (!ok || bytes < 11 || bytes > 16384)
        return line.usage(io, QStringLiteral("a packet has 11 to 16384 bytes"));
    ComSettingsRecord settings;
    QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    settings.packetSize = bytes;
    error = saveComSettings(settings);
    return error.isEmpty() ? done : fail(io, error);
}

// ---- abonents ----

int abonentAdd(const QStringList& arguments, Streams& io)
{
    CommandLine line(QStringLiteral("abonent add"), QStringLiteral("Tells how an abonent is called, or changes what was told."));
    line.parser.addPositionalArgument(QStringLiteral("NAME"), QStringLiteral("The abonent's name, as its own installation has it."));
    line.parser.addOption({QStringLiteral("number"), QStringLiteral("The telephone number, as it goes behind ATD."), QStringLiteral("NUMBER")});
    line.parser.addOption({QStringLiteral("port"), QStringLiteral("Call through this port only; may be given several times (default any port)."), QStringLiteral("DEVICE")});
    if (const std::optional<int> status = line.parse(arguments, io, 1, 1))
        return *status;
    const QString name = line.parser.positionalArguments().first();
    if (!isValidAbonentName(name))
        return line.usage(io, QStringLiteral("'%1' cannot be a name: it needs letters or digits, at most %2 bytes, and no control characters")
                                  .arg(displayName(name), QString::number(maxAbonentNameBytes)));
    ComAbonentRecord addressing;
    addressing.phoneNumber = line.parser.value(QStringLiteral("number"));
    addressing.allowedPorts = line.parser.values(QStringLiteral("port"));
    if (addressing.phoneNumber.isEmpty() || displayName(addressing.phoneNumber) != addressing.phoneNumber)
        return line.usage(io, QStringLiteral("--number is needed"));
    QVector<Abonent> abonents;
    QString error = loadAbonents(&abonents);
    if (!error.isEmpty())
        return fail(io, error);
    ComSettingsRecord settings;
    if (loadComSettings(&settings).isEmpty()) {
        for (const QString& port : qAsConst(addressing.allowedPorts)) {
            if (findPort(settings, port) < 0)
                io.err << "transport-host: note: no port " << port << " is defined yet" << Qt::endl;
        }
    }
    Abonent abonent;
    abonent.name = name;
    abonent.channelData = writeComAbonent(addressing);
    const int index = findAbonent(abonents, name);
    if (index < 0)
        abonents.append(abonent);
    else
        abonents[index] = abonent;
    error = saveAbonents(abonents);
    return error.isEmpty() ? done : fail(io, error);
}

int abonentList(const QStringList& arguments, Streams& io)
{
    CommandLine line(QStringLiteral("abonent list"), QStringLiteral("Shows the abonents that are known."));
    if (const std::optional<int> status = line.parse(arguments, io, 0, 0))
        return *status;
    QVector<Abonent> abonents;
    const QString error = loadAbonents(&abonents);
    if (!error.isEmpty())
        return fail(io, error);
    for (const Abonent& abonent : qAsConst(abonents)) {
        ComAbonentRecord addressing;
        const QString trouble = readComAbonent(abonent.channelData, &addressing);
        io.out << abonent.name << "  " << (trouble.isEmpty() ? addressing.phoneNumber : trouble);
        if (!addressing.allowedPorts.isEmpty())
            io.out << "  through " << addressing.allowedPorts.join(QStringLiteral(", "));
        io.out << Qt::endl;
    }
    return done;
}

int abonentRemove(const QStringList& arguments, Streams& io)
{
    CommandLine line(QStringLiteral("abonent remove"), QStringLiteral("Forgets an abonent's number; messages for it stay queued."));
    line.parser.addPositionalArgument(QStringLiteral("NAME"), QStringLiteral("The abonent's name."));
    if (const std::optional<int> status = line.parse(arguments, io, 1, 1))
        return *status;
    QVector<Abonent> abonents;
    QString error = loadAbonents(&abonents);
    if (!error.isEmpty())
        return fail(io, error);
    const QString name = line.parser.positionalArguments().first();
    const int index = findAbonent(abonents, name);
    if (index < 0)
        return fail(io, QStringLiteral("no abonent '%1' is known: \"transport-host abonent list\" shows those that are").arg(displayName(name)));
    abonents.removeAt(index);
    error = saveAbonents(abonents);
    return error.isEmpty() ? done : fail(io, error);
}

// ---- messages ----

int sendCommand(const QStringList& arguments, Streams& io)
{
    CommandLine line(QStringLiteral("send"), QStringLiteral("Queues files for an abonent; a running host sends them at once, else the next one does.\n"
                                                            "The files are copied: later changes do not matter."));
    line.parser.addPositionalArgument(QStringLiteral("ABONENT"), QStringLiteral("Who is to receive them."));
    line.parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("Any regular files, of any size."), QStringLiteral("FILE..."));
    if (const std::optional<int> status = line.parse(arguments, io, 2, -1))
        return *status;
    QStringList files = line.parser.positionalArguments();
    const QString abonent = files.takeFirst();
    if (!isValidAbonentName(abonent))
        return line.usage(io, QStringLiteral("'%1' cannot be an abonent's name").arg(displayName(abonent)));
    QVector<Abonent> abonents;
    QString error = loadAbonents(&abonents);
    if (!error.isEmpty())
        return fail(io, error);
    const int known = findAbonent(abonents, abonent);
    if (known < 0)
        io.err << "transport-host: note: no number is known for '" << displayName(abonent)
               << "' (transport-host abonent add): the files wait until they call" << Qt::endl;
    const StorePaths paths = StorePaths::of(Global::currentSecrecy());
    OutgoingQueue queue(paths.output, paths.tasks);
    int status = done;
    for (const QString& file : qAsConst(files)) {
        QueuedMessage message;
        error = queue.enqueue(known < 0 ? abonent : abonents.at(known).name, file, &message);
        if (error.isEmpty())
            io.out << message.key << "  " << displayName(message.fileName) << "  " << sizeText(message.size) << Qt::endl;
        else
            status = fail(io, error);
    }
    return status;
}

int cancelCommand(const QStringList& arguments, Streams& io)
{
    CommandLine line(QStringLiteral("cancel"), QStringLiteral("Takes messages out of the queue."));
    line.parser.addPositionalArgument(QStringLiteral("NUMBER"), QStringLiteral("As \"send\" and \"status\" show it."), QStringLiteral("NUMBER..."));
    if (const std::optional<int> status = line.parse(arguments, io, 1, -1))
        return *status;
    const StorePaths paths = StorePaths::of(Global::currentSecrecy());
    OutgoingQueue queue(paths.output, paths.tasks);
    queue.rescan();
    int status = done;
    for (const QString& number : line.parser.positionalArguments()) {
        QString error = QStringLiteral("no message %1 is queued").arg(number);
        for (const QueuedMessage& message : queue.messages()) {
            if (message.key == number)
                error = queue.remove(message);
        }
        if (!error.isEmpty())
            status = fail(io, error);
    }
    return status;
}

// ---- status ----

// The running host's own record, empty when none runs.
QJsonObject runningState()
{
    const QJsonObject state = loadRecord(TransportHost::stateFilePath());
    const auto process = static_cast<pid_t>(state[QStringLiteral("process")].toDouble());
    const bool isRunning = process > 0 && (::kill(process, 0) == 0 || errno == EPERM);
    return isRunning ? state : QJsonObject();
}

struct Status
{
    Identity identity;
    QVector<QueuedMessage> queue;
    QVector<ReceivedMessage> inbox;
    ComSettingsRecord settings;
    QJsonObject running;
};

QJsonObject toJson(const Status& status)
{
    QJsonArray queue;
    for (const QueuedMessage& message : status.queue) {
        queue.append(QJsonObject{{QStringLiteral("number"), message.key},
                                 {QStringLiteral("id"), idText(message.id)},
                                 {QStringLiteral("abonent"), message.abonent},
                                 {QStringLiteral("file"), message.fileName},
                                 {QStringLiteral("size"), static_cast<double>(message.size)},
                                 {QStringLiteral("sha256"), QString::fromLatin1(message.sha256.toHex())},
                                 {QStringLiteral("queued"), message.queued.toString(Qt::ISODate)},
                                 {QStringLiteral("reason"), message.reason}});
    }
    QJsonArray inbox;
    for (const ReceivedMessage& message : status.inbox) {
        inbox.append(QJsonObject{{QStringLiteral("number"), message.key},
                                 {QStringLiteral("id"), idText(message.id)},
                                 {QStringLiteral("abonent"), message.abonent},
                                 {QStringLiteral("file"), message.fileName},
                                 {QStringLiteral("path"), message.path},
                                 {QStringLiteral("size"), static_cast<double>(message.size)},
                                 {QStringLiteral("sha256"), QString::fromLatin1(message.sha256.toHex())},
                                 {QStringLiteral("received"), message.received.toString(Qt::ISODate)}});
    }
    QJsonArray ports;
    for (const ComPortRecord& port : status.settings.ports)
        ports.append(QJsonObject{{QStringLiteral("name"), port.portName}, {QStringLiteral("enabled"), port.enabled}, {QStringLiteral("baud"), port.baudRate}});
    return QJsonObject{{QStringLiteral("name"), status.identity.name}, {QStringLiteral("queue"), queue}, {QStringLiteral("inbox"), inbox},
                       {QStringLiteral("ports"), ports}, {QStringLiteral("running"), status.running}};
}

QString portState(const Status& status, const ComPortRecord& port)
{
    if (!port.enabled)
        return QStringLiteral("disabled");
    for (const QJsonValue& value : status.running[QStringLiteral("ports")].toArray()) {
        const QJsonObject row = value.toObject();
        if (row[QStringLiteral("name")].toString() == port.portName)
            return QStringLiteral("%1, in %2, out %3").arg(row[QStringLiteral("state")].toString(), sizeText(static_cast<qint64>(row[QStringLiteral("received")].toDouble())),
                                                           sizeText(static_cast<qint64>(row[QStringLiteral("sent")].toDouble())));
    }
    return status.running.isEmpty() ? QStringLiteral("(no host runs)") : QStringLiteral("(not in use)");
}

void printStatus(const Status& status, Streams& io)
{
    io.out << "name:  " << (status.identity.name.isEmpty() ? QStringLiteral("(none: transport-host name NAME)") : status.identity.name) << Qt::endl;
    io.out << "host:  " << (status.running.isEmpty() ? QStringLiteral("not running")
                                                     : QStringLiteral("running, process %1").arg(status.running[QStringLiteral("process")].toInt()))
           << Qt::endl;
    io.out << "ports: " << status.settings.ports.size() << Qt::endl;
    for (const ComPortRecord& port : status.settings.ports)
        io.out << "  " << port.portName << "  " << portState(status, port) << Qt::endl;
    io.out << "queue: " << status.queue.size() << Qt::endl;
    for (const QueuedMessage& message : status.queue) {
        io.out << "  " << message.key << "  to " << displayName(message.abonent) << "  " << displayName(message.fileName) << "  "
               << sizeText(message.size) << "  " << (message.reason.isEmpty() ? QStringLiteral("not tried yet") : displayName(message.reason))
               << Qt::endl;
    }
    io.out << "inbox: " << status.inbox.size() << Qt::endl;
    for (const ReceivedMessage& message : status.inbox) {
        io.out << "  " << message.key << "  from " << displayName(message.abonent) << "  " << displayName(message.fileName) << "  "
               << sizeText(message.size) << "  " << message.path << Qt::endl;
    }
}

int statusCommand(const QStringList& arguments, Streams& io)
{
    CommandLine line(QStringLiteral("status"), QStringLiteral("Shows the queue, the inbox and the ports."));
    line.parser.addOption({QStringLiteral("json"), QStringLiteral("For programs: one JSON object.")});
    if (const std::optional<int> status = line.parse(arguments, io, 0, 0))
        return *status;
    Status status;
    QString error = loadIdentity(&status.identity);
    if (error.isEmpty())
        error = loadComSettings(&status.settings);
    if (!error.isEmpty())
        return fail(io, error);
    const StorePaths paths = StorePaths::of(Global::currentSecrecy());
    OutgoingQueue queue(paths.output, paths.tasks);
    for (const QString& trouble : queue.rescan())
        io.err << "transport-host: " << trouble << Qt::endl;
    status.queue = queue.messages();
    status.inbox = Inbox(paths.input, paths.incomplete, paths.receivedList).messages();
    status.running = runningState();
    if (line.parser.isSet(QStringLiteral("json")))
        io.out << QString::fromUtf8(QJsonDocument(toJson(status)).toJson(QJsonDocument::Compact)) << Qt::endl;
    else
        printStatus(status, io);
    return done;
}

// ---- the table of commands ----

struct Command
{
    const char* name;
    const char* help;
    int (*function)(const QStringList&, Streams&);
};

const QVector<Command> commands{
    {"run", "serve until stopped", runHostCommand},
    {"send", "queue files for an abonent", sendCommand},
    {"cancel", "take messages out of the queue", cancelCommand},
    {"status", "show queue, inbox and ports", statusCommand},
    {"name", "show or set the name of this installation", nameCommand},
    {"port add", "define a serial port with a modem", portAdd},
    {"port list", "show the ports", portList},
    {"port remove", "remove a port", portRemove},
    {"port packet-size", "set the largest packet of the link", portPacketSize},
    {"abonent add", "tell how an abonent is called", abonentAdd},
    {"abonent list", "show the abonents", abonentList},
    {"abonent remove", "forget an abonent", abonentRemove},
};

void printHelp(QTextStream& stream)
{
    stream << "Usage: transport-host COMMAND [OPTION...] [ARGUMENT...]\n"
              "Exchanges files with other installations over modems.\n\nCommands:\n";
    for (const Command& command : commands)
        stream << "  " << QString::fromLatin1(command.name).leftJustified(18) << command.help << "\n";
    stream << "\n\"transport-host COMMAND --help\" tells more about each.\n\n"
              "Settings and data lie beside the directory of the program, in settings/ and data/.\n"
              "Exit status: 0 done, 1 failed, 2 wrong usage, 3 the time ran out, 4 another host serves\n"
              "this installation.\n";
    stream.flush();
}

} // namespace

int runCommand(const QStringList& arguments, QTextStream& out, QTextStream& err)
{
    Streams io{out, err};
    const QString first = arguments.value(1);
    if (first == QLatin1String("--help") || first == QLatin1String("-h") || first == QLatin1String("help")) {
        printHelp(out);
        return done;
    }
    if (first == QLatin1String("--version")) {
        out << "transport-host " << QCoreApplication::applicationVersion() << Qt::endl;
        return done;
    }
    for (const Command& command : commands) {
        const QStringList words = QString::fromLatin1(command.name).split(QLatin1Char(' '));
        if (arguments.mid(1, words.size()) == words)
            return command.function(arguments.mid(1 + words.size()), io);
    }
    if (first.isEmpty())
        printHelp(err);
    else
        err << "transport-host: unknown command '" << displayName(arguments.mid(1, 2).join(QLatin1Char(' ')))
            << "': \"transport-host --help\" shows all" << Qt::endl;
    return wrongUsage;
}

} // namespace host
