// Whole installations that call one another: whatever the line does, each file arrives
// once, whole and bit-exact.
#include "rig/deadline.h"
#include "rig/testroot.h"
#include "tests/system/testbed.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>

using rig::waitFor;
using testsupport::Installation;
using testsupport::makeFile;
using testsupport::PhoneExchange;
using testsupport::randomBytes;

namespace {

constexpr int transferDeadlineMs = 120000;
constexpr int exitDone = 0;
constexpr int exitTimedOut = 3;
constexpr int exitKeyChanged = 5;

QStringList untilDone(int received)
{
    return {QStringLiteral("--exit-when-sent"), QStringLiteral("--exit-when-received"), QString::number(received)};
}

// Two installations that know each other, on modems 1 and 2.
struct Pair
{
    explicit Pair(const QStringList& exchangeOptions = {})
        : exchange(2, QStringList{QStringLiteral("--rate"), QStringLiteral("115200")} + exchangeOptions)
    {
        north.addPort(exchange.port(1));
        south.addPort(exchange.port(2));
        north.addAbonent(south, PhoneExchange::number(2));
        south.addAbonent(north, PhoneExchange::number(1));
    }

    void expectBothEndWell()
    {
        EXPECT_EQ(north.waitForEnd(transferDeadlineMs), exitDone);
        EXPECT_EQ(south.waitForEnd(transferDeadlineMs), exitDone);
    }

    PhoneExchange exchange;
    Installation north{QStringLiteral("Север")};
    Installation south{QStringLiteral("Юг")};
};

void expectReceivedOnce(const Installation& receiver, const QByteArray& content, const QString& name)
{
    EXPECT_EQ(receiver.received(content), QStringList{name}) << receiver.name().toStdString();
}

// Bytes that a careless link would take for its own packets or for the modem's commands.
QByteArray misleadingBytes()
{
    const QByteArray packet = QByteArray::fromHex("7c0001010041") // a torn packet, then whole ones
                              + QByteArray::fromHex("7c00010500644f48656c6c6fbb8ac44f") +
                              QByteArray::fromHex("7c000000 00a187") +
                              QByteArray::fromHex("7c01000500e00e000102feff47c723f4");
    return (packet + "+++" + "\rATH\r" + "\r\nNO CARRIER\r\n" + "\r\nOK\r\n").repeated(120);
}

} // namespace

TEST(System, BothDirectionsInOneCall)
{
    Pair pair;
    const QByteArray large = randomBytes(60000);
    const QByteArray misleading = misleadingBytes();
    const QByteArray small = "x";
    pair.north.send(pair.south, {makeFile(QStringLiteral("large.bin"), large),
                                 makeFile(QStringLiteral("Письмо № 1, с пробелами.txt"), misleading),
                                 makeFile(QStringLiteral("empty"), {})});
    pair.south.send(pair.north, {makeFile(QStringLiteral("large.bin"), large), makeFile(QStringLiteral("s"), small)});
    // South waits to be called, so that there is one call and no more.
    pair.south.run(pair.exchange, untilDone(3) + QStringList{QStringLiteral("--no-calls")});
    pair.north.run(pair.exchange, untilDone(2));
    pair.expectBothEndWell();

    expectReceivedOnce(pair.south, large, QStringLiteral("large.bin"));
    expectReceivedOnce(pair.south, misleading, QStringLiteral("Письмо № 1, с пробелами.txt"));
    expectReceivedOnce(pair.south, {}, QStringLiteral("empty"));
    expectReceivedOnce(pair.north, large, QStringLiteral("large.bin"));
    expectReceivedOnce(pair.north, small, QStringLiteral("s"));
    EXPECT_EQ(pair.north.events(QStringLiteral("callBegun")).size(), 1);
    const QList<QJsonObject> calls = pair.exchange.stop();
    ASSERT_EQ(std::count_if(calls.begin(), calls.end(),
                            [](const QJsonObject& call) { return call[QStringLiteral("connected")].toBool(); }),
              1);
}

TEST(System, NoiseAndADroppedCarrier)
{
    Pair pair({QStringLiteral("--ber"), QStringLiteral("2e-5")});
    // What noise has spoilt comes again soon: most of the time would be spent waiting for that.
    for (Installation* installation : {&pair.north, &pair.south})
        installation->addSettings("[Details]\ntransportComResendInterval=500\ntransportComConfirmationInterval=100\n");
    const QByteArray down = randomBytes(40000);
    const QByteArray up = randomBytes(30000);
    pair.north.send(pair.south, {makeFile(QStringLiteral("down"), down)});
    pair.south.send(pair.north, {makeFile(QStringLiteral("up"), up)});
    // South waits to be called: two that call each other at the same moments are engaged for long.
    pair.south.run(pair.exchange, untilDone(1) + QStringList{QStringLiteral("--no-calls")});
    pair.north.run(pair.exchange, untilDone(1));
    // Not after so many bytes on the line: they may all stand behind one that noise has spoilt.
    const auto hasPartOfTheFile = [&] {
        const QList<QJsonObject> progress = pair.south.events(QStringLiteral("progress"), QStringLiteral("in"));
        return !progress.isEmpty() && progress.last()[QStringLiteral("bytes")].toInt() > 0;
    };
    ASSERT_TRUE(waitFor(hasPartOfTheFile, transferDeadlineMs));
    EXPECT_EQ(pair.exchange.command(QStringLiteral("drop 2")).left(2), QStringLiteral("ok"));
    pair.expectBothEndWell();

    expectReceivedOnce(pair.south, down, QStringLiteral("down"));
    expectReceivedOnce(pair.north, up, QStringLiteral("up"));
    // Taken up where it stopped: the second call begins the file beyond its start.
    const QList<QJsonObject> begun = pair.south.events(QStringLiteral("fileBegun"), QStringLiteral("in"));
    ASSERT_GE(begun.size(), 2);
    EXPECT_GT(begun.last()[QStringLiteral("bytes")].toInt(), 0);
}

TEST(System, FourCallsAtOnceOverEightPorts)
{
    constexpr int spokes = 4;
    PhoneExchange exchange(2 * spokes, {QStringLiteral("--rate"), QStringLiteral("57600")});
    Installation hub(QStringLiteral("Узел"));
    std::vector<std::unique_ptr<Installation>> others;
    std::vector<QByteArray> fromHub, toHub;
    for (int i = 0; i < spokes; ++i) {
        others.push_back(std::make_unique<Installation>(QStringLiteral("Абонент%1").arg(i + 1)));
        Installation& other = *others.back();
        hub.addPort(exchange.port(1 + i));
        other.addPort(exchange.port(1 + spokes + i));
        hub.addAbonent(other, PhoneExchange::number(1 + spokes + i));
        other.addAbonent(hub, PhoneExchange::number(1 + i));
        fromHub.push_back(randomBytes(40000));
        toHub.push_back(randomBytes(40000));
        hub.send(other, {makeFile(QStringLiteral("from hub"), fromHub.back())});
        other.send(hub, {makeFile(QStringLiteral("to hub"), toHub.back())});
    }
    for (const auto& other : others)
        other->run(exchange, untilDone(1) + QStringList{QStringLiteral("--no-calls")});
    hub.run(exchange, untilDone(spokes));
    EXPECT_EQ(hub.waitForEnd(transferDeadlineMs), exitDone);
    for (const auto& other : others)
        EXPECT_EQ(other->waitForEnd(transferDeadlineMs), exitDone);

    for (int i = 0; i < spokes; ++i) {
        expectReceivedOnce(*others[i], fromHub[i], QStringLiteral("from hub"));
        expectReceivedOnce(hub, toHub[i], QStringLiteral("to hub"));
    }
    // All four stood at one moment. On a busy machine one may fail first, and is made again.
    std::multimap<double, int> changes;
    for (const QJsonObject& event : hub.events(QStringLiteral("callBegun")))
        changes.emplace(event[QStringLiteral("monotonic")].toDouble(), 1);
    for (const QJsonObject& event : hub.events(QStringLiteral("callEnded")))
        changes.emplace(event[QStringLiteral("monotonic")].toDouble(), -1);
    int standing = 0;
    int mostStanding = 0;
    for (const auto& change : changes)
        mostStanding = std::max(mostStanding, standing += change.second);
    EXPECT_EQ(mostStanding, spokes);
}

TEST(System, APortThatVanishesInACallComesBack)
{
    Pair pair;
    const QByteArray content = randomBytes(90000);
    pair.north.send(pair.south, {makeFile(QStringLiteral("file"), content)});
    pair.south.run(pair.exchange, untilDone(1) + QStringList{QStringLiteral("--no-calls"),
                                                             QStringLiteral("--silence-seconds"), QStringLiteral("5")});
    pair.north.run(pair.exchange, untilDone(0));
    ASSERT_TRUE(waitFor([&] { return pair.south.events(QStringLiteral("progress"), QStringLiteral("in")).size() > 3; },
                        transferDeadlineMs));
    EXPECT_EQ(pair.exchange.command(QStringLiteral("unplug 2")).left(2), QStringLiteral("ok"));
    ASSERT_TRUE(waitFor([&] { return !pair.south.events(QStringLiteral("callEnded")).isEmpty(); }, transferDeadlineMs));
    EXPECT_EQ(pair.exchange.command(QStringLiteral("plug 2")).left(2), QStringLiteral("ok"));
    pair.expectBothEndWell();
    expectReceivedOnce(pair.south, content, QStringLiteral("file"));
}

TEST(System, KilledReceiverAndSenderDeliverOnce)
{
    Pair pair;
    const QByteArray first = randomBytes(30000);
    const QByteArray second = randomBytes(30000);
    pair.north.send(pair.south, {makeFile(QStringLiteral("first"), first), makeFile(QStringLiteral("second"), second)});
    const QStringList southOptions{QStringLiteral("--no-calls"), QStringLiteral("--silence-seconds"),
                                   QStringLiteral("4")};
    const QStringList northOptions{QStringLiteral("--silence-seconds"), QStringLiteral("4")};
    pair.south.run(pair.exchange, southOptions);
    pair.north.run(pair.exchange, untilDone(0) + northOptions);
    const auto progress = [&] { return pair.south.events(QStringLiteral("progress"), QStringLiteral("in")).size(); };

    ASSERT_TRUE(waitFor([&] { return progress() > 5; }, transferDeadlineMs));
    pair.south.kill();
    pair.south.run(pair.exchange, southOptions);
    const int before = progress();
    ASSERT_TRUE(waitFor([&] { return progress() > before + 10; }, transferDeadlineMs));
    pair.north.kill();
    pair.north.run(pair.exchange, untilDone(0) + northOptions);
    EXPECT_EQ(pair.north.waitForEnd(transferDeadlineMs), exitDone);
    EXPECT_EQ(pair.south.stop(), exitDone);

    expectReceivedOnce(pair.south, first, QStringLiteral("first"));
    expectReceivedOnce(pair.south, second, QStringLiteral("second"));
    EXPECT_EQ(pair.south.receivedCount(), 2);
}

namespace {

// Both sides send all the time, and one of them is killed again and again.
class KilledPair
{
public:
    explicit KilledPair(unsigned seed) : m_random(seed)
    {
        for (Side& side : m_sides) {
            queueSome(side);
            side.self->run(m_pair.exchange, m_options);
        }
    }

    void killOne()
    {
        // Mostly while a call stands, at times while there is none.
        if (m_random() % 4 != 0) {
            const int begun = filesBegun();
            (void)waitFor([&] { return filesBegun() > begun; }, 3000);
        }
        const int lifeMs = static_cast<int>(m_random() % 400);
        QElapsedTimer life;
        life.start();
        (void)waitFor([&] { return life.elapsed() >= lifeMs; }, lifeMs + 1);
        Side& victim = m_sides[m_random() % 2];
        victim.self->kill();
        ++victim.kills;
        for (const Side& side : m_sides)
            expectNothingConfirmedTooEarly(side);
        queueSome(m_sides[m_random() % 2]);
        victim.self->run(m_pair.exchange, m_options);
    }

    void expectAllArrive()
    {
        EXPECT_TRUE(waitFor([this] { return std::all_of(std::begin(m_sides), std::end(m_sides), allIsDone); },
                            transferDeadlineMs));
        for (const Side& side : m_sides)
            EXPECT_EQ(side.self->stop(), exitDone);
        for (const Side& side : m_sides) {
            for (auto file = side.sent.constBegin(); file != side.sent.constEnd(); ++file)
                expectReceivedOnce(*side.peer, file.value(), file.key());
            EXPECT_EQ(side.peer->receivedCount(), side.sent.size());
            expectNothingConfirmedTooEarly(side);
            std::printf("%s: killed %d times, %d files\n", qPrintable(side.self->name()), side.kills, side.sent.size());
        }
    }

private:
    struct Side
    {
        Installation* self;
        Installation* peer;
        QMap<QString, QByteArray> sent = {};
        int kills = 0;
    };

    int filesBegun() const { return m_pair.north.events(QStringLiteral("fileBegun")).size(); }

    // Small ones: most of the time some file is just being begun, stored or acknowledged.
    void queueSome(Side& side)
    {
        QStringList files;
        for (int i = 0; i < 3; ++i) {
            const QString name = QStringLiteral("%1 %2").arg(side.self->name(), QString::number(side.sent.size()));
            side.sent[name] = randomBytes(static_cast<int>(m_random() % 4000));
            files.append(makeFile(name, side.sent[name]));
        }
        side.self->send(*side.peer, files);
    }

    static void expectNothingConfirmedTooEarly(const Side& side)
    {
        QSet<QString> delivered;
        for (const QJsonObject& event : side.self->events(QStringLiteral("delivered")))
            delivered.insert(event[QStringLiteral("file")].toString());
        for (const QString& name : qAsConst(delivered))
            EXPECT_EQ(side.peer->received(side.sent[name]).count(name), 1) << name.toStdString();
    }

    static bool allIsDone(const Side& side)
    {
        if (side.peer->receivedCount() < side.sent.size())
            return false;
        side.self->command({QStringLiteral("status"), QStringLiteral("--json")});
        return QJsonDocument::fromJson(side.self->output().toUtf8())
            .object()[QStringLiteral("queue")]
            .toArray()
            .isEmpty();
    }

    std::mt19937 m_random;
    Pair m_pair;
    const QStringList m_options{QStringLiteral("--silence-seconds"), QStringLiteral("3")};
    Side m_sides[2] = {{&m_pair.north, &m_pair.south}, {&m_pair.south, &m_pair.north}};
};

} // namespace

// Wherever it is: dialling, in the middle of a file, storing it, acknowledging it.
// SYSTEM_KILL_SECONDS makes the few seconds of a usual run longer.
TEST(System, KilledAtRandomMomentsAgainAndAgain)
{
    constexpr int usualSeconds = 8;
    const int asked = qEnvironmentVariableIntValue("SYSTEM_KILL_SECONDS");
    const int seconds = asked > 0 ? asked : usualSeconds;
    std::printf("seed %u, %d s\n", rig::seed(), seconds);
    KilledPair pair(rig::seed());
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < seconds * 1000)
        pair.killOne();
    pair.expectAllArrive();
}

TEST(System, AMessageThatCannotBeDeliveredStaysQueuedAndSaysWhy)
{
    Pair pair;
    const QByteArray content = randomBytes(500);
    pair.north.send(pair.south, {makeFile(QStringLiteral("file"), content)});
    EXPECT_EQ(pair.exchange.command(QStringLiteral("busy 2 on")).left(2), QStringLiteral("ok"));
    pair.south.run(pair.exchange, untilDone(1) + QStringList{QStringLiteral("--no-calls")});
    pair.north.run(pair.exchange, {QStringLiteral("--exit-when-sent")});
    ASSERT_TRUE(
        waitFor([&] { return !pair.north.events(QStringLiteral("notConnected")).isEmpty(); }, transferDeadlineMs));
    EXPECT_EQ(pair.north.stop(), exitDone);
    EXPECT_TRUE(pair.north.runOutput().contains(QStringLiteral("Не удалось установить соединение: BUSY")));
    ASSERT_EQ(pair.north.command({QStringLiteral("status")}), 0);
    EXPECT_TRUE(pair.north.output().contains(QStringLiteral("file"))) << pair.north.output().toStdString();
    EXPECT_TRUE(pair.north.output().contains(QStringLiteral("BUSY"))) << pair.north.output().toStdString();

    EXPECT_EQ(pair.exchange.command(QStringLiteral("busy 2 off")).left(2), QStringLiteral("ok"));
    pair.north.run(pair.exchange, untilDone(0));
    pair.expectBothEndWell();
    expectReceivedOnce(pair.south, content, QStringLiteral("file"));
}

// The channel says that such a call is disconnected, never that it was connected.
TEST(System, AChangedKeyEndsTheRunWithItsOwnStatus)
{
    Pair pair;
    const QByteArray content = randomBytes(500);
    ASSERT_TRUE(QFile::remove(pair.south.root() + QStringLiteral("/settings/identity.key")));
    ASSERT_EQ(pair.south.command({QStringLiteral("key"), QStringLiteral("--new")}), 0)
        << pair.south.output().toStdString();
    pair.north.send(pair.south, {makeFile(QStringLiteral("file"), content)});
    pair.south.run(pair.exchange, untilDone(1) + QStringList{QStringLiteral("--no-calls")});
    pair.north.run(pair.exchange, untilDone(0));
    EXPECT_EQ(pair.north.waitForEnd(transferDeadlineMs), exitKeyChanged);
    EXPECT_EQ(pair.south.receivedCount(), 0);
    EXPECT_TRUE(pair.north.events(QStringLiteral("connected")).isEmpty());
    EXPECT_FALSE(pair.north.events(QStringLiteral("keyChanged")).isEmpty());
    ASSERT_EQ(pair.north.command({QStringLiteral("status"), QStringLiteral("--json")}), 0);
    EXPECT_TRUE(pair.north.output().contains(QStringLiteral("\"keyChanged\""))) << pair.north.output().toStdString();

    ASSERT_EQ(pair.north.command({QStringLiteral("abonent"), QStringLiteral("forget-key"), pair.south.name()}), 0);
    pair.north.run(pair.exchange, untilDone(0));
    pair.expectBothEndWell();
    expectReceivedOnce(pair.south, content, QStringLiteral("file"));
    EXPECT_EQ(pair.north.events(QStringLiteral("keyPinned")).size(), 1);
}

TEST(System, ARunThatRunsOutOfTimeSaysSo)
{
    Pair pair;
    pair.north.send(pair.south, {makeFile(QStringLiteral("file"), "content")});
    pair.north.run(pair.exchange, untilDone(0) + QStringList{QStringLiteral("--timeout"), QStringLiteral("1")});
    EXPECT_EQ(pair.north.waitForEnd(transferDeadlineMs), exitTimedOut);
}

TEST(System, TwoHostsOnOnePort)
{
    Pair pair;
    Installation third(QStringLiteral("Третий"));
    third.addPort(pair.exchange.port(2));
    const QByteArray content = randomBytes(3000);
    pair.north.send(pair.south, {makeFile(QStringLiteral("file"), content)});
    pair.south.run(pair.exchange, untilDone(1) + QStringList{QStringLiteral("--no-calls")});
    ASSERT_TRUE(
        waitFor([&] { return pair.south.runOutput().contains(QStringLiteral("Свободен")); }, transferDeadlineMs));
    third.run(pair.exchange);
    ASSERT_TRUE(waitFor([&] { return third.runOutput().contains(QStringLiteral("Ошибка открытия COM порта. ")); },
                        transferDeadlineMs));
    pair.north.run(pair.exchange, untilDone(0));
    pair.expectBothEndWell();
    expectReceivedOnce(pair.south, content, QStringLiteral("file"));
    // The port is free now, and the host that was refused takes it by itself.
    EXPECT_TRUE(waitFor([&] { return third.runOutput().contains(QStringLiteral("Свободен")); }, transferDeadlineMs));
    EXPECT_EQ(third.stop(), exitDone);
}
