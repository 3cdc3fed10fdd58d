// What the commands tell the user, whole: a script may look for it, and a half sentence helps nobody.
#include "common/global.h"
#include "tests/common/logsupport.h"
#include "tests/host/calledcommand.h"
#include "tests/host/storetools.h"

#include <QDate>
#include <gtest/gtest.h>

#include <pwd.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace hosttest;

namespace {

// The public keys of RFC 7748, section 6.1, as text and fingerprint; tests/host/keytext_test.cpp
// says how these were computed.
const char firstKey[] = "GMGF02C9-62KN8X4B-FQEB8FQQ-B86VYEGD-4RW1NX7B-MJMRXAMV-9SNE56A1";
const char firstFingerprint[] = "43371-55605-66432-67297-52564-30029";

class CommandTexts : public testing::Test
{
protected:
    CommandTexts() { host::useUtf8Names(); }

    static void expectWrongUsage(const char* command, const QStringList& arguments, const QString& text)
    {
        const Called called = callCommand(QString::fromLatin1(command).split(QLatin1Char(' ')) + arguments);
        EXPECT_EQ(called.status, 2) << command << qPrintable(text);
        EXPECT_EQ(called.out.toStdString(), "");
        EXPECT_EQ(called.err.toStdString(),
                  "transport-host: " + text.toStdString() + "\n\"transport-host " + command + " --help\" tells more\n");
    }

    static void expectFailure(const QStringList& words, const QString& text)
    {
        const Called called = callCommand(words);
        EXPECT_EQ(called.status, 1) << qPrintable(text);
        EXPECT_EQ(called.out.toStdString(), "");
        EXPECT_EQ(called.err.toStdString(), "transport-host: " + text.toStdString() + "\n");
    }

    static void expectDone(const QStringList& words, const QString& out = QString(), const QString& err = QString())
    {
        const Called called = callCommand(words);
        EXPECT_EQ(called.status, 0) << words.join(QLatin1Char(' ')).toStdString();
        EXPECT_EQ(called.out.toStdString(), out.toStdString());
        EXPECT_EQ(called.err.toStdString(), err.toStdString());
    }

    static QStringList words(const char* text) { return QString::fromUtf8(text).split(QLatin1Char(' ')); }
};

} // namespace

TEST_F(CommandTexts, WrongNumbersOfArguments)
{
    expectWrongUsage("send", {"Bob"}, "an argument is missing");
    expectWrongUsage("cancel", {}, "an argument is missing");
    expectWrongUsage("name", {"A", "B"}, "there is an argument too many");
    expectWrongUsage("status", {"now"}, "there is an argument too many");
    expectWrongUsage("key block", {}, "an argument is missing");
    expectWrongUsage("key block", {firstKey, firstKey}, "there is an argument too many");
}

TEST_F(CommandTexts, WrongNames)
{
    const QString cannotBe = QStringLiteral(
        "'%1' cannot be a name: it needs letters or digits, at most 255 bytes, and no control characters");
    expectWrongUsage("name", {"!"}, cannotBe.arg(QStringLiteral("!")));
    expectWrongUsage("name", {"a\nb"}, cannotBe.arg(QStringLiteral("a\\nb")));
    expectWrongUsage("abonent add", {"!", "--number", "1"}, cannotBe.arg(QStringLiteral("!")));
    expectWrongUsage("send", {"!", "file"}, "'!' cannot be an abonent's name");
    expectWrongUsage("setup", {"--group", ""}, "--group needs a name");
}

TEST_F(CommandTexts, WrongOptionsOfAbonents)
{
    expectWrongUsage("abonent add", {"Bob"}, "--number or --key is needed");
    expectWrongUsage("abonent add", {"Bob", "--port", "ttyS0"}, "--port needs --number");
    expectWrongUsage("abonent add", {"Bob", "--number", "1\x07"}, "--number may hold no control characters");
    expectWrongUsage("abonent add", {"Bob", "--key", "x"}, "a key has 56 characters, this one has 1");
    expectWrongUsage("key block", {"x"}, "a key has 56 characters, this one has 1");
    expectWrongUsage("key unblock", {"x"}, "a key has 56 characters, this one has 1");
}

TEST_F(CommandTexts, WrongOptionsOfPorts)
{
    for (const char* baud : {"x", "0", "-1", ""})
        expectWrongUsage("port add", {"ttyS0", "--baud", baud}, "--baud needs a positive number");
    expectWrongUsage("port add", {"ttyS0", "--flow", "x"}, "--flow is one of none, hardware, software");
    expectWrongUsage("port add", {"ttyS0", "--data-bits", "9"}, "--data-bits is one of 5, 6, 7, 8");
    expectWrongUsage("port add", {"ttyS0", "--parity", "x"}, "--parity is one of none, even, odd, space, mark");
    expectWrongUsage("port add", {"ttyS0", "--stop-bits", "3"}, "--stop-bits is one of 1, 1.5, 2");
    for (const char* size : {"x", "10", "16385"})
        expectWrongUsage("port packet-size", {size}, "a packet has 11 to 16384 bytes");
    expectDone(words("port packet-size 11"));
    expectDone(words("port packet-size 16384"));
}

TEST_F(CommandTexts, WrongOptionsOfRun)
{
    const struct
    {
        const char* option;
        std::vector<const char*> values;
        const char* least;
    } numbers[] = {{"exit-when-received", {"-1", "x", "1e10"}, "0"},
                   {"timeout", {"-1", "x"}, "0"},
                   {"retry-seconds", {"0", "0.0009"}, "0.001"},
                   {"silence-seconds", {"2.9"}, "3"}};
    for (const auto& number : numbers) {
        for (const char* value : number.values)
            expectWrongUsage("run", {QStringLiteral("--%1=%2").arg(QLatin1String(number.option), QLatin1String(value))},
                             QStringLiteral("--%1 needs a number of at least %2")
                                 .arg(QLatin1String(number.option), QLatin1String(number.least)));
    }
    for (const char* option : {"max-size", "abonent-quota", "unproved-quota", "total-quota", "keep-free"})
        expectWrongUsage("run", {QStringLiteral("--%1=12Q").arg(QLatin1String(option))},
                         QStringLiteral("--%1 needs a size: a number of bytes, or one with K, M, G or T behind it, as "
                                        "500M")
                             .arg(QLatin1String(option)));
    for (const char* option : {"abonent-quota", "unproved-quota", "total-quota"})
        expectWrongUsage(
            "run", {QStringLiteral("--%1=0").arg(QLatin1String(option))},
            QStringLiteral("--%1 0 would let no content in at all: give a size, as 500M").arg(QLatin1String(option)));
    expectWrongUsage("run", {"--accept-unknown", "--known-only"},
                     "--accept-unknown and --known-only exclude one another");
}

TEST_F(CommandTexts, WhatIsNotThere)
{
    expectFailure({"name"}, "this installation has no name yet: set it with \"transport-host name NAME\"");
    expectFailure(words("port remove ttyS0"),
                  "no port ttyS0 is defined: \"transport-host port list\" shows those that are");
    for (const char* command : {"remove", "forget-key", "block", "unblock"})
        expectFailure({"abonent", command, "Bob"},
                      "no abonent 'Bob' is known: \"transport-host abonent list\" shows those that are");
    expectFailure(words("cancel 00000009"), "no message 00000009 is queued");
    expectFailure({"key", "unblock", firstKey},
                  QStringLiteral("the key %1 is not blocked: \"transport-host abonent list\" shows those that are")
                      .arg(QLatin1String(firstFingerprint)));
}

TEST_F(CommandTexts, CommandsThatAreNone)
{
    const Called unknown = callCommand(words("frobnicate it all"));
    EXPECT_EQ(unknown.status, 2);
    EXPECT_EQ(unknown.err.toStdString(),
              "transport-host: unknown command 'frobnicate it': \"transport-host --help\" shows all\n");
    const Called nothing = callCommand({});
    EXPECT_EQ(nothing.status, 2);
    EXPECT_EQ(nothing.out.toStdString(), "");
    const Called help = callCommand({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(nothing.err.toStdString(), help.out.toStdString());
    EXPECT_TRUE(help.out.startsWith("Usage: transport-host COMMAND [OPTION...] [ARGUMENT...]\n"
                                    "Exchanges files with other installations over modems.\n\nCommands:\n"));
    EXPECT_TRUE(
        help.out.endsWith("\n\"transport-host COMMAND --help\" tells more about each.\n\n"
                          "Settings and data lie beside the directory of the program, in settings/ and data/.\n"
                          "Exit status: 0 done, 1 failed, 2 wrong usage, 3 the time ran out, 4 another host serves\n"
                          "this installation, 5 an abonent answered with another key than the pinned one.\n"));
}

TEST_F(CommandTexts, FilesThatAreQueued)
{
    const QString file = writeFile(rig::installRoot() + QStringLiteral("/a.txt"), QByteArray(1500, 'x'));
    const QString absent = rig::installRoot() + QStringLiteral("/absent");
    const Called sent = callCommand({"send", "Bob", file, absent, file});
    EXPECT_EQ(sent.status, 1) << "one could not be queued";
    EXPECT_EQ(sent.out.toStdString(), "00000001  a.txt  1.5 kB\n00000002  a.txt  1.5 kB\n");
    EXPECT_EQ(sent.err.toStdString(),
              "transport-host: note: no number is known for 'Bob' (transport-host abonent add): the files wait until "
              "they call\ntransport-host: cannot read " +
                  absent.toStdString() + ": No such file or directory\n");
    expectDone(words("cancel 00000001 00000002"));
    expectDone(words("abonent add Bob --number 1"));
    expectDone({"send", "bob", file}, "00000003  a.txt  1.5 kB\n");
}

TEST_F(CommandTexts, AbonentsAsTheyAreListed)
{
    const QString today = QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd"));
    expectDone(words("abonent add Bob --number W9,5 --port ttyS0 --port ttyS1"), QString(),
               "transport-host: note: no port ttyS0 is defined yet\n"
               "transport-host: note: no port ttyS1 is defined yet\n");
    expectDone({"abonent", "add", "Carol", "--key", firstKey});
    expectDone(words("abonent block Carol"));
    expectDone({"key", "block", firstKey});
    expectDone(words("abonent list"),
               QStringLiteral("Bob  W9,5  through ttyS0, ttyS1  no key: the first call to them pins it\n"
                              "Carol  (no number)  key %1, told %2  BLOCKED\n"
                              "blocked key %1  %3\n")
                   .arg(QLatin1String(firstFingerprint), today, QLatin1String(firstKey)));
    expectDone(words("abonent unblock Carol"));
    expectDone(words("abonent forget-key Carol"));
    expectDone({"key", "unblock", firstKey});
    expectDone(words("abonent remove Bob"));
    expectDone(words("abonent list"), "Carol  (no number)  no key: the first call to them pins it\n");
}

TEST_F(CommandTexts, PortsAsTheyAreListed)
{
    expectDone(words("port add ttyS0"));
    expectDone({"port", "add", "ttyS1", "--baud", "9600", "--init", "AT&F\\r", "--flow", "none", "--data-bits", "7",
                "--parity", "even", "--stop-bits", "1.5", "--disabled"});
    expectDone(words("port list"),
               "ttyS0  115200 baud, 8 data bits, parity none, stop bits 1, flow control hardware, init string "
               "'ATZ\\r'\n"
               "ttyS1  9600 baud, 7 data bits, parity even, stop bits 1.5, flow control none, init string 'AT&F\\r', "
               "disabled\n"
               "packets of at most 1024 bytes\n");
}

TEST_F(CommandTexts, ANewInstallation)
{
    const QString directories =
        QStringLiteral("%1 and %2").arg(Global::settingsDir().absolutePath(), Global::dataDir().absolutePath());
    QDir(Global::settingsDir()).removeRecursively();
    QDir(Global::dataDir()).removeRecursively();
    expectDone({"setup"}, QStringLiteral("made %1 for you alone\n").arg(directories));
    const Called again = callCommand({"setup"});
    EXPECT_EQ(again.out.toStdString(), directories.toStdString() + " are laid out already; nothing was changed\n");
}

// Whoever may not make the directories learns what somebody who may has to do.
TEST_F(CommandTexts, AnInstallationThatCannotBeMade)
{
    const QString settings = Global::settingsDir().absolutePath();
    const QString data = Global::dataDir().absolutePath();
    QDir(settings).removeRecursively();
    QDir(data).removeRecursively();
    const QByteArray root = QFile::encodeName(rig::installRoot());
    ASSERT_EQ(::chmod(root.constData(), 0555), 0);
    logtest::obeyPermissionBits();
    expectFailure({"setup"}, QStringLiteral("cannot make %1: Permission denied; have somebody who may do so give the "
                                            "command \"install -d -m 700 -o %2 %1 %3\"")
                                 .arg(settings, QString::fromLocal8Bit(::getpwuid(::geteuid())->pw_name), data));
    ASSERT_EQ(::chmod(root.constData(), 0755), 0);
}
