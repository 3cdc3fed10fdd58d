// From the thread's start to the free line, and back to the start.
#include "common/csettings.h"
#include "rig/testroot.h"
#include "tests/worker/workerstart.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>

#include <atomic>

using rig::waitFor;

TEST_F(WorkerStart, ModemThatAnswersBecomesFree)
{
    modem.setDsr(true);
    start();
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    modem.reply("\r\nOK\r\n");
    ASSERT_TRUE(waitForState(CComThread::LineFree));
    expectEvents(eventsOfStart());
    const QString ready =
        QStringLiteral("Устройство на COM порту '%1' готово. Проверяем AT - OK.").arg(modem.portPath());
    EXPECT_EQ(joined(logTexts()),
              joined({QStringLiteral("COM порт открыт"), ready, askedInLog, QStringLiteral("Чтение команды: OK"),
                      QStringLiteral("Получен ответ 'OK' на команду AT")}));
    EXPECT_EQ(modem.endpoint().programSignals() & sim::SignalDtr, sim::SignalDtr);
    EXPECT_EQ(modem.endpoint().baudRate(), 9600);
    EXPECT_EQ(worker->portName(), modem.portPath());
    EXPECT_EQ(worker->connectionId(), connectionId);
    EXPECT_EQ(worker->abonentName(), QString());
}

// A stop is looked for at the top of a pass alone, so that what follows it belongs to the same one.
TEST_F(WorkerStart, OnePassLeadsFromTheClosedPortToTheCheck)
{
    modem.setDsr(true);
    journal.onRecord = [this](const QString& text) {
        if (text == QStringLiteral("COM порт открыт"))
            worker->stop();
    };
    start();
    ASSERT_TRUE(worker->wait(30000));
    expectEvents(eventsOfStart().mid(0, 7) + QStringList{QStringLiteral("remove")});
}

TEST_F(WorkerStart, InitStringIsSentRaw)
{
    modem.setDsr(true);
    ComPortSettings settings = usualSettings();
    settings.initString = QStringLiteral("ATZ");
    start(settings);
    ASSERT_TRUE(modem.expectWritten("ATZAT\r"));
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitForState(CComThread::LineFree));
    QStringList expected = eventsOfStart();
    expected.insert(4, QStringLiteral("journal Отправка строки инициализации: ATZ"));
    expectEvents(expected);
    EXPECT_EQ(joined(logTexts().mid(0, 2)), "COM порт открыт\nЗапись команды: ATZ");
}

TEST_F(WorkerStart, DeviceThatIsSwitchedOnLater)
{
    writeDetails({QStringLiteral("transportComDsrCheckInterval=20")});
    start();
    expectEvents(eventsOfStart().mid(0, 4));
    ASSERT_TRUE(waitForState(CComThread::WaitingForDevice));
    EXPECT_EQ(modem.written(), QByteArray());
    modem.setDsr(true);
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitForState(CComThread::LineFree));
    expectEvents(eventsOfStart());
}

TEST_F(WorkerStart, EchoOfTheCheckIsNothing)
{
    modem.setDsr(true);
    start();
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    modem.reply("AT\r\r\nOK\r\n");
    ASSERT_TRUE(waitForState(CComThread::LineFree));
    expectEvents(eventsOfStart());
}

TEST_F(WorkerStart, WrongAnswersAreAskedAgain)
{
    modem.setDsr(true);
    start();
    QStringList expected = eventsOfStart().mid(0, 7);
    for (const char* answer : {"RING", "Hello"}) {
        ASSERT_TRUE(modem.expectWritten("AT\r"));
        modem.reply(QByteArray(answer) + "\r\n");
        const QString text = QStringLiteral("Неверный ответ на команду 'AT': ") + QLatin1String(answer);
        expected << QStringLiteral("state ") + text << QStringLiteral("journal ") + text
                 << QStringLiteral("journal Запись команды 'AT'");
    }
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitForState(CComThread::LineFree));
    expectEvents(expected + eventsOfStart().mid(7));

    const QList<LogLine> wrong = logLinesWith(QStringLiteral("Неверный ответ на команду 'AT': RING"));
    ASSERT_EQ(wrong.size(), 1);
    EXPECT_GE(logTimeBetween(wrong.first(), logLinesWith(askedInLog).at(1)), 1000);
}

TEST_F(WorkerStart, SilentModemIsAskedAfterGrowingPausesSharedByAllPorts)
{
    writeDetails({QStringLiteral("transportComAtOkTimeout=50")});
    modem.setDsr(true);
    start();
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    ASSERT_TRUE(waitForEvent(unansweredEvent));
    QStringList expected = eventsOfStart().mid(0, 7);
    expected << QStringLiteral("state ") + unanswered << unansweredEvent;
    expectEvents(expected);

    // A second silent port goes on from where the first one's pauses have got to.
    ModemScript second(QStringLiteral("second"));
    second.setDsr(true);
    ComPortSettings settings = usualSettings();
    settings.portName = second.portPath();
    rig::CallLog secondLog;
    rig::RecordingChannelsState secondState(&secondLog);
    HookedJournal secondJournal(&secondLog);
    QElapsedTimer clock;
    clock.start();
    // The worker's until it has ended.
    qint64 unansweredMs = -1;
    qint64 askedAgainMs = -1;
    secondJournal.onRecord = [&](const QString& text) {
        if (text == unanswered && unansweredMs < 0)
            unansweredMs = clock.elapsed();
        else if (text == QStringLiteral("Запись команды 'AT'") && unansweredMs >= 0 && askedAgainMs < 0)
            askedAgainMs = clock.elapsed();
    };
    BareServer secondServer;
    secondServer.channelsState = &secondState;
    secondServer.journal = &secondJournal;
    CComThread secondWorker(settings, &secondServer);
    secondWorker.start();
    ASSERT_TRUE(second.expectWritten("AT\r"));
    ASSERT_TRUE(second.expectWritten("AT\r"));
    secondWorker.stop();
    ASSERT_TRUE(secondWorker.wait(10000));
    ASSERT_GE(unansweredMs, 0);
    EXPECT_GE(askedAgainMs - unansweredMs, 3000);
    ASSERT_TRUE(modem.expectWritten("AT\r"));
}

TEST_F(WorkerStart, AnswerBringsThePauseBackToTwoSeconds)
{
    writeDetails({QStringLiteral("transportComAtOkTimeout=600"), QStringLiteral("transportComAtReadyCheckTimeout=20")});
    measurePauseAfter(QStringLiteral("Получен ответ 'OK' на команду 'AT'"));
    modem.setDsr(true);
    start();
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    ASSERT_TRUE(waitForEvent(unansweredEvent, 1));
    // Answered until one answer is in time; the free line asks once more.
    ASSERT_TRUE(answerUntil(answeredEvent, "OK\r\n"));
    expectTwoSeconds();
}

TEST_F(WorkerStart, WrongAnswerBringsThePauseBackToTwoSeconds)
{
    writeDetails({QStringLiteral("transportComAtOkTimeout=600")});
    const QString wrong = QStringLiteral("Неверный ответ на команду 'AT': Hello");
    measurePauseAfter(wrong);
    modem.setDsr(true);
    start();
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    ASSERT_TRUE(waitForEvent(unansweredEvent, 1));
    ASSERT_TRUE(answerUntil(QStringLiteral("journal ") + wrong, "Hello\r\n"));
    expectTwoSeconds();
}

TEST_F(WorkerStart, AnswerThatStandsBehindTheTimeoutIsNoAnswer)
{
    writeDetails({QStringLiteral("transportComAtOkTimeout=5")});
    modem.setDsr(true);
    start();
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    // The blank line takes the pass that is in time.
    modem.reply("\r\nOK\r\n");
    ASSERT_TRUE(waitForEvent(unansweredEvent));
    EXPECT_EQ(worker->state(), CComThread::CheckingDevice);
    EXPECT_EQ(events().count(QStringLiteral("state Свободен")), 0);
}

TEST_F(WorkerStart, NegativeTimeoutCountsAsItStands)
{
    writeDetails({QStringLiteral("transportComAtReadyCheckTimeout=-1")});
    startAndAnswerOnce();
    // Any time is longer: the modem is asked again at once.
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    modem.reply("OK\r\n");
    ASSERT_TRUE(modem.expectWritten("AT\r"));
}

TEST_F(WorkerStart, FreeLineIsAskedAgainAfterThePeriod)
{
    writeDetails({QStringLiteral("transportComAtReadyCheckTimeout=100")});
    // By the worker's own steps and a clock that nobody sets: a busy machine only lengthens it.
    QElapsedTimer sinceFree;
    std::atomic<qint64> freeMs{-1};
    journal.onRecord = [&](const QString& text) {
        if (text == QStringLiteral("Запись команды 'AT'") && sinceFree.isValid() && freeMs < 0)
            freeMs = sinceFree.elapsed();
        else if (text == QStringLiteral("Получен ответ 'OK' на команду 'AT'"))
            sinceFree.start();
    };
    startAndAnswerOnce();
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitForEvent(answeredEvent, 2));
    ASSERT_TRUE(stopAndWait());
    EXPECT_EQ(joined(events().mid(0, 12)), joined(eventsOfStart() + eventsOfStart().mid(6)));
    EXPECT_GT(freeMs, 100);
}

TEST_F(WorkerStart, ControlSymbolIsReadForEachCheck)
{
    writeDetails({QStringLiteral("transportComAtReadyCheckTimeout=100")});
    startAndAnswerOnce();
    CSettings().write(QStringLiteral("Details/transportComControlSymbol"), QStringLiteral("\r\n"));
    // One may have been on its way.
    ASSERT_TRUE(waitFor([&] { return modem.written().contains('\r'); }));
    if (!modem.written().startsWith("AT\r\n")) {
        ASSERT_TRUE(modem.expectWritten("AT\r"));
        modem.reply("OK\r\n");
    }
    ASSERT_TRUE(modem.expectWritten("AT\r\n"));
}

TEST_F(WorkerStart, CarrierAtOpeningIsResetBeforeTheCheck)
{
    writeDetails(
        {QStringLiteral("transportComDsrCheckInterval=20"), QStringLiteral("transportComOpenInterval=600000")});
    modem.setDsr(true);
    modem.setDcd(true);
    ComPortSettings settings = usualSettings();
    settings.initString = QStringLiteral("ATZ");
    start(settings);
    ASSERT_TRUE(modem.expectWritten("ATZ+++"));
    EXPECT_EQ(worker->state(), CComThread::ResettingModem);
    modem.reply("OK\r\n");
    ASSERT_TRUE(modem.expectWritten("\rATH\r"));
    modem.setDcd(false);
    // The port is opened again without the pause for a port that cannot be.
    ASSERT_TRUE(modem.expectWritten("ATZAT\r"));
    EXPECT_EQ(modem.endpoint().dtrDrops(), 1u);
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitForState(CComThread::LineFree));

    const QString init = QStringLiteral("journal Отправка строки инициализации: ATZ");
    QStringList expected = eventsOfStart().mid(0, 4);
    expected << init << eventsOfReopening() << init << eventsOfStart().mid(4);
    expectEvents(expected);
    EXPECT_EQ(joined(logTexts().mid(0, 5)), "COM порт открыт\nЗапись команды: ATZ\nЗапись команды: +++, ATH. "
                                            "Reseting.\nЧтение команды: OK\nCOM порт открыт");
}

TEST_F(WorkerStart, ModemThatDoesNotEscapeIsHungUpAllTheSame)
{
    writeDetails({QStringLiteral("transportComResetTimeout=1100")});
    modem.setDcd(true);
    start();
    ASSERT_TRUE(modem.expectWritten("+++\rATH\r"));
    ASSERT_TRUE(waitForEvent(QStringLiteral("state COM порт открыт"), 2));
    const QList<LogLine> escaped = logLinesWith(QStringLiteral("Запись команды: +++, ATH. Reseting."));
    const QList<LogLine> opened = logLinesWith(QStringLiteral("COM порт открыт"));
    // The wait for "OK", and the pause after "ATH".
    EXPECT_GE(logTimeBetween(escaped.at(0), opened.at(1)), 1100 + 500);
}

TEST_F(WorkerStart, CarrierDuringTheCheckIsHungUpWithoutTheEscape)
{
    writeDetails({QStringLiteral("transportComResetTimeout=1100")});
    modem.setDsr(true);
    start();
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    modem.setDcd(true);
    ASSERT_TRUE(waitForState(CComThread::ResettingModem));
    ASSERT_TRUE(modem.expectWritten("\rATH\r"));
    // Carrier is still there when the port is opened again.
    ASSERT_TRUE(modem.expectWritten("+++"));
    QStringList expected = eventsOfStart().mid(0, 7);
    expectEvents(expected + eventsOfReopening());
    EXPECT_EQ(logLinesWith(QStringLiteral("Запись команды: +++, ATH. Reseting.")).size(), 1);
}

TEST_F(WorkerStart, DeviceSwitchedOffWhileFree)
{
    writeDetails({QStringLiteral("transportComDsrCheckInterval=20"), QStringLiteral("transportComAtOkTimeout=1000")});
    startFree();
    modem.setDsr(false);
    ASSERT_TRUE(waitForState(CComThread::WaitingForDevice));
    EXPECT_TRUE(logTexts().contains(QStringLiteral("Устройство на COM порту '%1' выключено").arg(modem.portPath())));
    EXPECT_FALSE(worker->tryConnect(QStringLiteral("A"), QStringLiteral("1")));
    modem.setDsr(true);
    // The timer of the free line goes on, so that the check begins with its end.
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    EXPECT_EQ(joined(events().mid(0, 7)),
              joined({QStringLiteral("state COM порт открыт"), QStringLiteral("journal COM порт открыт"),
                      QStringLiteral("state Устройство включено"), QStringLiteral("journal Устройство включено"),
                      QStringLiteral("state Нет ответа на команду 'AT'"), unansweredEvent,
                      QStringLiteral("journal Запись команды 'AT'")}));
}

TEST_F(WorkerStart, FreeLineDropsWhatIsNoRing)
{
    startFree();
    modem.reply("CONNECT 9600\r\nNO CARRIER\r\nBUSY\r\nERROR\r\nATA\r\n");
    ASSERT_TRUE(waitFor([&] { return logTexts().contains(QStringLiteral("Чтение команды: ATA")); }));
    EXPECT_EQ(worker->state(), CComThread::LineFree);
    EXPECT_EQ(modem.written(), QByteArray());
    expectEvents({});
}

TEST_F(WorkerStart, PortIsClosedBeforeItLeavesTheTable)
{
    bool isDtrDropped = false;
    bool isOpenToOthers = false;
    channelsState.onRemove = [&] {
        isDtrDropped = (modem.endpoint().programSignals() & sim::SignalDtr) == 0;
        QSerialPort other;
        other.setPortName(modem.portPath());
        isOpenToOthers = other.open(QIODevice::ReadWrite);
    };
    startFree();
    ASSERT_TRUE(stopAndWait());
    EXPECT_TRUE(isDtrDropped);
    EXPECT_TRUE(isOpenToOthers);
}

TEST_F(WorkerStart, StopBeforeTheThreadRuns)
{
    worker = std::make_unique<CComThread>(usualSettings(), &server);
    worker->stop();
    worker->start();
    ASSERT_TRUE(worker->wait(10000));
    expectEvents(
        {QStringLiteral("add Инициализация"), QStringLiteral("state Открытие COM порта"), QStringLiteral("remove")});
}

TEST_F(WorkerStart, StopEndsALongPause)
{
    writeDetails({QStringLiteral("transportComOpenInterval=60000")});
    ComPortSettings settings = usualSettings();
    settings.portName = rig::installRoot() + QStringLiteral("/nothing");
    start(settings);
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Ошибка открытия COM порта. No such file or directory")));
    QElapsedTimer timer;
    timer.start();
    ASSERT_TRUE(stopAndWait());
    EXPECT_LT(timer.elapsed(), 5000);
}

TEST_F(WorkerStart, SettingsListTheirKeys)
{
    // The group alone: every value is to be the default.
    QDir().mkpath(rig::installRoot() + QStringLiteral("/settings"));
    QFile empty(rig::installRoot() + QStringLiteral("/settings/settings.ini"));
    ASSERT_TRUE(empty.open(QIODevice::WriteOnly));
    empty.close();
    startFree();
    modem.reply("RING\r\n");
    ASSERT_TRUE(modem.expectWritten("ATA\r"));
    modem.reply("BUSY\r\n");
    ASSERT_TRUE(modem.expectWritten("+++"));
    QFile file(rig::installRoot() + QStringLiteral("/settings/settings.ini"));
    ASSERT_TRUE(waitFor([&] { return file.isOpen() || file.open(QIODevice::ReadOnly); }));
    const QByteArray text = file.readAll();
    for (const char* line :
         {"transportComAtOkTimeout=1000", "transportComAtReadyCheckTimeout=60000", "transportComDsrCheckInterval=1000",
          "transportComOpenInterval=3000", "transportComConnectTimeout=30000", "transportComResetTimeout=2000",
          "transportComControlSymbol=\\r"})
        EXPECT_TRUE(text.contains(QByteArray(line) + '\n')) << line;
}
