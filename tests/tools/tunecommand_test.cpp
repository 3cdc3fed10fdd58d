// transport-tune: what it prints, what it writes, what it refuses.
#include "com/formats/ccomsettings.h"
#include "common/csettings.h"
#include "rig/testroot.h"
#include "tools/linkprofile.h"
#include "tools/profilefiles.h"
#include "tools/tunecommand.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <gtest/gtest.h>

namespace {

struct Result
{
    int status = -1;
    QString out;
    QString err;
};

Result run(const QStringList& arguments)
{
    Result result;
    QTextStream out(&result.out);
    QTextStream err(&result.err);
    result.status = tune::runTune(QStringList{QStringLiteral("transport-tune")} + arguments, out, err);
    return result;
}

QJsonObject json(const QStringList& arguments)
{
    const Result result = run(arguments + QStringList{QStringLiteral("--json")});
    EXPECT_EQ(result.status, 0) << result.err.toStdString();
    return QJsonDocument::fromJson(result.out.toUtf8()).object();
}

tune::LineFacts line(int rate, int delayMs = 0, double bitErrorRate = 0)
{
    tune::LineFacts facts;
    facts.rate = rate;
    facts.delayMs = delayMs;
    facts.bitErrorRate = bitErrorRate;
    return facts;
}

// An installation beside the one that the test runs in.
class WritingProfiles : public testing::Test
{
protected:
    WritingProfiles() { QDir().mkpath(root + QStringLiteral("/settings")); }

    Result write(const QStringList& more = {}) const
    {
        return run(QStringList{"--rate", "33600", "--write", "--installation", root} + more);
    }

    QString path(const char* name) const { return root + QStringLiteral("/settings/") + QString::fromLatin1(name); }

    QByteArray content(const char* name) const
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << name;
        return file.readAll();
    }

    void put(const char* name, const QByteArray& bytes) const
    {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(bytes), bytes.size());
    }

    int key(const char* name) const
    {
        QSettings settings(path("settings.ini"), QSettings::IniFormat);
        return settings.value(QString::fromLatin1(name), -1).toInt();
    }

    ChannelComSettings channel() const
    {
        ChannelComSettings settings;
        settings.packetSize = -1;
        EXPECT_EQ(settings.fromByteArray(content("channelCom.conf")), QString());
        return settings;
    }

    const QString root = rig::installRoot() + QStringLiteral("/other");
};

// Two ports as a user enters them, one of them never filled in.
ChannelComSettings twoPorts()
{
    ChannelComSettings settings;
    settings.packetSize = 777;
    ComPortSettings port;
    port.enabled = true;
    port.portName = QStringLiteral("/dev/ttyS0");
    port.initString = QStringLiteral("ATE0\\r");
    port.baudRate = 115200;
    port.flowControl = 1;
    port.dataBits = 8;
    port.parity = 0;
    port.stopBits = 1;
    settings.ports = {port, ComPortSettings()};
    return settings;
}

} // namespace

TEST(TuneProgram, PrintsEveryValueWithItsUnitAndTheGoodput)
{
    const Result result = run({"--rate", "115200", "--delay", "100", "--ber", "1e-5"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, QString());
    const tune::LinkProfile profile = tune::recommendedProfile(line(115200, 100, 1e-5));
    const auto row = [](const char* name, int value, const char* unit) {
        return QStringLiteral("\n%1 %2 %3\n")
            .arg(QString::fromLatin1(name), -41)
            .arg(value, 8)
            .arg(QString::fromLatin1(unit));
    };
    EXPECT_TRUE(
        result.out.startsWith("line: 115200 bit/s, delay 100 ms, bit error rate 1e-05, buffers of 4096 bytes\n"))
        << result.out.toStdString();
    EXPECT_TRUE(result.out.contains(row("packetSize", profile.packetSize, "bytes"))) << result.out.toStdString();
    EXPECT_TRUE(result.out.contains(row("Details/transportComMaxBytesToWrite", profile.maxBytesToWrite, "bytes")));
    EXPECT_TRUE(result.out.contains(row("Details/transportComMaxBytesInQueue", profile.maxBytesInQueue, "bytes")));
    EXPECT_TRUE(result.out.contains(row("Details/transportComResendInterval", profile.resendIntervalMs, "ms")));
    EXPECT_TRUE(
        result.out.contains(row("Details/transportComConfirmationInterval", profile.confirmationIntervalMs, "ms")));
    const tune::Goodput goodput = tune::expectedGoodput(line(115200, 100, 1e-5));
    EXPECT_TRUE(result.out.contains(
        QString::asprintf("expected goodput: %.3f of the line (%.0f bytes/s) one way, %.3f each way", goodput.oneWay,
                          goodput.oneWay * 11520, goodput.bothWays)))
        << result.out.toStdString();
}

TEST(TuneProgram, PrintsJson)
{
    const QJsonObject object = json({"--rate", "9600", "--ber", "1e-4", "--buffer", "256"});
    tune::LineFacts facts = line(9600, 0, 1e-4);
    facts.bufferBytes = 256;
    const tune::LinkProfile profile = tune::recommendedProfile(facts);
    const QJsonObject lineObject = object.value("line").toObject();
    EXPECT_EQ(lineObject.value("rate").toInt(), 9600);
    EXPECT_EQ(lineObject.value("delayMs").toInt(-1), 0);
    EXPECT_EQ(lineObject.value("bitErrorRate").toDouble(), 1e-4);
    EXPECT_EQ(lineObject.value("bufferBytes").toInt(), 256);
    const QJsonObject settings = object.value("settings").toObject();
    EXPECT_EQ(settings.size(), 5);
    EXPECT_EQ(settings.value("packetSize").toInt(), profile.packetSize);
    EXPECT_EQ(settings.value("Details/transportComMaxBytesToWrite").toInt(), profile.maxBytesToWrite);
    EXPECT_EQ(settings.value("Details/transportComMaxBytesInQueue").toInt(), profile.maxBytesInQueue);
    EXPECT_EQ(settings.value("Details/transportComResendInterval").toInt(), profile.resendIntervalMs);
    EXPECT_EQ(settings.value("Details/transportComConfirmationInterval").toInt(), profile.confirmationIntervalMs);
    const tune::Goodput goodput = tune::expectedGoodput(facts);
    EXPECT_DOUBLE_EQ(object.value("goodput").toObject().value("oneWay").toDouble(), goodput.oneWay);
    EXPECT_DOUBLE_EQ(object.value("goodput").toObject().value("bothWays").toDouble(), goodput.bothWays);
}

TEST(TuneProgram, HelpNamesEveryOptionAndExitStatus)
{
    const Result result = run({"--help"});
    EXPECT_EQ(result.status, 0);
    for (const char* text : {"--rate", "--delay", "--ber", "--buffer", "--json", "--write", "--installation",
                             "Examples:", "Exit status: 0 done, 1 failed, 2 wrong usage."})
        EXPECT_TRUE(result.out.contains(QString::fromLatin1(text))) << text;
}

TEST(TuneProgram, WrongUsageSaysWhatIsWanted)
{
    const QList<QPair<QStringList, QString>> cases{
        {{}, "--rate is missing: the line's rate in bit/s, as 33600"},
        {{"--rate"}, "Missing value after '--rate'."},
        {{"--rate", "299"}, "--rate takes a whole number from 300 to 10000000, not '299'"},
        {{"--rate", "10000001"}, "--rate takes a whole number from 300 to 10000000, not '10000001'"},
        {{"--rate", "9600.5"}, "--rate takes a whole number from 300 to 10000000, not '9600.5'"},
        {{"--rate", ""}, "--rate takes a whole number from 300 to 10000000, not ''"},
        {{"--rate", "9600", "--delay", "-1"}, "--delay takes a whole number from 0 to 10000, not '-1'"},
        {{"--rate", "9600", "--delay", "10001"}, "--delay takes a whole number from 0 to 10000, not '10001'"},
        {{"--rate", "9600", "--ber", "0.011"}, "--ber takes a number from 0 to 0.01, as 1e-5, not '0.011'"},
        {{"--rate", "9600", "--ber", "-1e-5"}, "--ber takes a number from 0 to 0.01, as 1e-5, not '-1e-5'"},
        {{"--rate", "9600", "--ber", "nan"}, "--ber takes a number from 0 to 0.01, as 1e-5, not 'nan'"},
        {{"--rate", "9600", "--buffer", "x"}, "--buffer takes a whole number from 0 to 1048576, not 'x'"},
        {{"--rate", "9600", "9600"}, "'9600' is no option"},
        {{"--rate", "9600", "--fast"}, "Unknown option 'fast'."},
        {{"--rate", "9600", "--installation", "/"}, "--installation is of use with --write only"},
    };
    for (const auto& [arguments, text] : cases) {
        const Result result = run(arguments);
        EXPECT_EQ(result.status, 2) << text.toStdString();
        EXPECT_EQ(result.out, QString());
        EXPECT_EQ(result.err, QStringLiteral("transport-tune: %1\nTry 'transport-tune --help'.\n").arg(text));
    }
}

TEST(TuneProgram, TakesTheEndsOfEachRange)
{
    for (const QStringList& arguments :
         {QStringList{"--rate", "300"}, QStringList{"--rate", "10000000"},
          QStringList{"--rate", "9600", "--delay", "10000", "--ber", "0.01", "--buffer", "1048576"},
          QStringList{"--rate", "9600", "--delay", "0", "--ber", "0", "--buffer", "0"}})
        EXPECT_EQ(run(arguments).status, 0) << arguments.join(' ').toStdString();
}

TEST_F(WritingProfiles, SettingsAsTheChannelReadsThem)
{
    const Result result = write();
    EXPECT_EQ(result.status, 0) << result.err.toStdString();
    EXPECT_TRUE(result.out.endsWith(
        QStringLiteral("written into %1; hosts that run take it when they are started again\n").arg(root)))
        << result.out.toStdString();
    const tune::LinkProfile profile = tune::recommendedProfile(line(33600));
    EXPECT_EQ(key("Details/transportComMaxBytesToWrite"), profile.maxBytesToWrite);
    EXPECT_EQ(key("Details/transportComMaxBytesInQueue"), profile.maxBytesInQueue);
    EXPECT_EQ(key("Details/transportComResendInterval"), profile.resendIntervalMs);
    EXPECT_EQ(key("Details/transportComConfirmationInterval"), profile.confirmationIntervalMs);
    EXPECT_EQ(channel().packetSize, profile.packetSize);
    EXPECT_TRUE(channel().ports.isEmpty());
    // Programs of several users share the file.
    EXPECT_EQ(QFile::permissions(path("settings.ini")), QFileDevice::Permissions(0x6666));
}

// Such a link needs to be told the largest packet, and nothing else.
TEST_F(WritingProfiles, OfAnAdaptiveLinkThePacketSizeAlone)
{
    put("settings.ini", "[Details]\ntransportComAdaptive=1\n");
    const Result result = write();
    EXPECT_EQ(result.status, 0) << result.err.toStdString();
    EXPECT_EQ(result.out, QStringLiteral("line: 33600 bit/s, delay 0 ms, bit error rate 0, buffers of 4096 bytes\n"
                                         "\n"
                                         "packetSize                                    4096 bytes\n"
                                         "\n"
                                         "The link of this installation measures the line itself (transportComAdaptive "
                                         "is 1):\n"
                                         "there is nothing else to set.\n"
                                         "written into %1; hosts that run take it when they are started again\n")
                              .arg(root));
    EXPECT_EQ(content("settings.ini"), QByteArray("[Details]\ntransportComAdaptive=1\n"));
    EXPECT_EQ(channel().packetSize, 4096);
    const QJsonObject told = QJsonDocument::fromJson(write({"--json"}).out.toUtf8()).object();
    EXPECT_EQ(told.keys(), QStringList({"adaptive", "line", "settings"}));
    EXPECT_TRUE(told["adaptive"].toBool());
    EXPECT_EQ(told["settings"].toObject(), QJsonObject({{"packetSize", 4096}}));
}

TEST_F(WritingProfiles, OfALinkThatIsNotAdaptiveAllOfIt)
{
    put("settings.ini", "[Details]\ntransportComAdaptive=0\n");
    EXPECT_EQ(write().status, 0);
    EXPECT_EQ(key("Details/transportComResendInterval"), tune::recommendedProfile(line(33600)).resendIntervalMs);
    EXPECT_EQ(channel().packetSize, tune::recommendedProfile(line(33600)).packetSize);
}

TEST_F(WritingProfiles, IntoTheProgramsOwnInstallationUnlessToldOtherwise)
{
    QDir().mkpath(rig::installRoot() + QStringLiteral("/settings"));
    const Result result = run({"--rate", "9600", "--write", "--json"});
    EXPECT_EQ(result.status, 0) << result.err.toStdString();
    EXPECT_TRUE(QJsonDocument::fromJson(result.out.toUtf8()).isObject()); // and nothing behind it
    const tune::LinkProfile profile = tune::recommendedProfile(line(9600));
    EXPECT_EQ(CSettings().detailsTransportComMaxBytesToWrite(), profile.maxBytesToWrite);
    EXPECT_EQ(CSettings().detailsTransportComMaxBytesInQueue(), profile.maxBytesInQueue);
    EXPECT_EQ(CSettings().detailsTransportComResendInterval(), profile.resendIntervalMs);
    EXPECT_EQ(CSettings().detailsTransportComConfirmationInterval(), profile.confirmationIntervalMs);
}

TEST_F(WritingProfiles, LeavesAllOtherSettings)
{
    put("settings.ini", "[Debug]\ntransportComPackets=true\n\n[Details]\ntransportComConnectTimeout=45000\n"
                        "transportComControlSymbol=\"\\r\"\ntransportComResendInterval=123\n\n[Host]\nmine=\"a, b\"\n");
    QFile::setPermissions(path("settings.ini"), QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    put("channelCom.conf", twoPorts().toByteArray());
    EXPECT_EQ(write().status, 0);
    QSettings settings(path("settings.ini"), QSettings::IniFormat);
    EXPECT_EQ(settings.allKeys().size(), 8);
    EXPECT_EQ(settings.value("Debug/transportComPackets").toString(), QStringLiteral("true"));
    EXPECT_EQ(settings.value("Details/transportComConnectTimeout").toInt(), 45000);
    EXPECT_EQ(settings.value("Details/transportComControlSymbol").toString(), QStringLiteral("\r"));
    EXPECT_EQ(settings.value("Host/mine").toString(), QStringLiteral("a, b"));
    EXPECT_NE(settings.value("Details/transportComResendInterval").toInt(), 123);
    EXPECT_FALSE(QFile::permissions(path("settings.ini")) & QFileDevice::ReadOther);
    ChannelComSettings expected = twoPorts();
    expected.packetSize = tune::recommendedProfile(line(33600)).packetSize;
    EXPECT_EQ(content("channelCom.conf"), expected.toByteArray());
}

TEST_F(WritingProfiles, ASecondTimeChangesNothing)
{
    put("channelCom.conf", twoPorts().toByteArray());
    EXPECT_EQ(write().status, 0);
    const QByteArray settings = content("settings.ini");
    const QByteArray ports = content("channelCom.conf");
    EXPECT_EQ(write().status, 0);
    EXPECT_EQ(content("settings.ini"), settings);
    EXPECT_EQ(content("channelCom.conf"), ports);
}

// A crash in the middle of a swap left the ports under their side name.
TEST_F(WritingProfiles, TakesUpPortsThatACrashLeftAside)
{
    put("channelCom.conf.old", twoPorts().toByteArray());
    EXPECT_EQ(write().status, 0);
    EXPECT_EQ(channel().ports.size(), 2);
    EXPECT_FALSE(QFile::exists(path("channelCom.conf.old")));
}

TEST_F(WritingProfiles, ChangesNothingWhenThePortsCannotBeUnderstood)
{
    const QByteArray ports = twoPorts().toByteArray();
    QByteArray otherVersion = ports;
    otherVersion[3] = 2;
    struct Case
    {
        QByteArray bytes;
        const char* text;
    };
    for (const Case& bad : {Case{otherVersion, "Версия настроек 2 не совпадает с текущей 3; nothing was changed"},
                            Case{ports.left(ports.size() - 1), "Данные повреждены; nothing was changed"},
                            Case{QByteArray(), "Версия настроек 0 не совпадает с текущей 3; nothing was changed"},
                            Case{ports + "more", "holds more than this program knows; nothing was changed"}}) {
        put("channelCom.conf", bad.bytes);
        const Result result = write();
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, QString());
        EXPECT_TRUE(result.err.startsWith(QStringLiteral("transport-tune: %1").arg(path("channelCom.conf"))))
            << result.err.toStdString();
        EXPECT_TRUE(result.err.contains(QString::fromUtf8(bad.text))) << result.err.toStdString();
        EXPECT_EQ(content("channelCom.conf"), bad.bytes);
        EXPECT_FALSE(QFile::exists(path("settings.ini")));
    }
}

TEST_F(WritingProfiles, TellsWhenAFileCannotBeWritten)
{
    QDir().mkpath(path("settings.ini")); // in the place of the file, for root too
    const Result result = write();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              QStringLiteral("transport-tune: cannot write %1: check its permissions\n").arg(path("settings.ini")));
    EXPECT_FALSE(QFile::exists(path("channelCom.conf")));
}

TEST_F(WritingProfiles, TellsASettingsFileThatIsDamagedFromOneThatCannotBeWritten)
{
    for (const QByteArray& bytes : {QByteArray("[Details\ntransportComResendInterval=123\n"),
                                    QByteArray("[Details]\ntransportComResendInterval\n")}) {
        put("settings.ini", bytes);
        const Result result = write();
        EXPECT_EQ(result.status, 1) << bytes.constData();
        EXPECT_EQ(result.err,
                  QStringLiteral("transport-tune: cannot understand %1: a line of it is neither [Group] nor "
                                 "key=value; nothing was changed\n")
                      .arg(path("settings.ini")));
        EXPECT_EQ(content("settings.ini"), bytes);
        EXPECT_FALSE(QFile::exists(path("channelCom.conf")));
    }
}

TEST_F(WritingProfiles, TellsWhenOnlyHalfOfItIsWritten)
{
    const QByteArray ports = twoPorts().toByteArray();
    put("channelCom.conf", ports);
    QDir().mkpath(path("channelCom.conf.old/full")); // where the old ports are put aside, for root too
    const Result result = write();
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, QStringLiteral("transport-tune: %1: Не удалось удалить файл %1.old; settings.ini has its new "
                                         "values already: mend this and run it again\n")
                              .arg(path("channelCom.conf")));
    const tune::LinkProfile profile = tune::recommendedProfile(line(33600));
    EXPECT_EQ(key("Details/transportComMaxBytesToWrite"), profile.maxBytesToWrite);
    EXPECT_EQ(content("channelCom.conf"), ports);

    ASSERT_TRUE(QDir(path("channelCom.conf.old")).removeRecursively());
    EXPECT_EQ(write().status, 0);
    EXPECT_EQ(channel().packetSize, profile.packetSize);
    EXPECT_EQ(channel().ports.size(), 2);
}

TEST_F(WritingProfiles, TellsWhenThereIsNoInstallation)
{
    const QString nothing = rig::installRoot() + QStringLiteral("/nothing");
    Result result = run({"--rate", "9600", "--write", "--installation", nothing});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, QStringLiteral("transport-tune: there is no directory %1\n").arg(nothing));
    QDir().mkpath(nothing);
    result = run({"--rate", "9600", "--write", "--installation", nothing});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.err.startsWith(
        QStringLiteral("transport-tune: %1 is no installation: it has no directory \"settings\";").arg(nothing)))
        << result.err.toStdString();
    EXPECT_TRUE(QDir(nothing).isEmpty());
}

// The built program, as an operator runs it.
TEST(TuneProgram, RunsByItself)
{
    QProcess program;
    program.start(QStringLiteral(TRANSPORT_TUNE), {"--rate", "9600", "--json"});
    ASSERT_TRUE(program.waitForFinished());
    EXPECT_EQ(program.exitCode(), 0);
    EXPECT_EQ(QJsonDocument::fromJson(program.readAllStandardOutput()).object().value("settings").toObject(),
              json({"--rate", "9600"}).value("settings").toObject());
    program.start(QStringLiteral(TRANSPORT_TUNE), {"--version"});
    ASSERT_TRUE(program.waitForFinished());
    EXPECT_EQ(program.readAllStandardOutput(), QByteArray("transport-tune " PROJECT_VERSION "\n"));
    program.start(QStringLiteral(TRANSPORT_TUNE), {"--rate", "1"});
    ASSERT_TRUE(program.waitForFinished());
    EXPECT_EQ(program.exitCode(), 2);
}
