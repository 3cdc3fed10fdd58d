// In which order the log, the host's objects and the line learn of what happens, and in
// which category each line of the log stands.
#include "rig/deadline.h"
#include "rig/testroot.h"
#include "tests/worker/workertest.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QThread>

using rig::waitFor;

namespace {

// Puts the new lines of the log ("log <text>") and the bytes that the worker has written
// since ("wrote <bytes>", control symbols as "~") in front of each call to the host, and when
// the test asks for it. Of what comes together the lines stand first.
class Tracer
{
public:
    Tracer(rig::CallLog* log, ModemScript* modem) : m_log(log), m_modem(modem) {}

    void catchUp()
    {
        QMutexLocker locker(&m_mutex);
        const QStringList texts = logTexts();
        for (; m_shownLines < texts.size(); ++m_shownLines)
            m_log->add(QStringLiteral("log ") + texts.at(m_shownLines));
        QByteArray written;
        // What the program has written may take a moment to get through. No events meanwhile:
        // they would be the worker's.
        QElapsedTimer timer;
        timer.start();
        for (;;) {
            written += m_modem->endpoint().read();
            if (m_modem->endpoint().bytesFromProgram() == 0 || timer.elapsed() > rig::defaultDeadlineMs)
                break;
            QThread::msleep(1);
        }
        if (!written.isEmpty())
            m_log->add(QStringLiteral("wrote ") + QString::fromLatin1(written.replace('\r', '~')));
    }

private:
    QMutex m_mutex;
    rig::CallLog* m_log; // not owned
    ModemScript* m_modem; // not owned
    int m_shownLines = 0;
};

class TracedChannelsState : public rig::RecordingChannelsState
{
public:
    TracedChannelsState(rig::CallLog* log, Tracer* tracer) : RecordingChannelsState(log), m_tracer(tracer) {}

    void setState(int id, const QString& text) override
    {
        m_tracer->catchUp();
        RecordingChannelsState::setState(id, text);
    }

private:
    Tracer* m_tracer; // not owned
};

class TracedJournal : public rig::RecordingJournal
{
public:
    TracedJournal(rig::CallLog* log, Tracer* tracer) : RecordingJournal(log), m_tracer(tracer) {}

    void addRecord(int kind, const QString& source, const QString& text) override
    {
        m_tracer->catchUp();
        RecordingJournal::addRecord(kind, source, text);
    }

private:
    Tracer* m_tracer; // not owned
};

// The test takes nothing off the line itself: the tracer does.
class WorkerOrder : public WorkerTest
{
protected:
    WorkerOrder()
    {
        server.channelsState = &tracedState;
        server.journal = &tracedJournal;
    }
    ~WorkerOrder() override
    {
        // The worker still calls the traced objects.
        if (worker) {
            EXPECT_TRUE(stopAndWait());
        }
        worker.reset();
    }

    void startAnswered()
    {
        modem.setDsr(true);
        start();
        ASSERT_TRUE(waitForEvent(QStringLiteral("journal Запись команды 'AT'")));
        modem.reply("OK\r\n");
        ASSERT_TRUE(waitForState(CComThread::LineFree));
        ASSERT_TRUE(waitForEvent(QStringLiteral("journal Получен ответ 'OK' на команду 'AT'")));
        forgetEvents();
    }
    // The free line has read what came and has looked at its timer: an error that is raised
    // now waits for the end of that look, which is made under the worker's lock.
    void seeAPassOverTheFreeLine()
    {
        modem.reply("NOISE\r\n");
        ASSERT_TRUE(waitForTraced(QStringLiteral("log Чтение команды: NOISE")));
        forgetEvents();
    }
    // For what the worker does without a call to the host.
    bool waitForTraced(const QString& event)
    {
        return waitFor([&] {
            tracer.catchUp();
            return events().contains(event);
        });
    }
    void expectTrace(const QStringList& expected)
    {
        ASSERT_TRUE(waitForEvent(expected.last()));
        QStringList found = events();
        // Thrown away with the port's closing if nobody takes it in time.
        found.removeAll(QStringLiteral("wrote ~ATH~"));
        EXPECT_EQ(joined(found.mid(0, expected.size())), joined(expected));
    }

    Tracer tracer{&log, &modem};
    TracedChannelsState tracedState{&log, &tracer};
    TracedJournal tracedJournal{&log, &tracer};
};

QStringList reported(const QString& text)
{
    return {QStringLiteral("state ") + text, QStringLiteral("journal ") + text};
}

QStringList loggedAndReported(const QString& text)
{
    return QStringList{QStringLiteral("log ") + text} + reported(text);
}

} // namespace

// --- order ------------------------------------------------------------------------------

TEST_F(WorkerOrder, FromTheStartToTheFreeLine)
{
    modem.setDsr(true);
    ComPortSettings settings = usualSettings();
    settings.initString = QStringLiteral("ATZ");
    start(settings);
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Запись команды 'AT'")));
    modem.reply("Hello\r\n");
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Запись команды 'AT'"), 2));
    modem.reply("OK\r\n");
    QStringList expected{QStringLiteral("add Инициализация"), QStringLiteral("state Открытие COM порта")};
    expected << loggedAndReported(QStringLiteral("COM порт открыт"))
             << QStringLiteral("journal Отправка строки инициализации: ATZ")
             << QStringLiteral("log Запись команды: ATZ")
             << QStringLiteral("log Устройство на COM порту 'PORT' готово. Проверяем AT - OK.")
             << QStringLiteral("wrote ATZ") << reported(QStringLiteral("Устройство включено"))
             << QStringLiteral("log Запись команды: AT") << QStringLiteral("journal Запись команды 'AT'")
             << QStringLiteral("log Чтение команды: Hello")
             << QStringLiteral("log Неверный ответ на команду 'AT': Hello") << QStringLiteral("wrote AT~")
             << reported(QStringLiteral("Неверный ответ на команду 'AT': Hello"))
             << QStringLiteral("log Запись команды: AT") << QStringLiteral("journal Запись команды 'AT'")
             << QStringLiteral("log Чтение команды: OK") << QStringLiteral("wrote AT~")
             << QStringLiteral("state Свободен") << QStringLiteral("log Получен ответ 'OK' на команду AT")
             << QStringLiteral("journal Получен ответ 'OK' на команду 'AT'");
    expectTrace(expected);
}

TEST_F(WorkerOrder, ParameterThatThePortRefuses)
{
    ComPortSettings settings = usualSettings();
    settings.baudRate = 0;
    start(settings);
    // The port's own error is told by the server's thread, whenever that comes to it.
    const QString failure = QStringLiteral("Не удалось изменить скорость COM порта. Invalid baud rate value");
    const QString portError = QStringLiteral("COM port error: 10. Invalid baud rate value");
    for (const QString& text : {failure, portError}) {
        ASSERT_TRUE(waitForEvent(QStringLiteral("error ") + text));
        const QStringList found = events();
        EXPECT_EQ(found.count(QStringLiteral("log ") + text), 1);
        EXPECT_LT(found.indexOf(QStringLiteral("log ") + text), found.indexOf(QStringLiteral("error ") + text));
    }
}

TEST_F(WorkerOrder, SilentModem)
{
    writeDetails({QStringLiteral("transportComAtOkTimeout=20")});
    modem.setDsr(true);
    start();
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Нет ответа на команду 'AT'")));
    const QStringList found = events();
    EXPECT_EQ(joined(found.mid(found.indexOf(QStringLiteral("journal Запись команды 'AT'")))),
              joined(QStringList{QStringLiteral("journal Запись команды 'AT'"),
                                 QStringLiteral("log Нет ответа на команду 'AT'"), QStringLiteral("wrote AT~")} +
                     reported(QStringLiteral("Нет ответа на команду 'AT'"))));
}

TEST_F(WorkerOrder, PortThatCannotBeOpened)
{
    ComPortSettings settings = usualSettings();
    settings.portName = rig::installRoot() + QStringLiteral("/nothing");
    start(settings);
    expectTrace(QStringList{QStringLiteral("add Инициализация"), QStringLiteral("state Открытие COM порта")} +
                loggedAndReported(QStringLiteral("Ошибка открытия COM порта. No such file or directory")));
}

TEST_F(WorkerOrder, DeviceSwitchedOff)
{
    startAnswered();
    modem.setDsr(false);
    expectTrace(QStringList{QStringLiteral("log Устройство на COM порту 'PORT' выключено")} +
                reported(QStringLiteral("COM порт открыт")));
}

TEST_F(WorkerOrder, ErrorOfThePort)
{
    writeDetails({QStringLiteral("transportComResetTimeout=60000")});
    startAnswered();
    ASSERT_NO_FATAL_FAILURE(seeAPassOverTheFreeLine());
    raiseError(QSerialPort::ReadError);
    // The line's timer runs, so that no "+++" is written.
    modem.reply("OK\r\n");
    expectTrace({QStringLiteral("log COM port error: 8."), QStringLiteral("error COM port error: 8. "),
                 QStringLiteral("log Чтение команды: OK"), QStringLiteral("state Открытие COM порта")});
}

TEST_F(WorkerOrder, OutgoingCallThatFails)
{
    writeDetails({QStringLiteral("transportComResetTimeout=60000")});
    startAnswered();
    ASSERT_TRUE(worker->tryConnect(QStringLiteral("A"), QStringLiteral("123")));
    ASSERT_TRUE(waitForState(CComThread::WaitingForConnect));
    modem.setDsr(false);
    modem.reply("BUSY\r\n");
    ASSERT_TRUE(waitForEvent(QStringLiteral("notConnected A")));
    ASSERT_TRUE(waitForTraced(QStringLiteral("wrote +++")));
    modem.reply("OK\r\n");
    const QString busy = QStringLiteral("Не удалось установить соединение: BUSY");
    expectTrace(QStringList{QStringLiteral("state Вызов 'A' (123)"), QStringLiteral("log Запись команды: ATD123"),
                            QStringLiteral("journal Вызов 'A' (123). Запись команды: ATD123"),
                            QStringLiteral("log Чтение команды: BUSY"), QStringLiteral("wrote ATD123~")} +
                reported(busy) +
                QStringList{QStringLiteral("notConnected A"), QStringLiteral("log Запись команды: +++, ATH. Reseting."),
                            QStringLiteral("wrote +++"), QStringLiteral("log Чтение команды: OK"),
                            QStringLiteral("state Открытие COM порта")} +
                loggedAndReported(QStringLiteral("COM порт открыт")));
}

TEST_F(WorkerOrder, IncomingSession)
{
    factory->onStart = [](ScriptedProtocol* protocol) { protocol->finish(true); };
    startAnswered();
    modem.reply("RING\r\n");
    ASSERT_TRUE(waitForState(CComThread::WaitingForConnect));
    modem.reply("CONNECT 9600\r\n");
    const QString connected = QStringLiteral("Соединение установлено: CONNECT 9600");
    expectTrace(QStringList{QStringLiteral("log Чтение команды: RING"), QStringLiteral("state Входящий вызов"),
                            QStringLiteral("log Запись команды: ATA"),
                            QStringLiteral("journal Входящий вызов. Запись команды: ATA"),
                            QStringLiteral("log Чтение команды: CONNECT 9600"), QStringLiteral("log ") + connected,
                            QStringLiteral("wrote ATA~")} +
                reported(connected) +
                QStringList{QStringLiteral("protocol start ||PORT"),
                            QStringLiteral("log Потеряно соединение с абонентом ''"),
                            QStringLiteral("journal Потеряно соединение с абонентом ''"),
                            QStringLiteral("protocol deleted keepAlive=0")});
}

// --- categories -------------------------------------------------------------------------

namespace {

struct Category
{
    const char* key;
    QStringList missing; // the lines that switching it off takes out of a call's log
};

std::ostream& operator<<(std::ostream& out, const Category& category)
{
    return out << category.key;
}

void switchOff(const char* key, const QStringList& details = {})
{
    writeDetails(details + QStringList{QStringLiteral("[Debug]"), QLatin1String(key) + QStringLiteral("=false")});
}

} // namespace

class WorkerLogCategory : public WorkerTest, public testing::WithParamInterface<Category>
{
};

TEST_P(WorkerLogCategory, HoldsItsLinesAlone)
{
    switchOff(GetParam().key);
    ComPortSettings settings = usualSettings();
    settings.baudRate = 0;
    const QString portError = QStringLiteral("error COM port error: 10. Invalid baud rate value");
    modem.setDsr(true);
    start(settings);
    // Told by this thread, and so here or in the waits below.
    ASSERT_TRUE(waitForEvent(portError));
    ASSERT_TRUE(answerChecks());
    ASSERT_TRUE(worker->tryConnect(QStringLiteral("A"), QStringLiteral("123")));
    ASSERT_TRUE(modem.expectWritten("ATD123\r"));
    modem.reply("CONNECT 9600\r\n");
    ASSERT_TRUE(waitForEvent(QStringLiteral("protocol start A|a|PORT")));
    factory->protocol()->finish(true);
    ASSERT_TRUE(modem.expectWritten("+++"));
    ASSERT_TRUE(stopAndWait());

    QStringList expected{
        QStringLiteral("COM порт открыт"),
        QStringLiteral("Не удалось изменить скорость COM порта. Invalid baud rate value"),
        QStringLiteral("COM port error: 10. Invalid baud rate value"),
        QStringLiteral("Устройство на COM порту '%1' готово. Проверяем AT - OK.").arg(modem.portPath()),
        QStringLiteral("Запись команды: AT"),
        QStringLiteral("Чтение команды: OK"),
        QStringLiteral("Получен ответ 'OK' на команду AT"),
        QStringLiteral("Запись команды: ATD123"),
        QStringLiteral("Чтение команды: CONNECT 9600"),
        QStringLiteral("Соединение установлено: CONNECT 9600"),
        QStringLiteral("Потеряно соединение с абонентом 'A'"),
        QStringLiteral("Запись команды: +++, ATH. Reseting.")};
    for (QString line : GetParam().missing)
        EXPECT_EQ(expected.removeAll(line.replace(QStringLiteral("PORT"), modem.portPath())), 1) << line.toStdString();
    QStringList found = logTexts();
    // The port's error stands wherever the two threads have put it.
    expected.sort();
    found.sort();
    EXPECT_EQ(joined(found), joined(expected));
}

INSTANTIATE_TEST_SUITE_P(
    Categories, WorkerLogCategory,
    testing::Values(Category{"transportConnects", {QStringLiteral("Потеряно соединение с абонентом 'A'")}},
                    Category{"transportComPortError", {QStringLiteral("COM port error: 10. Invalid baud rate value")}},
                    Category{"transportComAtCommands",
                             {QStringLiteral("Устройство на COM порту 'PORT' готово. Проверяем AT - OK."),
                              QStringLiteral("Запись команды: AT"), QStringLiteral("Чтение команды: OK"),
                              QStringLiteral("Получен ответ 'OK' на команду AT"),
                              QStringLiteral("Запись команды: ATD123"), QStringLiteral("Чтение команды: CONNECT 9600"),
                              QStringLiteral("Запись команды: +++, ATH. Reseting.")}}));

class WorkerAtCommandsCategory : public WorkerTest
{
};

TEST_F(WorkerAtCommandsCategory, HoldsTheChecksThatFail)
{
    switchOff("transportComAtCommands", {QStringLiteral("transportComAtOkTimeout=600")});
    modem.setDsr(true);
    ComPortSettings settings = usualSettings();
    settings.initString = QStringLiteral("ATZ\r");
    start(settings);
    ASSERT_TRUE(modem.expectWritten("ATZ\rAT\r"));
    ASSERT_TRUE(waitForEvent(QStringLiteral("journal Нет ответа на команду 'AT'")));
    const QString wrong = QStringLiteral("journal Неверный ответ на команду 'AT': Hello");
    ASSERT_TRUE(waitFor([&] {
        if (modem.written().size() >= 3 && modem.expectWritten("AT\r"))
            modem.reply("Hello\r\n");
        return events().contains(wrong);
    }));
    EXPECT_EQ(joined(logTexts()), "COM порт открыт");
}

TEST_F(WorkerAtCommandsCategory, HoldsTheAnswerToACallAndTheDevicesLoss)
{
    switchOff("transportComAtCommands");
    startIncoming();
    modem.reply("BUSY\r\n");
    ASSERT_TRUE(modem.expectWritten("+++"));
    modem.reply("OK\r\n");
    ASSERT_TRUE(modem.expectWritten("\rATH\r"));
    ASSERT_TRUE(answerChecks());
    modem.setDsr(false);
    ASSERT_TRUE(waitForState(CComThread::WaitingForDevice));
    EXPECT_EQ(joined(logTexts()), "COM порт открыт\nCOM порт открыт");
}
