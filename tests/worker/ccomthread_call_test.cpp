// Calls: dialling, answering, what becomes of them, and the sessions over them.
#include "rig/deadline.h"
#include "rig/testroot.h"
#include "tests/worker/workertest.h"

#include <QElapsedTimer>

#include <future>

using rig::waitFor;

namespace {

class WorkerCall : public WorkerTest
{
protected:
    QStringList sessionLog() const { return events().filter(QStringLiteral("protocol")); }
    ScriptedProtocol* session() const { return factory->protocol(); }
    // Waits for the modem to be hung up after the session's end, and completes that.
    void endSession(bool isUseful)
    {
        session()->finish(isUseful);
        completeReset();
    }
};

const QString callStatus = QStringLiteral("state Вызов 'A' (123)");
const QString callEvent = QStringLiteral("journal Вызов 'A' (123). Запись команды: ATD123");
const QString ringStatus = QStringLiteral("state Входящий вызов");
const QString ringEvent = QStringLiteral("journal Входящий вызов. Запись команды: ATA");

QStringList reported(const QString& text)
{
    return {QStringLiteral("state ") + text, QStringLiteral("journal ") + text};
}

QStringList failed(const QString& reason)
{
    return reported(QStringLiteral("Не удалось установить соединение: ") + reason);
}

} // namespace

// --- calls that fail --------------------------------------------------------------------

class FailingAnswer : public WorkerCall, public testing::WithParamInterface<const char*>
{
};

TEST_P(FailingAnswer, EndsAnOutgoingCall)
{
    startOutgoing();
    modem.reply(QByteArray("\r\n") + GetParam() + "\r\n");
    completeReset();
    expectEvents(QStringList{callStatus, callEvent} + failed(QLatin1String(GetParam())) +
                 QStringList{QStringLiteral("notConnected A")} + eventsOfReopening());
    EXPECT_EQ(worker->abonentName(), QStringLiteral("A"));
}

TEST_P(FailingAnswer, EndsAnIncomingCallInSilence)
{
    startIncoming();
    modem.reply(QByteArray("\r\n") + GetParam() + "\r\n");
    completeReset();
    expectEvents(QStringList{ringStatus, ringEvent} + failed(QLatin1String(GetParam())) + eventsOfReopening());
}

INSTANTIATE_TEST_SUITE_P(Results, FailingAnswer,
                         testing::Values("ERROR", "OK", "BUSY", "RING", "NO CARRIER", "NO DIALTONE", "NO ANSWER", "AT",
                                         "no carrier"));

TEST_F(WorkerCall, AnswerEchoFailsAnOutgoingCall)
{
    startOutgoing();
    modem.reply("ATD123\r\r\n"); // its own echo is nothing
    modem.reply("ATA\r\r\n");
    completeReset();
    expectEvents(QStringList{callStatus, callEvent} + failed(QStringLiteral("ATA")) +
                 QStringList{QStringLiteral("notConnected A")} + eventsOfReopening());
}

TEST_F(WorkerCall, DialEchoFailsAnIncomingCall)
{
    startIncoming();
    modem.reply("ATA\r\r\n"); // its own echo is nothing
    modem.reply("ATD5\r\r\n");
    completeReset();
    expectEvents(QStringList{ringStatus, ringEvent} + failed(QStringLiteral("ATD5")) + eventsOfReopening());
}

TEST_F(WorkerCall, UnknownLinesDoNotProlongTheWait)
{
    writeDetails({QStringLiteral("transportComConnectTimeout=500")});
    startOutgoing();
    QElapsedTimer nextLine;
    nextLine.start();
    const QString timedOut = QStringLiteral("превышено время ожидания");
    ASSERT_TRUE(waitFor([&] {
        if (nextLine.elapsed() > 100) {
            modem.reply("CARRIER 2400\r\nCONNECT\r\n");
            nextLine.restart();
        }
        return worker->state() == CComThread::ResettingModem;
    }));
    completeReset();
    expectEvents(QStringList{callStatus, callEvent} + failed(timedOut) + QStringList{QStringLiteral("notConnected A")} +
                 eventsOfReopening());
    const QList<LogLine> lines = logLines();
    const auto at = [&](const QString& text) {
        return *std::find_if(lines.begin(), lines.end(), [&](const LogLine& line) { return line.text == text; });
    };
    ASSERT_TRUE(logTexts().contains(QStringLiteral("Запись команды: +++, ATH. Reseting.")));
    EXPECT_GE(logTimeBetween(at(QStringLiteral("Запись команды: ATD123")),
                             at(QStringLiteral("Запись команды: +++, ATH. Reseting."))),
              500);
}

TEST_F(WorkerCall, IncomingCallThatIsNeverConnectedTimesOutInSilence)
{
    writeDetails({QStringLiteral("transportComConnectTimeout=100")});
    startIncoming();
    completeReset();
    expectEvents(QStringList{ringStatus, ringEvent} + failed(QStringLiteral("превышено время ожидания")) +
                 eventsOfReopening());
}

// --- taking and answering calls ---------------------------------------------------------

TEST_F(WorkerCall, NumberIsDialledAsItStands)
{
    startFree();
    ASSERT_TRUE(worker->tryConnect(QStringLiteral("%2 Ж"), QStringLiteral("T%1Ж5")));
    ASSERT_TRUE(modem.expectWritten("ATDT%1?5\r"));
    expectEvents({QStringLiteral("state Вызов '%2 Ж' (T%1Ж5)"),
                  QStringLiteral("journal Вызов '%2 Ж' (T%1Ж5). Запись команды: ATDT%1Ж5")});
    EXPECT_TRUE(logTexts().contains(QStringLiteral("Запись команды: ATDT%1Ж5")));
    EXPECT_EQ(worker->abonentName(), QStringLiteral("%2 Ж"));
}

TEST_F(WorkerCall, OnlyAFreeLineTakesACall)
{
    worker = std::make_unique<CComThread>(usualSettings(), &server);
    EXPECT_FALSE(worker->tryConnect(QStringLiteral("B"), QStringLiteral("1"))) << "before the start";
    worker->start();
    ASSERT_TRUE(waitForState(CComThread::WaitingForDevice));
    EXPECT_FALSE(worker->tryConnect(QStringLiteral("B"), QStringLiteral("1"))) << "device off";
    modem.setDsr(true);
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    EXPECT_FALSE(worker->tryConnect(QStringLiteral("B"), QStringLiteral("1"))) << "during the check";
    EXPECT_EQ(worker->abonentName(), QString());
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitForState(CComThread::LineFree));
    EXPECT_TRUE(worker->tryConnect(QStringLiteral("A"), QStringLiteral("123")));
    EXPECT_FALSE(worker->tryConnect(QStringLiteral("B"), QStringLiteral("1"))) << "call requested";
    ASSERT_TRUE(modem.expectWritten("ATD123\r"));
    ASSERT_TRUE(waitForState(CComThread::WaitingForConnect));
    EXPECT_FALSE(worker->tryConnect(QStringLiteral("B"), QStringLiteral("1"))) << "dialling";
    modem.reply("BUSY\r\n");
    ASSERT_TRUE(modem.expectWritten("+++"));
    EXPECT_FALSE(worker->tryConnect(QStringLiteral("B"), QStringLiteral("1"))) << "resetting";
    EXPECT_EQ(worker->abonentName(), QStringLiteral("A"));
}

TEST_F(WorkerCall, RingLineIsAnswered)
{
    startIncoming();
    expectEvents({ringStatus, ringEvent});
    EXPECT_TRUE(waitForState(CComThread::WaitingForConnect));
    const QStringList texts = logTexts();
    EXPECT_EQ(joined(texts.mid(texts.size() - 2)), "Чтение команды: RING\nЗапись команды: ATA");
}

TEST_F(WorkerCall, RingIndicatorIsAnsweredBeforeAnyLineIsRead)
{
    // It is there in the pass in which the line becomes free, and so is a second line.
    modem.setDsr(true);
    modem.setRi(true);
    start();
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    modem.reply("OK\r\nHello\r\n");
    ASSERT_TRUE(modem.expectWritten("ATA\r"));
    modem.setRi(false);
    modem.reply("BUSY\r\n");
    completeReset();
    EXPECT_EQ(joined(events().mid(eventsOfStart().size())),
              joined(QStringList{ringStatus, ringEvent} + failed(QStringLiteral("BUSY")) + eventsOfReopening()));
    EXPECT_FALSE(logTexts().contains(QStringLiteral("Чтение команды: Hello")));
}

// The blank lines keep what stands behind them from being read before the call is placed.
TEST_F(WorkerCall, WhatHasArrivedBeforeDiallingIsNoAnswer)
{
    startFree();
    modem.reply(QByteArray("\r\n").repeated(500) + "OK\r\nNO CARRIER\r\n");
    ASSERT_TRUE(worker->tryConnect(QStringLiteral("A"), QStringLiteral("123")));
    ASSERT_TRUE(modem.expectWritten("ATD123\r"));
    modem.reply("CONNECT 9600\r\n");
    ASSERT_TRUE(waitFor([&] { return !log.entriesWith(QStringLiteral("protocol start")).isEmpty(); }));
}

TEST_F(WorkerCall, WhatHasArrivedBeforeAnsweringIsNoAnswer)
{
    startFree();
    modem.reply("RING\r\nAT\r\nRING\r\n");
    ASSERT_TRUE(modem.expectWritten("ATA\r"));
    modem.reply("CONNECT 9600\r\n");
    ASSERT_TRUE(waitFor([&] { return !log.entriesWith(QStringLiteral("protocol start")).isEmpty(); }));
}

TEST_F(WorkerCall, RingForgetsThePartyCalledBefore)
{
    startOutgoing();
    modem.reply("BUSY\r\n");
    ASSERT_TRUE(modem.expectWritten("+++"));
    modem.reply("OK\r\n");
    ASSERT_TRUE(modem.expectWritten("\rATH\r"));
    ASSERT_TRUE(answerChecks());
    EXPECT_EQ(worker->abonentName(), QStringLiteral("A"));
    forgetEvents();
    modem.reply("RING\r\n");
    ASSERT_TRUE(modem.expectWritten("ATA\r"));
    ASSERT_TRUE(waitForState(CComThread::WaitingForConnect));
    EXPECT_EQ(worker->abonentName(), QString());
    modem.reply("NO CARRIER\r\n");
    completeReset();
    EXPECT_TRUE(events().filter(QStringLiteral("notConnected")).isEmpty());
}

TEST_F(WorkerCall, DisconnectWhileDiallingDoesNothing)
{
    startOutgoing();
    worker->disconnectFromAbonent();
    worker->keepAlive();
    modem.reply("CONNECT 9600\r\n");
    ASSERT_TRUE(waitForEvent(QStringLiteral("protocol start A|a|PORT")));
    expectEvents(QStringList{callStatus, callEvent} + reported(QStringLiteral("Соединение установлено: CONNECT 9600")) +
                 QStringList{QStringLiteral("protocol start A|a|PORT")});
}

// --- sessions ---------------------------------------------------------------------------

TEST_F(WorkerCall, OutgoingCallThatSucceeds)
{
    startOutgoing(QStringLiteral("Иван-1"));
    modem.setDcd(true);
    modem.reply("\r\nATD123\r\r\nCARRIER 9600\r\nconnect 9600/V32\r\n");
    ASSERT_TRUE(waitFor([&] { return !sessionLog().isEmpty(); }));
    session()->tellName(QStringLiteral("Иван-1"));
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Установлено соединение с 'Иван-1'")));
    EXPECT_EQ(worker->state(), CComThread::WaitingForConnect);
    endSession(true);
    expectEvents(QStringList{QStringLiteral("state Вызов 'Иван-1' (123)"),
                             QStringLiteral("journal Вызов 'Иван-1' (123). Запись команды: ATD123")} +
                 reported(QStringLiteral("Соединение установлено: connect 9600/V32")) +
                 QStringList{QStringLiteral("protocol start Иван-1|иван1|PORT"), QStringLiteral("connected Иван-1 7")} +
                 reported(QStringLiteral("Установлено соединение с 'Иван-1'")) +
                 QStringList{QStringLiteral("journal Потеряно соединение с абонентом 'Иван-1'"),
                             QStringLiteral("disconnected Иван-1 7 1"),
                             QStringLiteral("protocol deleted keepAlive=0")} +
                 eventsOfReopening());
    const QStringList texts = logTexts();
    const int connectedAt = texts.indexOf(QStringLiteral("Соединение установлено: connect 9600/V32"));
    ASSERT_GT(connectedAt, 0);
    EXPECT_EQ(joined(texts.mid(connectedAt, 3)),
              "Соединение установлено: connect 9600/V32\nПотеряно соединение с абонентом 'Иван-1'\n"
              "Запись команды: +++, ATH. Reseting.");
}

TEST_F(WorkerCall, IncomingCallByRingLine)
{
    startIncoming();
    modem.setDcd(true);
    modem.reply("CONNECT 9600\r\n");
    ASSERT_TRUE(waitFor([&] { return !sessionLog().isEmpty(); }));
    session()->tellName(QStringLiteral("B"));
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Установлено соединение с 'B'")));
    EXPECT_EQ(worker->abonentName(), QStringLiteral("B"));
    endSession(false);
    expectEvents(QStringList{ringStatus, ringEvent} + reported(QStringLiteral("Соединение установлено: CONNECT 9600")) +
                 QStringList{QStringLiteral("protocol start ||PORT"), QStringLiteral("connected B 7")} +
                 reported(QStringLiteral("Установлено соединение с 'B'")) +
                 QStringList{QStringLiteral("journal Потеряно соединение с абонентом 'B'"),
                             QStringLiteral("disconnected B 7 0"), QStringLiteral("protocol deleted keepAlive=0")} +
                 eventsOfReopening());
}

TEST_F(WorkerCall, IncomingCallByRingIndicator)
{
    startFree();
    modem.setRi(true);
    ASSERT_TRUE(modem.expectWritten("ATA\r"));
    modem.setRi(false);
    modem.setDcd(true);
    modem.reply("CONNECT 9600\r\n");
    ASSERT_TRUE(waitForEvent(QStringLiteral("protocol start ||PORT")));
    session()->tellName(QStringLiteral("B"));
    ASSERT_TRUE(waitForEvent(QStringLiteral("connected B 7")));
}

TEST_F(WorkerCall, IncomingCallWhosePartyNeverTellsItsName)
{
    startIncomingSession();
    endSession(true);
    expectEvents(QStringList{QStringLiteral("journal Потеряно соединение с абонентом ''"),
                             QStringLiteral("protocol deleted keepAlive=0")} +
                 eventsOfReopening());
}

TEST_F(WorkerCall, AnotherPartyAnswers)
{
    startOutgoingSession();
    session()->tellName(QStringLiteral("B"));
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Установлено соединение с 'B'")));
    EXPECT_EQ(worker->abonentName(), QStringLiteral("B"));
    endSession(false);
    expectEvents(
        QStringList{QStringLiteral("connected B 7")} + reported(QStringLiteral("Установлено соединение с 'B'")) +
        QStringList{QStringLiteral("journal Потеряно соединение с абонентом 'B'"), QStringLiteral("notConnected A"),
                    QStringLiteral("journal Не удалось установить соединение с 'A'"),
                    QStringLiteral("disconnected B 7 0"), QStringLiteral("protocol deleted keepAlive=0")} +
        eventsOfReopening());
    EXPECT_EQ(worker->abonentName(), QStringLiteral("B"));
}

TEST_F(WorkerCall, SamePartyUnderAnotherSpelling)
{
    startOutgoingSession(QStringLiteral("Иван-1"));
    session()->tellName(QStringLiteral("иван 1"));
    ASSERT_TRUE(waitForEvent(QStringLiteral("connected иван 1 7")));
    endSession(false);
    ASSERT_TRUE(waitForEvent(QStringLiteral("disconnected иван 1 7 0")));
    EXPECT_TRUE(events().filter(QStringLiteral("notConnected")).isEmpty());
}

TEST_F(WorkerCall, SessionThatNeverLearntTheNameEndsUnderTheCalledOne)
{
    startOutgoingSession();
    endSession(true);
    expectEvents(QStringList{QStringLiteral("journal Потеряно соединение с абонентом 'A'"),
                             QStringLiteral("disconnected A 7 1"), QStringLiteral("protocol deleted keepAlive=0")} +
                 eventsOfReopening());
}

TEST_F(WorkerCall, SessionWithoutANameEndsUnderTheLatestOne)
{
    startOutgoingSession();
    session()->tellName(QStringLiteral("B"));
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Установлено соединение с 'B'")));
    forgetEvents();
    session()->forgetName();
    endSession(false);
    expectEvents(QStringList{QStringLiteral("journal Потеряно соединение с абонентом ''"),
                             QStringLiteral("disconnected B 7 0"), QStringLiteral("protocol deleted keepAlive=0")} +
                 eventsOfReopening());
}

TEST_F(WorkerCall, NameToldJustBeforeTheEndComesFirst)
{
    startOutgoingSession();
    session()->tellName(QStringLiteral("A"));
    session()->finish(true);
    completeReset();
    expectEvents(QStringList{QStringLiteral("connected A 7")} +
                 reported(QStringLiteral("Установлено соединение с 'A'")) +
                 QStringList{QStringLiteral("journal Потеряно соединение с абонентом 'A'"),
                             QStringLiteral("disconnected A 7 1"), QStringLiteral("protocol deleted keepAlive=0")} +
                 eventsOfReopening());
}

TEST_F(WorkerCall, EndDoesNotWaitForEverForABusyServer)
{
    startOutgoingSession();
    QElapsedTimer timer;
    timer.start();
    session()->tellName(QStringLiteral("A"));
    session()->finish(true);
    // No events run here meanwhile.
    while (!log.contains(QStringLiteral("disconnected A 7 1")) && timer.elapsed() < rig::defaultDeadlineMs)
        QThread::msleep(1);
    EXPECT_TRUE(log.contains(QStringLiteral("disconnected A 7 1")));
    EXPECT_GE(timer.elapsed(), 500);
    EXPECT_FALSE(log.contains(QStringLiteral("connected A 7")));
}

TEST_F(WorkerCall, SessionThatIsOverAtItsStart)
{
    factory->onStart = [](ScriptedProtocol* protocol) {
        protocol->wasUseful = true;
        emit protocol->finished();
    };
    startOutgoing();
    modem.reply("CONNECT 9600\r\n");
    completeReset();
    expectEvents(QStringList{callStatus, callEvent} + reported(QStringLiteral("Соединение установлено: CONNECT 9600")) +
                 QStringList{QStringLiteral("protocol start A|a|PORT"),
                             QStringLiteral("journal Потеряно соединение с абонентом 'A'"),
                             QStringLiteral("disconnected A 7 1"), QStringLiteral("protocol deleted keepAlive=0")} +
                 eventsOfReopening());
}

TEST_F(WorkerCall, StaleQuitDoesNotEndTheNextCall)
{
    startFree();
    worker->quit();
    ASSERT_TRUE(worker->tryConnect(QStringLiteral("A"), QStringLiteral("123")));
    ASSERT_TRUE(modem.expectWritten("ATD123\r"));
    modem.reply("CONNECT 9600\r\n");
    ASSERT_TRUE(waitForEvent(QStringLiteral("protocol start A|a|PORT")));
    session()->tellName(QStringLiteral("A"));
    ASSERT_TRUE(waitForEvent(QStringLiteral("connected A 7")));
    worker->quit();
    session()->tellName(QStringLiteral("A2"));
    ASSERT_TRUE(waitForEvent(QStringLiteral("connected A2 7")));
    endSession(true);
    EXPECT_EQ(events().count(QStringLiteral("disconnected A2 7 1")), 1);
}

TEST_F(WorkerCall, SecondCallOnTheSamePort)
{
    startOutgoingSession();
    session()->finish(true);
    ASSERT_TRUE(modem.expectWritten("+++"));
    modem.setDcd(false);
    modem.reply("OK\r\n");
    ASSERT_TRUE(modem.expectWritten("\rATH\r"));
    ASSERT_TRUE(answerChecks());
    ASSERT_TRUE(worker->tryConnect(QStringLiteral("C"), QStringLiteral("5")));
    ASSERT_TRUE(modem.expectWritten("ATD5\r"));
    modem.reply("CONNECT 9600\r\n");
    ASSERT_TRUE(waitForEvent(QStringLiteral("protocol start C|c|PORT")));
    EXPECT_EQ(factory->created(), 2);
}

TEST_F(WorkerCall, DisconnectStopsTheSession)
{
    startOutgoingSession();
    worker->disconnectFromAbonent();
    completeReset();
    expectEvents(QStringList{QStringLiteral("protocol stop"),
                             QStringLiteral("journal Потеряно соединение с абонентом 'A'"),
                             QStringLiteral("disconnected A 7 0"), QStringLiteral("protocol deleted keepAlive=0")} +
                 eventsOfReopening());
}

TEST_F(WorkerCall, KeepAliveReachesTheSession)
{
    startFree();
    worker->keepAlive();
    ASSERT_TRUE(worker->tryConnect(QStringLiteral("A"), QStringLiteral("123")));
    ASSERT_TRUE(modem.expectWritten("ATD123\r"));
    modem.reply("CONNECT 9600\r\n");
    ASSERT_TRUE(waitForEvent(QStringLiteral("protocol start A|a|PORT")));
    EXPECT_FALSE(__atomic_load_n(&session()->keepAlive, __ATOMIC_RELAXED));
    worker->keepAlive();
    endSession(false);
    EXPECT_TRUE(waitForEvent(QStringLiteral("protocol deleted keepAlive=1")));
}

TEST_F(WorkerCall, KeepAliveAndTheNameDoNotWaitForASessionBeingMade)
{
    std::promise<void> inFactory;
    std::promise<void> release;
    std::atomic<bool> wasReleased{false};
    factory->onCreate = [&] {
        inFactory.set_value();
        wasReleased = release.get_future().wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    };
    startOutgoing();
    modem.reply("CONNECT 9600\r\n");
    ASSERT_EQ(inFactory.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
    worker->keepAlive();
    EXPECT_EQ(worker->abonentName(), QStringLiteral("A"));
    EXPECT_EQ(worker->state(), CComThread::WaitingForConnect);
    release.set_value();
    ASSERT_TRUE(waitForEvent(QStringLiteral("protocol start A|a|PORT")));
    EXPECT_TRUE(wasReleased);
}

TEST_F(WorkerCall, FactoryThatRefusesAnOutgoingCall)
{
    factory->refuses = true;
    startOutgoing();
    modem.reply("CONNECT 9600\r\n");
    completeReset();
    expectEvents(QStringList{callStatus, callEvent} + reported(QStringLiteral("Соединение установлено: CONNECT 9600")) +
                 QStringList{QStringLiteral("notConnected A")} + eventsOfReopening());
}

TEST_F(WorkerCall, FactoryThatRefusesAnIncomingCall)
{
    factory->refuses = true;
    startIncoming();
    modem.reply("CONNECT 9600\r\n");
    completeReset();
    expectEvents(QStringList{ringStatus, ringEvent} + reported(QStringLiteral("Соединение установлено: CONNECT 9600")) +
                 eventsOfReopening());
}

TEST_F(WorkerCall, StopAtTheMomentOfConnectingMakesNoSession)
{
    journal.onRecord = [this](const QString& text) {
        if (text.startsWith(QStringLiteral("Соединение установлено")))
            worker->stop();
    };
    startOutgoing();
    modem.reply("CONNECT 9600\r\n");
    ASSERT_TRUE(worker->wait(10000));
    EXPECT_EQ(factory->created(), 0);
    expectEvents(QStringList{callStatus, callEvent} + reported(QStringLiteral("Соединение установлено: CONNECT 9600")) +
                 QStringList{QStringLiteral("remove")});
}

TEST_F(WorkerCall, StopDuringACallEndsAtOnce)
{
    startOutgoingSession();
    QElapsedTimer timer;
    timer.start();
    ASSERT_TRUE(stopAndWait());
    EXPECT_LT(timer.elapsed(), 3000);
    expectEvents({QStringLiteral("protocol stop"), QStringLiteral("journal Потеряно соединение с абонентом 'A'"),
                  QStringLiteral("disconnected A 7 0"), QStringLiteral("protocol deleted keepAlive=0"),
                  QStringLiteral("remove")});
    // A stop does not wait for the modem.
    EXPECT_EQ(modem.written(), QByteArray());
    EXPECT_EQ(modem.endpoint().programSignals() & sim::SignalDtr, 0);
}

TEST_F(WorkerCall, StopDoesNotWaitForNamesThatTheServerHasNotHandled)
{
    startOutgoingSession();
    session()->tellName(QStringLiteral("A"));
    ASSERT_TRUE(stopAndWait());
    EXPECT_TRUE(log.contains(QStringLiteral("disconnected A 7 0")));
}
