// What the port worker asks a serial port: its modem lines, and whether its device is still there.
#pragma once

#include <QSerialPort>
#include <QString>

// All of these are called from the port's own thread.

// The lines that are raised; none on a closed port, which would raise an error itself.
QSerialPort::PinoutSignals modemLines(QSerialPort& port);

// Whether the device of an open port is gone: the file portName is missing, or it is another device
// by now (a device may come back under the same name).
bool deviceHasVanished(const QSerialPort& port, const QString& portName);

// Hangs up by dropping DTR, discards what waits in both directions and closes an open port.
void shutPort(QSerialPort& port);
