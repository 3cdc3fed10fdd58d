// The waits on a serial port, without the traps of QSerialPort's own.
#pragma once

class QSerialPort;

// Both are called from the port's own thread. A time that is over (0 or less) looks once.

// Waits up to timeoutMs until some of the port's pending output has gone to the driver;
// true if it has. With nothing pending it returns false at once, where the port itself
// would block for the whole time and raise a timeout error.
bool waitForWritten(QSerialPort& port, int timeoutMs);

// Waits up to timeoutMs for bytes beyond those already buffered; true if some came. A
// port whose device is gone fails at once, over and over: then the time is slept out, so
// that loops around this do not spin.
bool waitForInput(QSerialPort& port, int timeoutMs);
