#include "host/program/portcommands.h"

#include "host/installation/hostsettings.h"
#include "host/installation/names.h"
#include "host/program/exitstatus.h"

#include <QVector>

namespace host {

namespace {

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

QString packetSizeRange()
{
    return QStringLiteral("%1 to %2")
        .arg(QString::number(ChannelComSettings::smallestPacketSize),
             QString::number(ChannelComSettings::largestPacketSize));
}

QString portLine(const ComPortSettings& port)
{
    return QStringLiteral("%1  %2 baud, %3 data bits, parity %4, stop bits %5, flow control %6, init string '%7'%8")
        .arg(port.portName, QString::number(port.baudRate), wordOf(dataWords, port.dataBits),
             wordOf(parityWords, port.parity), wordOf(stopWords, port.stopBits), wordOf(flowWords, port.flowControl),
             displayName(port.initString), port.enabled ? QString() : QStringLiteral(", disabled"));
}

int findPort(const ChannelComSettings& settings, const QString& name)
{
    for (int i = 0; i < settings.ports.size(); ++i) {
        if (settings.ports.at(i).portName == name)
            return i;
    }
    return -1;
}

} // namespace

int portAdd(const QStringList& arguments, CommandStreams& io)
{
    CommandLine line(QStringLiteral("port add"),
                     QStringLiteral("Defines a serial port with a modem, or changes one that is defined."));
    QCommandLineParser& parser = line.parser;
    parser.addPositionalArgument(QStringLiteral("DEVICE"), QStringLiteral("The serial port, as /dev/ttyS0 or ttyS0."));
    parser.addOption({QStringLiteral("baud"), QStringLiteral("Speed between computer and modem (default 115200)."),
                      QStringLiteral("N"), QStringLiteral("115200")});
    parser.addOption(
        {QStringLiteral("init"),
         QStringLiteral(
             "Sent to the modem when the port opens; \\r, \\n and \\t stand for the characters (default ATZ\\r)."),
         QStringLiteral("TEXT"), QStringLiteral("ATZ\\r")});
    parser.addOption({QStringLiteral("flow"),
                      QStringLiteral("Flow control: %1 (default hardware).").arg(wordList(flowWords)),
                      QStringLiteral("WORD"), QStringLiteral("hardware")});
    parser.addOption({QStringLiteral("data-bits"),
                      QStringLiteral("Data bits: %1 (default 8).").arg(wordList(dataWords)), QStringLiteral("N"),
                      QStringLiteral("8")});
    parser.addOption({QStringLiteral("parity"), QStringLiteral("Parity: %1 (default none).").arg(wordList(parityWords)),
                      QStringLiteral("WORD"), QStringLiteral("none")});
    parser.addOption({QStringLiteral("stop-bits"),
                      QStringLiteral("Stop bits: %1 (default 1).").arg(wordList(stopWords)), QStringLiteral("N"),
                      QStringLiteral("1")});
    parser.addOption({QStringLiteral("disabled"), QStringLiteral("Keep the definition but do not use the port.")});
    if (const std::optional<int> status = line.parse(arguments, io, 1, 1))
        return *status;
    ComPortSettings port;
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
    ChannelComSettings settings;
    const QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    const int index = findPort(settings, port.portName);
    if (index < 0)
        settings.ports.append(port);
    else
        settings.ports[index] = port;
    const QString saveError = saveComSettings(settings);
    return statusOf(io, saveError);
}

int portList(const QStringList& arguments, CommandStreams& io)
{
    CommandLine line(QStringLiteral("port list"), QStringLiteral("Shows the ports that are defined."));
    if (const std::optional<int> status = line.parse(arguments, io, 0, 0))
        return *status;
    ChannelComSettings settings;
    const QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    for (const ComPortSettings& port : qAsConst(settings.ports))
        io.out << portLine(port) << Qt::endl;
    io.out << "packets of at most " << settings.packetSize << " bytes" << Qt::endl;
    return exitDone;
}

int portRemove(const QStringList& arguments, CommandStreams& io)
{
    CommandLine line(QStringLiteral("port remove"), QStringLiteral("Removes the definition of a port."));
    line.parser.addPositionalArgument(QStringLiteral("DEVICE"), QStringLiteral("The port as it was defined."));
    if (const std::optional<int> status = line.parse(arguments, io, 1, 1))
        return *status;
    ChannelComSettings settings;
    QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    const QString name = line.parser.positionalArguments().first();
    const int index = findPort(settings, name);
    if (index < 0)
        return fail(
            io, QStringLiteral("no port %1 is defined: \"transport-host port list\" shows those that are").arg(name));
    settings.ports.removeAt(index);
    error = saveComSettings(settings);
    return statusOf(io, error);
}

int portPacketSize(const QStringList& arguments, CommandStreams& io)
{
    CommandLine line(QStringLiteral("port packet-size"),
                     QStringLiteral("Sets the largest packet of the link, for all ports (default 1024)."));
    line.parser.addPositionalArgument(QStringLiteral("BYTES"),
                                      QStringLiteral("%1. Small ones suit bad lines.").arg(packetSizeRange()));
    if (const std::optional<int> status = line.parse(arguments, io, 1, 1))
        return *status;
    bool ok = false;
    const int bytes = line.parser.positionalArguments().first().toInt(&ok);
    if (!ok || bytes < ChannelComSettings::smallestPacketSize || bytes > ChannelComSettings::largestPacketSize)
        return line.usage(io, QStringLiteral("a packet has %1 bytes").arg(packetSizeRange()));
    ChannelComSettings settings;
    QString error = loadComSettings(&settings);
    if (!error.isEmpty())
        return fail(io, error);
    settings.packetSize = bytes;
    error = saveComSettings(settings);
    return statusOf(io, error);
}

} // namespace host
