// What goes wrong: port errors, unplugged devices, garbage, and stops at any moment.
#include "rig/deadline.h"
#include "rig/testroot.h"
#include "tests/support/blockedthread.h"
#include "tests/worker/workertest.h"

#include <QElapsedTimer>
#include <QFile>

#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <stdlib.h>
#include <thread>
#include <unistd.h>

using rig::waitFor;

namespace {

class WorkerFault : public WorkerTest
{
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int allowedGrowthKiB = 65536; // the sanitizers keep what was freed
#else
constexpr int allowedGrowthKiB = 2048;
#endif

int residentKiB()
{
    QFile file(QStringLiteral("/proc/self/statm"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').value(1).toInt() * static_cast<int>(sysconf(_SC_PAGESIZE) / 1024);
}

// Where a test lets something happen.
enum class Moment
{
    Closed,
    DeviceOff,
    Check,
    Free,
    Requested,
    Dialling,
    Answering,
    Session,
    Reset
};

const Moment allMoments[] = {Moment::Closed,   Moment::DeviceOff, Moment::Check,   Moment::Free, Moment::Requested,
                             Moment::Dialling, Moment::Answering, Moment::Session, Moment::Reset};

std::string nameOf(const testing::TestParamInfo<Moment>& info)
{
    switch (info.param) {
    case Moment::Closed: return "Closed";
    case Moment::DeviceOff: return "DeviceOff";
    case Moment::Check: return "Check";
    case Moment::Free: return "Free";
    case Moment::Requested: return "Requested";
    case Moment::Dialling: return "Dialling";
    case Moment::Answering: return "Answering";
    case Moment::Session: return "Session";
    case Moment::Reset: return "Reset";
    }
    return {};
}

class AtMoment : public WorkerTest, public testing::WithParamInterface<Moment>
{
protected:
    void reach(Moment moment)
    {
        switch (moment) {
        case Moment::Closed:
            modem.endpoint().unplug();
            start();
            ASSERT_TRUE(waitForEvent(QStringLiteral("journal Ошибка открытия COM порта. No such file or directory")));
            break;
        case Moment::DeviceOff:
            start();
            ASSERT_TRUE(waitForState(CComThread::WaitingForDevice));
            break;
        case Moment::Check:
            modem.setDsr(true);
            start();
            ASSERT_TRUE(modem.expectWritten("AT\r"));
            break;
        case Moment::Free: startFree(); break;
        case Moment::Requested:
            startFree();
            ASSERT_TRUE(worker->tryConnect(QStringLiteral("A"), QStringLiteral("123")));
            break;
        case Moment::Dialling: startOutgoing(); break;
        case Moment::Answering: startIncoming(); break;
        case Moment::Session: startOutgoingSession(); break;
        case Moment::Reset:
            startOutgoing();
            modem.reply("BUSY\r\n");
            ASSERT_TRUE(modem.expectWritten("+++"));
            break;
        }
    }
};

} // namespace

// --- errors of the port -----------------------------------------------------------------

TEST_F(WorkerFault, IgnoredErrors)
{
    startFree();
    const QList<int> ignored = {0, 1, 9, 12};
    for (int code : ignored)
        raiseError(static_cast<QSerialPort::SerialPortError>(code));
    expectEvents({});
    EXPECT_EQ(worker->state(), CComThread::LineFree);
}

TEST_F(WorkerFault, EveryOtherErrorResetsTheModem)
{
    for (int code : {2, 3, 4, 5, 6, 7, 8, 10, 11, 13}) {
        startFree();
        raiseError(static_cast<QSerialPort::SerialPortError>(code));
        EXPECT_EQ(worker->state(), CComThread::ResettingModem) << code;
        const QString text = QStringLiteral("COM port error: %1. ").arg(code);
        expectEvents({QStringLiteral("error ") + text});
        EXPECT_EQ(logTexts().count(text.trimmed()), 1);
        ASSERT_TRUE(stopAndWait());
        modem.endpoint().read();
    }
}

TEST_F(WorkerFault, ErrorWhileFreeRunsTheResetWithoutTheEscape)
{
    startFree();
    // The timer of the free line runs already.
    raiseError(QSerialPort::ReadError);
    modem.setDsr(false);
    modem.reply("OK\r\n");
    ASSERT_TRUE(modem.expectWritten("\rATH\r"));
    ASSERT_TRUE(waitForState(CComThread::WaitingForDevice));
    expectEvents(QStringList{QStringLiteral("error COM port error: 8. ")} + eventsOfReopening());
}

TEST_F(WorkerFault, ErrorWhileDiallingIsNoFailedCall)
{
    writeDetails({QStringLiteral("transportComResetTimeout=1100")});
    startOutgoing();
    ASSERT_TRUE(waitForState(CComThread::WaitingForConnect));
    forgetEvents();
    raiseError(QSerialPort::WriteError);
    modem.setDsr(false);
    ASSERT_TRUE(modem.expectWritten("\rATH\r"));
    ASSERT_TRUE(waitForState(CComThread::WaitingForDevice));
    expectEvents(QStringList{QStringLiteral("error COM port error: 7. ")} + eventsOfReopening());
}

TEST_F(WorkerFault, ErrorDuringASessionStopsIt)
{
    startOutgoingSession();
    raiseError(QSerialPort::ReadError);
    EXPECT_EQ(worker->state(), CComThread::ResettingModem);
    completeReset();
    // The protocol is stopped before its thread can go on.
    expectEvents(QStringList{QStringLiteral("error COM port error: 8. "), QStringLiteral("protocol stop"),
                             QStringLiteral("journal Потеряно соединение с абонентом 'A'"),
                             QStringLiteral("disconnected A 7 0"), QStringLiteral("protocol deleted keepAlive=0")} +
                 eventsOfReopening());
}

TEST_F(WorkerFault, ErrorAtTheMomentOfConnectingMakesNoSession)
{
    journal.onRecord = [this](const QString& text) {
        if (text.startsWith(QStringLiteral("Соединение установлено")))
            raiseError(QSerialPort::ReadError);
    };
    startOutgoing();
    modem.reply("CONNECT 9600\r\n");
    completeReset();
    EXPECT_EQ(factory->created(), 0);
    EXPECT_TRUE(events().filter(QStringLiteral("onnected")).isEmpty());
}

TEST_F(WorkerFault, ErrorWhileClosedForcesNothing)
{
    ComPortSettings settings = usualSettings();
    settings.portName = rig::installRoot() + QStringLiteral("/nothing");
    start(settings);
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Ошибка открытия COM порта. No such file or directory")));
    forgetEvents();
    raiseError(QSerialPort::ReadError);
    EXPECT_EQ(worker->state(), CComThread::PortClosed);
    expectEvents({QStringLiteral("error COM port error: 8. ")});
}

// A terminal without modem lines refuses every look at them. Each round of the port tells
// that once for the opening and once while waiting for the device, with the port's own text.
TEST_F(WorkerFault, PortWithoutModemLinesDoesNotFloodTheHost)
{
    writeDetails({QStringLiteral("transportComDsrCheckInterval=10"), QStringLiteral("transportComResetTimeout=1100")});
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master) | unlockpt(master), 0);
    ComPortSettings settings = usualSettings();
    settings.portName = QString::fromLocal8Bit(ptsname(master));
    start(settings);
    ASSERT_TRUE(waitForEvent(QStringLiteral("state COM порт открыт"), 3));
    ASSERT_TRUE(stopAndWait());
    QCoreApplication::processEvents();
    const int errors = events().filter(QStringLiteral("error COM port error")).size();
    EXPECT_GE(errors, 2);
    EXPECT_LE(errors, 40) << joined(events());
    close(master);
}

// --- stops ------------------------------------------------------------------------------

class StopAt : public AtMoment
{
};

TEST_P(StopAt, FromTheServersThread)
{
    reach(GetParam());
    QElapsedTimer timer;
    timer.start();
    ASSERT_TRUE(stopAndWait());
    EXPECT_LT(timer.elapsed(), 5000);
    EXPECT_EQ(events().last(), QStringLiteral("remove"));
    EXPECT_EQ(events().count(QStringLiteral("remove")), 1);
    QCoreApplication::processEvents();
    EXPECT_TRUE(events().filter(QStringLiteral("error ")).isEmpty()) << joined(events());
    if (GetParam() != Moment::Closed) {
        EXPECT_EQ(modem.endpoint().programSignals() & sim::SignalDtr, 0);
    }
}

TEST_P(StopAt, FromAnotherThread)
{
    reach(GetParam());
    std::thread([this] { worker->stop(); }).join();
    ASSERT_TRUE(waitFor([&] { return worker->isFinished(); }, 10000));
    EXPECT_EQ(events().last(), QStringLiteral("remove"));
}

INSTANTIATE_TEST_SUITE_P(Moments, StopAt, testing::ValuesIn(allMoments), nameOf);

TEST_F(WorkerFault, StopWithCarrierDoesNotHangUp)
{
    startFree();
    modem.setDcd(true);
    ASSERT_TRUE(stopAndWait());
    EXPECT_EQ(modem.written(), QByteArray());
}

// A host takes its time to make a session: one that is asked for before the stop hears of it.
TEST_F(WorkerFault, StopWhileTheFactoryMakesASessionReachesThatSession)
{
    std::mutex mutex;
    std::condition_variable mayGoOn;
    bool goesOn = false;
    std::atomic<bool> isInside{false};
    factory->onCreate = [&] {
        std::unique_lock<std::mutex> lock(mutex);
        isInside = true;
        mayGoOn.wait(lock, [&] { return goesOn; });
    };
    ASSERT_NO_FATAL_FAILURE(startIncoming());
    modem.setDcd(true);
    modem.reply("\r\nCONNECT 9600\r\n");
    ASSERT_TRUE(waitFor([&] { return isInside.load(); }));
    testsupport::ObservedThread stopper([this] { worker->stop(); });
    (void)stopper.sleepsBeforeItsEnd(); // whether it waits for the session or leaves word: it has been there
    {
        const std::lock_guard<std::mutex> lock(mutex);
        goesOn = true;
    }
    mayGoOn.notify_one();
    stopper.join();
    ASSERT_TRUE(worker->wait(10000));
    EXPECT_EQ(joined(events().filter(QStringLiteral("protocol ")).mid(1)),
              joined({QStringLiteral("protocol stop"), QStringLiteral("protocol deleted keepAlive=0")}));
    EXPECT_EQ(events().last(), QStringLiteral("remove"));
}

// A host that terminates a worker stuck in one of its own calls, with the worker's lock held.
TEST_F(WorkerFault, TerminatedWorkerLeavesNothingBehind)
{
    std::atomic<bool> isStuck{false};
    journal.onRecord = [&isStuck](const QString& text) {
        while (text == QStringLiteral("Входящий вызов. Запись команды: ATA")) {
            isStuck = true;
            ::usleep(5000); // not Qt's: the thread sanitizer loses count when a call from a library is cut off
        }
    };
    startFree();
    modem.reply("RING\r\n");
    ASSERT_TRUE(waitFor([&] { return isStuck.load(); }));
    worker->terminate();
    ASSERT_TRUE(worker->wait(10000));
    EXPECT_EQ(events().count(QStringLiteral("remove")), 1);
    // The lock is free again, and so is the port.
    worker->stop();
    QSerialPort port;
    port.setPortName(modem.portPath());
    EXPECT_TRUE(port.open(QIODevice::ReadWrite)) << port.errorString().toStdString();
}

// A thread that is cancelled in a destructor takes the whole process with it.
TEST_F(WorkerFault, TerminatedWorkerFinishesDeletingItsProtocol)
{
    std::atomic<bool> isDeleting{false};
    std::atomic<bool> mayGoOn{false};
    factory->onStart = [&](ScriptedProtocol* protocol) {
        protocol->onDelete = [&] {
            isDeleting = true;
            while (!mayGoOn)
                ::usleep(5000);
        };
    };
    startIncomingSession();
    factory->protocol()->finish(false);
    ASSERT_TRUE(waitFor([&] { return isDeleting.load(); }));
    worker->terminate();
    mayGoOn = true;
    ASSERT_TRUE(worker->wait(10000));
    EXPECT_EQ(events().count(QStringLiteral("protocol deleted keepAlive=0")), 1);
    EXPECT_EQ(events().count(QStringLiteral("remove")), 1);
}

// --- unplugged devices ------------------------------------------------------------------

class UnplugAt : public AtMoment
{
protected:
    // Ends what the session's protocol would end itself.
    void endSession()
    {
        if (GetParam() == Moment::Session)
            factory->protocol()->finish(false);
    }
    // What the host learns of the call that was under way. One that was still being placed
    // ends by a forced reset or by the timeout, whatever error the system makes of the loss;
    // only the latter is told.
    void expectOutcomeTold() const
    {
        const QStringList told = events().filter(QStringLiteral("onnected "));
        switch (GetParam()) {
        case Moment::Requested:
        case Moment::Dialling:
            EXPECT_TRUE(told.isEmpty() || told == QStringList{QStringLiteral("notConnected A")}) << joined(told);
            break;
        case Moment::Reset: // of the call before it
            EXPECT_EQ(joined(told), "notConnected A");
            break;
        case Moment::Session: EXPECT_EQ(joined(told), "disconnected A 7 0"); break;
        case Moment::Closed:
        case Moment::DeviceOff:
        case Moment::Check:
        case Moment::Free:
        case Moment::Answering: EXPECT_EQ(joined(told), ""); break;
        }
    }
    void expectBack()
    {
        modem.setDsr(true);
        ASSERT_TRUE(waitFor([&] { return modem.written().endsWith("AT\r"); }));
        modem.expectWritten(modem.written());
        modem.reply("OK\r\n");
        ASSERT_TRUE(waitForState(CComThread::LineFree));
        // The check that was under way does not go on in the one after the opening.
        EXPECT_FALSE(events().contains(QStringLiteral("journal Нет ответа на команду 'AT'")));
        EXPECT_TRUE(worker->tryConnect(QStringLiteral("A"), QStringLiteral("123")));
        ASSERT_TRUE(modem.expectWritten("ATD123\r"));
    }
    void SetUp() override
    {
        // A session must come about before the time for it is up.
        const int connectTimeoutMs = GetParam() == Moment::Session ? 20000 : 500;
        writeDetails({QStringLiteral("transportComOpenInterval=500"), QStringLiteral("transportComDsrCheckInterval=50"),
                      QStringLiteral("transportComConnectTimeout=%1").arg(connectTimeoutMs),
                      QStringLiteral("transportComResetTimeout=1100")});
    }
};

TEST_P(UnplugAt, ComesBackByItself)
{
    reach(GetParam());
    const int memoryBefore = residentKiB();
    const int linesBefore = logTexts().size();
    const QString notOpened = QStringLiteral("journal Ошибка открытия COM порта. No such file or directory");
    const int failuresBefore = events().count(notOpened);
    modem.endpoint().unplug();
    endSession();
    ASSERT_TRUE(waitForEvent(notOpened, failuresBefore + 1));
    expectOutcomeTold();
    EXPECT_LT(logTexts().size() - linesBefore, 10) << joined(logTexts().mid(linesBefore));
    EXPECT_LT(residentKiB() - memoryBefore, allowedGrowthKiB);
    ASSERT_TRUE(modem.endpoint().plugIn());
    expectBack();
}

// The name may never be missing when the worker looks: the device behind it is another.
TEST_P(UnplugAt, ComesBackWhenItWasAwayForAMoment)
{
    if (GetParam() == Moment::Closed) {
        start();
    } else {
        reach(GetParam());
    }
    modem.endpoint().unplug();
    ASSERT_TRUE(modem.endpoint().plugIn());
    endSession();
    expectBack();
}

INSTANTIATE_TEST_SUITE_P(Moments, UnplugAt, testing::ValuesIn(allMoments), nameOf);

// --- garbage ----------------------------------------------------------------------------

TEST_F(WorkerFault, GarbageWithoutLineEndsIsDropped)
{
    startFree();
    const int memoryBefore = residentKiB();
    ASSERT_TRUE(modem.flood(QByteArray(1024 * 1024, 'x')));
    EXPECT_LT(residentKiB() - memoryBefore, allowedGrowthKiB);
    EXPECT_EQ(worker->state(), CComThread::LineFree);
    ASSERT_TRUE(modem.flood("\nRING\r\n"));
    ASSERT_TRUE(modem.expectWritten("ATA\r"));
    // At most some 64 KiB of it were left to be cut into pieces.
    EXPECT_LE(logTexts().filter(QStringLiteral("Чтение команды: x")).size(), 80);
}

TEST_F(WorkerFault, GarbageWithLineEndsIsReadThrough)
{
    startFree();
    QByteArray garbage;
    for (int i = 0; i < 150; ++i)
        garbage += QByteArray(900, 'x') + "\r\n";
    ASSERT_TRUE(modem.flood(garbage));
    EXPECT_EQ(worker->state(), CComThread::LineFree);
    ASSERT_TRUE(modem.flood("RING\r\n"));
    ASSERT_TRUE(modem.expectWritten("ATA\r"));
    EXPECT_EQ(logTexts().filter(QStringLiteral("Чтение команды: x")).size(), 150);
}

TEST_F(WorkerFault, GarbageBeforeTheCheckIsDiscarded)
{
    writeDetails({QStringLiteral("transportComAtReadyCheckTimeout=1000")});
    startFree();
    // Read together with the line before it, the rest waits for its line end.
    modem.reply("noise\r\nmore");
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    ASSERT_TRUE(logTexts().contains(QStringLiteral("Чтение команды: noise")));
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Получен ответ 'OK' на команду 'AT'")));
    EXPECT_TRUE(events().filter(QStringLiteral("Неверный")).isEmpty()) << joined(events());
}

TEST_F(WorkerFault, AnswersFromBeforeTheEscapeAreDiscarded)
{
    writeDetails({QStringLiteral("transportComResetTimeout=1100")});
    startOutgoing();
    // Read together: the second line waits while the first one fails the call.
    modem.reply("BUSY\r\nOK\r\n");
    ASSERT_TRUE(modem.expectWritten("+++\rATH\r"));
    ASSERT_TRUE(waitForEvent(QStringLiteral("state COM порт открыт")));
    const QStringList texts = logTexts();
    const QStringList sinceBusy = texts.mid(texts.indexOf(QStringLiteral("Чтение команды: BUSY")));
    EXPECT_EQ(joined(sinceBusy.mid(0, 2)), "Чтение команды: BUSY\nЗапись команды: +++, ATH. Reseting.");
    EXPECT_FALSE(sinceBusy.contains(QStringLiteral("Чтение команды: OK")));
}

TEST_F(WorkerFault, GarbageInsteadOfAnAnswerToTheCheck)
{
    writeDetails({QStringLiteral("transportComAtOkTimeout=1000")});
    modem.setDsr(true);
    start();
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    ASSERT_TRUE(modem.flood(QByteArray(200 * 1024, '\xff')));
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Нет ответа на команду 'AT'")));
    ASSERT_TRUE(answerChecks());
}

// --- calls into the worker from all sides -------------------------------------------------

TEST_F(WorkerFault, OperationsFromAnotherThreadWhileCallsComeAndGo)
{
    factory->onStart = [](ScriptedProtocol* protocol) {
        protocol->tellName(QStringLiteral("B"));
        protocol->finish(true);
    };
    startFree();
    std::atomic<bool> isOver{false};
    std::thread caller([&] {
        while (!isOver) {
            worker->keepAlive();
            worker->disconnectFromAbonent();
            worker->tryConnect(QStringLiteral("A"), QStringLiteral("1"));
            if (worker->abonentName().size() > 1 || worker->state() < 0)
                break;
            QThread::usleep(200);
        }
    });
    for (int call = 0; call < 3; ++call) {
        ASSERT_TRUE(modem.expectWritten("ATD1\r"));
        modem.reply("CONNECT 9600\r\n");
        ASSERT_TRUE(modem.expectWritten("+++"));
        modem.reply("OK\r\n");
        ASSERT_TRUE(modem.expectWritten("\rATH\rAT\r"));
        modem.reply("OK\r\n");
    }
    isOver = true;
    caller.join();
    // Whether it was useful depends on who came first.
    ASSERT_TRUE(waitFor([&] { return log.entriesWith(QStringLiteral("disconnected B 7")).size() >= 3; }));
    EXPECT_EQ(log.entriesWith(QStringLiteral("disconnected B 7")).size(), 3);
}
