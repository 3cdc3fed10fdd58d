// The port worker: one thread per serial port that opens and configures the port, talks
// to the modem, dials, answers, runs a connection and hangs up.
#pragma once

#include "com/formats/comsettings.h"
#include "com/port/porterrors.h"
#include "com/worker/portconnection.h"
#include "com/worker/portreports.h"

#include <QMutex>
#include <QSerialPort>
#include <QString>
#include <QThread>

#include <atomic>

class CChannelServer;
struct PassState;

// Made, started and deleted by the server; lives in the server's thread, while run() is
// the worker's own thread. The server must outlive its workers, and its channelsState,
// journal and protocolFactory must be set before start().
class CComThread : public QThread
{
    Q_OBJECT

public:
    enum State
    {
        PortClosed = 0, // to be opened
        WaitingForDevice = 1, // open, DSR is off
        CheckingDevice = 2, // "AT" is written, "OK" expected
        LineFree = 3, // waits for a call
        CallRequested = 4, // handed a call by tryConnect()
        WaitingForConnect = 5, // "ATD" or "ATA" is written, "CONNECT " expected; also the connection itself
        ResettingModem = 6, // hangs up and closes the port
    };

    // Keeps a copy of settings; server is not owned. The connection identifier is 0
    // until setConnectionId().
    CComThread(const ComPortSettings& settings, CChannelServer* server);

    // The thread must have ended. A protocol that a terminated thread left behind is not
    // deleted: the port below its channel is gone.
    ~CComThread() override;

    // The name of the connection in the server's signals. Set it before start().
    int connectionId() const { return m_connectionId; }
    void setConnectionId(int id) { m_connectionId = id; }

    // One of State. Any thread, lock-free; may be a moment old.
    int state() const { return m_state.load(); }

    // As in the settings: "ttyS0" or a path. Any thread.
    QString portName() const { return m_settings.portName; }

    // The party of the current call; empty for an incoming call whose party has not told
    // its name, and the last party when there is no call. Any thread; never waits long.
    QString abonentName() const;

    // Takes the call if the line is free: stores both names and returns true. Otherwise
    // returns false and changes nothing. The outcome comes through the server's signals.
    // Any thread; may wait half a second for the worker's lock.
    bool tryConnect(const QString& abonentName, const QString& number);

    // Asks the session of the running connection to end; does nothing while there is none,
    // not even while dialling. Any thread; calls the protocol's stop() from it.
    void disconnectFromAbonent();

    // Asks the thread to end, and the session of a running connection with it. Returns
    // without waiting for that; may be called before start(). Any thread.
    void stop();

    // Sets keepAlive of the running session, if there is one. Any thread; does not wait
    // behind a session that is being made or ended.
    void keepAlive();

protected:
    void run() override;

private slots:
    // Runs in the server's thread for every port error that needs a reaction.
    void comPortError(QSerialPort::SerialPortError error);

    // Runs in the server's thread when the peer has told its name, or in whatever thread
    // the protocol speaks from: it must not take m_mutex.
    void remoteAbonentNameChanged(QString name);

private:
    enum class SessionStart
    {
        Running,
        Refused, // the host made no protocol
        CalledOff, // a stop or a forced reset came before it
    };

    // The states' handlers; each is called only in its state.
    void openPort(PassState& pass);
    void waitForDevice(PassState& pass);
    void checkDevice(PassState& pass);
    void serveFreeLine(PassState& pass);
    void dial(PassState& pass);
    void awaitConnect(PassState& pass);
    void resetModem(PassState& pass);
    // What may happen in any pass.
    void reopenClosedPort(PassState& pass);
    void resetOnCarrier(PassState& pass);
    void leaveFreeOnDsrLoss(PassState& pass);

    bool closeVanishedPort(QSerialPort& port);
    void startCheck(PassState& pass);
    void checkUnanswered(PassState& pass);
    void readCheckAnswer(PassState& pass);
    void dropLateAnswers(PassState& pass);
    void answerCall(PassState& pass);
    void connectFailed(PassState& pass, const QString& text);
    void runConnection(PassState& pass);
    SessionStart startSession(QSerialPort& port);
    void deleteProtocol();
    void hangUpOnExit(PassState& pass);

    void portErrorOccurred(const QSerialPort& port, QSerialPort::SerialPortError code);
    PortError noted(QSerialPort::SerialPortError code);

    bool moveState(State from, State to);
    bool stopRequested() const { return m_stopRequested.load(); }
    void pause(int pauseMs) const;

    const ComPortSettings m_settings;
    int m_connectionId = 0;
    CChannelServer* const m_server; // not owned
    PortReports m_reports;
    PortConnection m_connection; // its protocol is made, stopped and deleted under m_mutex

    // Both are read without a lock in every pass, and the state by the server as well.
    // Set under m_mutex, or by compare-and-set, so that a call that tryConnect() took
    // and a reset that an error forced are never overwritten.
    std::atomic<bool> m_stopRequested{false};
    std::atomic<int> m_state{PortClosed};

    mutable QMutex m_mutex; // guards what tryConnect(), disconnectFromAbonent() and stop() look at
    QString m_number; // written under m_mutex in state LineFree, read in CallRequested

    PortErrors m_errors; // on their way to comPortError()

    static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);
    static_assert(sizeof(std::atomic<bool>) == sizeof(bool) && sizeof(std::atomic<int>) == sizeof(int));
};
