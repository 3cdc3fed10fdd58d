#include "sim/program/programoptions.h"

#include "sim/exchange/control.h"

#include <QDir>
#include <QHash>

namespace sim {

namespace {

constexpr int mostModems = 1000;
constexpr int firstNumber = 101;

// What the command line has told so far.
struct Parser
{
    ProgramOptions* result;
    QString* error;
    int modemCount = 2;
    QHash<int, QString> numbers = {};
    QHash<int, RingStyle> rings = {};
    RingStyle ringStyle = RingStyle::Text;
    int depthBytes = PtyEndpoint::defaultDepthBytes;
};

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

// The functions of the options: each takes its value, or says in parser.error what to give.

bool takeModems(Parser& parser, const QString& name, const QString& value)
{
    return takeInt(name, value, 1, mostModems, &parser.modemCount, parser.error);
}

bool takeDepth(Parser& parser, const QString& name, const QString& value)
{
    return takeInt(name, value, 1, 65536, &parser.depthBytes, parser.error);
}

bool takeNumber(Parser& parser, const QString&, const QString& value)
{
    const int sign = value.indexOf(QLatin1Char('='));
    bool valid = false;
    const int modem = value.left(sign).toInt(&valid);
    if (sign < 0 || !valid || modem < 1 || normalizedNumber(value.mid(sign + 1)).isEmpty()) {
        *parser.error =
            QStringLiteral("'%1' is no value for --number; give a modem and its number, as 1=5551234").arg(value);
        return false;
    }
    parser.numbers.insert(modem, value.mid(sign + 1));
    return true;
}

bool takeRing(Parser& parser, const QString&, const QString& value)
{
    const int sign = value.indexOf(QLatin1Char('='));
    const QString style = value.mid(sign + 1);
    const bool pin = style == QLatin1String("pin");
    const int modem = sign < 0 ? 0 : value.left(sign).toInt();
    if ((!pin && style != QLatin1String("line")) || (sign >= 0 && modem < 1)) {
        *parser.error =
            QStringLiteral("'%1' is no value for --ring; give line or pin, or for one modem as 2=pin").arg(value);
        return false;
    }
    const RingStyle ring = pin ? RingStyle::Pin : RingStyle::Text;
    if (modem > 0)
        parser.rings.insert(modem, ring);
    else
        parser.ringStyle = ring;
    return true;
}

bool takeLine(Parser& parser, const QString& name, const QString& value)
{
    return parser.result->exchange.line.change(name + QLatin1Char('=') + value, parser.error);
}

template <int CallSettings::*ms, int leastMs>
bool takeSeconds(Parser& parser, const QString& name, const QString& value)
{
    constexpr double leastSeconds = leastMs / 1000.0;
    constexpr double mostSeconds = 86400;
    bool valid = false;
    const double seconds = value.toDouble(&valid);
    if (!valid || !(seconds >= leastSeconds && seconds <= mostSeconds)) {
        *parser.error = QStringLiteral("'%1' is no value for --%2; give seconds from %3 to %4")
                            .arg(value, name, QString::number(leastSeconds), QString::number(mostSeconds));
        return false;
    }
    parser.result->exchange.*ms = qRound(seconds * 1000);
    return true;
}

template <QString ProgramOptions::*path>
bool takePath(Parser& parser, const QString& name, const QString& value)
{
    if (value.isEmpty()) {
        *parser.error = QStringLiteral("--%1 wants a path").arg(name);
        return false;
    }
    parser.result->*path = QDir::current().absoluteFilePath(value);
    return true;
}

template <bool ProgramOptions::*option>
bool takeSwitch(Parser& parser, const QString&, const QString&)
{
    parser.result->*option = true;
    return true;
}

struct Option
{
    const char* name;
    const char* argument; // null: a switch
    const char* help;
    bool (*take)(Parser& parser, const QString& name, const QString& value);
};

constexpr Option options[] = {
    {"modems", "N", "how many modems (2)", takeModems},
    {"number", "N=NUMBER", "telephone number of modem N (101 for modem 1, 102 ...); again for others", takeNumber},
    {"ring", "[N=]line|pin", "a ring is a line RING, or the RI pin, never both (line); again for others", takeRing},
    {"link-dir", "DIR", "make links DIR/modem1, DIR/modem2 ... to the ports; made if missing",
     takePath<&ProgramOptions::linkDir>},
    {"depth", "BYTES", "what a program may have outstanding in its driver (4096)", takeDepth},
    {"rate", "BITS", "bit/s of the line, or CALLER/CALLED for the two ways (33600)", takeLine},
    {"delay", "MS", "of the line, each way (0)", takeLine},
    {"ber", "CHANCE", "of each data bit to be flipped, as 1e-5 (0)", takeLine},
    {"burst", "SECONDS/BITS[/CHANCE]", "bursts of noise: mean interval, length, chance of a bit inside (off)",
     takeLine},
    {"drop-after-seconds", "SECONDS", "carrier is lost so long after CONNECT (never)", takeLine},
    {"drop-after-bytes", "BYTES", "carrier is lost after so many bytes, both ways together (never)", takeLine},
    {"drop-times", "N", "only the first N calls are dropped so (all)", takeLine},
    {"seed", "N", "of the noise (1)", takeLine},
    {"ring-interval", "SECONDS", "from ring to ring (5)", takeSeconds<&CallSettings::ringIntervalMs, 10>},
    {"ring-length", "SECONDS", "how long the RI pin stands (1)", takeSeconds<&CallSettings::ringLengthMs, 1>},
    {"no-answer-after", "SECONDS", "of ringing; S7 of the caller may be shorter (60)",
     takeSeconds<&CallSettings::noAnswerAfterMs, 0>},
    {"training", "SECONDS", "from the answer to CONNECT (0)", takeSeconds<&CallSettings::trainingMs, 0>},
    {"table", "FILE",
     "the table of modem lines, for programs with libptylines.so\n"
     "(the variable PTYLINES_TABLE, else DIR/lines of --link-dir)",
     takePath<&ProgramOptions::tablePath>},
    {"control", "SOCKET", "take commands on this socket too, not only on standard input",
     takePath<&ProgramOptions::controlPath>},
    {"ready-file", "FILE", "write the modems' numbers and ports there once all is ready",
     takePath<&ProgramOptions::readyPath>},
    {"stats", "FILE", "write the calls there at the end, as JSON", takePath<&ProgramOptions::statisticsPath>},
    {"quiet", nullptr, "do not print what happens, only the calls at the end", takeSwitch<&ProgramOptions::quiet>},
    {"help", nullptr, "show this", takeSwitch<&ProgramOptions::showHelp>},
    {"version", nullptr, "show the version", takeSwitch<&ProgramOptions::showVersion>},
};

const Option* findOption(const QString& name)
{
    for (const Option& option : options) {
        if (name == QLatin1String(option.name))
            return &option;
    }
    return nullptr;
}

// argument: as it was written. next: the one after it, which is taken when it is the value; null
// when there is none.
bool takeOption(Parser& parser, const QString& argument, const QString* next, bool* tookNext)
{
    const int sign = argument.indexOf(QLatin1Char('='));
    const QString name = argument.mid(2, sign < 0 ? -1 : sign - 2);
    const Option* option = argument.startsWith(QLatin1String("--")) ? findOption(name) : nullptr;
    if (!option) {
        *parser.error = QStringLiteral("there is no option '%1'; --help shows those there are").arg(argument);
        return false;
    }
    if (!option->argument && sign >= 0) {
        *parser.error = QStringLiteral("--%1 takes no value; write it alone").arg(name);
        return false;
    }
    *tookNext = option->argument && sign < 0;
    if (*tookNext && !next) {
        *parser.error = QStringLiteral("--%1 wants a value: --%1 %2").arg(name, QLatin1String(option->argument));
        return false;
    }
    return option->take(parser, name, *tookNext ? *next : argument.mid(sign + 1));
}

bool makeModems(const Parser& parser)
{
    for (const QList<int>& named : {parser.numbers.keys(), parser.rings.keys()}) {
        for (const int modem : named) {
            if (modem > parser.modemCount) {
                *parser.error = QStringLiteral("there is no modem %1 of %2; give more with --modems")
                                    .arg(QString::number(modem), QString::number(parser.modemCount));
                return false;
            }
        }
    }
    QHash<QString, int> owners;
    for (int modem = 1; modem <= parser.modemCount; ++modem) {
        ModemSettings settings;
        settings.number = parser.numbers.value(modem, QString::number(firstNumber + modem - 1));
        settings.ringStyle = parser.rings.value(modem, parser.ringStyle);
        settings.depthBytes = parser.depthBytes;
        if (!parser.result->linkDir.isEmpty())
            settings.linkPath = QStringLiteral("%1/modem%2").arg(parser.result->linkDir, QString::number(modem));
        const int owner = owners.value(normalizedNumber(settings.number));
        if (owner > 0) {
            *parser.error = QStringLiteral("modems %1 and %2 have the same number %3; give one another with --number")
                                .arg(QString::number(owner), QString::number(modem), settings.number);
            return false;
        }
        owners.insert(normalizedNumber(settings.number), modem);
        parser.result->modems.append(settings);
    }
    return true;
}

} // namespace

bool ProgramOptions::parse(const QStringList& arguments, QString* error)
{
    Parser parser{this, error};
    for (int i = 0; i < arguments.size(); ++i) {
        const QString* next = i + 1 < arguments.size() ? &arguments.at(i + 1) : nullptr;
        bool tookNext = false;
        if (!takeOption(parser, arguments.at(i), next, &tookNext))
            return false;
        i += tookNext;
    }
    return makeModems(parser);
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
