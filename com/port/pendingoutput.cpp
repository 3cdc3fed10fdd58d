#include "com/port/pendingoutput.h"

#include <QSerialPort>

#include <sys/ioctl.h>

qint64 pendingOutput(const QSerialPort& port)
{
    int inDriver = 0;
    const int handle = port.handle();
    if (handle >= 0 && ioctl(handle, TIOCOUTQ, &inDriver) != 0)
        inDriver = 0;
    return port.bytesToWrite() + inDriver;
}
