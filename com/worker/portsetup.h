// What is done to a port that has just been opened.
#pragma once

#include "com/formats/comsettings.h"

class PortReports;
class QSerialPort;

// Both are called from the worker's thread.

// Raises DTR and sets the line parameters. One that the port refuses is reported, and the rest
// is set all the same.
void configurePort(QSerialPort& port, const ComPortSettings& settings, const PortReports& reports);

// Sends the modem's init string, if there is one.
void sendInitString(QSerialPort& port, const QString& initString, const PortReports& reports);
