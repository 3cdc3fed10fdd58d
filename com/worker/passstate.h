// What one pass of the port worker leaves for the state handlers of the next pass.
#pragma once

#include <QElapsedTimer>
#include <QSerialPort>
#include <QString>

struct PassState
{
    QSerialPort& port;
    QElapsedTimer timer; // of the state; not valid while it is not running
    QString lastAnswer; // the last line from the modem that was not blank
    QSerialPort::PinoutSignals lines; // the modem's lines when they were last looked at
    bool mayAnswerLate = false; // an init string was sent, and its "OK" may follow that of "AT"
    bool hasRung = false; // a ring was read while late answers were dropped
};
