#include "com/modem/modemdialogue.h"

#include "com/port/portwait.h"
#include "common/csettings.h"
#include "common/logger.h"

#include <QIODevice>
#include <QSerialPort>

namespace {

// QIODevice::readLine() keeps one byte of these for a terminator.
constexpr int maxLineSize = 1024;

constexpr qint64 maxEndlessInputBytes = 64 * 1024;
constexpr qint64 maxWaitingInputBytes = 1024 * 1024;

enum class Match
{
    WholeLine,
    Prefix
};

struct ResponseRule
{
    const char* text; // upper case, no carriage return
    Match match;
    ModemResponse response;
};

// Tried from the top.
constexpr ResponseRule responseRules[] = {
    {"ERROR\n", Match::WholeLine, ResponseError},
    {"OK\n", Match::WholeLine, ResponseOk},
    {"BUSY\n", Match::WholeLine, ResponseBusy},
    {"RING\n", Match::WholeLine, ResponseRing},
    {"CONNECT ", Match::Prefix, ResponseConnect},
    {"NO CARRIER\n", Match::WholeLine, ResponseNoCarrier},
    {"NO DIALTONE\n", Match::WholeLine, ResponseNoDialtone},
    {"NO ANSWER\n", Match::WholeLine, ResponseNoAnswer},
    {"AT\n", Match::WholeLine, ResponseAtEcho},
    {"ATD", Match::Prefix, ResponseDialEcho},
    {"ATA\n", Match::WholeLine, ResponseAnswerEcho},
};

bool matches(const ResponseRule& rule, const QByteArray& line)
{
    return rule.match == Match::WholeLine ? line == rule.text : line.startsWith(rule.text);
}

// Modems frame each result with these.
bool isBlankLine(const QByteArray& line)
{
    return line == "\r" || line == "\n" || line == "\r\n";
}

QString controlSymbol()
{
    return CSettings().detailsTransportComControlSymbol();
}

} // namespace

ModemResponse classifyModemLine(const QByteArray& line)
{
    QByteArray normalised = line.toUpper();
    normalised.replace('\r', QByteArray());
    for (const ResponseRule& rule : responseRules) {
        if (matches(rule, normalised))
            return rule.response;
    }
    return ResponseUnknown;
}

ModemReading readModemLine(QIODevice& input)
{
    if (input.bytesAvailable() == 0 || !input.canReadLine())
        return {};
    const QByteArray line = input.readLine(maxLineSize);
    if (line.isEmpty() || isBlankLine(line))
        return {};
    // With its size: a zero byte does not end the line.
    QString text = QString::fromLatin1(line.constData(), line.size());
    text.remove(QLatin1Char('\r')).remove(QLatin1Char('\n'));
    return {classifyModemLine(line), false, text};
}

ModemResponse readModemResponse(QSerialPort& port, QString& lastAnswer)
{
    waitForInput(port, 1);
    const ModemReading reading = readModemLine(port);
    if (!reading.isBlank) {
        lastAnswer = reading.text;
        debug(QStringLiteral("CComThread"), QStringLiteral("Чтение команды: %1").arg(lastAnswer),
              DebugTransportComAtCommands, DebugFlagNone);
    }
    return reading.response;
}

void dropEndlessInput(QIODevice& input)
{
    const qint64 waiting = input.bytesAvailable();
    if (waiting > maxWaitingInputBytes || (waiting > maxEndlessInputBytes && !input.canReadLine()))
        input.readAll();
}

void dropInput(QSerialPort& port)
{
    // A device that never stops sending always has more.
    constexpr int mostReads = 64;
    for (int i = 0; i < mostReads && waitForInput(port, 0); ++i)
        port.readAll();
    port.readAll();
}

void writeCommand(QSerialPort& port, const QByteArray& command, int waitMs)
{
    port.write(command);
    waitForWritten(port, waitMs);
}

QByteArray initCommand(const QString& initString)
{
    return initString.toLatin1();
}

QByteArray checkCommand()
{
    return QStringLiteral("AT%1").arg(controlSymbol()).toLatin1();
}

QByteArray answerCommand()
{
    return QStringLiteral("ATA%1").arg(controlSymbol()).toLatin1();
}

QByteArray dialCommand(const QString& number)
{
    return QStringLiteral("ATD%1%2").arg(number, controlSymbol()).toLatin1();
}

QByteArray escapeCommand()
{
    return QByteArrayLiteral("+++");
}

QByteArray resetHangUpCommand()
{
    const QString symbol = controlSymbol();
    return QStringLiteral("%1ATH%2").arg(symbol, symbol).toLatin1();
}

QByteArray exitHangUpCommand()
{
    return QStringLiteral("ATH%1").arg(controlSymbol()).toLatin1();
}
