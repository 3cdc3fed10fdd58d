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

QString wantModem(const QString& command)
{
    return QStringLiteral("say which modem, as: %1 1").arg(command);
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

QString linesText(const ModemStatus& status)
{
    QStringList names;
    const struct
    {
        bool up;
        const char* name;
    } lines[] = {{(status.programLines & LineDtr) != 0, "DTR"}, {(status.programLines & LineRts) != 0, "RTS"},
                 {(status.modemLines & LineDsr) != 0, "DSR"},   {(status.modemLines & LineCts) != 0, "CTS"},
                 {(status.modemLines & LineDcd) != 0, "DCD"},   {(status.modemLines & LineRi) != 0, "RI"}};
    for (const auto& line : lines) {
        if (line.up)
            names.append(QLatin1String(line.name));
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

} // namespace

ControlReply Control::execute(const QString& line)
{
    ControlReply reply;
    const QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (words.isEmpty())
        return reply;
    const QString& command = words.first();
    QString problem;
    if (command == QLatin1String("help"))
        reply.lines = help();
    else if (command == QLatin1String("status"))
        reply.lines = status();
    else if (command == QLatin1String("stats"))
        reply.lines = statistics();
    else if (command == QLatin1String("drop"))
        problem = onModem(words, &Exchange::dropCarrier);
    else if (command == QLatin1String("silence"))
        problem = onSwitch(words, &Exchange::setSilent);
    else if (command == QLatin1String("power"))
        problem = onSwitch(words, &Exchange::setPowered);
    else if (command == QLatin1String("unplug"))
        problem = onModem(words, &Exchange::unplug);
    else if (command == QLatin1String("plug"))
        problem = onModem(words, &Exchange::plugIn);
    else if (command == QLatin1String("busy"))
        problem = onSwitch(words, &Exchange::setBusy);
    else if (command == QLatin1String("dialtone"))
        problem = onSwitch(words, &Exchange::setDialTone);
    else if (command == QLatin1String("answer"))
        problem = onSwitch(words, &Exchange::setAnswering);
    else if (command == QLatin1String("noise"))
        problem = noise(words);
    else if (command == QLatin1String("ring"))
        problem = ring(words);
    else if (command == QLatin1String("say"))
        problem = say(words, line);
    else if (command == QLatin1String("line") && words.size() == 1)
        reply.lines = QStringList(m_exchange->line().toString());
    else if (command == QLatin1String("line"))
        problem = m_exchange->changeLine(words.mid(1).join(QLatin1Char(',')));
    else if (command == QLatin1String("quit"))
        reply.quit = true;
    else
        problem = QStringLiteral("there is no command '%1'; write help for those there are").arg(command);
    reply.lines.append(problem.isEmpty() ? QStringLiteral("ok") : QStringLiteral("error: ") + problem);
    return reply;
}

QStringList Control::help()
{
    return {
        QStringLiteral("help                  show this"),
        QStringLiteral("status                show the modems"),
        QStringLiteral("stats                 show the calls that have ended"),
        QStringLiteral("drop N                drop carrier of modem N's call"),
        QStringLiteral("silence N on|off      modem N takes everything and answers nothing"),
        QStringLiteral("power N on|off        modem N loses power: DSR falls, its port stays"),
        QStringLiteral("unplug N, plug N      modem N's port fails and vanishes, and comes back"),
        QStringLiteral("busy N on|off         who calls modem N hears busy"),
        QStringLiteral("dialtone N on|off     modem N has a dial tone, or none"),
        QStringLiteral("answer N on|off       modem N is told of calls, or is not: no answer"),
        QStringLiteral("noise [N] on|off      the noise of modem N's lines, or of all"),
        QStringLiteral("line [KEY=VALUE ...]  show or change the line of calls dialled later"),
        QStringLiteral("ring N [TIMES]        modem N is rung by nobody: answering finds no carrier"),
        QStringLiteral("say N TEXT            modem N sends its program a line of text"),
        QStringLiteral("quit                  end"),
    };
}

QStringList Control::status() const
{
    QStringList lines;
    for (int modem = 1; modem <= m_exchange->modemCount(); ++modem) {
        const ModemStatus status = m_exchange->status(modem);
        lines.append(QStringLiteral("modem%1 %2 %3: %4, %5, %6 bit/s%7")
                         .arg(QString::number(modem), status.number, status.portPath, stateText(status.state),
                              linesText(status), QString::number(status.baudRate), faultsText(status)));
    }
    return lines;
}

QStringList Control::statistics() const
{
    QStringList lines;
    for (const CallStatistics& call : m_exchange->endedCalls())
        lines += call.toText().split(QLatin1Char('\n'));
    return lines;
}

QString Control::onModem(const QStringList& words, QString (Exchange::*action)(int))
{
    const int modem = words.size() == 2 ? modemIndex(words.at(1)) : 0;
    return modem > 0 ? (m_exchange->*action)(modem) : wantModem(words.first());
}

QString Control::onSwitch(const QStringList& words, QString (Exchange::*action)(int, bool))
{
    const int modem = words.size() == 3 ? modemIndex(words.at(1)) : 0;
    const bool on = words.last() == QLatin1String("on");
    if (modem == 0 || (!on && words.last() != QLatin1String("off")))
        return QStringLiteral("say which modem, and on or off, as: %1 1 on").arg(words.first());
    return (m_exchange->*action)(modem, on);
}

QString Control::noise(const QStringList& words)
{
    if (words.size() != 2)
        return onSwitch(words, &Exchange::setNoise);
    const bool on = words.last() == QLatin1String("on");
    if (!on && words.last() != QLatin1String("off"))
        return QStringLiteral("say on or off, as: noise off");
    return m_exchange->setNoise(0, on);
}

QString Control::ring(const QStringList& words)
{
    const int modem = words.size() >= 2 ? modemIndex(words.at(1)) : 0;
    if (modem == 0 || words.size() > 3)
        return wantModem(words.first());
    bool valid = true;
    const int times = words.size() == 3 ? words.at(2).toInt(&valid) : -1;
    if (!valid || (words.size() == 3 && times < 1))
        return QStringLiteral("'%1' is no number of rings; write one, as: ring 1 3").arg(words.at(2));
    return m_exchange->ring(modem, times);
}

QString Control::say(const QStringList& words, const QString& line)
{
    const int modem = words.size() >= 3 ? modemIndex(words.at(1)) : 0;
    if (modem == 0)
        return QStringLiteral("say which modem and what, as: say 1 RING");
    // The text as it was written, with its blanks.
    return m_exchange->say(modem, line.trimmed().section(QLatin1Char(' '), 2, -1, QString::SectionSkipEmpty));
}

} // namespace sim
