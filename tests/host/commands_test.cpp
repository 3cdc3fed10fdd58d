// The program's commands as a whole, the name, and sending: what is told, exit statuses.
#include "tests/host/programs.h"

#include <gtest/gtest.h>

using namespace hosttest;

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
