// The program phone-exchange from outside: options, files, commands, and a call between
// two ports of it; and the object that programs preload.
#include "sim/pty/ptyendpoint.h"
#include "sim/pty/signaltable.h"
#include "tests/sim/phoneexchangefixture.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSerialPort>
#include <gtest/gtest.h>

#include <csignal>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using rig::waitFor;
using testsupport::PhoneExchangeTest;

namespace {

TEST_F(PhoneExchangeTest, HelpNamesAllAndEndsWell)
{
    EXPECT_EQ(runToEnd({QStringLiteral("--help")}), 0);
    for (const char* text : {"Usage: phone-exchange",
                             "--modems",
                             "--number",
                             "--ring",
                             "--link-dir",
                             "--depth",
                             "--rate",
                             "--delay",
                             "--ber",
                             "--burst",
                             "--drop-after-seconds",
                             "--drop-after-bytes",
                             "--drop-times",
                             "--seed",
                             "--ring-interval",
                             "--ring-length",
                             "--no-answer-after",
                             "--training",
                             "--table",
                             "--control",
                             "--ready-file",
                             "--stats",
                             "--quiet",
                             "--version",
                             "silence N on|off",
                             "Exit status"})
        EXPECT_TRUE(output.contains(text)) << text;
    for (const QByteArray& line : output.split('\n'))
        EXPECT_LE(line.size(), 120) << line.constData();
}

TEST_F(PhoneExchangeTest, Version)
{
    EXPECT_EQ(runToEnd({QStringLiteral("--version")}), 0);
    EXPECT_EQ(output, QByteArray("phone-exchange 1.0.0\n"));
}

TEST_F(PhoneExchangeTest, BadOptionsSayWhatToDo)
{
    const struct
    {
        const char* arguments;
        const char* problem;
    } mistakes[] = {
        {"--colour", "there is no option '--colour'; --help shows those there are"},
        {"modem", "there is no option 'modem'; --help shows those there are"},
        {"--modems", "--modems wants a value: --modems N"},
        {"--modems 0", "'0' is no value for --modems; give a whole number from 1 to 1000"},
        {"--quiet=yes", "--quiet takes no value; write it alone"},
        {"--number 5551", "'5551' is no value for --number; give a modem and its number, as 1=5551234"},
        {"--number 3=5551", "there is no modem 3 of 2; give more with --modems"},
        {"--number 1=102", "modems 1 and 2 have the same number 102; give one another with --number"},
        {"--ring loud", "'loud' is no value for --ring; give line or pin, or for one modem as 2=pin"},
        {"--ring 9=pin", "there is no modem 9 of 2; give more with --modems"},
        {"--rate fast", "'fast' is no value for rate; give bits per second from 10 to 10000000, as 33600, or "
                        "33600/2400 for the two ways"},
        {"--ber=7", "'7' is no value for ber; give the chance of a bit, 0 to 1, as 1e-5"},
        {"--depth 0", "'0' is no value for --depth; give a whole number from 1 to 65536"},
        {"--training -1", "'-1' is no value for --training; give seconds from 0 to 86400"},
        {"--stats=", "--stats wants a path"},
    };
    for (const auto& mistake : mistakes) {
        EXPECT_EQ(runToEnd(QString::fromLatin1(mistake.arguments).split(QLatin1Char(' '))), 2) << mistake.arguments;
        EXPECT_EQ(errors(), "phone-exchange: " + QByteArray(mistake.problem) + "\n");
    }
}

TEST_F(PhoneExchangeTest, WhatItCannotDoEndsWithOne)
{
    QFile file(path("file"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    EXPECT_EQ(runToEnd({QStringLiteral("--link-dir"), path("file/ports")}), 1);
    EXPECT_EQ(errors(), "phone-exchange: cannot make the directory " + path("file/ports").toLocal8Bit() +
                            ": Not a directory; give another with --link-dir\n");
    EXPECT_EQ(runToEnd({QStringLiteral("--ready-file"), path("no/ready")}), 1);
    EXPECT_TRUE(errors().startsWith("phone-exchange: cannot write "));
    EXPECT_EQ(runToEnd({QStringLiteral("--control"), path("no/socket")}), 1);
    EXPECT_TRUE(errors().startsWith("phone-exchange: cannot listen on the control socket "));
    EXPECT_EQ(runToEnd({QStringLiteral("--control"), QLatin1Char('/') + QString(200, QLatin1Char('x'))}), 1);
    EXPECT_TRUE(errors().startsWith("phone-exchange: the path of the control socket is longer than 107 bytes: "));
    ASSERT_EQ(file.write("this is no table of modem lines"), 31);
    file.close();
    EXPECT_EQ(runToEnd({QStringLiteral("--table"), path("file")}), 1);
    EXPECT_TRUE(errors().startsWith("phone-exchange: cannot use the table of modem lines "));
}

TEST_F(PhoneExchangeTest, PortsAreListedLinkedAndTakenAway)
{
    runReady(
        {QStringLiteral("--modems"), QStringLiteral("3"), QStringLiteral("--number"), QStringLiteral("2=555-12-34")});
    const QByteArray listing = "modem1 101 " + path("ports/modem1").toLocal8Bit() + "\nmodem2 5551234 " +
                               path("ports/modem2").toLocal8Bit() + "\nmodem3 103 " +
                               path("ports/modem3").toLocal8Bit() + "\n";
    EXPECT_EQ(fileText(path("ready")), listing);
    EXPECT_TRUE(expectOutput(listing));
    EXPECT_TRUE(QFileInfo(path("ports/modem3")).isSymLink());
    process.write("quit\n");
    ASSERT_TRUE(ended());
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_FALSE(QFileInfo(path("ports/modem3")).isSymLink());
}

TEST_F(PhoneExchangeTest, EndsBySignalsAndNotByTheEndOfInput)
{
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        QFile::remove(path("ready"));
        runReady({});
        process.closeWriteChannel();
        ASSERT_TRUE(expectOutput("modem1"));
        EXPECT_EQ(process.state(), QProcess::Running);
        ::kill(static_cast<pid_t>(process.processId()), number);
        ASSERT_TRUE(ended());
        EXPECT_EQ(process.exitCode(), 0);
        EXPECT_TRUE(expectOutput("calls: 0\n"));
        EXPECT_FALSE(QFileInfo(path("ports/modem1")).isSymLink());
        output.clear();
    }
}

// A call between two ports of the program, with the test as both programs.
class PhoneCallTest : public PhoneExchangeTest
{
protected:
    void SetUp() override
    {
        // The table of the exchange that is to come.
        qputenv(sim::signalTableVariable, QFile::encodeName(path("ports/lines")));
    }

    bool open(QSerialPort& port, const char* name)
    {
        port.setPortName(path(name));
        return port.open(QIODevice::ReadWrite) && port.setDataTerminalReady(true);
    }

    static bool expect(QSerialPort& port, QByteArray& received, const QByteArray& text)
    {
        const bool found = waitFor([&] {
            received += port.readAll();
            return received.contains(text);
        });
        received.remove(0, received.indexOf(text) + text.size());
        return found;
    }

    bool connectCall()
    {
        first.write("ATE0DT102\r");
        if (!expect(second, fromSecond, "RING\r\n"))
            return false;
        second.write("ATA\r");
        return expect(second, fromSecond, "CONNECT 57600\r\n") && expect(first, fromFirst, "CONNECT 57600\r\n");
    }

    QSerialPort first;
    QSerialPort second;
    QByteArray fromFirst;
    QByteArray fromSecond;
};

TEST_F(PhoneCallTest, CarriesTellsAndCounts)
{
    runReady({QStringLiteral("--rate"), QStringLiteral("57600"), QStringLiteral("--stats"), path("stats.json")});
    ASSERT_TRUE(open(first, "ports/modem1")) << first.errorString().toStdString();
    ASSERT_TRUE(open(second, "ports/modem2"));
    EXPECT_TRUE(first.pinoutSignals() & QSerialPort::DataSetReadySignal);
    ASSERT_TRUE(connectCall());
    EXPECT_TRUE(first.pinoutSignals() & QSerialPort::DataCarrierDetectSignal);
    first.write("hello over there");
    EXPECT_TRUE(expect(second, fromSecond, "hello over there"));
    EXPECT_TRUE(command("status", "modem2 102 " + path("ports/modem2").toLocal8Bit() + ": connected, DTR DSR CTS DCD"))
        << output.constData();
    ASSERT_TRUE(first.setDataTerminalReady(false));
    EXPECT_TRUE(expect(second, fromSecond, "NO CARRIER\r\n"));
    EXPECT_TRUE(expectOutput("modem1 DTR dropped\n"));
    EXPECT_TRUE(expectOutput("call 1 ended: modem1 hung up\n"));
    EXPECT_TRUE(command("stats", "call 1: modem1 -> modem2 (102), connected after "));
    EXPECT_TRUE(expectOutput(
        ": modem1 hung up\n  forward  at 57600 bit/s: 16 bytes carried, 16 delivered, 0 lost, busy 0.003 s"));

    process.write("quit\n");
    ASSERT_TRUE(ended());
    EXPECT_TRUE(expectOutput("calls: 1\n"));
    const QJsonArray calls =
        QJsonDocument::fromJson(fileText(path("stats.json"))).object().value(QStringLiteral("calls")).toArray();
    ASSERT_EQ(calls.size(), 1);
    const QJsonObject call = calls.first().toObject();
    EXPECT_EQ(call.value(QStringLiteral("call")).toInt(), 1);
    EXPECT_EQ(call.value(QStringLiteral("caller")).toInt(), 1);
    EXPECT_EQ(call.value(QStringLiteral("called")).toInt(), 2);
    EXPECT_EQ(call.value(QStringLiteral("number")).toString(), QStringLiteral("102"));
    EXPECT_TRUE(call.value(QStringLiteral("connected")).toBool());
    EXPECT_EQ(call.value(QStringLiteral("end")).toString(), QStringLiteral("modem1 hung up"));
    EXPECT_TRUE(call.value(QStringLiteral("line")).toString().startsWith(QStringLiteral("rate=57600,delay=0")));
    for (const char* key : {"startedSeconds", "waitedSeconds", "connectedSeconds"})
        EXPECT_GT(call.value(QLatin1String(key)).toDouble(), 0) << key;
    const QJsonObject forward = call.value(QStringLiteral("forward")).toObject();
    EXPECT_EQ(forward.value(QStringLiteral("bitsPerSecond")).toInt(), 57600);
    EXPECT_EQ(forward.value(QStringLiteral("bytesCarried")).toInt(), 16);
    EXPECT_EQ(forward.value(QStringLiteral("bytesDelivered")).toInt(), 16);
    EXPECT_EQ(forward.value(QStringLiteral("bytesLost")).toInt(), 0);
    EXPECT_EQ(forward.value(QStringLiteral("bitsFlipped")).toInt(), 0);
    EXPECT_EQ(forward.value(QStringLiteral("bytesSpoiled")).toInt(), 0);
    EXPECT_NEAR(forward.value(QStringLiteral("busySeconds")).toDouble(), 160 / 57600.0, 1e-6);
    EXPECT_EQ(call.value(QStringLiteral("backward")).toObject().value(QStringLiteral("bytesCarried")).toInt(), 0);
}

TEST_F(PhoneCallTest, CommandsOnStandardInputAndTheSocket)
{
    runReady({QStringLiteral("--quiet"), QStringLiteral("--rate=57600"), QStringLiteral("--control"), path("control")});
    ASSERT_TRUE(open(first, "ports/modem1"));
    ASSERT_TRUE(open(second, "ports/modem2"));
    ASSERT_TRUE(connectCall());
    EXPECT_TRUE(command("jump", "error: there is no command 'jump'; write help for those there are\n"));
    EXPECT_TRUE(command("busy 2 on", "ok\n"));
    EXPECT_EQ(output, QByteArray("ok\n")); // quiet: answers only

    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path("control"));
    ASSERT_LT(name.size(), static_cast<int>(sizeof(address.sun_path)));
    memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));
    ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    const auto ask = [fd](const QByteArray& line, const QByteArray& answer) {
        QByteArray got;
        if (::send(fd, line.constData(), static_cast<std::size_t>(line.size()), 0) != line.size())
            return got;
        char buffer[4096];
        while (!got.endsWith(answer)) {
            const ssize_t size = ::recv(fd, buffer, sizeof(buffer), 0);
            if (size <= 0)
                break;
            got.append(buffer, static_cast<int>(size));
        }
        return got;
    };
    EXPECT_EQ(ask("drop 1\nwrong\n", "are\n"),
              QByteArray("ok\nerror: there is no command 'wrong'; write help for those there are\n"));
    EXPECT_TRUE(expect(first, fromFirst, "NO CARRIER\r\n"));
    EXPECT_TRUE(expect(second, fromSecond, "NO CARRIER\r\n"));
    EXPECT_EQ(ask("unplug 2\n", "\n"), QByteArray("ok\n"));
    EXPECT_FALSE(QFileInfo(path("ports/modem2")).isSymLink());
    EXPECT_EQ(ask("plug 2\n", "\n"), QByteArray("ok\n"));
    EXPECT_TRUE(QFileInfo(path("ports/modem2")).isSymLink());
    // A second exchange does not take the socket away.
    QProcess rival;
    rival.start(QStringLiteral(PHONE_EXCHANGE), {QStringLiteral("--control"), path("control")});
    ASSERT_TRUE(waitFor([&] { return rival.state() == QProcess::NotRunning; }));
    EXPECT_EQ(rival.exitCode(), 1);
    EXPECT_TRUE(
        rival.readAllStandardError().startsWith("phone-exchange: another process listens on the control socket "));
    EXPECT_EQ(ask("quit\n", "ok\n"), QByteArray("ok\n"));
    ::close(fd);
    ASSERT_TRUE(ended());
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_FALSE(QFile::exists(path("control")));
}

TEST_F(PhoneCallTest, AProgramPreloadsItsLines)
{
    sim::PtyEndpoint endpoint(path("port"));
    QDir().mkpath(path("ports"));
    EXPECT_FALSE(endpoint.isOpen()) << "the table's directory was missing";
    ASSERT_TRUE(endpoint.plugIn()) << endpoint.errorString().toStdString();
    endpoint.setModemSignals(sim::SignalDsr | sim::SignalDcd);
    endpoint.setDepth(300);

    QProcess probe;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LD_PRELOAD"), QStringLiteral(PTYLINES_LIBRARY));
    probe.setProcessEnvironment(environment);
    probe.start(QStringLiteral(LINE_PROBE), {endpoint.portPath()});
    QByteArray seen;
    ASSERT_TRUE(waitFor([&] {
        seen += probe.readAllStandardOutput();
        return seen.count('\n') == 2 || probe.state() == QProcess::NotRunning;
    }));
    EXPECT_EQ(seen, QByteArray("lines DTR DSR DCD\nwritten 300 waiting 300 ready 0\n"))
        << probe.readAllStandardError().constData();
    EXPECT_EQ(endpoint.programSignals(), sim::SignalDtr);
    EXPECT_EQ(endpoint.bytesFromProgram(), 300);
    probe.write("\n");
    ASSERT_TRUE(waitFor([&] { return probe.state() == QProcess::NotRunning; }));
    EXPECT_EQ(probe.exitCode(), 0);
    EXPECT_EQ(endpoint.programSignals(), 0);
    EXPECT_EQ(endpoint.dtrDrops(), 1u);
}

TEST_F(PhoneCallTest, WithoutTheObjectAPtyHasNoSignals)
{
    QDir().mkpath(path("ports"));
    sim::PtyEndpoint endpoint(path("port"));
    ASSERT_TRUE(endpoint.isOpen());
    QProcess probe;
    probe.start(QStringLiteral(LINE_PROBE), {endpoint.portPath()});
    ASSERT_TRUE(waitFor([&] { return probe.state() == QProcess::NotRunning; }));
    EXPECT_EQ(probe.exitCode(), 2);
}

TEST_F(PhoneCallTest, RowsOfAKilledExchangeAreGivenFree)
{
    runReady({QStringLiteral("--modems=1")});
    sim::SignalTable* table = sim::findSignalTable();
    ASSERT_NE(table, nullptr);
    const auto owned = [table](qint64 owner) {
        int count = 0;
        for (const sim::SignalRow& row : table->rows)
            count += row.owner == owner;
        return count;
    };
    const qint64 killed = process.processId();
    EXPECT_EQ(owned(killed), 1);
    process.kill();
    ASSERT_TRUE(waitFor([&] { return process.state() == QProcess::NotRunning; }));
    EXPECT_EQ(owned(killed), 1);
    QFile::remove(path("ready"));
    runReady({QStringLiteral("--modems=1")});
    EXPECT_EQ(owned(killed), 0);
    EXPECT_EQ(owned(process.processId()), 1);
    // The stale link was replaced.
    QSerialPort port;
    EXPECT_TRUE(open(port, "ports/modem1")) << port.errorString().toStdString();
}

} // namespace
