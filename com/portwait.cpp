#include "com/portwait.h"

#include <QElapsedTimer>
#include <QSerialPort>
#include <QThread>

bool waitForWritten(QSerialPort& port, int timeoutMs)
{
    return port.bytesToWrite() > 0 && port.waitForBytesWritten(timeoutMs);
}

bool waitForInput(QSerialPort& port, int timeoutMs)
{
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
