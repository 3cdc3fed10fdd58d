// A worker from its thread's start to the free line, and how long it leaves a silent modem alone.
#pragma once

#include "rig/deadline.h"
#include "tests/worker/workertest.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QMutexLocker>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <thread>

// Measures the pause that follows the first silence after a record of this text. Beside the
// time it counts the steps of a thread that sleeps as the worker does: a busy machine
// stretches both alike.
class PauseMeter
{
public:
    struct Pause
    {
        qint64 ms;
        int steps;
    };

    explicit PauseMeter(const QString& beginsAfter) : m_beginsAfter(beginsAfter)
    {
        m_clock.start();
        m_stepper = std::thread([this] {
            while (!m_isOver) {
                QThread::msleep(stepMs);
                ++m_steps;
            }
        });
    }
    ~PauseMeter()
    {
        m_isOver = true;
        m_stepper.join();
    }
    Q_DISABLE_COPY(PauseMeter)

    static constexpr int stepMs = 10;

    // The worker's thread: what it has written into the journal.
    void take(const QString& text)
    {
        QMutexLocker locker(&m_mutex);
        if (text == m_beginsAfter) {
            m_pause.reset();
            m_hasBegun = true;
        } else if (text == QStringLiteral("Нет ответа на команду 'AT'")) {
            m_from = {m_clock.elapsed(), m_steps};
        } else if (text == QStringLiteral("Запись команды 'AT'") && m_hasBegun && m_from && !m_pause) {
            m_pause = {m_clock.elapsed() - m_from->ms, m_steps - m_from->steps};
        }
        if (text != QStringLiteral("Нет ответа на команду 'AT'"))
            m_from.reset();
    }
    std::optional<Pause> pause() const
    {
        QMutexLocker locker(&m_mutex);
        return m_pause;
    }

private:
    const QString m_beginsAfter;
    QElapsedTimer m_clock;
    std::atomic<int> m_steps{0};
    std::atomic<bool> m_isOver{false};
    mutable QMutex m_mutex; // guards the rest
    bool m_hasBegun = false;
    std::optional<Pause> m_from;
    std::optional<Pause> m_pause;
    std::thread m_stepper;
};

class WorkerStart : public WorkerTest
{
protected:
    ~WorkerStart() override
    {
        // Its journal calls the meter.
        if (worker) {
            EXPECT_TRUE(stopAndWait());
        }
    }
    void measurePauseAfter(const QString& record)
    {
        meter = std::make_unique<PauseMeter>(record);
        journal.onRecord = [this](const QString& text) { meter->take(text); };
    }
    // Answers each "AT" until that event is there.
    bool answerUntil(const QString& event, const QByteArray& answer)
    {
        return rig::waitFor([&] {
            if (modem.written().size() >= 3 && !events().contains(event)) {
                modem.expectWritten("AT\r");
                modem.reply(answer);
            }
            return events().contains(event);
        });
    }
    // The pause that comes next takes two seconds, not three or more.
    void expectTwoSeconds()
    {
        ASSERT_TRUE(rig::waitFor([&] { return meter->pause().has_value(); }));
        EXPECT_GE(meter->pause()->ms, 2000);
        EXPECT_LT(meter->pause()->steps, 250);
    }
    // As startFree(), for a line that is free for too short a time to be seen so.
    void startAndAnswerOnce()
    {
        modem.setDsr(true);
        start();
        ASSERT_TRUE(modem.expectWritten("AT\r"));
        modem.reply("OK\r\n");
        ASSERT_TRUE(waitForEvent(answeredEvent));
    }

    std::unique_ptr<PauseMeter> meter;
    const QString answeredEvent = QStringLiteral("journal Получен ответ 'OK' на команду 'AT'");
};

inline QStringList withoutPortErrors(QStringList events)
{
    events.erase(
        std::remove_if(events.begin(), events.end(),
                       [](const QString& event) { return event.startsWith(QStringLiteral("error COM port error")); }),
        events.end());
    return events;
}

// The lines of the log that read text.
inline QList<LogLine> logLinesWith(const QString& text)
{
    QList<LogLine> found;
    for (const LogLine& line : logLines()) {
        if (line.text == text)
            found.append(line);
    }
    return found;
}

inline const QString unanswered = QStringLiteral("Нет ответа на команду 'AT'");
inline const QString askedInLog = QStringLiteral("Запись команды: AT");
inline const QString unansweredEvent = QStringLiteral("journal Нет ответа на команду 'AT'");
