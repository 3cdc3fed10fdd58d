// The errors of a serial port on their way from the worker's thread, where they are raised,
// to the server's thread, which reports them and reacts to them.
#pragma once

#include <QList>
#include <QMutex>
#include <QSerialPort>
#include <QString>

#include <atomic>
#include <optional>

// An error as it was when it was raised: by the time the server's thread learns of it the
// port may tell another text, be closed, or be opened anew.
struct PortError
{
    QSerialPort::SerialPortError code = QSerialPort::NoError;
    QString text;
    int state = 0; // the worker's
    int opening = 0; // which opening of the port raised it
};

// Keeps a port that has lost its device, and raises the same error hundreds of thousands
// of times a second, from flooding the server's thread: of each code one error passes until
// the reset that it asks for has been made.
class PortErrors
{
public:
    // No error at all, and those that show themselves by silence and by the modem lines: time-outs
    // of waits, and what an unplugged port says in every pass. Any thread.
    static bool isIgnored(QSerialPort::SerialPortError code);

    // The worker's thread, when the port raises code. True if the error is to be passed on;
    // then take() gives it. One raised while the port is being opened (portIsInUse is false)
    // asks for no reset and holds nothing back.
    bool note(QSerialPort::SerialPortError code, const QSerialPort& port, int state, bool portIsInUse);

    // The worker's thread: the port is closed, and so whatever reset was to come has been made.
    void portClosed();

    // Any thread: the oldest error noted with this code and not yet taken.
    std::optional<PortError> take(QSerialPort::SerialPortError code);

    // Any thread: whether the port has not been closed since error was raised.
    bool isOfThisOpening(const PortError& error) const { return error.opening == m_opening; }
    int opening() const { return m_opening; }

private:
    QMutex m_mutex; // guards m_noted; a leaf
    QList<PortError> m_noted;
    std::atomic<int> m_opening{0};
    unsigned m_heldBack = 0; // codes (as bits) whose reset is still to come; the worker's thread only
};
