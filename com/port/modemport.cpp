#include "com/port/modemport.h"

#include <QFile>

#include <sys/stat.h>

namespace {

// Where QSerialPort looks for a port of this name.
QString deviceFilePath(const QString& portName)
{
    const bool isPath = portName.startsWith(QLatin1Char('/')) || portName.startsWith(QLatin1String("./")) ||
                        portName.startsWith(QLatin1String("../"));
    return isPath ? portName : QStringLiteral("/dev/") + portName;
}

} // namespace

QSerialPort::PinoutSignals modemLines(QSerialPort& port)
{
    return port.isOpen() ? port.pinoutSignals() : QSerialPort::PinoutSignals(QSerialPort::NoSignal);
}

bool deviceHasVanished(const QSerialPort& port, const QString& portName)
{
    struct stat opened
    {
    };
    struct stat named
    {
    };
    if (::fstat(port.handle(), &opened) != 0)
        return false;
    if (::stat(QFile::encodeName(deviceFilePath(portName)).constData(), &named) != 0)
        return true;
    return opened.st_dev != named.st_dev || opened.st_ino != named.st_ino || opened.st_rdev != named.st_rdev;
}

void shutPort(QSerialPort& port)
{
    // Closing a closed port raises an error.
    if (!port.isOpen())
        return;
    port.setDataTerminalReady(false);
    port.clear(QSerialPort::AllDirections);
    port.close();
}
