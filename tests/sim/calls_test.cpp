// Calls in simulated time, between parties that only note what they are told: no thread, no
// port, no clock.
#include "sim/exchange/calls.h"
#include "sim/line/moments.h"

#include <QStringList>
#include <gtest/gtest.h>

using namespace sim;

namespace {

constexpr qint64 ms = nsPerMs;

// A modem and its program, as far as calls see them. Its state follows what it asked for and
// what it was told, as that of a modem does.
class Party : public CallParty
{
public:
    explicit Party(int index) : m_index(index) {}

    int index() const override { return m_index; }
    ModemState state() const override { return modemState; }
    bool hasDialTone() const override { return dialTone; }
    bool isBusy() const override { return modemState != ModemState::OnHook; }
    bool isNoisy() const override { return noisy; }
    int carrierWaitSeconds() const override { return waitSeconds; }

    void ring(qint64 nowNs) override
    {
        told.append("ring");
        ringsAtMs.append(static_cast<int>(nowNs / ms));
    }
    void ringPauses() override { told.append("pause"); }
    void ringingStopped() override { told.append("no more rings"); }
    void connected(int bitsPerSecond, qint64) override
    {
        told.append(QStringLiteral("connected at %1").arg(bitsPerSecond));
        modemState = ModemState::Data;
    }
    void callFailed(CallFailure failure) override
    {
        static const char* const names[] = {"busy", "no dial tone", "no answer", "no carrier"};
        told.append(QLatin1String(names[static_cast<int>(failure)]));
        modemState = ModemState::OnHook;
    }
    void carrierLost() override
    {
        told.append("carrier lost");
        modemState = ModemState::OnHook;
    }

    bool isInDataMode() const override { return modemState == ModemState::Data; }
    void setPace(int bytesPerS) override { pace = bytesPerS; }
    bool hasData() const override { return !written.isEmpty(); }
    QByteArray takeData(qint64 room, qint64) override
    {
        const QByteArray bytes = written.left(static_cast<int>(room));
        written.remove(0, bytes.size());
        return bytes;
    }
    qint64 waitingBytes() const override { return written.size(); }
    qint64 deliver(const QByteArray& bytes) override
    {
        const qint64 lost = qMax<qint64>(received.size() + bytes.size() - mostReceived, 0);
        received += bytes.left(bytes.size() - static_cast<int>(lost));
        return lost;
    }

    ModemState modemState = ModemState::OnHook;
    bool dialTone = true;
    bool noisy = true;
    int waitSeconds = 60;
    qint64 mostReceived = 1000000;
    int pace = -1;
    QByteArray written; // by its program
    QByteArray received;
    QStringList told;
    QVector<int> ringsAtMs;

private:
    const int m_index;
};

class CallsTest : public testing::Test, private CallsHost
{
protected:
    void SetUp() override { make("rate=9600"); }

    void make(const char* line)
    {
        CallSettings settings;
        QString error;
        ASSERT_TRUE(settings.line.change(QString::fromLatin1(line), &error)) << error.toStdString();
        settings.trainingMs = 200;
        calls = std::make_unique<Calls>(static_cast<CallsHost*>(this), settings);
    }

    // Goes on for so long as the exchange does it: to each moment at which something is due, and
    // while bytes flow no more than a millisecond at a time.
    void pass(int forMs)
    {
        const qint64 endNs = nowNs + forMs * ms;
        calls->advance(nowNs);
        while (nowNs < endNs) {
            const qint64 next = calls->nextEventNs();
            nowNs = next < 0 ? endNs : qMin(qMax(next, nowNs + ms), endNs);
            calls->advance(nowNs);
        }
    }

    void dial(Party& caller, const char* number, int pauseMs = 0)
    {
        caller.modemState = ModemState::Dialling;
        calls->dial(caller, QString::fromLatin1(number), pauseMs * ms, nowNs);
    }

    void answer(Party& called)
    {
        called.modemState = ModemState::Answering;
        calls->answer(called, nowNs);
    }

    void hangUp(Party& party)
    {
        party.modemState = ModemState::OnHook;
        calls->hangUp(party, nowNs);
    }

    void connect()
    {
        dial(first, "102");
        pass(0);
        answer(second);
        pass(200);
        ASSERT_EQ(first.modemState, ModemState::Data);
        ASSERT_EQ(second.modemState, ModemState::Data);
    }

    QStringList ends() const
    {
        QStringList texts;
        for (const CallStatistics& call : calls->ended())
            texts.append(call.end);
        return texts;
    }

    Party first{1};
    Party second{2};
    Party third{3};
    qint64 nowNs = 0;
    QStringList events;
    std::unique_ptr<Calls> calls;

private:
    CallParty* partyAt(const QString& number) override
    {
        for (Party* party : {&first, &second, &third}) {
            if (number == QString::number(100 + party->index()))
                return party;
        }
        return nullptr;
    }

    void tell(int modem, const QString& text) override
    {
        events.append(QStringLiteral("%1 %2").arg(QString::number(modem), text));
    }
};

TEST_F(CallsTest, ACallFromDialToHangUp)
{
    dial(first, "102", 2000);
    EXPECT_EQ(calls->nextEventNs(), 2000 * ms);
    pass(1999);
    EXPECT_TRUE(second.told.isEmpty());
    pass(1);
    EXPECT_EQ(second.told, QStringList("ring"));
    EXPECT_EQ(calls->activeCount(), 1);
    answer(second);
    pass(199);
    EXPECT_EQ(first.modemState, ModemState::Dialling) << "they are still in training";
    pass(1);
    EXPECT_EQ(first.told, QStringList("connected at 9600"));
    EXPECT_EQ(second.told, QStringList({"ring", "no more rings", "connected at 9600"}));
    pass(5000);
    hangUp(first);
    pass(0);
    EXPECT_EQ(second.told.last(), QStringLiteral("carrier lost"));
    EXPECT_EQ(calls->activeCount(), 0);
    EXPECT_EQ(calls->nextEventNs(), -1);
    EXPECT_EQ(events, QStringList({"1 calls modem2", "0 call 1: modem1 and modem2 are connected",
                                   "0 call 1 ended: modem1 hung up"}));
    ASSERT_EQ(calls->ended().size(), 1);
    EXPECT_EQ(calls->ended().first().waitedNs, 2200 * ms);
    EXPECT_EQ(calls->ended().first().connectedNs, 5000 * ms);
}

TEST_F(CallsTest, RingsComeAtTheirIntervalAndEndWithThePatienceOfTheCaller)
{
    first.waitSeconds = 12;
    dial(first, "102");
    pass(11999);
    EXPECT_EQ(second.ringsAtMs, QVector<int>({0, 5000, 10000}));
    EXPECT_EQ(second.told, QStringList({"ring", "pause", "ring", "pause", "ring", "pause"}));
    EXPECT_TRUE(first.told.isEmpty());
    pass(1);
    EXPECT_EQ(first.told, QStringList("no answer"));
    EXPECT_EQ(second.told.last(), QStringLiteral("no more rings"));
    EXPECT_EQ(calls->ended().first().waitedNs, 12000 * ms);
}

TEST_F(CallsTest, TheExchangesPatienceBoundsThatOfTheCaller)
{
    first.waitSeconds = 255;
    dial(first, "102");
    pass(59999);
    EXPECT_TRUE(first.told.isEmpty());
    pass(1);
    EXPECT_EQ(first.told, QStringList("no answer"));
}

TEST_F(CallsTest, WhyACallIsNotPlaced)
{
    dial(first, "999");
    pass(0);
    EXPECT_EQ(first.told, QStringList("no carrier"));
    second.modemState = ModemState::OffHook;
    dial(first, "102");
    pass(0);
    first.dialTone = false;
    dial(first, "102");
    pass(0);
    EXPECT_EQ(first.told, QStringList({"no carrier", "busy", "no dial tone"}));
    EXPECT_EQ(ends(), QStringList({"nobody has that number", "busy", "no dial tone"}));
    EXPECT_TRUE(second.told.isEmpty());
    EXPECT_EQ(calls->ended().at(0).called, 0);
    EXPECT_EQ(calls->ended().at(1).called, 2);
}

TEST_F(CallsTest, OneThatRingsIsBusyForOthers)
{
    dial(first, "102");
    pass(0);
    dial(third, "102");
    pass(0);
    EXPECT_EQ(third.told, QStringList("busy"));
    EXPECT_EQ(second.told, QStringList("ring"));
    EXPECT_TRUE(first.told.isEmpty());
}

TEST_F(CallsTest, WhoDialsWhileItRingsEndsBothCalls)
{
    dial(first, "102");
    pass(0);
    dial(second, "103");
    pass(0);
    EXPECT_EQ(first.told, QStringList("no carrier"));
    EXPECT_EQ(second.told, QStringList({"ring", "no more rings", "no dial tone"}));
    EXPECT_TRUE(third.told.isEmpty());
    EXPECT_EQ(ends(), QStringList({"modem2 dialled instead of answering", "no dial tone"}));
}

TEST_F(CallsTest, HangingUpBeforeTheConnectionEndsTheCallForBoth)
{
    dial(first, "102");
    pass(0);
    hangUp(first);
    EXPECT_EQ(second.told, QStringList({"ring", "no more rings"}));
    second.told.clear();
    // In training, by the one and by the other.
    for (Party* leaving : {&first, &second}) {
        Party& other = leaving == &first ? second : first;
        dial(first, "102");
        pass(0);
        answer(second);
        hangUp(*leaving);
        EXPECT_EQ(other.told.last(), QStringLiteral("no carrier"));
        EXPECT_EQ(other.modemState, ModemState::OnHook);
    }
    pass(100000);
    EXPECT_EQ(ends(), QStringList({"modem1 hung up", "modem1 hung up", "modem2 hung up"}));
    EXPECT_FALSE(first.told.contains("connected at 9600"));
}

TEST_F(CallsTest, AnswersToNobodyFindNoCarrier)
{
    answer(second);
    EXPECT_EQ(second.told, QStringList("no carrier"));
    second.told.clear();
    second.waitSeconds = 3;
    ASSERT_TRUE(calls->ringFromNobody(second, -1, nowNs));
    EXPECT_FALSE(calls->ringFromNobody(second, -1, nowNs));
    pass(0);
    answer(second);
    pass(2999);
    EXPECT_EQ(second.told, QStringList({"ring", "no more rings"}));
    pass(1);
    EXPECT_EQ(second.told.last(), QStringLiteral("no carrier"));
    EXPECT_TRUE(calls->ended().isEmpty()) << "it was no call";
    EXPECT_EQ(calls->activeCount(), 0);
}

TEST_F(CallsTest, RingsOfNobodyAreCounted)
{
    ASSERT_TRUE(calls->ringFromNobody(second, 2, nowNs));
    pass(60000);
    EXPECT_EQ(second.ringsAtMs, QVector<int>({0, 5000}));
    EXPECT_EQ(second.told.last(), QStringLiteral("no more rings"));
}

TEST_F(CallsTest, BytesTakeTheTimeOfTheLineAndTheRestOfThemComesAfterAHangUp)
{
    make("rate=9600/4800,delay=300");
    connect();
    EXPECT_EQ(first.told.last(), QStringLiteral("connected at 4800"));
    first.written = QByteArray(960, 'a');
    second.written = QByteArray(960, 'b');
    pass(1);
    EXPECT_EQ(first.pace, 960);
    EXPECT_EQ(second.pace, 480);
    EXPECT_TRUE(calls->isPaced(first));
    pass(998);
    EXPECT_NEAR(first.written.size(), 0, 2);
    EXPECT_NEAR(second.written.size(), 480, 2);
    EXPECT_NEAR(second.received.size(), 960 * 7 / 10, 4);
    pass(5);
    hangUp(first);
    EXPECT_EQ(first.pace, 0);
    pass(299);
    EXPECT_EQ(second.modemState, ModemState::Data);
    pass(10);
    EXPECT_EQ(second.received, QByteArray(960, 'a'));
    EXPECT_EQ(second.told.last(), QStringLiteral("carrier lost"));
    const CallStatistics call = calls->ended().last();
    EXPECT_EQ(call.forward.bytesDelivered, 960);
    EXPECT_EQ(call.forward.bytesLost, 0);
    EXPECT_GT(call.backward.bytesLost, 0) << "what was under way to the one who hung up";
}

TEST_F(CallsTest, WhatNobodyTakesIsCountedAsLost)
{
    connect();
    second.mostReceived = 100;
    first.written = QByteArray(300, 'x');
    pass(500);
    second.modemState = ModemState::OnlineCommand; // takes no data
    first.written = QByteArray(50, 'x');
    pass(500);
    hangUp(first);
    pass(0);
    EXPECT_EQ(calls->ended().last().forward.bytesCarried, 350);
    EXPECT_EQ(calls->ended().last().forward.bytesLost, 250);
}

TEST_F(CallsTest, TheLineDropsTheFirstCallsOnly)
{
    make("rate=9600,drop-after-seconds=3,drop-times=1");
    connect();
    pass(2999);
    EXPECT_EQ(first.modemState, ModemState::Data);
    pass(1);
    EXPECT_EQ(first.told.last(), QStringLiteral("carrier lost"));
    EXPECT_EQ(second.told.last(), QStringLiteral("carrier lost"));
    connect();
    pass(100000);
    EXPECT_EQ(first.modemState, ModemState::Data);
    hangUp(first);
    pass(0);
    // A changed line counts anew.
    QString error;
    ASSERT_TRUE(calls->changeLine(QStringLiteral("delay=0"), &error));
    connect();
    pass(3000);
    EXPECT_EQ(ends(), QStringList({"the line dropped carrier", "modem1 hung up", "the line dropped carrier"}));
}

TEST_F(CallsTest, CarrierIsDroppedOfConnectionsOnly)
{
    EXPECT_FALSE(calls->dropCarrier(first, QStringLiteral("cut"), nowNs));
    dial(first, "102");
    pass(0);
    EXPECT_FALSE(calls->dropCarrier(first, QStringLiteral("cut"), nowNs));
    answer(second);
    pass(200);
    calls->advance(nowNs);
    EXPECT_EQ(first.pace, 960);
    EXPECT_TRUE(calls->dropCarrier(second, QStringLiteral("cut"), nowNs));
    EXPECT_EQ(first.pace, 0);
    EXPECT_EQ(second.pace, 0);
    EXPECT_EQ(first.told.last(), QStringLiteral("carrier lost"));
    EXPECT_EQ(second.told.last(), QStringLiteral("carrier lost"));
    EXPECT_EQ(calls->activeCount(), 0);
    EXPECT_FALSE(calls->dropCarrier(second, QStringLiteral("cut"), nowNs));
}

TEST_F(CallsTest, NoiseNeedsBothEnds)
{
    make("rate=9600,ber=0.1");
    connect();
    const QByteArray sent(900, 'n');
    for (const bool noisy : {false, true}) {
        second.noisy = noisy;
        calls->updateNoise();
        second.received.clear();
        first.written = sent;
        pass(1000);
        ASSERT_EQ(second.received.size(), sent.size());
        EXPECT_EQ(second.received == sent, !noisy);
    }
}

// One that has ended already, and has not been cleared away yet, does not end again.
TEST_F(CallsTest, AllCallsEndOnce)
{
    connect();
    ASSERT_TRUE(calls->dropCarrier(first, QStringLiteral("cut"), nowNs));
    dial(third, "102");
    calls->endAll(QStringLiteral("stopped"), nowNs);
    EXPECT_EQ(ends(), QStringList({"cut", "stopped"}));
    EXPECT_EQ(third.told, QStringList("no carrier"));
    EXPECT_EQ(calls->activeCount(), 0);
}

} // namespace
