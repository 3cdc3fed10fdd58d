// The program itself, over the socket plug-in: commands, exit codes, whole transfers,
// breaks and kills.
#include "host/program/terminalview.h"
#include "tests/host/programs.h"

#include <QRegularExpression>

#include <csignal>
#include <fcntl.h>
#include <sys/ioctl.h>

using namespace hosttest;
using testsupport::waitFor;

// ---- commands ----

TEST_F(Program, HelpOnEverything)
{
    const Installation installation(QStringLiteral("i"));
    const Result help = installation.call({QStringLiteral("--help")});
    EXPECT_EQ(help.status, 0);
    for (const char* command :
         {"run", "send", "cancel", "status", "name", "port add", "port list", "port remove", "port packet-size",
          "abonent add", "abonent list", "abonent remove", "abonent forget-key", "abonent block", "abonent unblock",
          "key", "key block", "key unblock", "setup"}) {
        EXPECT_TRUE(help.out.contains(QStringLiteral("\n  ") + QString::fromLatin1(command) + QLatin1Char(' ')))
            << command;
        const Result one = installation.call(QString::fromLatin1(command).split(QLatin1Char(' ')) +
                                             QStringList{QStringLiteral("--help")});
        EXPECT_EQ(one.status, 0) << command;
        EXPECT_TRUE(one.out.startsWith(QStringLiteral("Usage: transport-host ") + QString::fromLatin1(command)))
            << qPrintable(one.out);
    }
    EXPECT_EQ(installation.call({QStringLiteral("--version")}).out, QStringLiteral("transport-host 1.0.0\n"));
}

TEST_F(Program, WrongUsageIsToldWithStatus2)
{
    const Installation installation(QStringLiteral("i"));
    const QList<QStringList> wrong = {
        {},
        {QStringLiteral("fly")},
        {QStringLiteral("send"), QStringLiteral("Bob")},
        {QStringLiteral("run"), QStringLiteral("--nonsense")},
        {QStringLiteral("run"), QStringLiteral("--timeout"), QStringLiteral("soon")},
        {QStringLiteral("run"), QStringLiteral("now")},
        {QStringLiteral("name"), QStringLiteral("***")},
        {QStringLiteral("name"), QStringLiteral("a"), QStringLiteral("b")},
        {QStringLiteral("port"), QStringLiteral("add")},
        {QStringLiteral("port"), QStringLiteral("add"), QStringLiteral("x"), QStringLiteral("--flow"),
         QStringLiteral("wild")},
        {QStringLiteral("port"), QStringLiteral("add"), QStringLiteral("x"), QStringLiteral("--baud"),
         QStringLiteral("-3")},
        {QStringLiteral("port"), QStringLiteral("packet-size"), QStringLiteral("10")},
        {QStringLiteral("abonent"), QStringLiteral("add"), QStringLiteral("Bob")},
        {QStringLiteral("abonent")},
        {QStringLiteral("run"), QStringLiteral("--known-only"), QStringLiteral("--accept-unknown")},
        {QStringLiteral("abonent"), QStringLiteral("add"), QStringLiteral("Bob"), QStringLiteral("--key"),
         QStringLiteral("nonsense")},
        {QStringLiteral("abonent"), QStringLiteral("add"), QStringLiteral("Bob"), QStringLiteral("--port"),
         QStringLiteral("ttyS0")},
        {QStringLiteral("key"), QStringLiteral("block")},
        {QStringLiteral("key"), QStringLiteral("block"), QStringLiteral("nonsense")}};
    for (const QStringList& arguments : wrong) {
        const Result result = installation.call(arguments);
        EXPECT_EQ(result.status, 2) << qPrintable(arguments.join(QLatin1Char(' ')));
        EXPECT_FALSE(result.err.isEmpty());
        EXPECT_TRUE(result.out.isEmpty());
    }
}

TEST_F(Program, PortsAreDefinedListedChangedAndRemoved)
{
    const Installation installation(QStringLiteral("i"));
    const auto port = [&](const QStringList& arguments) {
        return installation.call(QStringList{QStringLiteral("port")} + arguments);
    };
    EXPECT_EQ(port({QStringLiteral("add"), QStringLiteral("ttyS0"), QStringLiteral("--baud"), QStringLiteral("9600"),
                    QStringLiteral("--init"), QStringLiteral("ATZ\\r")})
                  .status,
              0);
    // The bytes the plug-in reads.
    EXPECT_EQ(
        readAll(installation.root + QStringLiteral("/settings/channelCom.conf")).toHex(),
        QByteArray::fromHex("00000003 00000001 00000400 01 0000000A 00740074007900530030 0000000A 00410054005A005C0072"
                            "00002580 00000001 00000008 00000000 00000001")
            .toHex());
    EXPECT_EQ(
        port({QStringLiteral("add"), QStringLiteral("/dev/ttyUSB0"), QStringLiteral("--flow"), QStringLiteral("none"),
              QStringLiteral("--parity"), QStringLiteral("even"), QStringLiteral("--stop-bits"), QStringLiteral("2"),
              QStringLiteral("--data-bits"), QStringLiteral("7"), QStringLiteral("--disabled")})
            .status,
        0);
    EXPECT_EQ(port({QStringLiteral("packet-size"), QStringLiteral("512")}).status, 0);
    EXPECT_EQ(
        port({QStringLiteral("list")}).out,
        QStringLiteral(
            "ttyS0  9600 baud, 8 data bits, parity none, stop bits 1, flow control hardware, init string 'ATZ\\r'\n"
            "/dev/ttyUSB0  115200 baud, 7 data bits, parity even, stop bits 2, flow control none, init string "
            "'ATZ\\r', disabled\n"
            "packets of at most 512 bytes\n"));
    EXPECT_EQ(port({QStringLiteral("add"), QStringLiteral("ttyS0")}).status, 0) << "changes it";
    EXPECT_EQ(port({QStringLiteral("remove"), QStringLiteral("/dev/ttyUSB0")}).status, 0);
    EXPECT_EQ(port({QStringLiteral("remove"), QStringLiteral("/dev/ttyUSB0")}).status, 1);
    EXPECT_TRUE(port({QStringLiteral("list")}).out.startsWith(QStringLiteral("ttyS0  115200 baud")));
}

TEST_F(Program, AbonentsAreToldListedAndForgotten)
{
    const Installation installation(QStringLiteral("i"));
    const auto abonent = [&](const QStringList& arguments) {
        return installation.call(QStringList{QStringLiteral("abonent")} + arguments);
    };
    EXPECT_EQ(abonent({QStringLiteral("add"), QStringLiteral("Боб"), QStringLiteral("--number"), QStringLiteral("123")})
                  .status,
              0);
    const Result noted =
        abonent({QStringLiteral("add"), QStringLiteral("Carol"), QStringLiteral("--number"), QStringLiteral("W9,5"),
                 QStringLiteral("--port"), QStringLiteral("ttyS0"), QStringLiteral("--port"), QStringLiteral("ttyS1")});
    EXPECT_EQ(noted.status, 0);
    EXPECT_TRUE(noted.err.contains(QStringLiteral("no port ttyS0 is defined yet")));
    EXPECT_EQ(abonent({QStringLiteral("add"), QStringLiteral("боб"), QStringLiteral("--number"), QStringLiteral("124")})
                  .status,
              0)
        << "the same one";
    EXPECT_EQ(abonent({QStringLiteral("list")}).out,
              QStringLiteral("боб  124  no key: the first call to them pins it\n"
                             "Carol  W9,5  through ttyS0, ttyS1  no key: the first call to them pins it\n"));
    EXPECT_EQ(abonent({QStringLiteral("remove"), QStringLiteral("Carol")}).status, 0);
    EXPECT_EQ(abonent({QStringLiteral("remove"), QStringLiteral("Carol")}).status, 1);
}

TEST_F(Program, KeysAreShownPinnedForgottenAndBlocked)
{
    const Installation installation(QStringLiteral("i"));
    const Installation other(QStringLiteral("o"));
    const auto call = [&](const QString& words) { return installation.call(words.split(QLatin1Char(' '))); };
    const QString key = other.call({QStringLiteral("key"), QStringLiteral("--text")}).out.trimmed();
    const QString shown = other.call({QStringLiteral("key")}).out;
    ASSERT_TRUE(shown.startsWith(QStringLiteral("fingerprint  "))) << qPrintable(shown);
    EXPECT_TRUE(shown.endsWith(QStringLiteral("\nkey          ") + key + QLatin1Char('\n'))) << "the same each time";
    const QString fingerprint = shown.section(QLatin1Char('\n'), 0, 0).section(QLatin1Char(' '), -1);
    EXPECT_EQ(QFileInfo(other.root + QStringLiteral("/settings/identity.key")).permissions() &
                  (QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ReadOther | QFileDevice::WriteOther),
              QFileDevice::Permissions());

    EXPECT_EQ(call(QStringLiteral("abonent add Bob --number 1")).status, 0);
    EXPECT_EQ(call(QStringLiteral("abonent add Bob --key ") + key).status, 0);
    const QString today = QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd"));
    EXPECT_EQ(call(QStringLiteral("abonent list")).out,
              QStringLiteral("Bob  1  key %1, told %2\n").arg(fingerprint, today));
    EXPECT_EQ(call(QStringLiteral("abonent add Bob --number 2")).status, 0);
    EXPECT_TRUE(call(QStringLiteral("abonent list")).out.startsWith(QStringLiteral("Bob  2  key ") + fingerprint))
        << "another number, the same key";
    const Result second = call(QStringLiteral("abonent add Carol --key ") + key);
    EXPECT_EQ(second.status, 1);
    EXPECT_TRUE(second.err.contains(QStringLiteral("this is the key of 'Bob'"))) << qPrintable(second.err);
    EXPECT_EQ(call(QStringLiteral("abonent forget-key Bob")).status, 0);
    EXPECT_EQ(call(QStringLiteral("abonent forget-key Dave")).status, 1);
    EXPECT_EQ(call(QStringLiteral("abonent block Bob")).status, 0);
    EXPECT_EQ(call(QStringLiteral("abonent list")).out,
              QStringLiteral("Bob  2  no key: the first call to them pins it  BLOCKED\n"));
    EXPECT_EQ(call(QStringLiteral("abonent unblock Bob")).status, 0);
    EXPECT_EQ(call(QStringLiteral("abonent add Carol --key ") + key).status, 0) << "who only calls in needs no number";
    EXPECT_EQ(call(QStringLiteral("key block ") + key).status, 0);
    EXPECT_TRUE(call(QStringLiteral("abonent list"))
                    .out.endsWith(QStringLiteral("\nblocked key %1  %2\n").arg(fingerprint, key)));
    EXPECT_EQ(call(QStringLiteral("key unblock ") + key).status, 0);
    EXPECT_EQ(call(QStringLiteral("key unblock ") + key).status, 1);
}

TEST_F(Program, ALostKeyIsToldAndNotReplacedUnasked)
{
    const Installation installation(QStringLiteral("i"));
    installation.call({QStringLiteral("name"), QStringLiteral("I")});
    const QString shown = installation.call({QStringLiteral("key")}).out;
    const QString path = installation.root + QStringLiteral("/settings/identity.key");
    ASSERT_TRUE(QFile::remove(path));
    for (const QStringList& command :
         {QStringList{QStringLiteral("key")},
          QStringList{QStringLiteral("run"), QStringLiteral("--timeout"), QStringLiteral("0.1")}}) {
        const Result result = installation.call(command);
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(result.err.contains(path + QStringLiteral(" is gone"))) << qPrintable(result.err);
        EXPECT_TRUE(result.err.contains(shown.section(QLatin1Char('\n'), 0, 0).section(QLatin1Char(' '), -1)));
        EXPECT_TRUE(result.err.contains(QStringLiteral("transport-host key --new")));
        EXPECT_FALSE(QFile::exists(path));
    }
    const Result made = installation.call({QStringLiteral("key"), QStringLiteral("--new")});
    EXPECT_EQ(made.status, 0);
    EXPECT_NE(made.out, shown);
    EXPECT_EQ(installation.call({QStringLiteral("key")}).out, made.out);
    EXPECT_EQ(installation.call({QStringLiteral("key"), QStringLiteral("--new")}).out, made.out)
        << "a key that is there stays";
}

// Each word's value in the record is that of the serial port's enumeration.
TEST_F(Program, EveryWordOfAPortIsItsValueInTheRecord)
{
    const Installation installation(QStringLiteral("i"));
    struct Word
    {
        const char* option;
        const char* word;
        int offset;
        int value;
    }; // offset: from the record's end, in numbers
    const Word words[] = {{"--flow", "none", 4, 0},   {"--flow", "hardware", 4, 1}, {"--flow", "software", 4, 2},
                          {"--data-bits", "5", 3, 5}, {"--data-bits", "6", 3, 6},   {"--data-bits", "7", 3, 7},
                          {"--data-bits", "8", 3, 8}, {"--parity", "none", 2, 0},   {"--parity", "even", 2, 2},
                          {"--parity", "odd", 2, 3},  {"--parity", "space", 2, 4},  {"--parity", "mark", 2, 5},
                          {"--stop-bits", "1", 1, 1}, {"--stop-bits", "1.5", 1, 3}, {"--stop-bits", "2", 1, 2}};
    for (const Word& word : words) {
        ASSERT_EQ(installation
                      .call({QStringLiteral("port"), QStringLiteral("add"), QStringLiteral("ttyS0"),
                             QString::fromLatin1(word.option), QString::fromLatin1(word.word)})
                      .status,
                  0);
        const QByteArray record = readAll(installation.root + QStringLiteral("/settings/channelCom.conf"));
        QByteArray value = record.right(4 * word.offset).left(4).toHex();
        EXPECT_EQ(value, QByteArray::number(word.value, 16).rightJustified(8, '0')) << word.option << " " << word.word;
    }
}

TEST_F(Program, HelpInEachSpelling)
{
    const Installation installation(QStringLiteral("i"));
    const QString help = installation.call({QStringLiteral("--help")}).out;
    ASSERT_TRUE(help.startsWith(QStringLiteral("Usage: transport-host COMMAND")));
    for (const char* word : {"-h", "help"}) {
        const Result result = installation.call({QString::fromLatin1(word)});
        EXPECT_EQ(result.status, 0) << word;
        EXPECT_EQ(result.out, help) << word;
    }
    EXPECT_EQ(installation.call({QStringLiteral("send"), QStringLiteral("-h")}).out,
              installation.call({QStringLiteral("send"), QStringLiteral("--help")}).out);
}

TEST_F(Program, ADamagedFileIsNotTakenForNoName)
{
    const Installation installation(QStringLiteral("i"));
    installation.call({QStringLiteral("name"), QStringLiteral("I")});
    const QString path =
        writeFile(installation.root + QStringLiteral("/settings/generalSettings.ini"), QByteArray(100, '\0'));
    for (const QStringList& command :
         {QStringList{QStringLiteral("name")}, QStringList{QStringLiteral("name"), QStringLiteral("J")},
          QStringList{QStringLiteral("run"), QStringLiteral("--timeout"), QStringLiteral("0.1")},
          QStringList{QStringLiteral("status")}}) {
        const Result result = installation.call(command);
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(result.err.contains(path + QStringLiteral(" is damaged"))) << qPrintable(result.err);
    }
    EXPECT_EQ(readAll(path), QByteArray(100, '\0'));
}

TEST_F(Program, NameIsSetAndShown)
{
    const Installation installation(QStringLiteral("i"));
    EXPECT_EQ(installation.call({QStringLiteral("name")}).status, 1);
    EXPECT_EQ(installation.call({QStringLiteral("name"), QStringLiteral("Отдел № 5")}).status, 0);
    EXPECT_EQ(installation.call({QStringLiteral("name")}).out, QStringLiteral("Отдел № 5\n"));
}

TEST_F(Program, SendQueuesWhatItCanAndSaysWhatItCannot)
{
    const Installation installation(QStringLiteral("i"));
    const QString good = file(QStringLiteral("Отчёт за май.txt"), "content");
    const Result result =
        installation.call({QStringLiteral("send"), QStringLiteral("Bob"), QStringLiteral("/absent"), good});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, QStringLiteral("00000001  Отчёт за май.txt  7 B\n"));
    EXPECT_TRUE(result.err.contains(QStringLiteral("cannot read /absent: No such file or directory")));
    EXPECT_TRUE(result.err.contains(QStringLiteral("no number is known for 'Bob'")));
    const Result status = installation.call({QStringLiteral("status")});
    EXPECT_EQ(status.status, 0);
    EXPECT_TRUE(
        status.out.contains(QStringLiteral("queue: 1\n  00000001  to Bob  Отчёт за май.txt  7 B  not tried yet\n")))
        << qPrintable(status.out);
    EXPECT_EQ(installation.call({QStringLiteral("cancel"), QStringLiteral("00000002")}).status, 1);
    EXPECT_EQ(installation.call({QStringLiteral("cancel"), QStringLiteral("00000001")}).status, 0);
    EXPECT_EQ(installation.queue().size(), 0);
}

TEST_F(Program, RunWithoutNameOrPlugin)
{
    {
        const Installation installation(QStringLiteral("i"));
        const Result result = installation.call({QStringLiteral("run")});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err,
                  QStringLiteral(
                      "transport-host: this installation has no name yet: set it with \"transport-host name NAME\"\n"));
    }
    Installation bare(QStringLiteral("bare"), false);
    bare.setUp(QStringLiteral("Bare"));
    const Result result = bare.call({QStringLiteral("run")});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(
        result.err.contains(QStringLiteral("there is no channel plug-in in %1/bin/channelPlugins").arg(bare.root)))
        << qPrintable(result.err);
}

// ---- a host at work ----

TEST_F(TwoPrograms, FilesBothWaysInOneCall)
{
    const QByteArray big = randomBytes(300000, testsupport::seed());
    const QString name = QStringLiteral("Отчёт \xF0\x9F\x93\xA0.bin");
    alice.call(
        {QStringLiteral("send"), QStringLiteral("Боб"), file(name, big), file(QStringLiteral("empty"), QByteArray())});
    bob.call({QStringLiteral("send"), QStringLiteral("Alice"), file(QStringLiteral("back"), "back")});
    bob.run({QStringLiteral("--exit-when-received"), QStringLiteral("2"), QStringLiteral("--exit-when-sent"),
             QStringLiteral("--no-calls")});
    alice.run({QStringLiteral("--exit-when-received"), QStringLiteral("1"), QStringLiteral("--exit-when-sent")});
    EXPECT_EQ(alice.waitForEnd(), 0);
    EXPECT_EQ(bob.waitForEnd(), 0);
    const QJsonArray inbox = bob.inbox();
    ASSERT_EQ(inbox.size(), 2);
    EXPECT_EQ(inbox.at(0).toObject()[QStringLiteral("file")].toString(), name);
    EXPECT_TRUE(readAll(inbox.at(0).toObject()[QStringLiteral("path")].toString()) == big);
    EXPECT_EQ(inbox.at(1).toObject()[QStringLiteral("size")].toInt(), 0);
    EXPECT_EQ(alice.inbox().size(), 1);
    EXPECT_EQ(alice.queue().size(), 0);
    EXPECT_EQ(bob.queue().size(), 0);
    EXPECT_EQ(alice.events(QStringLiteral("callEnded")).size(), 1);
    EXPECT_TRUE(alice.events(QStringLiteral("callEnded")).first()[QStringLiteral("well")].toBool());
    EXPECT_EQ(alice.events(QStringLiteral("delivered")).size(), 2);
    EXPECT_EQ(bob.events(QStringLiteral("stored")).size(), 2);
    EXPECT_EQ(bob.events(QStringLiteral("stored")).first()[QStringLiteral("sha256")].toString(),
              QString::fromLatin1(sha256(big).toHex()));
    // Plain lines: states, the journal, tenths of a file.
    const QString output = QString::fromUtf8(bob.output());
    EXPECT_TRUE(output.contains(QStringLiteral("Установлено соединение с 'Alice'"))) << qPrintable(output);
    EXPECT_TRUE(output.contains(QStringLiteral("hash verified"))) << qPrintable(output);
    EXPECT_TRUE(output.contains(QStringLiteral("] 100%"))) << qPrintable(output);
    EXPECT_FALSE(output.contains(QLatin1Char('\x1B')));
    // Host and plug-in write one log.
    const QStringList logs = QDir(alice.root + QStringLiteral("/data/0/log")).entryList({QStringLiteral("*.log")});
    ASSERT_EQ(logs.size(), 1);
    EXPECT_TRUE(
        readAll(alice.root + QStringLiteral("/data/0/log/") + logs.first()).contains("log line of the plug-in"));
}

TEST_F(TwoPrograms, SendWhileItRunsGoesAtOnce)
{
    bob.run();
    alice.run();
    ASSERT_TRUE(waitFor([&] { return alice.output().contains("Свободен") && bob.output().contains("Свободен"); }));
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("f"), "now")});
    ASSERT_TRUE(waitFor([&] { return !alice.events(QStringLiteral("delivered")).isEmpty(); }));
    EXPECT_EQ(bob.inbox().size(), 1);
    EXPECT_TRUE(bob.call({QStringLiteral("status")}).out.contains(QStringLiteral("host:  running, process ")));
    alice.process->terminate();
    EXPECT_EQ(alice.waitForEnd(), 0) << "stopped as asked";
    ::kill(static_cast<pid_t>(bob.process->processId()), SIGINT);
    EXPECT_EQ(bob.waitForEnd(), 0);
    EXPECT_TRUE(bob.call({QStringLiteral("status")}).out.contains(QStringLiteral("host:  not running")));
}

TEST_F(TwoPrograms, BrokenCallsAreTakenUp)
{
    const QByteArray big = randomBytes(400000, testsupport::seed());
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("big"), big)});
    bob.run({QStringLiteral("--exit-when-received"), QStringLiteral("1"), QStringLiteral("--no-calls")});
    alice.run({QStringLiteral("--exit-when-sent")}, {QStringLiteral("SOCKETPLUGIN_CUT=150000:2")});
    EXPECT_EQ(alice.waitForEnd(), 0);
    EXPECT_EQ(bob.waitForEnd(), 0);
    ASSERT_EQ(bob.inbox().size(), 1);
    EXPECT_TRUE(readAll(bob.inbox().first().toObject()[QStringLiteral("path")].toString()) == big);
    EXPECT_EQ(alice.events(QStringLiteral("callBegun")).size(), 3);
    const QList<QJsonObject> begun = bob.events(QStringLiteral("fileBegun"));
    ASSERT_EQ(begun.size(), 3);
    EXPECT_EQ(begun.at(0)[QStringLiteral("bytes")].toInt(), 0);
    EXPECT_GT(begun.at(1)[QStringLiteral("bytes")].toInt(), 100000);
    EXPECT_GT(begun.at(2)[QStringLiteral("bytes")].toInt(), 220000);
    // Each call's first line of the file tells where it begins, as no speed yet.
    const QString shown = QString::fromUtf8(bob.output());
    for (const QJsonObject& event : begun) {
        const QString line =
            QStringLiteral(" %1 of 400.0 kB  big  0 B/s").arg(host::sizeText(event[QStringLiteral("bytes")].toInt()));
        EXPECT_EQ(shown.count(line), 1) << qPrintable(line) << '\n' << qPrintable(shown);
    }
}

TEST_F(TwoPrograms, FailedCallsAreRepeatedAndTheQueueSaysWhy)
{
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("f"), "x")});
    alice.run({QStringLiteral("--exit-when-sent")}, {QStringLiteral("SOCKETPLUGIN_BUSY=4")});
    ASSERT_TRUE(waitFor([&] { return alice.events(QStringLiteral("notConnected")).size() >= 2; }));
    EXPECT_TRUE(waitFor([&] {
        const QJsonArray queue = alice.queue();
        return queue.isEmpty() || queue.first().toObject()[QStringLiteral("reason")].toString().contains(QStringLiteral(
                                      " in a row failed, the last: Не удалось установить соединение: BUSY"));
    }));
    bob.run({QStringLiteral("--exit-when-received"), QStringLiteral("1")});
    EXPECT_EQ(alice.waitForEnd(), 0);
    EXPECT_EQ(bob.waitForEnd(), 0);
    EXPECT_GE(alice.events(QStringLiteral("callPlaced")).size(), 5);
}

TEST_F(TwoPrograms, StatusTellsWhatIsBeingDoneNotWhatOnceFailed)
{
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("f"), QByteArray(300000, 'x'))});
    const QStringList slow{QStringLiteral("SOCKETPLUGIN_RATE=30000"), QStringLiteral("SOCKETPLUGIN_BUSY=2")};
    alice.run({}, slow);
    const auto why = [&] { return alice.queue().first().toObject()[QStringLiteral("why")].toString(); };
    ASSERT_TRUE(waitFor([&] { return why() == QStringLiteral("callsFailed"); }));
    bob.run({QStringLiteral("--no-calls")}, slow);
    QString reason;
    ASSERT_TRUE(waitFor([&] {
        reason = alice.queue().first().toObject()[QStringLiteral("reason")].toString();
        return reason.startsWith(QStringLiteral("being sent, "));
    })) << qPrintable(reason);
    EXPECT_TRUE(alice.call({QStringLiteral("status")}).out.contains(QStringLiteral("  300.0 kB  being sent, ")));
}

// The port brings no outcome: the host sees it in its state and does not wait for one.
TEST_F(TwoPrograms, AnotherPortTakesTheCallOfOneThatWentDown)
{
    EXPECT_EQ(alice.call({QStringLiteral("port"), QStringLiteral("add"), alice.socket + QStringLiteral("2")}).status,
              0);
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("f"), "x")});
    bob.run({QStringLiteral("--no-calls")});
    ASSERT_TRUE(waitFor([&] { return bob.output().contains("Свободен"); }));
    alice.run({QStringLiteral("--exit-when-sent"), QStringLiteral("--timeout"), QStringLiteral("20")},
              {QStringLiteral("SOCKETPLUGIN_LOST=1")});
    EXPECT_EQ(alice.waitForEnd(), 0);
    EXPECT_EQ(alice.events(QStringLiteral("callPlaced")).size(), 2);
    EXPECT_EQ(alice.events(QStringLiteral("callLost")).size(), 1);
    EXPECT_EQ(alice.events(QStringLiteral("delivered")).size(), 1);
}

TEST_F(TwoPrograms, AServerThatNeverFinishesEndsTheRunWithStatus1)
{
    alice.run({}, {QStringLiteral("SOCKETPLUGIN_STUCK=1")});
    ASSERT_TRUE(waitFor([&] { return alice.output().contains("Свободен"); }));
    alice.process->terminate();
    EXPECT_EQ(alice.waitForEnd(), 1);
    EXPECT_TRUE(alice.output().contains("transport-host: the channel's server did not stop in time"));
}

// A terminal that does not know its width says 0 columns.
TEST_F(TwoPrograms, TheLivePictureFitsTheTerminal)
{
    struct Case
    {
        unsigned short columns;
        int least; // of the widest line: the title alone would take more than 60
        int widest;
    };
    for (const Case& terminal : {Case{0, 60, 99}, Case{60, 59, 59}, Case{10, 39, 39}}) {
        const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        ASSERT_GE(master, 0);
        ASSERT_EQ(grantpt(master), 0);
        ASSERT_EQ(unlockpt(master), 0);
        char slave[64];
        ASSERT_EQ(ptsname_r(master, slave, sizeof slave), 0);
        winsize size{};
        size.ws_col = terminal.columns;
        ASSERT_EQ(ioctl(master, TIOCSWINSZ, &size), 0);
        QProcess host;
        host.setStandardOutputFile(QString::fromLatin1(slave));
        host.start(alice.program(), {QStringLiteral("run")});
        QByteArray shown;
        ASSERT_TRUE(waitFor([&] {
            char bytes[4096];
            const ssize_t count = ::read(master, bytes, sizeof bytes);
            if (count > 0)
                shown.append(bytes, static_cast<int>(count));
            return shown.count("\x1B[J") >= 3 && shown.contains("Alice");
        })) << shown.constData();
        host.terminate();
        EXPECT_TRUE(host.waitForFinished(60000));
        EXPECT_EQ(host.exitCode(), 0);
        close(master);
        EXPECT_TRUE(QRegularExpression(QStringLiteral("\x1B\\[[0-9]+A")).match(QString::fromUtf8(shown)).hasMatch())
            << "the cursor goes back up";
        int widest = 0;
        for (QByteArray line : shown.split('\n')) {
            const int command = line.lastIndexOf("\x1B[K");
            if (command < 0)
                continue;
            line.truncate(command);
            QString text = QString::fromUtf8(line);
            text.remove(QRegularExpression(QStringLiteral("\x1B\\[[0-9]*[AJK]")));
            text.remove(QLatin1Char('\r'));
            widest = qMax(widest, text.size());
            EXPECT_FALSE(text.contains(QLatin1Char('\x1B'))) << qPrintable(text);
        }
        EXPECT_GE(widest, terminal.least);
        EXPECT_LE(widest, terminal.widest);
    }
}

TEST_F(TwoPrograms, TimeRunsOut)
{
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("f"), "x")});
    alice.run({QStringLiteral("--exit-when-sent"), QStringLiteral("--timeout"), QStringLiteral("1")});
    EXPECT_EQ(alice.waitForEnd(), 3);
    EXPECT_EQ(alice.queue().size(), 1) << "it stays queued";
    EXPECT_TRUE(alice.output().contains("the time ran out: 1 queued, 0 received"));
    alice.run({QStringLiteral("--timeout"), QStringLiteral("0.2")});
    EXPECT_EQ(alice.waitForEnd(), 0) << "nothing was waited for";
}

TEST_F(TwoPrograms, OneHostForEachInstallation)
{
    alice.run();
    ASSERT_TRUE(waitFor([&] { return alice.output().contains("Свободен"); }));
    const Result second = alice.call({QStringLiteral("run")});
    EXPECT_EQ(second.status, 4);
    EXPECT_TRUE(second.err.contains(
        QStringLiteral("another transport-host (process %1) serves this installation: stop it first")
            .arg(alice.process->processId())))
        << qPrintable(second.err);
    // A killed host does not lock its successor out.
    alice.process->kill();
    alice.process->waitForFinished();
    const Result third = alice.call({QStringLiteral("run"), QStringLiteral("--timeout"), QStringLiteral("0.1")});
    EXPECT_EQ(third.status, 0) << qPrintable(third.err);
}

TEST_F(TwoPrograms, KnownAbonentsOnly)
{
    EXPECT_EQ(bob.call({QStringLiteral("abonent"), QStringLiteral("remove"), QStringLiteral("Alice")}).status, 0);
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("f"), "x")});
    bob.run({QStringLiteral("--known-only")});
    alice.run();
    ASSERT_TRUE(waitFor(
        [&] { return alice.output().contains("the other side ended the session: your key is not known here"); }));
    EXPECT_TRUE(waitFor([&] { return bob.output().contains("is not known here: if you know whose it is"); }))
        << bob.output().constData();
    EXPECT_FALSE(bob.output().contains("Alice")) << "who does not prove it is not named";
    EXPECT_EQ(bob.inbox().size(), 0);
    EXPECT_EQ(alice.queue().size(), 1);
    bob.knows(QStringLiteral("Alice"), alice);
    EXPECT_TRUE(waitFor([&] { return bob.inbox().size() == 1; })) << "a change counts at once";
}

TEST_F(TwoPrograms, TooLargeIsRefusedStaysQueuedAndSaysWhy)
{
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("large"), QByteArray(2000, 'x')),
                file(QStringLiteral("small"), "s")});
    bob.run({QStringLiteral("--max-size"), QStringLiteral("1000")});
    alice.run();
    ASSERT_TRUE(waitFor([&] {
        return alice.events(QStringLiteral("delivered")).size() == 1 &&
               !alice.events(QStringLiteral("failed")).isEmpty();
    }));
    EXPECT_TRUE(waitFor([&] {
        return alice.queue().size() == 1 &&
               alice.queue().first().toObject()[QStringLiteral("reason")].toString() ==
                   QStringLiteral("'Боб' refused it: it has 2000 bytes, more than the 1000 that are allowed here");
    }));
    EXPECT_EQ(bob.inbox().size(), 1);
}

TEST_F(TwoPrograms, KeptConnectionsCarryLaterMessages)
{
    bob.run();
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("one"), "1")});
    alice.run({QStringLiteral("--keep-connected")});
    ASSERT_TRUE(waitFor([&] { return alice.events(QStringLiteral("delivered")).size() == 1; }));
    bob.call({QStringLiteral("send"), QStringLiteral("Alice"), file(QStringLiteral("two"), "2")});
    ASSERT_TRUE(waitFor([&] { return alice.events(QStringLiteral("stored")).size() == 1; }));
    EXPECT_EQ(alice.events(QStringLiteral("callBegun")).size(), 1);
    EXPECT_EQ(bob.events(QStringLiteral("callBegun")).size(), 1);
}

TEST_F(TwoPrograms, PortsDefinedWhileItRunsComeUp)
{
    EXPECT_EQ(bob.call({QStringLiteral("port"), QStringLiteral("remove"), bob.socket}).status, 0);
    bob.run();
    ASSERT_TRUE(waitFor([&] { return bob.output().contains("Работает"); }));
    EXPECT_TRUE(bob.output().contains("no port is defined"));
    EXPECT_EQ(bob.call({QStringLiteral("port"), QStringLiteral("add"), bob.socket}).status, 0);
    EXPECT_TRUE(waitFor([&] { return bob.output().contains("Свободен"); }));
}

TEST_F(TwoPrograms, AnAbonentToldOfWhileItRunsIsCalled)
{
    EXPECT_EQ(alice.call({QStringLiteral("abonent"), QStringLiteral("remove"), QStringLiteral("Боб")}).status, 0);
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("f"), "x")});
    bob.run();
    alice.run();
    ASSERT_TRUE(waitFor([&] {
        return alice.queue().size() == 1 &&
               alice.queue().first().toObject()[QStringLiteral("reason")].toString().startsWith(
                   QStringLiteral("no number is known for 'Боб'"));
    }));
    alice.knows(QStringLiteral("Боб"), bob);
    EXPECT_TRUE(waitFor([&] { return alice.events(QStringLiteral("delivered")).size() == 1; }));
}

// Either side killed at random moments, again and again: everything arrives once and right.
TEST_F(TwoPrograms, KilledAgainAndAgain)
{
    QMap<QString, QByteArray> sent;
    QStringList arguments{QStringLiteral("send"), QStringLiteral("Боб")};
    for (int i = 0; i < 8; ++i) {
        const QString name = QStringLiteral("f%1").arg(i);
        sent[name] = randomBytes(i * 20000, static_cast<unsigned>(i));
        arguments << file(name, sent[name]);
    }
    ASSERT_EQ(alice.call(arguments).status, 0);
    std::mt19937 random(testsupport::seed());
    const QStringList slow{QStringLiteral("SOCKETPLUGIN_RATE=600000")};
    bob.run({QStringLiteral("--no-calls")}, slow);
    for (int round = 0; round < 8; ++round) {
        alice.run({}, slow);
        const int begun = alice.events(QStringLiteral("fileBegun")).size();
        (void)waitFor(
            [&] { return alice.events(QStringLiteral("fileBegun")).size() > begun || alice.queue().isEmpty(); });
        const auto moment = std::chrono::steady_clock::now() + std::chrono::milliseconds(random() % 120);
        while (std::chrono::steady_clock::now() < moment) {
        }
        Installation& victim = round % 2 ? alice : bob;
        victim.process->kill();
        victim.process->waitForFinished();
        if (&victim == &bob)
            bob.run({QStringLiteral("--no-calls")}, slow);
        else
            continue;
        alice.process->kill();
        alice.process->waitForFinished();
    }
    alice.run({QStringLiteral("--exit-when-sent")});
    EXPECT_EQ(alice.waitForEnd(), 0);
    bob.process->terminate();
    EXPECT_EQ(bob.waitForEnd(), 0);
    QMap<QString, QByteArray> received;
    for (const QJsonValue& entry : bob.inbox()) {
        const QString name = entry.toObject()[QStringLiteral("file")].toString();
        EXPECT_FALSE(received.contains(name)) << qPrintable(name) << " came twice";
        received[name] = readAll(entry.toObject()[QStringLiteral("path")].toString());
    }
    EXPECT_TRUE(received == sent);
}
