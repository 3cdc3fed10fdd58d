// Opening the worker's port: every parameter is set, and every failure is told.
#include "rig/testroot.h"
#include "tests/worker/workerstart.h"

#include <termios.h>
#include <utility>

TEST_F(WorkerStart, PortThatCannotBeOpened)
{
    writeDetails({QStringLiteral("transportComOpenInterval=30")});
    ComPortSettings settings = usualSettings();
    settings.portName = rig::installRoot() + QStringLiteral("/nothing");
    start(settings);
    const QString text = QStringLiteral("Ошибка открытия COM порта. No such file or directory");
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal ") + text, 2));
    EXPECT_EQ(joined(events().mid(0, 7)),
              joined({QStringLiteral("add Инициализация"), QStringLiteral("state Открытие COM порта"),
                      QStringLiteral("state ") + text, QStringLiteral("journal ") + text,
                      QStringLiteral("state Открытие COM порта"), QStringLiteral("state ") + text,
                      QStringLiteral("journal ") + text}));
    EXPECT_EQ(worker->state(), CComThread::PortClosed);
    ASSERT_GE(logLinesWith(text).size(), 2);
    EXPECT_GE(logTimeBetween(logLinesWith(text).at(0), logLinesWith(text).at(1)), 30);
    ASSERT_TRUE(stopAndWait());
    QCoreApplication::processEvents();
    EXPECT_EQ(events().last(), QStringLiteral("remove"));
    EXPECT_TRUE(events().filter(QStringLiteral("error ")).isEmpty());
}

TEST_F(WorkerStart, RecordThatWasNeverFilledFailsInTheSpeedAlone)
{
    modem.setDsr(true);
    ComPortSettings settings;
    settings.portName = modem.portPath();
    start(settings);
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitForState(CComThread::LineFree));
    ASSERT_TRUE(waitForEvent(QStringLiteral("error COM port error: 10. Invalid baud rate value")));
    const QString failure = QStringLiteral("Не удалось изменить скорость COM порта. Invalid baud rate value");
    QStringList expected = eventsOfStart();
    expected.insert(4, QStringLiteral("error ") + failure);
    // The error, raised while opening, is told and forces no reset.
    EXPECT_EQ(joined(withoutPortErrors(events())), joined(expected));
    EXPECT_EQ(logTexts().count(failure), 1);
    EXPECT_EQ(logTexts().count(QStringLiteral("COM port error: 10. Invalid baud rate value")), 1);
    EXPECT_EQ(worker->state(), CComThread::LineFree);
}

// A pty refuses anything but eight bits without parity.
TEST_F(WorkerStart, EveryParameterIsSetAndEveryFailureTold)
{
    ComPortSettings settings = usualSettings();
    settings.baudRate = 0;
    settings.flowControl = 2;
    settings.dataBits = 7;
    settings.parity = 2;
    settings.stopBits = 2;
    start(settings);
    ASSERT_TRUE(waitForState(CComThread::WaitingForDevice));
    EXPECT_EQ(
        joined(withoutPortErrors(events())),
        joined(eventsOfStart().mid(0, 4) +
               QStringList{QStringLiteral("error Не удалось изменить скорость COM порта. Invalid baud rate value"),
                           QStringLiteral("error Не удалось изменить биты данных COM порта. Invalid argument"),
                           QStringLiteral("error Не удалось изменить четность COM порта. Invalid argument")}));
    termios line{};
    ASSERT_EQ(tcgetattr(modem.endpoint().masterFd(), &line), 0);
    EXPECT_NE(line.c_iflag & IXON, 0u);
    EXPECT_NE(line.c_cflag & CSTOPB, 0u);
}

// Every parameter fails once the device is gone.
TEST_F(WorkerStart, DeviceUnpluggedWhileItsPortIsBeingSetUp)
{
    writeDetails({QStringLiteral("transportComOpenInterval=50"), QStringLiteral("transportComDsrCheckInterval=20")});
    bool isPlugged = true; // the worker's
    journal.onRecord = [this, &isPlugged](const QString& text) {
        if (text == QStringLiteral("COM порт открыт") && std::exchange(isPlugged, false))
            modem.endpoint().unplug();
    };
    ComPortSettings settings = usualSettings();
    settings.initString = QStringLiteral("ATZ");
    start(settings);
    const QString notOpened = QStringLiteral("journal Ошибка открытия COM порта. No such file or directory");
    ASSERT_TRUE(waitForEvent(notOpened));
    const QStringList steps = {QStringLiteral("установить сигнал DTR для"),   QStringLiteral("изменить скорость"),
                               QStringLiteral("изменить управление потоком"), QStringLiteral("изменить биты данных"),
                               QStringLiteral("изменить четность"),           QStringLiteral("изменить стоповые биты")};
    const QStringList told = withoutPortErrors(events());
    ASSERT_GE(told.size(), 13) << joined(told);
    EXPECT_EQ(joined(told.mid(0, 4)), joined(eventsOfStart().mid(0, 4)));
    for (int i = 0; i < steps.size(); ++i) {
        EXPECT_EQ(told.at(4 + i).toStdString(),
                  QStringLiteral("error Не удалось %1 COM порта. Input/output error").arg(steps.at(i)).toStdString());
    }
    EXPECT_EQ(told.at(10), QStringLiteral("journal Отправка строки инициализации: ATZ"));
    EXPECT_EQ(told.at(11), QStringLiteral("state Открытие COM порта"));
    ASSERT_TRUE(modem.endpoint().plugIn());
    modem.setDsr(true);
    ASSERT_TRUE(modem.expectWritten("ATZAT\r"));
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitForState(CComThread::LineFree));
}
