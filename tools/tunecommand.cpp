#include "tools/tunecommand.h"

#include "common/global.h"
#include "common/settingskeys.h"
#include "tools/linkprofile.h"
#include "tools/profilefiles.h"

#include <QCommandLineParser>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <optional>

namespace tune {

namespace {

constexpr int done = 0;
constexpr int failed = 1;
constexpr int wrongUsage = 2;

const char description[] =
    "Settings of the link for a line: prints the packet size and the keys of settings.ini that get the most\n"
    "out of a line of that rate, delay and bit error rate, with the goodput to expect, or writes them into an\n"
    "installation's settings. Both ends of the line want the same values.";

const char examples[] = "\n"
                        "Examples:\n"
                        "  transport-tune --rate 33600                          a clean telephone line\n"
                        "  transport-tune --rate 9600 --delay 300 --ber 1e-5    slow, far away and noisy\n"
                        "  transport-tune --rate 115200 --write                 into this program's installation\n"
                        "  transport-tune --rate 115200 --write --installation /opt/transport\n"
                        "\n"
                        "A host reads these settings when it starts: start it again after --write.\n"
                        "Exit status: 0 done, 1 failed, 2 wrong usage.\n";

struct Options
{
    QCommandLineOption help{{"h", "help"}, "This text."};
    QCommandLineOption version{{"v", "version"}, "The version."};
    QCommandLineOption rate{"rate", "The line's rate in bit/s, as the modems agree on it; a byte takes ten bits.", "R"};
    QCommandLineOption delay{"delay", "The time a byte takes from one end to the other, in ms (default 0).", "D"};
    QCommandLineOption ber{"ber", "Bit error rate: 1e-5 is one wrong bit in 100000 (default 0).", "P"};
    QCommandLineOption buffer{
        "buffer", "What driver and modem hold of what was written to the port, in bytes (default 4096).", "B"};
    QCommandLineOption json{"json", "Print a JSON object instead of a table."};
    QCommandLineOption write{"write", "Write the values into the installation's settings."};
    QCommandLineOption installation{"installation", "Its root (default: the one that this program stands in).", "DIR"};

    QList<QCommandLineOption> all() const
    {
        return {help, version, rate, delay, ber, buffer, json, write, installation};
    }
};

struct Request
{
    LineFacts line;
    bool json = false;
    bool write = false;
    QString installation;
};

// A whole number within the limits; an error text otherwise.
QString takeNumber(const QString& name, const QString& text, int least, int most, int* value)
{
    bool valid = false;
    const int number = text.toInt(&valid);
    if (!valid || number < least || number > most) {
        return QStringLiteral("--%1 takes a whole number from %2 to %3, not '%4'")
            .arg(name, QString::number(least), QString::number(most), text);
    }
    *value = number;
    return QString();
}

QString takeBitErrorRate(const QString& text, double* value)
{
    bool valid = false;
    const double number = text.toDouble(&valid);
    if (!valid || !(number >= 0 && number <= highestBitErrorRate))
        return QStringLiteral("--ber takes a number from 0 to 0.01, as 1e-5, not '%1'").arg(text);
    *value = number;
    return QString();
}

QString readRequest(const QCommandLineParser& parser, const Options& options, Request* request)
{
    if (!parser.positionalArguments().isEmpty())
        return QStringLiteral("'%1' is no option").arg(parser.positionalArguments().first());
    if (!parser.isSet(options.rate))
        return QStringLiteral("--rate is missing: the line's rate in bit/s, as 33600");
    LineFacts& line = request->line;
    QString error = takeNumber(QStringLiteral("rate"), parser.value(options.rate), lowestRate, highestRate, &line.rate);
    if (error.isEmpty() && parser.isSet(options.delay))
        error = takeNumber(QStringLiteral("delay"), parser.value(options.delay), 0, longestDelayMs, &line.delayMs);
    if (error.isEmpty() && parser.isSet(options.ber))
        error = takeBitErrorRate(parser.value(options.ber), &line.bitErrorRate);
    if (error.isEmpty() && parser.isSet(options.buffer))
        error = takeNumber(QStringLiteral("buffer"), parser.value(options.buffer), 0, largestBufferBytes,
                           &line.bufferBytes);
    request->json = parser.isSet(options.json);
    request->write = parser.isSet(options.write);
    request->installation = parser.value(options.installation);
    if (error.isEmpty() && !request->write && parser.isSet(options.installation))
        error = QStringLiteral("--installation is of use with --write only");
    if (request->installation.isEmpty())
        request->installation = Global::installDir().absolutePath();
    return error;
}

QString share(double value)
{
    return QString::asprintf("%.3f", value);
}

QString inRate(double value, int rate)
{
    return QString::number(qRound64(value * rate / 10));
}

struct Value
{
    QString name;
    int value;
    const char* unit;
};

// Of an adaptive link's settings only the first one is left.
QList<Value> valuesOf(const LinkProfile& profile, bool isAdaptive)
{
    if (isAdaptive)
        return {{QStringLiteral("packetSize"), profile.packetSize, "bytes"}};
    const auto key = [](Setting setting) { return settingKey(setting).key(); };
    return {
        {QStringLiteral("packetSize"), profile.packetSize, "bytes"},
        {key(Setting::DetailsTransportComMaxBytesToWrite), profile.maxBytesToWrite, "bytes"},
        {key(Setting::DetailsTransportComMaxBytesInQueue), profile.maxBytesInQueue, "bytes"},
        {key(Setting::DetailsTransportComResendInterval), profile.resendIntervalMs, "ms"},
        {key(Setting::DetailsTransportComConfirmationInterval), profile.confirmationIntervalMs, "ms"},
    };
}

struct Advice
{
    LinkProfile profile;
    bool isAdaptive = false;
    Goodput goodput; // of the profile
};

Advice adviceFor(const Request& request)
{
    // The link makes packets smaller than this where noise asks for it, and knows the rest.
    constexpr int largestUsefulPacket = 4096;
    Advice advice{recommendedProfile(request.line), isAdaptive(request.installation), expectedGoodput(request.line)};
    if (advice.isAdaptive)
        advice.profile.packetSize = largestUsefulPacket;
    return advice;
}

void printTable(QTextStream& out, const LineFacts& line, const Advice& advice)
{
    out << "line: " << line.rate << " bit/s, delay " << line.delayMs << " ms, bit error rate " << line.bitErrorRate
        << ", buffers of " << line.bufferBytes << " bytes\n\n";
    constexpr int nameWidth = 42;
    constexpr int numberWidth = 8;
    for (const Value& value : valuesOf(advice.profile, advice.isAdaptive)) {
        out << value.name.leftJustified(nameWidth) << QString::number(value.value).rightJustified(numberWidth) << ' '
            << value.unit << '\n';
    }
    if (advice.isAdaptive) {
        out << "\nThe link of this installation measures the line itself (transportComAdaptive is 1):\n"
               "there is nothing else to set.\n";
        return;
    }
    const Goodput& goodput = advice.goodput;
    out << "\nexpected goodput: " << share(goodput.oneWay) << " of the line (" << inRate(goodput.oneWay, line.rate)
        << " bytes/s) one way, " << share(goodput.bothWays) << " each way (" << inRate(goodput.bothWays, line.rate)
        << " bytes/s) with both ways busy\n";
}

void printJson(QTextStream& out, const LineFacts& line, const Advice& advice)
{
    QJsonObject settings;
    for (const Value& value : valuesOf(advice.profile, advice.isAdaptive))
        settings.insert(value.name, value.value);
    QJsonObject object{
        {"line", QJsonObject{{"rate", line.rate},
                             {"delayMs", line.delayMs},
                             {"bitErrorRate", line.bitErrorRate},
                             {"bufferBytes", line.bufferBytes}}},
        {"adaptive", advice.isAdaptive},
        {"settings", settings},
    };
    if (!advice.isAdaptive) {
        const Goodput& goodput = advice.goodput;
        object.insert(QStringLiteral("goodput"),
                      QJsonObject{{"oneWay", goodput.oneWay}, {"bothWays", goodput.bothWays}});
    }
    out << QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Indented));
}

int usageError(QTextStream& err, const QString& text)
{
    err << "transport-tune: " << text << "\nTry 'transport-tune --help'." << Qt::endl;
    return wrongUsage;
}

int carryOut(const Request& request, QTextStream& out, QTextStream& err)
{
    const Advice advice = adviceFor(request);
    if (request.write) {
        const QString error = writeProfile(request.installation, advice.profile);
        if (!error.isEmpty()) {
            err << "transport-tune: " << error << Qt::endl;
            return failed;
        }
    }
    if (request.json)
        printJson(out, request.line, advice);
    else
        printTable(out, request.line, advice);
    if (request.write && !request.json)
        out << "written into " << request.installation << "; hosts that run take it when they are started again\n";
    out.flush();
    return done;
}

} // namespace

int runTune(const QStringList& arguments, QTextStream& out, QTextStream& err)
{
    QCommandLineParser parser;
    const Options options;
    parser.setApplicationDescription(QString::fromLatin1(description));
    parser.addOptions(options.all());
    if (!parser.parse(arguments))
        return usageError(err, parser.errorText());
    if (parser.isSet(options.help)) {
        out << parser.helpText() << examples;
        out.flush();
        return done;
    }
    if (parser.isSet(options.version)) {
        out << QCoreApplication::applicationName() << ' ' << QCoreApplication::applicationVersion() << Qt::endl;
        return done;
    }
    Request request;
    const QString error = readRequest(parser, options, &request);
    return error.isEmpty() ? carryOut(request, out, err) : usageError(err, error);
}

} // namespace tune
