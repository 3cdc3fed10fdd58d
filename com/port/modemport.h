// A serial port as the port worker looks at it: its modem lines, and whether its device is
// still there.
#pragma once

#include <QSerialPort>
#include <QString>

// All of these are called from the port's own thread.

// The lines that are raised; none on a closed port, which would raise an error itself.
QSerialPort::PinoutSignals modemLines(QSerialPort& port);

// Whether the device of an open port is gone: the file that portName names is missing, or is
// another device by now, one that came back while its name stayed the same.
bool deviceHasVanished(const QSerialPort& port, const QString& portName);

// Hangs up by dropping DTR, discards what waits in both directions and closes an open port.
void shutPort(QSerialPort& port);
