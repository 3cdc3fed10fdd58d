// What "status" shows, how it ends, and the limits that "run" takes.
#include "tests/host/programs.h"

using namespace hosttest;
using rig::waitFor;

namespace {

const QString unprovedFingerprint = QStringLiteral("95114-81512-78646-12888-08988-26535"); // of 32 bytes 'k'

class ProgramStatus : public Program
{
protected:
    ProgramStatus() { installation.setUp(QStringLiteral("I")); }

    Result status(const QStringList& options = {}) const
    {
        return installation.call(QStringList{QStringLiteral("status")} + options);
    }

    // A message as it stands in the inbox.
    void receive(const QString& number, const QByteArray& recordFields, const QByteArray& content) const
    {
        const QString dir = installation.root + QStringLiteral("/data/0/messages/input/") + number;
        writeFile(dir + QStringLiteral("/f.txt"), content);
        writeFile(dir + QStringLiteral("/.message"),
                  "{\"id\":\"00000000000000" + number.right(2).toLatin1() +
                      "\",\"name\":\"f.txt\",\"file\":\"f.txt\",\"size\":" + QByteArray::number(content.size()) +
                      ",\"verified\":true," + recordFields + "}");
    }

    // What a running host says of itself; this process stands for it.
    void pretendToRun(const QByteArray& fields) const
    {
        writeFile(installation.root + QStringLiteral("/data/0/transport-host.state"),
                  "{\"process\":" + QByteArray::number(getpid()) + "," + fields + "}");
    }

    Installation installation{QStringLiteral("i")};
};

} // namespace

TEST_F(ProgramStatus, UnprovedMessagesAreMarked)
{
    receive(QStringLiteral("00000001"), "\"from\":\"Bob\"", "abc");
    receive(QStringLiteral("00000002"),
            "\"from\":\"unproved\",\"proved\":false,\"called\":\"Bob\",\"key\":\"" + QByteArray(32, 'k').toHex() + "\"",
            "12345");
    const Result text = status();
    EXPECT_EQ(text.status, 0) << qPrintable(text.err);
    EXPECT_TRUE(text.out.contains(QStringLiteral("  00000001  from Bob  f.txt  3 B  "))) << qPrintable(text.out);
    EXPECT_TRUE(text.out.contains(
        QStringLiteral("  00000002  from UNPROVED %1, calls itself 'Bob'  f.txt  5 B  ").arg(unprovedFingerprint)))
        << qPrintable(text.out);
    const QJsonArray inbox = installation.inbox();
    ASSERT_EQ(inbox.size(), 2);
    EXPECT_TRUE(inbox.at(0).toObject()[QStringLiteral("proved")].toBool());
    EXPECT_FALSE(inbox.at(1).toObject()[QStringLiteral("proved")].toBool(true));
    EXPECT_EQ(inbox.at(1).toObject()[QStringLiteral("fingerprint")].toString(), unprovedFingerprint);
    EXPECT_EQ(inbox.at(1).toObject()[QStringLiteral("claimedName")].toString(), QStringLiteral("Bob"));
}

TEST_F(ProgramStatus, RoomIsShownAgainstTheUsualLimits)
{
    receive(QStringLiteral("00000001"), "\"from\":\"Bob\"", QByteArray(1500, 'x'));
    EXPECT_TRUE(
        status().out.endsWith(QStringLiteral("room:  1.5 kB of 34.4 GB, 1 of 50000 messages, 3 of 200000 inodes\n")))
        << qPrintable(status().out);
}

TEST_F(ProgramStatus, RoomIsShownAgainstTheLimitsOfTheRunningHost)
{
    receive(QStringLiteral("00000001"), "\"from\":\"Bob\"", QByteArray(1001, 'x'));
    receive(QStringLiteral("00000002"), "\"from\":\"Carol\"", QByteArray(999, 'x'));
    receive(QStringLiteral("00000003"), "\"proved\":false,\"key\":\"" + QByteArray(32, 'k').toHex() + "\"", "12345");
    pretendToRun("\"limits\":{\"abonent\":{\"bytes\":2000},\"unproved\":{\"bytes\":10000},\"all\":{\"bytes\":4000}}");
    const Result text = status();
    EXPECT_TRUE(
        text.out.endsWith(QStringLiteral("room:  2.0 kB of 4.0 kB, 3 of 50000 messages, 9 of 200000 inodes\n"
                                         "  unproved together  5 B of 10.0 kB, 1 of 50 messages, 3 of 200 inodes\n"
                                         "  Bob  1.0 kB of 2.0 kB, 1 of 10000 messages, 3 of 40000 inodes\n")))
        << qPrintable(text.out);
    const QJsonObject room = installation.status()[QStringLiteral("room")].toObject();
    EXPECT_EQ(room[QStringLiteral("all")][QStringLiteral("used")][QStringLiteral("bytes")].toInt(), 2005);
    EXPECT_EQ(room[QStringLiteral("all")][QStringLiteral("limit")][QStringLiteral("bytes")].toInt(), 4000);
    EXPECT_EQ(room[QStringLiteral("unproved")][QStringLiteral("used")][QStringLiteral("messages")].toInt(), 1);
    ASSERT_EQ(room[QStringLiteral("abonents")].toArray().size(), 2);
    EXPECT_EQ(room[QStringLiteral("abonents")].toArray().at(1)[QStringLiteral("abonent")].toString(),
              QStringLiteral("Carol"));
    EXPECT_EQ(
        room[QStringLiteral("abonents")].toArray().at(1)[QStringLiteral("used")][QStringLiteral("inodes")].toInt(), 3);
    EXPECT_GT(room[QStringLiteral("freeBytes")].toDouble(), 0);
}

TEST_F(ProgramStatus, FailedHandshakesAreCounted)
{
    EXPECT_FALSE(status().out.contains(QStringLiteral("failed to prove")));
    pretendToRun("\"failedHandshakes\":3");
    EXPECT_TRUE(status().out.contains(
        QStringLiteral("host:  running, process %1, 3 calls failed to prove who called\n").arg(getpid())));
    EXPECT_EQ(installation.status()[QStringLiteral("failedHandshakes")].toInt(), 3);
    pretendToRun("\"failedHandshakes\":0");
    EXPECT_FALSE(status().out.contains(QStringLiteral("failed to prove")));
}

// A record of one damaged file is no reason to hide the others.
TEST_F(ProgramStatus, WhatCannotBeReadIsToldAndTheRestIsShown)
{
    installation.call({QStringLiteral("send"), QStringLiteral("Bob"), file(QStringLiteral("f"), "x")});
    const QString settings = installation.root + QStringLiteral("/settings/");
    for (const char* name : {"abonents.conf", "channelCom.conf", "generalSettings.ini"}) {
        const QString path = settings + QString::fromLatin1(name);
        const bool wasThere = QFile::exists(path);
        const QByteArray before = readAll(path);
        writeFile(path, QByteArray(100, '\0'));
        const Result text = status();
        EXPECT_EQ(text.status, 1) << name;
        EXPECT_TRUE(text.err.contains(path)) << qPrintable(text.err);
        EXPECT_TRUE(text.out.contains(QStringLiteral("queue: 1\n"))) << qPrintable(text.out);
        EXPECT_FALSE(text.out.contains(QStringLiteral("(none"))) << "a name that cannot be read is not missing";
        const Result json = status({QStringLiteral("--json")});
        EXPECT_EQ(json.status, 1) << name;
        const QJsonObject object = QJsonDocument::fromJson(json.out.toUtf8()).object();
        EXPECT_EQ(object[QStringLiteral("queue")].toArray().size(), 1) << name;
        EXPECT_TRUE(object[QStringLiteral("troubles")].toArray().first().toString().contains(path)) << name;
        if (wasThere)
            writeFile(path, before);
        else
            QFile::remove(path);
        const Result mended = status();
        EXPECT_EQ(mended.status, 0) << name << qPrintable(mended.err);
    }
    writeFile(installation.root + QStringLiteral("/data/0/tasks/toTransport/00000002.task"), "nonsense");
    const Result text = status();
    EXPECT_EQ(text.status, 1);
    EXPECT_TRUE(text.err.contains(QStringLiteral("00000002.task is damaged and is left aside")))
        << qPrintable(text.err);
    EXPECT_TRUE(text.out.contains(QStringLiteral("queue: 1\n")));
}

// What a peer or a modem has said of a message that waits.
TEST_F(ProgramStatus, ReasonsAreSafeOnATerminal)
{
    const QString source = writeFile(rig::installRoot() + QStringLiteral("/source"), "x");
    ASSERT_EQ(installation.call({QStringLiteral("send"), QStringLiteral("Bob"), source}).status, 0);
    const QString raw = QStringLiteral("told\u001B[2J\u0007\u061Cend");
    writeFile(installation.root + QStringLiteral("/data/0/messages/output/00000001/reason.json"),
              "{\"kind\":\"refused\",\"text\":\"told\\u001b[2J\\u0007\\u061cend\"}");
    const QString out = status().out;
    EXPECT_TRUE(out.contains(QStringLiteral("told"))) << qPrintable(out);
    EXPECT_FALSE(out.contains(raw));
    for (const char16_t character : {0x1B, 0x07, 0x061C})
        EXPECT_FALSE(out.contains(QChar(character))) << int(character);
}

TEST_F(ProgramStatus, PortsStatesAreSafeOnATerminal)
{
    ASSERT_EQ(installation.call({QStringLiteral("port"), QStringLiteral("add"), QStringLiteral("ttyS0")}).status, 0);
    pretendToRun("\"ports\":[{\"name\":\"ttyS0\",\"state\":\"told\\u001b[2J\\u0007\\u061cend\"}]");
    const QString out = status().out;
    EXPECT_TRUE(out.contains(QStringLiteral("ttyS0  told"))) << qPrintable(out);
    for (const char16_t character : {0x1B, 0x07, 0x061C})
        EXPECT_FALSE(out.contains(QChar(character))) << int(character);
}

TEST_F(ProgramStatus, JsonIsSafeOnATerminal)
{
    const QString name = QStringLiteral("a\u009B2J\u202E\u061C\u2028\u007F\u200DЖ\U000E0041z");
    receive(QStringLiteral("00000001"), "\"from\":\"Bob\"", "abc");
    receive(QStringLiteral("00000002"), "\"proved\":false,\"called\":\"" + name.toUtf8() + "\"", "abc");
    const QString out = status({QStringLiteral("--json")}).out;
    for (const uint character : out.trimmed().toUcs4()) {
        const QChar::Category category = QChar::category(character);
        EXPECT_TRUE(category != QChar::Other_Control && category != QChar::Other_Format &&
                    category != QChar::Separator_Line)
            << character;
    }
    EXPECT_TRUE(out.contains(QStringLiteral("a\\u009b2J\\u202e\\u061c\\u2028\\u007f\\u200dЖ\\udb40\\udc41z")))
        << qPrintable(out);
    EXPECT_EQ(installation.inbox().at(1).toObject()[QStringLiteral("claimedName")].toString(), name) << "the same data";
}

TEST_F(ProgramStatus, WrongUsageEndsWithStatus2)
{
    for (const char* word : {"now", "--nonsense"}) {
        const Result result = status({QString::fromLatin1(word)});
        EXPECT_EQ(result.status, 2) << word;
        EXPECT_EQ(result.out, QString()) << word;
    }
}

// ---- limits of run ----

TEST_F(ProgramStatus, WrongSizesAreToldWithStatus2)
{
    const auto run = [&](const char* option, const char* value) {
        return installation.call({QStringLiteral("run"), QString::fromLatin1(option), QString::fromLatin1(value),
                                  QStringLiteral("--timeout"), QStringLiteral("0.1")});
    };
    for (const char* option : {"--abonent-quota", "--unproved-quota", "--total-quota"}) {
        const Result zero = run(option, "0");
        EXPECT_EQ(zero.status, 2) << option;
        EXPECT_TRUE(zero.err.contains(QStringLiteral("%1 0 would let no content in at all: give a size, as 500M")
                                          .arg(QString::fromLatin1(option))))
            << qPrintable(zero.err);
    }
    for (const char* option : {"--abonent-quota", "--unproved-quota", "--total-quota", "--keep-free", "--max-size"}) {
        const Result wrong = run(option, "12Q");
        EXPECT_EQ(wrong.status, 2) << option;
        EXPECT_TRUE(
            wrong.err.contains(QStringLiteral("%1 needs a size: a number of bytes").arg(QString::fromLatin1(option))))
            << qPrintable(wrong.err);
        EXPECT_TRUE(installation.call({QStringLiteral("run"), QStringLiteral("--help")})
                        .out.contains(QString::fromLatin1(option) + QStringLiteral(" <SIZE>")));
    }
}

TEST_F(TwoPrograms, TheLimitsThatRunWasGivenCount)
{
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("large"), QByteArray(3000, 'x')),
                file(QStringLiteral("small"), "s")});
    bob.run({QStringLiteral("--abonent-quota"), QStringLiteral("2K"), QStringLiteral("--unproved-quota"),
             QStringLiteral("1K"), QStringLiteral("--total-quota"), QStringLiteral("10K"),
             QStringLiteral("--keep-free"), QStringLiteral("0")});
    alice.run();
    ASSERT_TRUE(waitFor([&] {
        return alice.queue().size() == 1 &&
               alice.queue().first().toObject()[QStringLiteral("why")].toString() == QStringLiteral("refused");
    }));
    const QString text = bob.call({QStringLiteral("status")}).out;
    EXPECT_TRUE(text.contains(QStringLiteral("room:  1 B of 10.2 kB, 1 of 50000 messages, 3 of 200000 inodes\n")))
        << qPrintable(text);
    const QJsonObject room = bob.status()[QStringLiteral("room")].toObject();
    EXPECT_EQ(
        room[QStringLiteral("abonents")].toArray().first()[QStringLiteral("limit")][QStringLiteral("bytes")].toInt(),
        2048);
    EXPECT_EQ(room[QStringLiteral("unproved")][QStringLiteral("limit")][QStringLiteral("bytes")].toInt(), 1024);
}

// The reserve is asked of the real disk: no disk has this much.
TEST_F(TwoPrograms, TheReserveThatRunWasGivenCounts)
{
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("f"), "x")});
    bob.run({QStringLiteral("--keep-free"), QStringLiteral("8000T")});
    alice.run();
    ASSERT_TRUE(waitFor([&] {
        return alice.queue().size() == 1 &&
               alice.queue().first().toObject()[QStringLiteral("why")].toString() == QStringLiteral("refused");
    }));
    EXPECT_EQ(bob.inbox().size(), 0);
}

// ---- a line that is cut off ----

// No signal ends its connection and nobody ends its session: neither may keep the message.
TEST_F(TwoPrograms, AMessageGoesOnWhenItsLineWasCutOff)
{
    alice.call({QStringLiteral("send"), QStringLiteral("Боб"), file(QStringLiteral("f"), QByteArray(300000, 'x'))});
    bob.run({QStringLiteral("--no-calls")});
    alice.run({QStringLiteral("--exit-when-sent"), QStringLiteral("--timeout"), QStringLiteral("40")},
              {QStringLiteral("SOCKETPLUGIN_CUTOFF=1"), QStringLiteral("SOCKETPLUGIN_RATE=100000")});
    ASSERT_TRUE(waitFor([&] { return !alice.events(QStringLiteral("fileBegun")).isEmpty(); }));
    EXPECT_EQ(alice.call({QStringLiteral("port"), QStringLiteral("packet-size"), QStringLiteral("512")}).status, 0);
    EXPECT_EQ(alice.waitForEnd(), 0);
    EXPECT_EQ(alice.events(QStringLiteral("connectionLost")).size(), 1);
    EXPECT_EQ(alice.events(QStringLiteral("delivered")).size(), 1);
    EXPECT_EQ(bob.inbox().size(), 1);
}
