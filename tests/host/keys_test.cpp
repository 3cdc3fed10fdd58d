// The program and the keys of those it talks to: pinned by the first call, changed, unknown,
// blocked; and whoever answers that is no host of this kind.
#include "tests/host/programs.h"
#include "tests/host/scriptedline.h"

using namespace hosttest;
using rig::waitFor;

namespace {

const QString bobs = QStringLiteral("Боб");

QString fingerprintOf(const Installation& installation)
{
    return QJsonDocument::fromJson(installation.call({QStringLiteral("key"), QStringLiteral("--json")}).out.toUtf8())
        .object()[QStringLiteral("fingerprint")]
        .toString();
}

QString keyOf(const Installation& installation)
{
    return installation.call({QStringLiteral("key"), QStringLiteral("--text")}).out.trimmed();
}

// As after the loss of the file.
void makeNewKey(const Installation& installation)
{
    const QString before = fingerprintOf(installation);
    ASSERT_TRUE(QFile::remove(installation.root + QStringLiteral("/settings/identity.key")));
    ASSERT_EQ(installation.call({QStringLiteral("key")}).status, 1) << "not made anew unasked";
    ASSERT_EQ(installation.call({QStringLiteral("key"), QStringLiteral("--new")}).status, 0);
    ASSERT_NE(fingerprintOf(installation), before);
}

int count(const Installation& installation, const QString& text)
{
    return QString::fromUtf8(installation.output()).count(text);
}

QString queueField(const Installation& installation, const QString& field)
{
    return installation.queue().first().toObject()[field].toString();
}

bool hasEnded(const Installation& installation, const QString& end)
{
    const QList<QJsonObject> ended = installation.events(QStringLiteral("callEnded"));
    return std::any_of(ended.begin(), ended.end(),
                       [&](const QJsonObject& event) { return event[QStringLiteral("end")].toString() == end; });
}

// Answers calls only, and does so by now.
void runAnswering(Installation* installation, const QStringList& options = {})
{
    installation->run(QStringList{QStringLiteral("--no-calls")} + options);
    ASSERT_TRUE(waitFor([&] { return installation->output().contains("Свободен"); }));
}

void stop(Installation* installation)
{
    installation->process->terminate();
    EXPECT_EQ(installation->waitForEnd(), 0);
}

class Keys : public TwoPrograms
{
protected:
    int abonent(const Installation& installation, const QStringList& words) const
    {
        return installation.call(QStringList{QStringLiteral("abonent")} + words).status;
    }
    void send(const Installation& installation, const QString& to, const QString& name)
    {
        EXPECT_EQ(installation.call({QStringLiteral("send"), to, file(name, name.toUtf8())}).status, 0);
    }
};

} // namespace

// ---- the first call ----

TEST_F(Keys, TheFirstCallPinsTheKeyAndSaysSoOnce)
{
    EXPECT_EQ(abonent(alice, {QStringLiteral("forget-key"), bobs}), 0);
    EXPECT_TRUE(alice.call({QStringLiteral("abonent"), QStringLiteral("list")})
                    .out.contains(QStringLiteral("no key: the first call to them pins it")));
    send(alice, bobs, QStringLiteral("one"));
    bob.run({QStringLiteral("--no-calls")});
    alice.run({QStringLiteral("--exit-when-sent")});
    EXPECT_EQ(alice.waitForEnd(), 0);
    send(alice, bobs, QStringLiteral("two"));
    alice.run({QStringLiteral("--exit-when-sent")});
    EXPECT_EQ(alice.waitForEnd(), 0);
    EXPECT_EQ(bob.inbox().size(), 2);

    const QString fingerprint = fingerprintOf(bob);
    const QList<QJsonObject> pinned = alice.events(QStringLiteral("keyPinned"));
    ASSERT_EQ(pinned.size(), 1);
    EXPECT_EQ(pinned.first()[QStringLiteral("peer")].toString(), bobs);
    EXPECT_EQ(pinned.first()[QStringLiteral("fingerprint")].toString(), fingerprint);
    const QString told =
        QStringLiteral("'%1' answered for the first time: its key %2 is pinned; compare it with what \"transport-host "
                       "key\" shows there\n")
            .arg(bobs, fingerprint);
    EXPECT_EQ(count(alice, told), 1) << alice.output().constData();
    EXPECT_EQ(QString::fromUtf8(readAll(alice.root + QStringLiteral("/data/0/journal.txt"))).count(told), 1);
    const QString list = alice.call({QStringLiteral("abonent"), QStringLiteral("list")}).out;
    EXPECT_TRUE(list.contains(QStringLiteral("key %1, pinned by the first call ").arg(fingerprint)))
        << qPrintable(list);
}

// ---- a key that has changed ----

TEST_F(Keys, AChangedKeyIsRefusedLoudlyAndTheRunEndsWithStatus5)
{
    const QString before = fingerprintOf(bob);
    makeNewKey(bob);
    const QString now = fingerprintOf(bob);
    send(alice, bobs, QStringLiteral("f"));
    bob.run({QStringLiteral("--no-calls")});
    alice.run({QStringLiteral("--exit-when-sent")});
    EXPECT_EQ(alice.waitForEnd(), 5);
    EXPECT_EQ(bob.inbox().size(), 0);
    ASSERT_EQ(alice.queue().size(), 1);
    const QList<QJsonObject> changed = alice.events(QStringLiteral("keyChanged"));
    ASSERT_EQ(changed.size(), 1);
    EXPECT_EQ(changed.first()[QStringLiteral("peer")].toString(), bobs);
    EXPECT_EQ(changed.first()[QStringLiteral("pinned")].toString(), before);
    EXPECT_EQ(changed.first()[QStringLiteral("answered")].toString(), now);
    EXPECT_EQ(count(alice, QStringLiteral("THE KEY OF '%1' HAS CHANGED: %2 answered, %3 is pinned. Somebody else may "
                                          "have answered; nothing was sent. Ask them; if theirs is new: "
                                          "\"transport-host abonent add %1 --key TEXT\", or \"transport-host abonent "
                                          "forget-key %1\"\n")
                               .arg(bobs, now, before)),
              1)
        << alice.output().constData();
    EXPECT_TRUE(alice.output().contains("transport-host: an abonent answered with another key than the pinned one; "
                                        "\"transport-host status\" tells more\n"));
    EXPECT_EQ(count(alice, QStringLiteral("an unproved caller")), 0) << "it was our call";
    const QList<QJsonObject> ended = alice.events(QStringLiteral("callEnded"));
    ASSERT_EQ(ended.size(), 1);
    EXPECT_EQ(ended.first()[QStringLiteral("end")].toString(), QStringLiteral("wrongKey"));
    EXPECT_EQ(ended.first()[QStringLiteral("called")].toString(), bobs);
    EXPECT_EQ(ended.first()[QStringLiteral("peer")].toString(), QString()) << "nobody proved to be anybody";
    // The run is over, and its status still knows.
    EXPECT_EQ(queueField(alice, QStringLiteral("why")), QStringLiteral("keyChanged"));
    const QString reason = queueField(alice, QStringLiteral("reason"));
    EXPECT_EQ(reason, QStringLiteral("'%1' answered with the key %2, but %3 is pinned: ask them; if theirs is new, "
                                     "\"transport-host abonent forget-key\" lets the next call pin it")
                          .arg(bobs, now, before));
    EXPECT_TRUE(alice.call({QStringLiteral("status")}).out.contains(reason));

    EXPECT_EQ(abonent(alice, {QStringLiteral("add"), bobs, QStringLiteral("--key"), keyOf(bob)}), 0);
    alice.run({QStringLiteral("--exit-when-sent")});
    EXPECT_EQ(alice.waitForEnd(), 0);
    EXPECT_EQ(bob.inbox().size(), 1);
}

TEST_F(Keys, ARunningHostTakesTheNewKeyAtOnceAndUntilThenPausesGrow)
{
    makeNewKey(bob);
    send(alice, bobs, QStringLiteral("f"));
    runAnswering(&bob);
    alice.run();
    ASSERT_TRUE(waitFor([&] { return alice.events(QStringLiteral("keyChanged")).size() >= 4; }));
    EXPECT_EQ(bob.inbox().size(), 0);
    EXPECT_EQ(queueField(alice, QStringLiteral("abonent")), bobs);
    // Its units are 50 ms here, and the plug-in makes 1, 3, 7 of them.
    const QList<QJsonObject> placed = alice.events(QStringLiteral("callPlaced"));
    ASSERT_GE(placed.size(), 4);
    const double pausesSeconds[] = {0.050, 0.150, 0.350};
    for (int i = 0; i < 3; ++i) {
        const double pause = placed.at(i + 1)[QStringLiteral("monotonic")].toDouble() -
                             placed.at(i)[QStringLiteral("monotonic")].toDouble();
        EXPECT_GE(pause, pausesSeconds[i] - 0.002) << "after call " << i + 1;
    }
    EXPECT_TRUE(alice.events(QStringLiteral("notConnected")).isEmpty())
        << "the channel says disconnected of such a call";
    EXPECT_EQ(abonent(alice, {QStringLiteral("forget-key"), bobs}), 0);
    ASSERT_TRUE(waitFor([&] { return bob.inbox().size() == 1 && alice.queue().isEmpty(); }))
        << alice.output().constData();
    EXPECT_EQ(alice.events(QStringLiteral("keyPinned")).size(), 1);
    stop(&alice);
}

// Somebody else's modem may answer once: what is right again is no trouble any more.
TEST_F(Keys, TheRightKeyLaterEndsTheTrouble)
{
    Installation carol(QStringLiteral("carol"));
    carol.setUp(QStringLiteral("Carol"));
    EXPECT_EQ(
        alice.call({QStringLiteral("abonent"), QStringLiteral("add"), bobs, QStringLiteral("--number"), carol.socket})
            .status,
        0);
    send(alice, bobs, QStringLiteral("f"));
    carol.run({QStringLiteral("--no-calls")});
    bob.run({QStringLiteral("--no-calls")});
    alice.run({QStringLiteral("--exit-when-received"), QStringLiteral("1")});
    ASSERT_TRUE(waitFor([&] { return !alice.events(QStringLiteral("keyChanged")).isEmpty(); }));
    EXPECT_EQ(
        alice.call({QStringLiteral("abonent"), QStringLiteral("add"), bobs, QStringLiteral("--number"), bob.socket})
            .status,
        0);
    ASSERT_TRUE(waitFor([&] { return bob.inbox().size() == 1 && alice.queue().isEmpty(); }));
    stop(&bob);
    send(alice, bobs, QStringLiteral("g"));
    EXPECT_TRUE(waitFor([&] { return queueField(alice, QStringLiteral("why")) == QStringLiteral("callsFailed"); }))
        << qPrintable(queueField(alice, QStringLiteral("why")));
    EXPECT_EQ(carol.inbox().size(), 0);
    stop(&alice);
}

// ---- callers that are not known ----

TEST_F(Keys, AStrangerWhoCallsItselfAsAFriendGetsNothing)
{
    Installation stranger(QStringLiteral("stranger"));
    stranger.setUp(QStringLiteral("Alice"));
    stranger.knows(QStringLiteral("Target"), bob);
    send(bob, QStringLiteral("Alice"), QStringLiteral("for the true one"));
    send(stranger, QStringLiteral("Target"), QStringLiteral("leaflet"));
    runAnswering(&bob);
    stranger.run({QStringLiteral("--retry-seconds"), QStringLiteral("1000")});
    ASSERT_TRUE(waitFor([&] {
        return hasEnded(bob, QStringLiteral("unknownKey")) && hasEnded(stranger, QStringLiteral("refusedByPeer"));
    }));
    const QString told =
        QStringLiteral("the key %1 is not known here: if you know whose it is, \"transport-host abonent add NAME "
                       "--number NUMBER --key %2\"")
            .arg(fingerprintOf(stranger), keyOf(stranger));
    EXPECT_TRUE(waitFor([&] { return count(bob, told) == 1; })) << bob.output().constData();
    EXPECT_TRUE(waitFor([&] { return bob.status()[QStringLiteral("failedHandshakes")].toInt() == 1; }));
    EXPECT_TRUE(waitFor([&] {
        return bob.call({QStringLiteral("status")}).out.contains(QStringLiteral(", 1 call failed to prove who called"));
    })) << qPrintable(bob.call({QStringLiteral("status")}).out);
    stop(&stranger);
    EXPECT_TRUE(queueField(stranger, QStringLiteral("reason")).contains(QStringLiteral("your key is not known here")))
        << qPrintable(queueField(stranger, QStringLiteral("reason")));
    EXPECT_EQ(bob.inbox().size(), 0);
    EXPECT_EQ(bob.queue().size(), 1);
    stop(&bob);

    bob.run({QStringLiteral("--no-calls"), QStringLiteral("--accept-unknown")});
    stranger.run({QStringLiteral("--exit-when-sent")});
    EXPECT_EQ(stranger.waitForEnd(), 0);
    ASSERT_EQ(bob.inbox().size(), 1);
    const QJsonObject message = bob.inbox().first().toObject();
    EXPECT_EQ(message[QStringLiteral("proved")], QJsonValue(false));
    EXPECT_EQ(message[QStringLiteral("fingerprint")].toString(), fingerprintOf(stranger));
    EXPECT_EQ(message[QStringLiteral("claimedName")].toString(), QStringLiteral("Alice"));
    EXPECT_NE(message[QStringLiteral("abonent")].toString(), QStringLiteral("Alice"));
    const QString line = QStringLiteral("from UNPROVED %1, calls itself 'Alice'").arg(fingerprintOf(stranger));
    const QString status = bob.call({QStringLiteral("status")}).out;
    EXPECT_TRUE(status.contains(line)) << qPrintable(status);
    EXPECT_EQ(bob.queue().size(), 1) << "that is for another one";
    EXPECT_EQ(stranger.inbox().size(), 0);
    EXPECT_EQ(count(stranger, bobs), 0) << "who it called has not said its name: " << stranger.output().constData();
    EXPECT_FALSE(readAll(stranger.root + QStringLiteral("/events.txt")).contains(bobs.toUtf8()));

    alice.run({QStringLiteral("--exit-when-received"), QStringLiteral("1")});
    send(alice, bobs, QStringLiteral("hello"));
    EXPECT_EQ(alice.waitForEnd(), 0) << "the true one gets it";
}

// A call that comes in says nothing of the one that went out through the same port.
TEST_F(Keys, AStrangersCallIsNotTheReasonWhyAMessageWaits)
{
    Installation stranger(QStringLiteral("stranger"));
    stranger.setUp(QStringLiteral("Stranger"));
    stranger.knows(QStringLiteral("Target"), alice);
    send(alice, bobs, QStringLiteral("f"));
    alice.run({QStringLiteral("--retry-seconds"), QStringLiteral("1000")});
    ASSERT_TRUE(waitFor([&] { return queueField(alice, QStringLiteral("why")) == QStringLiteral("callsFailed"); }));
    send(stranger, QStringLiteral("Target"), QStringLiteral("g"));
    stranger.run({QStringLiteral("--retry-seconds"), QStringLiteral("1000")});
    ASSERT_TRUE(waitFor([&] { return hasEnded(alice, QStringLiteral("unknownKey")); }));
    // The next message is explained after that.
    send(alice, bobs, QStringLiteral("h"));
    QString reason;
    ASSERT_TRUE(waitFor([&] {
        reason = alice.queue().last().toObject()[QStringLiteral("reason")].toString();
        return reason.startsWith(QStringLiteral("1 call in a row failed"));
    })) << qPrintable(reason);
    EXPECT_EQ(reason, QStringLiteral("1 call in a row failed, the last: Не удалось установить соединение: BUSY"));
    stop(&stranger);
    stop(&alice);
}

// ---- blocks ----

TEST_F(Keys, ABlockedKeyIsRefusedBothWays)
{
    EXPECT_EQ(bob.call({QStringLiteral("key"), QStringLiteral("block"), keyOf(alice)}).status, 0);
    send(alice, bobs, QStringLiteral("to bob"));
    send(bob, QStringLiteral("Alice"), QStringLiteral("to alice"));
    runAnswering(&bob);
    alice.run({QStringLiteral("--retry-seconds"), QStringLiteral("1000")});
    ASSERT_TRUE(waitFor([&] {
        return hasEnded(bob, QStringLiteral("blockedKey")) && hasEnded(alice, QStringLiteral("refusedByPeer"));
    }));
    EXPECT_TRUE(waitFor([&] {
        return queueField(alice, QStringLiteral("reason")).contains(QStringLiteral("your key is blocked here"));
    })) << qPrintable(queueField(alice, QStringLiteral("reason")));
    EXPECT_TRUE(waitFor([&] { return bob.status()[QStringLiteral("failedHandshakes")].toInt() == 1; }));
    EXPECT_EQ(count(bob, QStringLiteral("'Alice'")), 0) << bob.output().constData();
    stop(&alice);
    stop(&bob);

    alice.run({QStringLiteral("--no-calls")});
    bob.run();
    const QString told =
        QStringLiteral("the key %1 is blocked here (transport-host key unblock)").arg(fingerprintOf(alice));
    // Not from status: while it calls again and again, that says so.
    ASSERT_TRUE(waitFor([&] { return bob.output().contains(told.toUtf8()); })) << bob.output().constData();
    EXPECT_EQ(alice.inbox().size() + bob.inbox().size(), 0);
    EXPECT_EQ(bob.call({QStringLiteral("key"), QStringLiteral("unblock"), keyOf(alice)}).status, 0);
    EXPECT_TRUE(waitFor([&] { return alice.inbox().size() == 1 && bob.inbox().size() == 1; }))
        << bob.output().constData();
    stop(&alice);
    stop(&bob);
}

TEST_F(Keys, BlockingEndsASessionThatRuns)
{
    for (const bool blocksKey : {true, false}) {
        const QStringList kept{QStringLiteral("--keep-connected")};
        runAnswering(&bob, kept);
        send(alice, bobs, QStringLiteral("first"));
        alice.run(kept);
        ASSERT_TRUE(waitFor([&] { return alice.queue().isEmpty(); })) << alice.output().constData();
        EXPECT_FALSE(hasEnded(bob, QStringLiteral("blockedKey")));
        EXPECT_EQ(blocksKey ? bob.call({QStringLiteral("key"), QStringLiteral("block"), keyOf(alice)}).status
                            : abonent(bob, {QStringLiteral("block"), QStringLiteral("Alice")}),
                  0);
        ASSERT_TRUE(waitFor([&] {
            return hasEnded(bob, QStringLiteral("blockedKey")) && hasEnded(alice, QStringLiteral("stoppedByPeer"));
        })) << bob.output().constData();
        const QString why =
            blocksKey
                ? QStringLiteral("the key %1 is blocked here (transport-host key unblock)").arg(fingerprintOf(alice))
                : QStringLiteral("'Alice' is blocked here (transport-host abonent unblock)");
        EXPECT_TRUE(waitFor([&] {
            return bob.output().contains(
                QStringLiteral("the session with 'Alice' on %1 ended early: %2").arg(bob.socket, why).toUtf8());
        })) << bob.output().constData();
        stop(&alice);
        stop(&bob);
        EXPECT_EQ(blocksKey ? bob.call({QStringLiteral("key"), QStringLiteral("unblock"), keyOf(alice)}).status
                            : abonent(bob, {QStringLiteral("unblock"), QStringLiteral("Alice")}),
                  0);
        ASSERT_TRUE(QFile::remove(bob.root + QStringLiteral("/events.txt")));
        ASSERT_TRUE(QFile::remove(alice.root + QStringLiteral("/events.txt")));
    }
}

TEST_F(Keys, ABlockedAbonentIsNeitherCalledNorLetIn)
{
    EXPECT_EQ(abonent(bob, {QStringLiteral("block"), QStringLiteral("Alice")}), 0);
    send(alice, bobs, QStringLiteral("to bob"));
    send(bob, QStringLiteral("Alice"), QStringLiteral("to alice"));
    bob.run();
    alice.run();
    ASSERT_TRUE(waitFor([&] {
        return hasEnded(bob, QStringLiteral("blockedKey")) && hasEnded(alice, QStringLiteral("refusedByPeer"));
    }));
    EXPECT_TRUE(waitFor([&] {
        return bob.output().contains("'Alice' is blocked here (transport-host abonent unblock)");
    })) << bob.output().constData();
    EXPECT_TRUE(waitFor([&] { return queueField(bob, QStringLiteral("why")) == QStringLiteral("blocked"); }));
    EXPECT_TRUE(bob.events(QStringLiteral("callPlaced")).isEmpty());
    EXPECT_EQ(alice.inbox().size() + bob.inbox().size(), 0);
    EXPECT_EQ(abonent(bob, {QStringLiteral("unblock"), QStringLiteral("Alice")}), 0);
    EXPECT_TRUE(waitFor([&] { return alice.inbox().size() == 1 && bob.inbox().size() == 1; }))
        << bob.output().constData();
    stop(&alice);
    stop(&bob);
}

// ---- several at once ----

TEST_F(Keys, TwoAbonentsAtOnceGetTheirOwnMessagesOnly)
{
    Installation carol(QStringLiteral("carol"));
    carol.setUp(QStringLiteral("Carol"));
    carol.knows(QStringLiteral("Alice"), alice);
    alice.knows(QStringLiteral("Carol"), carol);
    EXPECT_EQ(alice.call({QStringLiteral("port"), QStringLiteral("add"), alice.socket + QStringLiteral("2")}).status,
              0);
    const QByteArray toBob = randomBytes(50000, rig::seed());
    const QByteArray toCarol = randomBytes(50000, rig::seed() + 1);
    EXPECT_EQ(alice.call({QStringLiteral("send"), bobs, file(QStringLiteral("b"), toBob)}).status, 0);
    EXPECT_EQ(alice.call({QStringLiteral("send"), QStringLiteral("Carol"), file(QStringLiteral("c"), toCarol)}).status,
              0);
    send(bob, QStringLiteral("Alice"), QStringLiteral("from bob"));
    send(carol, QStringLiteral("Alice"), QStringLiteral("from carol"));
    const QStringList untilDone{QStringLiteral("--exit-when-sent"), QStringLiteral("--no-calls"),
                                QStringLiteral("--exit-when-received"), QStringLiteral("1")};
    bob.run(untilDone);
    carol.run(untilDone);
    ASSERT_TRUE(waitFor([&] { return bob.output().contains("Свободен") && carol.output().contains("Свободен"); }));
    alice.run({QStringLiteral("--exit-when-sent"), QStringLiteral("--exit-when-received"), QStringLiteral("2")},
              {QStringLiteral("SOCKETPLUGIN_RATE=20000")});
    EXPECT_EQ(alice.waitForEnd(), 0);
    EXPECT_EQ(bob.waitForEnd(), 0);
    EXPECT_EQ(carol.waitForEnd(), 0);

    const auto onlyMessage = [](const Installation& installation) {
        const QJsonArray inbox = installation.inbox();
        EXPECT_EQ(inbox.size(), 1);
        return readAll(inbox.first().toObject()[QStringLiteral("path")].toString());
    };
    EXPECT_TRUE(onlyMessage(bob) == toBob);
    EXPECT_TRUE(onlyMessage(carol) == toCarol);
    QMap<QString, QString> received; // file: from whom
    for (const auto& entry : alice.inbox()) {
        EXPECT_TRUE(entry.toObject()[QStringLiteral("proved")].toBool());
        received[entry.toObject()[QStringLiteral("file")].toString()] =
            entry.toObject()[QStringLiteral("abonent")].toString();
    }
    EXPECT_EQ(received, (QMap<QString, QString>{{QStringLiteral("from bob"), bobs},
                                                {QStringLiteral("from carol"), QStringLiteral("Carol")}}));
    // Both calls stood at one moment.
    const QList<QJsonObject> begun = alice.events(QStringLiteral("callBegun"));
    ASSERT_EQ(begun.size(), 2);
    EXPECT_NE(begun.at(0)[QStringLiteral("port")], begun.at(1)[QStringLiteral("port")]);
    EXPECT_LT(begun.at(1)[QStringLiteral("monotonic")].toDouble(),
              alice.events(QStringLiteral("callEnded")).first()[QStringLiteral("monotonic")].toDouble());
}

// ---- no host of this kind ----

TEST_F(Keys, WhoAnswersInAnotherLanguageIsNamedAsSuch)
{
    const ScriptedAnswer login(bob.socket, "\r\nlogin: ");
    send(alice, bobs, QStringLiteral("f"));
    alice.run();
    const QString reason = QStringLiteral("the other side does not speak this protocol");
    ASSERT_TRUE(waitFor([&] { return queueField(alice, QStringLiteral("reason")).contains(reason); }))
        << alice.output().constData();
    EXPECT_TRUE(hasEnded(alice, QStringLiteral("notThisProtocol")));
    EXPECT_TRUE(waitFor([&] { return queueField(alice, QStringLiteral("why")) == QStringLiteral("callsFailed"); }));
    EXPECT_TRUE(waitFor([&] {
        return count(alice, QStringLiteral("the call to '%1' on %2 ended early: %3").arg(bobs, alice.socket, reason)) >=
               1;
    })) << alice.output().constData();
    stop(&alice);
    EXPECT_EQ(alice.queue().size(), 1);
}

TEST_F(Keys, AnOldHostIsToldThatItIsOld)
{
    const QByteArray old = QByteArrayLiteral("\x01\x00\x24") + "transport-host" + '\x01' + QByteArray(21, '\x07');
    runAnswering(&bob);
    EXPECT_EQ(answerTo(bob.socket, old).left(15), QByteArrayLiteral("transport-host\x02"));
    const char reason[] =
        "the other side speaks version 1 of the session protocol, this one version 2: install the same version on both";
    EXPECT_TRUE(waitFor([&] { return bob.output().contains(reason); })) << bob.output().constData();
    EXPECT_TRUE(hasEnded(bob, QStringLiteral("otherVersion")));
    stop(&bob);

    const ScriptedAnswer answers(bob.socket, old);
    send(alice, bobs, QStringLiteral("f"));
    alice.run();
    EXPECT_TRUE(waitFor([&] { return queueField(alice, QStringLiteral("reason")).contains(QLatin1String(reason)); }))
        << alice.output().constData();
    stop(&alice);
}
