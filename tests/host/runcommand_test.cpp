// The program at work, over the socket plug-in: whole transfers, breaks and kills.
#include "host/program/terminalview.h"
#include "tests/host/programs.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <random>

using namespace hosttest;
using rig::waitFor;

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

TEST_F(TwoPrograms, FilesBothWaysInOneCall)
{
    const QByteArray big = randomBytes(300000, rig::seed());
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
    const QByteArray big = randomBytes(400000, rig::seed());
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
    EXPECT_TRUE(alice.output().contains("transport-host: the channel's server did not stop in time\n"));
}

// Whatever the server's thread holds: nothing waits for it.
TEST_F(TwoPrograms, AServerWhoseThreadHangsDoesNotHoldUpTheEnd)
{
    writeFile(alice.root + QStringLiteral("/settings/settings.ini"),
              "[Details]\ntransportServerThreadStopTimeout=100\n");
    alice.run({}, {QStringLiteral("SOCKETPLUGIN_STUCK=thread")});
    ASSERT_TRUE(waitFor([&] { return alice.output().contains("Свободен"); }));
    alice.process->terminate();
    EXPECT_EQ(alice.waitForEnd(), 1);
    EXPECT_TRUE(alice.output().contains("transport-host: the channel's server did not stop in time\n"));
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
    // The channel is told, too: with a session of its own it would have no other way to know.
    EXPECT_TRUE(waitFor([&] { return alice.output().contains("socket: keeps connection 1\n"); }));
    EXPECT_FALSE(bob.output().contains("socket: keeps")) << "it was not told to keep any";
}

TEST_F(TwoPrograms, PortsDefinedWhileItRunsComeUp)
{
    EXPECT_EQ(bob.call({QStringLiteral("port"), QStringLiteral("remove"), bob.socket}).status, 0);
    bob.run();
    ASSERT_TRUE(waitFor([&] { return bob.output().contains("Работает"); }));
    EXPECT_TRUE(bob.output().contains("no port is defined: define one with \"transport-host port add DEVICE\"\n"));
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
    std::mt19937 random(rig::seed());
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
