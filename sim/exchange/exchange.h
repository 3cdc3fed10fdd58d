// A telephone exchange in software: any number of virtual modems on ptys, each with a
// number, and calls between them over lines with a rate, a delay, noise and an end.
//
// One thread of its own does all the work; every public operation may be called from any
// thread, before start(), while it runs and after stop(), and takes effect before it
// returns. Modems are counted from 1.
#pragma once

#include "sim/line/callstatistics.h"
#include "sim/line/linesettings.h"
#include "sim/modem/virtualmodem.h"

#include <QString>
#include <QVector>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

struct pollfd;

namespace sim {

struct ExchangeSettings
{
    LineSettings line; // of every call, until changeLine()
    int ringIntervalMs = 5000; // from the beginning of one ring to that of the next
    int ringLengthMs = 1000; // how long RI stands, for modems that raise it
    int noAnswerAfterMs = 60000; // of ringing; S7 of the caller may make it shorter
    int trainingMs = 0; // from the answer to CONNECT
};

struct ExchangeEvent
{
    qint64 timeNs = 0; // since the exchange was made
    int modem = 0; // 0: the exchange itself
    QString text;
};

struct ModemStatus
{
    QString number;
    QString portPath;
    ModemState state = ModemState::OnHook;
    bool plugged = false;
    bool powered = false;
    int modemLines = 0;
    int programLines = 0;
    int baudRate = 0;
    ModemFaults faults;
};

class Exchange
{
public:
    using Observer = std::function<void(const ExchangeEvent& event)>;

    explicit Exchange(const ExchangeSettings& settings = {});
    ~Exchange(); // stops it
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    // Called in the exchange's thread for all that happens; it may use the exchange. To be
    // set before start().
    void setObserver(Observer observer);

    // The new modem, powered and plugged in, or 0, and *error says why: the number is
    // taken or has no digits, or its pty cannot be made.
    int addModem(const ModemSettings& settings, QString* error);
    int modemCount() const;
    // What a program opens; empty for a modem that there is not.
    QString portPath(int modem) const;
    ModemStatus status(int modem) const;

    void start();
    // Ends all calls and the thread. The ports stay until the exchange is deleted.
    void stop();

    // Commands. Each returns an empty text, or what is wrong.
    QString dropCarrier(int modem); // of the modem's call; both sides lose carrier
    QString setSilent(int modem, bool on); // takes everything, answers nothing
    QString setPowered(int modem, bool on); // off: DSR falls, the port stays
    QString unplug(int modem); // the port fails and its link is gone
    QString plugIn(int modem);
    QString setBusy(int modem, bool on); // callers hear busy
    QString setDialTone(int modem, bool on); // off: its calls end in no dial tone
    QString setAnswering(int modem, bool on); // off: it is not told of calls
    QString setNoise(int modem, bool on); // of its lines; 0: of all; at once
    QString changeLine(const QString& text); // of calls dialled later; see LineSettings::change
    QString ring(int modem, int times); // by nobody: answering it finds no carrier
    QString say(int modem, const QString& text); // a line of text from the modem to its program

    LineSettings line() const;
    // Calls that have ended, in the order of their ends.
    QVector<CallStatistics> endedCalls() const;
    // How many calls are going on, with those that only ring.
    int activeCalls() const;

private:
    struct Call;
    using CallPtr = std::unique_ptr<Call>;

    // The thread.
    void run();
    qint64 step(qint64 nowNs);
    void runTasks();
    void perform(const std::function<void()>& task) const;
    void wakeThread() const;
    void report();
    void waitForWork(qint64 nowNs, qint64 wakeNs);
    QString onModem(int modem, const std::function<QString(VirtualModem&)>& action);

    // Modems.
    VirtualModem* find(int modem) const;
    void stepModem(VirtualModem& modem, qint64 nowNs);
    void serve(VirtualModem& modem, qint64 nowNs);
    bool isPaced(const VirtualModem& modem) const;
    void detach(VirtualModem& modem);

    // Calls.
    Call* callOf(const VirtualModem& modem) const;
    Call* callRinging(const VirtualModem& modem) const;
    void beginCall(VirtualModem& caller, const QString& number, qint64 pauseNs, qint64 nowNs);
    void placeCall(Call& call, qint64 nowNs);
    void answerCall(VirtualModem& called, qint64 nowNs);
    void connectCall(Call& call, qint64 nowNs);
    void hangUp(VirtualModem& modem, qint64 nowNs);
    void failCall(Call& call, CallFailure failure, const QString& why);
    void loseCarrier(Call& call, const QString& why);
    void endCall(Call& call, const QString& why);
    void endAllCalls();
    void stepCall(Call& call, qint64 nowNs);
    void stepRinging(Call& call, qint64 nowNs);
    void stepConnected(Call& call, qint64 nowNs);
    void stepEnding(Call& call, qint64 nowNs);
    void pump(VirtualModem* from, VirtualModem* to, Call& call, LineDirection& direction, qint64 nowNs);
    void deliverDue(VirtualModem* to, Call& call, LineDirection& direction, qint64 nowNs);
    void updateNoise(Call& call);
    qint64 nextCallEventNs(const Call& call) const;
    void tell(int modem, const QString& text) const;
    qint64 nowNs() const;

    const ExchangeSettings m_settings;
    const qint64 m_originNs;
    Observer m_observer;

    // Of the thread that works, which is the caller's own while none runs.
    LineSettings m_line;
    std::vector<std::unique_ptr<VirtualModem>> m_modems;
    std::vector<CallPtr> m_calls;
    QVector<CallStatistics> m_endedCalls;
    mutable std::vector<ExchangeEvent> m_events;
    std::vector<pollfd> m_polled;
    int m_callCount = 0;
    int m_droppedCalls = 0;

    // Between threads.
    int m_wakeFd = -1;
    std::thread m_thread;
    std::atomic<bool> m_stopping{false};
    struct Task
    {
        const std::function<void()>* work;
        bool done;
    };
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_taskDone;
    mutable std::deque<Task*> m_tasks; // guarded by m_mutex
    std::thread::id m_worker; // guarded by m_mutex; none while no thread runs
};

} // namespace sim
