// What was written to a port and is not on the line yet.
#pragma once

#include <QtGlobal>

class QSerialPort;

// Bytes that the port or its driver still holds, as far as the driver tells. Called from the port's
// own thread.
qint64 pendingOutput(const QSerialPort& port);
