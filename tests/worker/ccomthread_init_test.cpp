// What follows an init string whose "OK" comes late.
#include "rig/deadline.h"
#include "rig/testroot.h"
#include "tests/worker/workertest.h"

#include <QElapsedTimer>

#include <atomic>
#include <functional>
#include <future>

using rig::waitFor;

namespace {

const QString okRead = QStringLiteral("Чтение команды: OK");
const QString okTaken = QStringLiteral("Получен ответ 'OK' на команду AT");

// Calls back in the worker's own thread, for each line that it has read, before it goes on.
class ReadLines
{
public:
    explicit ReadLines(std::function<void(const QString& text)> onLine) : m_onLine(std::move(onLine))
    {
        current = this;
        m_previous = qInstallMessageHandler(handle);
    }
    ~ReadLines()
    {
        qInstallMessageHandler(m_previous);
        current = nullptr;
    }
    Q_DISABLE_COPY(ReadLines)

private:
    static void handle(QtMsgType, const QMessageLogContext&, const QString& text)
    {
        if (text.contains(QStringLiteral("Чтение команды: ")))
            current->m_onLine(text);
    }

    inline static ReadLines* current = nullptr; // not owned
    const std::function<void(const QString& text)> m_onLine;
    QtMessageHandler m_previous;
};

class WorkerInit : public WorkerTest
{
protected:
    ~WorkerInit() override
    {
        // It calls back into the test.
        if (worker) {
            EXPECT_TRUE(stopAndWait());
        }
    }
    // Up to the written "AT"; the string ends in the control symbol, so that the modem answers it.
    void startWithInit()
    {
        modem.setDsr(true);
        ComPortSettings settings = usualSettings();
        settings.initString = QStringLiteral("ATZ\r");
        start(settings);
        ASSERT_TRUE(modem.expectWritten("ATZ\rAT\r"));
    }
    QStringList linesReadAndTaken() const
    {
        QStringList found;
        for (const QString& text : logTexts()) {
            if (text.startsWith(QStringLiteral("Чтение")) || text == okTaken)
                found.append(text);
        }
        return found;
    }
};

} // namespace

// The second "OK" stands in the port before the first has been acted on.
TEST_F(WorkerInit, LateOkIsReadBeforeTheLineIsFree)
{
    std::atomic<int> lines{0};
    const ReadLines readLines([&](const QString&) {
        if (++lines == 1)
            modem.reply("\r\nOK\r\n");
    });
    startWithInit();
    modem.reply("\r\nOK\r\n");
    ASSERT_TRUE(waitForState(CComThread::LineFree));
    EXPECT_EQ(joined(linesReadAndTaken()), joined({okRead, okRead, okTaken}));
    QStringList expected = eventsOfStart();
    expected.insert(4, QStringLiteral("journal Отправка строки инициализации: ATZ\r"));
    expectEvents(expected);
}

TEST_F(WorkerInit, AnswersAreDroppedFor300Milliseconds)
{
    startWithInit();
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitForState(CComThread::LineFree));
    QList<LogLine> found;
    for (const LogLine& line : logLines()) {
        if (line.text == okRead || line.text == okTaken)
            found.append(line);
    }
    ASSERT_EQ(found.size(), 2);
    EXPECT_GE(logTimeBetween(found.at(0), found.at(1)), 300 - 1); // stamps are cut to milliseconds
}

TEST_F(WorkerInit, WithoutAnInitStringNothingIsWaitedFor)
{
    std::atomic<int> lines{0};
    const ReadLines readLines([&](const QString&) {
        if (++lines == 1)
            modem.reply("Hello\r\n");
    });
    modem.setDsr(true);
    start();
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitFor([&] { return logTexts().contains(QStringLiteral("Чтение команды: Hello")); }));
    EXPECT_EQ(joined(linesReadAndTaken()), joined({okRead, okTaken, QStringLiteral("Чтение команды: Hello")}));
    EXPECT_TRUE(stopAndWait()); // before what it calls back is gone
}

// The checks of a line that has been free ask a modem that has nothing left to say.
TEST_F(WorkerInit, LaterChecksWaitForNothing)
{
    writeDetails({QStringLiteral("transportComAtReadyCheckTimeout=20")});
    std::atomic<int> lines{0};
    const ReadLines readLines([&](const QString&) {
        if (++lines == 2)
            modem.reply("Hello\r\n");
    });
    startWithInit();
    modem.reply("OK\r\n");
    ASSERT_TRUE(modem.expectWritten("AT\r"));
    modem.reply("OK\r\n");
    ASSERT_TRUE(waitFor([&] { return logTexts().contains(QStringLiteral("Чтение команды: Hello")); }));
    EXPECT_EQ(joined(linesReadAndTaken().mid(0, 5)),
              joined({okRead, okTaken, okRead, okTaken, QStringLiteral("Чтение команды: Hello")}));
    EXPECT_TRUE(stopAndWait()); // before what it calls back is gone
}

TEST_F(WorkerInit, RingAmongTheLateAnswersIsAnswered)
{
    std::atomic<int> lines{0};
    const ReadLines readLines([&](const QString&) {
        if (++lines == 1)
            modem.reply("OK\r\nRING\r\nOK\r\n");
    });
    startWithInit();
    modem.reply("OK\r\n");
    ASSERT_TRUE(modem.expectWritten("ATA\r"));
    EXPECT_EQ(joined(linesReadAndTaken()),
              joined({okRead, okRead, QStringLiteral("Чтение команды: RING"), okRead, okTaken}));
    modem.reply("CONNECT 9600\r\n");
    ASSERT_TRUE(waitForEvent(QStringLiteral("state Соединение установлено: CONNECT 9600")));
}

// A call that waits for the line is placed as soon as that is free; how late the "OK" comes does
// not matter.
class LateOk : public WorkerInit, public testing::WithParamInterface<int>
{
};

TEST_P(LateOk, DoesNotFailTheCallThatWaits)
{
    const int delayMs = GetParam();
    constexpr int droppedForMs = 300;
    constexpr int attempts = 20;
    bool isInTime = false;
    for (int attempt = 0; attempt < attempts && !isInTime; ++attempt) {
        std::promise<void> firstRead;
        std::atomic<int> lines{0};
        QElapsedTimer sinceFirst; // the worker's until the promise is kept
        std::future<bool> late;
        {
            const ReadLines readLines([&](const QString&) {
                if (++lines == 1) {
                    sinceFirst.start();
                    firstRead.set_value();
                }
            });
            ASSERT_NO_FATAL_FAILURE(startWithInit());
            late = std::async(std::launch::async, [&] {
                firstRead.get_future().wait();
                while (sinceFirst.elapsed() < delayMs)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                modem.reply("OK\r\n");
                return sinceFirst.elapsed() < droppedForMs;
            });
            modem.reply("OK\r\n");
            ASSERT_TRUE(waitFor([&] { return worker->tryConnect(QStringLiteral("A"), QStringLiteral("123")); }));
            isInTime = late.get();
        }
        // A sender that was kept from its turn until the time was over proves nothing.
        if (isInTime) {
            ASSERT_TRUE(modem.expectWritten("ATD123\r"));
            modem.reply("CONNECT 9600\r\n");
            ASSERT_TRUE(waitForEvent(QStringLiteral("state Соединение установлено: CONNECT 9600")));
            EXPECT_TRUE(events().filter(QStringLiteral("Не удалось")).isEmpty());
        }
        if (!isInTime) {
            ASSERT_TRUE(stopAndWait());
            while (!modem.written().isEmpty())
                modem.expectWritten(modem.written());
        }
    }
    EXPECT_TRUE(isInTime) << "no late answer came in time in " << attempts << " attempts";
}

INSTANTIATE_TEST_SUITE_P(Delays, LateOk, testing::Values(0, 20, 80, 150, 220));
