#include "sim/program/programoptions.h"

#include "sim/exchange/control.h"

#include <QDir>
#include <QHash>

namespace sim {

namespace {

constexpr int mostModems = 1000;
constexpr int firstNumber = 101;

struct Option
{
    const char* name;
    const char* argument; // null: a switch
    const char* help;
};

constexpr Option options[] = {
    {"modems", "N", "how many modems (2)"},
    {"number", "N=NUMBER", "telephone number of modem N (101 for modem 1, 102 ...); again for others"},
    {"ring", "[N=]line|pin", "a ring is a line RING, or the RI pin, never both (line); again for others"},
    {"link-dir", "DIR", "make links DIR/modem1, DIR/modem2 ... to the ports; made if missing"},
    {"depth", "BYTES", "what a program may have outstanding in its driver (4096)"},
    {"rate", "BITS", "bit/s of the line, or CALLER/CALLED for the two ways (33600)"},
    {"delay", "MS", "of the line, each way (0)"},
    {"ber", "CHANCE", "of each data bit to be flipped, as 1e-5 (0)"},
    {"burst", "SECONDS/BITS[/CHANCE]", "bursts of noise: mean interval, length, chance of a bit inside (off)"},
    {"drop-after-seconds", "SECONDS", "carrier is lost so long after CONNECT (never)"},
    {"drop-after-bytes", "BYTES", "carrier is lost after so many bytes, both ways together (never)"},
    {"drop-times", "N", "only the first N calls are dropped so (all)"},
    {"seed", "N", "of the noise (1)"},
    {"ring-interval", "SECONDS", "from ring to ring (5)"},
    {"ring-length", "SECONDS", "how long the RI pin stands (1)"},
    {"no-answer-after", "SECONDS", "of ringing; S7 of the caller may be shorter (60)"},
    {"training", "SECONDS", "from the answer to CONNECT (0)"},
    {"table", "FILE",
     "the table of modem lines, for programs with libptylines.so\n"
     "(the variable PTYLINES_TABLE, else DIR/lines of --link-dir)"},
    {"control", "SOCKET", "take commands on this socket too, not only on standard input"},
    {"ready-file", "FILE", "write the modems' numbers and ports there once all is ready"},
    {"stats", "FILE", "write the calls there at the end, as JSON"},
    {"quiet", nullptr, "do not print what happens, only the calls at the end"},
    {"help", nullptr, "show this"},
    {"version", nullptr, "show the version"},
};

const Option* findOption(const QString& name)
{
    for (const Option& option : options) {
        if (name == QLatin1String(option.name))
            return &option;
    }
    return nullptr;
}

bool isLineOption(const QString& name)
{
    return QStringList({QStringLiteral("rate"), QStringLiteral("delay"), QStringLiteral("ber"), QStringLiteral("burst"),
                        QStringLiteral("drop-after-seconds"), QStringLiteral("drop-after-bytes"),
                        QStringLiteral("drop-times"), QStringLiteral("seed")})
        .contains(name);
}

bool takeInt(const QString& name, const QString& text, int least, int most, int* value, QString* error)
{
    bool valid = false;
    const int number = text.toInt(&valid);
    if (!valid || number < least || number > most) {
        *error = QStringLiteral("'%1' is no value for --%2; give a whole number from %3 to %4")
                     .arg(text, name, QString::number(least), QString::number(most));
        return false;
    }
    *value = number;
    return true;
}

bool takeSeconds(const QString& name, const QString& text, double least, int* ms, QString* error)
{
    constexpr double mostSeconds = 86400;
    bool valid = false;
    const double seconds = text.toDouble(&valid);
    if (!valid || !(seconds >= least && seconds <= mostSeconds)) {
        *error = QStringLiteral("'%1' is no value for --%2; give seconds from %3 to %4")
                     .arg(text, name, QString::number(least), QString::number(mostSeconds));
        return false;
    }
    *ms = qRound(seconds * 1000);
    return true;
}

struct Parser
{
    Parser(ProgramOptions* parsed, QString* problem) : result(parsed), error(problem) {}

    ProgramOptions* result;
    QString* error;
    int modemCount = 2;
    QHash<int, QString> numbers;
    QHash<int, RingStyle> rings;
    RingStyle ringStyle = RingStyle::Line;
    int depthBytes = PtyEndpoint::defaultDepthBytes;

    bool takeNumber(const QString& value)
    {
        const int sign = value.indexOf(QLatin1Char('='));
        bool valid = false;
        const int modem = value.left(sign).toInt(&valid);
        if (sign < 0 || !valid || modem < 1 || normalizedNumber(value.mid(sign + 1)).isEmpty()) {
            *error =
                QStringLiteral("'%1' is no value for --number; give a modem and its number, as 1=5551234").arg(value);
            return false;
        }
        numbers.insert(modem, value.mid(sign + 1));
        return true;
    }

    bool takeRing(const QString& value)
    {
        const int sign = value.indexOf(QLatin1Char('='));
        const QString style = value.mid(sign + 1);
        const bool pin = style == QLatin1String("pin");
        const int modem = sign < 0 ? 0 : value.left(sign).toInt();
        if ((!pin && style != QLatin1String("line")) || (sign >= 0 && modem < 1)) {
            *error =
                QStringLiteral("'%1' is no value for --ring; give line or pin, or for one modem as 2=pin").arg(value);
            return false;
        }
        const RingStyle ring = pin ? RingStyle::Pin : RingStyle::Line;
        if (modem > 0)
            rings.insert(modem, ring);
        else
            ringStyle = ring;
        return true;
    }

    bool take(const QString& name, const QString& value)
    {
        CallSettings& exchange = result->exchange;
        if (isLineOption(name))
            return exchange.line.change(name + QLatin1Char('=') + value, error);
        if (name == QLatin1String("modems"))
            return takeInt(name, value, 1, mostModems, &modemCount, error);
        if (name == QLatin1String("number"))
            return takeNumber(value);
        if (name == QLatin1String("ring"))
            return takeRing(value);
        if (name == QLatin1String("depth"))
            return takeInt(name, value, 1, 65536, &depthBytes, error);
        if (name == QLatin1String("ring-interval"))
            return takeSeconds(name, value, 0.01, &exchange.ringIntervalMs, error);
        if (name == QLatin1String("ring-length"))
            return takeSeconds(name, value, 0.001, &exchange.ringLengthMs, error);
        if (name == QLatin1String("no-answer-after"))
            return takeSeconds(name, value, 0, &exchange.noAnswerAfterMs, error);
        if (name == QLatin1String("training"))
            return takeSeconds(name, value, 0, &exchange.trainingMs, error);
        if (value.isEmpty()) {
            *error = QStringLiteral("--%1 wants a path").arg(name);
            return false;
        }
        takePath(name, value);
        return true;
    }

    void takePath(const QString& name, const QString& value)
    {
        const QString path = QDir::current().absoluteFilePath(value);
        if (name == QLatin1String("link-dir"))
            result->linkDir = path;
        else if (name == QLatin1String("table"))
            result->tablePath = path;
        else if (name == QLatin1String("control"))
            result->controlPath = path;
        else if (name == QLatin1String("ready-file"))
            result->readyPath = path;
        else if (name == QLatin1String("stats"))
            result->statisticsPath = path;
    }

    void takeSwitch(const QString& name)
    {
        result->quiet = result->quiet || name == QLatin1String("quiet");
        result->showHelp = result->showHelp || name == QLatin1String("help");
        result->showVersion = result->showVersion || name == QLatin1String("version");
    }

    bool makeModems()
    {
        for (const QList<int>& named : {numbers.keys(), rings.keys()}) {
            for (const int modem : named) {
                if (modem > modemCount) {
                    *error = QStringLiteral("there is no modem %1 of %2; give more with --modems")
                                 .arg(QString::number(modem), QString::number(modemCount));
                    return false;
                }
            }
        }
        QHash<QString, int> owners;
        for (int modem = 1; modem <= modemCount; ++modem) {
            ModemSettings settings;
            settings.number = numbers.value(modem, QString::number(firstNumber + modem - 1));
            settings.ringStyle = rings.value(modem, ringStyle);
            settings.depthBytes = depthBytes;
            if (!result->linkDir.isEmpty())
                settings.linkPath = QStringLiteral("%1/modem%2").arg(result->linkDir, QString::number(modem));
            const int owner = owners.value(normalizedNumber(settings.number));
            if (owner > 0) {
                *error = QStringLiteral("modems %1 and %2 have the same number %3; give one another with --number")
                             .arg(QString::number(owner), QString::number(modem), settings.number);
                return false;
            }
            owners.insert(normalizedNumber(settings.number), modem);
            result->modems.append(settings);
        }
        return true;
    }
};

} // namespace

bool ProgramOptions::parse(const QStringList& arguments, QString* error)
{
    Parser parser(this, error);
    for (int i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        const int sign = argument.indexOf(QLatin1Char('='));
        const QString name = argument.mid(2, sign < 0 ? -1 : sign - 2);
        const Option* option = argument.startsWith(QLatin1String("--")) ? findOption(name) : nullptr;
        if (!option) {
            *error = QStringLiteral("there is no option '%1'; --help shows those there are").arg(argument);
            return false;
        }
        if (!option->argument) {
            if (sign >= 0) {
                *error = QStringLiteral("--%1 takes no value; write it alone").arg(name);
                return false;
            }
            parser.takeSwitch(name);
            continue;
        }
        if (sign < 0 && i + 1 == arguments.size()) {
            *error = QStringLiteral("--%1 wants a value: --%1 %2").arg(name, QLatin1String(option->argument));
            return false;
        }
        if (!parser.take(name, sign < 0 ? arguments.at(++i) : argument.mid(sign + 1)))
            return false;
    }
    return parser.makeModems();
}

QString ProgramOptions::helpText()
{
    QString text = QStringLiteral("Usage: phone-exchange [options]\n"
                                  "A telephone exchange in software: modems with AT commands on pseudo-terminals, and\n"
                                  "calls between them over lines with a rate, a delay, noise and dropped carriers.\n\n"
                                  "Options (default):\n");
    constexpr int column = 34;
    for (const Option& option : options) {
        QString left = QStringLiteral("  --%1").arg(QLatin1String(option.name));
        if (option.argument)
            left += QLatin1Char(' ') + QLatin1String(option.argument);
        QString help = QString::fromLatin1(option.help);
        help.replace(QLatin1Char('\n'), QLatin1Char('\n') + QString(column, QLatin1Char(' ')));
        const QString gap = left.size() < column ? QString(column - left.size(), QLatin1Char(' '))
                                                 : QLatin1Char('\n') + QString(column, QLatin1Char(' '));
        text += left + gap + help + QLatin1Char('\n');
    }
    text += QStringLiteral("\nCommands on standard input and on the control socket:\n");
    for (const QString& line : Control::help())
        text += QStringLiteral("  ") + line + QLatin1Char('\n');
    return text + QStringLiteral("\nA program sees the modems' lines and the driver's depth when it runs with\n"
                                 "  LD_PRELOAD=libptylines.so PTYLINES_TABLE=FILE\n\n"
                                 "Exit status: 0 ended by quit or a signal, 1 cannot run, 2 bad options.\n");
}

} // namespace sim
