#include "com/port/portwait.h"

#include <QElapsedTimer>
#include <QSerialPort>
#include <QThread>

#include <algorithm>
#include <poll.h>

namespace {

constexpr int inputTakenEveryMs = 20; // the kernel keeps 4096 bytes, 44 ms at 921600 bit/s

bool isReady(const QSerialPort& port, short event, int timeoutMs)
{
    pollfd asked{port.handle(), event, 0};
    return ::poll(&asked, 1, timeoutMs) != 0; // an error too: the port's own wait finds out which
}

// Whether the driver takes output within timeoutMs. The port's own wait would wake up for
// input as well: on a busy line for each few bytes, which nobody can use before a packet is
// whole. Input is taken now and then, so that none is lost.
bool takesOutput(QSerialPort& port, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        const int leftMs = std::max(0, timeoutMs - static_cast<int>(timer.elapsed()));
        if (isReady(port, POLLOUT, std::min(leftMs, inputTakenEveryMs)))
            return true;
        if (leftMs <= inputTakenEveryMs)
            return false;
        if (isReady(port, POLLIN, 0))
            port.waitForReadyRead(0);
    }
}

// Whether nothing came in timeoutMs, found out past the port: its own wait, when it times
// out, raises an error with a translated text, a hundred times a second on an idle port.
// Not with output pending, which the port's own wait sends meanwhile.
bool staysSilent(QSerialPort& port, int timeoutMs)
{
    if (port.handle() < 0 || port.bytesToWrite() > 0)
        return false;
    return !isReady(port, POLLIN, timeoutMs);
}

} // namespace

// A time of less than 0 would be for ever, to the port and to the system.

bool waitForWritten(QSerialPort& port, int timeoutMs)
{
    timeoutMs = std::max(0, timeoutMs);
    if (port.bytesToWrite() == 0)
        return false;
    if (port.handle() < 0)
        return port.waitForBytesWritten(timeoutMs);
    return takesOutput(port, timeoutMs) && port.waitForBytesWritten(0);
}

bool waitForInput(QSerialPort& port, int timeoutMs)
{
    timeoutMs = std::max(0, timeoutMs);
    if (staysSilent(port, timeoutMs))
        return false;
    QElapsedTimer timer;
    timer.start();
    if (port.waitForReadyRead(timeoutMs))
        return true;
    const QSerialPort::SerialPortError error = port.error();
    const qint64 leftMs = timeoutMs - timer.elapsed();
    if (error != QSerialPort::NoError && error != QSerialPort::TimeoutError && leftMs > 0)
        QThread::msleep(static_cast<unsigned long>(leftMs));
    return false;
}
