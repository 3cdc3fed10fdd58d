// A telephone exchange in software: any number of virtual modems on ptys, each with a
// number, and calls between them over telephone lines with a rate, a delay, noise and an end.
//
// One thread of its own does all the work; every public operation may be called from any
// thread, before start(), while it runs and after stop(), and takes effect before it
// returns. Modems are counted from 1.
#pragma once

#include "sim/exchange/calls.h"
#include "sim/exchange/taskqueue.h"
#include "sim/modem/virtualmodem.h"

#include <QString>
#include <QVector>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

struct pollfd;

namespace sim {

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
    int modemSignals = 0;
    int programSignals = 0;
    int baudRate = 0;
    ModemFaults faults;
};

class Exchange : private CallsHost
{
public:
    using Observer = std::function<void(const ExchangeEvent& event)>;

    explicit Exchange(const CallSettings& settings = {});
    ~Exchange() override; // stops it
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
    QString say(int modem, const QString& text); // text from the modem to its program

    LineSettings line() const;
    // Calls that have ended, in the order of their ends.
    QVector<CallStatistics> endedCalls() const;
    // How many calls are going on, with those that only ring.
    int activeCalls() const;

private:
    // The thread.
    void run();
    qint64 step(qint64 nowNs);
    void report();
    void waitForWork(qint64 nowNs, qint64 wakeNs);
    void stepModem(VirtualModem& modem, qint64 nowNs);
    void serve(VirtualModem& modem, qint64 nowNs);

    // Commands.
    QString onModem(int modem, const std::function<QString(VirtualModem&)>& action);
    QString setFault(int modem, bool ModemFaults::*fault, bool set, const QString& text);
    VirtualModem* find(int modem) const;
    void detach(VirtualModem& modem);

    CallParty* partyAt(const QString& number) override;
    void tell(int modem, const QString& text) override;
    qint64 nowNs() const;

    const qint64 m_originNs;
    Observer m_observer;

    // Of the thread that works, which is the caller's own while none runs.
    std::vector<std::unique_ptr<VirtualModem>> m_modems;
    Calls m_calls;
    std::vector<ExchangeEvent> m_events;
    std::vector<pollfd> m_polled;

    mutable TaskQueue m_tasks;
    std::thread m_thread;
    std::atomic<bool> m_stopping{false};
};

} // namespace sim
