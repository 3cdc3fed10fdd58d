#include "sim/exchange/control.h"

namespace sim {

namespace {

// "2" or "modem2"; 0 when it is neither.
int modemIndex(const QString& word)
{
    const QString prefix = QStringLiteral("modem");
    bool valid = false;
    const int index = (word.startsWith(prefix) ? word.mid(prefix.size()) : word).toInt(&valid);
    return valid && index > 0 ? index : 0;
}

QString stateText(ModemState state)
{
    switch (state) {
    case ModemState::OnHook: return QStringLiteral("on hook");
    case ModemState::OffHook: return QStringLiteral("off hook");
    case ModemState::Dialling: return QStringLiteral("dialling");
    case ModemState::Answering: return QStringLiteral("answering");
    case ModemState::Data: return QStringLiteral("connected");
    case ModemState::OnlineCommand: return QStringLiteral("connected, in command mode");
    }
    return {};
}

QString signalsText(const ModemStatus& status)
{
    QStringList names;
    const struct
    {
        bool up;
        const char* name;
    } signalNames[] = {
        {(status.programSignals & SignalDtr) != 0, "DTR"}, {(status.programSignals & SignalRts) != 0, "RTS"},
        {(status.modemSignals & SignalDsr) != 0, "DSR"},   {(status.modemSignals & SignalCts) != 0, "CTS"},
        {(status.modemSignals & SignalDcd) != 0, "DCD"},   {(status.modemSignals & SignalRi) != 0, "RI"}};
    for (const auto& signal : signalNames) {
        if (signal.up)
            names.append(QLatin1String(signal.name));
    }
    return names.isEmpty() ? QStringLiteral("no lines") : names.join(QLatin1Char(' '));
}

QString faultsText(const ModemStatus& status)
{
    QString text;
    const struct
    {
        bool on;
        const char* name;
    } faults[] = {{!status.plugged, "unplugged"},
                  {!status.powered, "without power"},
                  {status.faults.silent, "silent"},
                  {status.faults.busy, "busy"},
                  {status.faults.noDialTone, "no dial tone"},
                  {status.faults.noAnswer, "no answer"},
                  {status.faults.noNoise, "no noise"}};
    for (const auto& fault : faults) {
        if (fault.on)
            text += QStringLiteral(", ") + QLatin1String(fault.name);
    }
    return text;
}

QString statusText(int modem, const ModemStatus& status)
{
    return QStringLiteral("modem%1 %2 %3: %4, %5, %6 bit/s%7")
        .arg(QString::number(modem), status.number, status.portPath, stateText(status.state), signalsText(status),
             QString::number(status.baudRate), faultsText(status));
}

// One command as it was written: words never empty, the first is the command's name.
struct Request
{
    Exchange& exchange;
    const QString& text;
    const QStringList& words;

    // The modem that word n names; 0 when there is no such word, or it names none.
    int modem(int n) const { return modemIndex(words.value(n)); }
};

QString wantModem(const Request& request)
{
    return QStringLiteral("say which modem, as: %1 1").arg(request.words.first());
}

QString help(const Request&, ControlReply* reply)
{
    reply->text = Control::help();
    return QString();
}

QString status(const Request& request, ControlReply* reply)
{
    for (int modem = 1; modem <= request.exchange.modemCount(); ++modem)
        reply->text.append(statusText(modem, request.exchange.status(modem)));
    return QString();
}

QString statistics(const Request& request, ControlReply* reply)
{
    for (const CallStatistics& call : request.exchange.endedCalls())
        reply->text += call.toText().split(QLatin1Char('\n'));
    return QString();
}

template <QString (Exchange::*action)(int)>
QString onModem(const Request& request, ControlReply*)
{
    const int modem = request.words.size() == 2 ? request.modem(1) : 0;
    return modem > 0 ? (request.exchange.*action)(modem) : wantModem(request);
}

template <QString (Exchange::*action)(int, bool)>
QString onSwitch(const Request& request, ControlReply*)
{
    const QStringList& words = request.words;
    const int modem = words.size() == 3 ? request.modem(1) : 0;
    const bool on = words.last() == QLatin1String("on");
    if (modem == 0 || (!on && words.last() != QLatin1String("off")))
        return QStringLiteral("say which modem, and on or off, as: %1 1 on").arg(words.first());
    return (request.exchange.*action)(modem, on);
}

QString noise(const Request& request, ControlReply* reply)
{
    const QStringList& words = request.words;
    if (words.size() != 2)
        return onSwitch<&Exchange::setNoise>(request, reply);
    const bool on = words.last() == QLatin1String("on");
    if (!on && words.last() != QLatin1String("off"))
        return QStringLiteral("say on or off, as: noise off");
    return request.exchange.setNoise(0, on);
}

QString line(const Request& request, ControlReply* reply)
{
    if (request.words.size() == 1) {
        reply->text.append(request.exchange.line().toString());
        return QString();
    }
    return request.exchange.changeLine(request.words.mid(1).join(QLatin1Char(',')));
}

QString ring(const Request& request, ControlReply*)
{
    const QStringList& words = request.words;
    const int modem = request.modem(1);
    if (modem == 0 || words.size() > 3)
        return wantModem(request);
    bool valid = true;
    const int times = words.size() == 3 ? words.at(2).toInt(&valid) : -1;
    if (!valid || (words.size() == 3 && times < 1))
        return QStringLiteral("'%1' is no number of rings; write one, as: ring 1 3").arg(words.at(2));
    return request.exchange.ring(modem, times);
}

QString say(const Request& request, ControlReply*)
{
    const int modem = request.words.size() >= 3 ? request.modem(1) : 0;
    if (modem == 0)
        return QStringLiteral("say which modem and what, as: say 1 RING");
    // The text as it was written, with its blanks.
    return request.exchange.say(modem,
                                request.text.trimmed().section(QLatin1Char(' '), 2, -1, QString::SectionSkipEmpty));
}

QString quit(const Request&, ControlReply* reply)
{
    reply->quit = true;
    return QString();
}

struct Command
{
    const char* name;
    const char* arguments;
    const char* help; // null: that of the next one is for both
    QString (*function)(const Request&, ControlReply* reply); // what is wrong, or empty
};

constexpr Command commands[] = {
    {"help", "", "show this", help},
    {"status", "", "show the modems", status},
    {"stats", "", "show the calls that have ended", statistics},
    {"drop", "N", "drop carrier of modem N's call", onModem<&Exchange::dropCarrier>},
    {"silence", "N on|off", "modem N takes everything and answers nothing", onSwitch<&Exchange::setSilent>},
    {"power", "N on|off", "modem N loses power: DSR falls, its port stays", onSwitch<&Exchange::setPowered>},
    {"unplug", "N", nullptr, onModem<&Exchange::unplug>},
    {"plug", "N", "modem N's port fails and vanishes, and comes back", onModem<&Exchange::plugIn>},
    {"busy", "N on|off", "who calls modem N hears busy", onSwitch<&Exchange::setBusy>},
    {"dialtone", "N on|off", "modem N has a dial tone, or none", onSwitch<&Exchange::setDialTone>},
    {"answer", "N on|off", "modem N is told of calls, or is not: no answer", onSwitch<&Exchange::setAnswering>},
    {"noise", "[N] on|off", "the noise of modem N's lines, or of all", noise},
    {"line", "[KEY=VALUE ...]", "show or change the line of calls dialled later", line},
    {"ring", "N [TIMES]", "modem N is rung by nobody: answering finds no carrier", ring},
    {"say", "N TEXT", "modem N sends its program a line of text", say},
    {"quit", "", "end", quit},
};

QString run(const Request& request, ControlReply* reply)
{
    const QString& name = request.words.first();
    for (const Command& command : commands) {
        if (name == QLatin1String(command.name))
            return command.function(request, reply);
    }
    return QStringLiteral("there is no command '%1'; write help for those there are").arg(name);
}

} // namespace

ControlReply Control::execute(const QString& command)
{
    ControlReply reply;
    const QStringList words = command.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (words.isEmpty())
        return reply;
    const QString problem = run({*m_exchange, command, words}, &reply);
    reply.text.append(problem.isEmpty() ? QStringLiteral("ok") : QStringLiteral("error: ") + problem);
    return reply;
}

QStringList Control::help()
{
    constexpr int helpColumn = 22;
    QStringList text;
    QStringList usage;
    for (const Command& command : commands) {
        usage.append(QStringLiteral("%1 %2").arg(QLatin1String(command.name), QLatin1String(command.arguments)));
        if (!command.help)
            continue;
        text.append(usage.join(QStringLiteral(", ")).leftJustified(helpColumn) + QLatin1String(command.help));
        usage.clear();
    }
    return text;
}

} // namespace sim
