#include "com/portwait.h"

#include <poll.h>

#include <QElapsedTimer>
#include <QSerialPort>
#include <QThread>

namespace {

// Whether nothing came in timeoutMs, found out past the port: its own wait, when it times
// out, raises an error with a translated text, a hundred times a second on an idle port.
// Not with output pending, which the port's own wait sends meanwhile.
bool staysSilent(QSerialPort& port, int timeoutMs)
{
    if (port.handle() < 0 || port.bytesToWrite() > 0)
        return false;
    pollfd input{port.handle(), POLLIN, 0};
    return ::poll(&input, 1, timeoutMs) == 0;
}

} // namespace

bool waitForWritten(QSerialPort& port, int timeoutMs)
{
    return port.bytesToWrite() > 0 && port.waitForBytesWritten(timeoutMs);
}

bool waitForInput(QSerialPort& port, int timeoutMs)
{
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
