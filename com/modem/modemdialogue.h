// The conversation with a modem in AT commands: the commands as bytes, and the reader
// that takes one result line at a time from the port and says what it means.
#pragma once

#include <QByteArray>
#include <QString>

class QIODevice;
class QSerialPort;

enum ModemResponse
{
    ResponseUnknown = -1, // a line that means nothing to us
    ResponseNone = 0, // no complete line yet, or a blank one
    ResponseError = 1, // command refused
    ResponseOk = 2, // command accepted
    ResponseBusy = 3, // the called party is busy
    ResponseRing = 4, // incoming call
    ResponseConnect = 5, // connection established
    ResponseNoCarrier = 6, // carrier lost or never there
    ResponseNoDialtone = 7, // no dial tone on the line
    ResponseNoAnswer = 8, // the called party does not answer
    ResponseAtEcho = 9, // echo of "AT"
    ResponseDialEcho = 10, // echo of "ATD..."
    ResponseAnswerEcho = 11 // echo of "ATA"
};

// What one line says. Case and carriage returns do not matter; everything else does,
// up to and including the line feed. Never ResponseNone. Any thread.
ModemResponse classifyModemLine(const QByteArray& line);

// What one look at the input gave.
struct ModemReading
{
    ModemResponse response = ResponseNone;
    bool isBlank = true; // nothing was read, or only a frame of CR and LF
    QString text; // the line as it came, without CR and LF; null when isBlank
};

// Takes at most one line out of input and classifies it. A line without its line feed
// stays where it is. A line longer than 1023 bytes is taken in pieces of that size, each
// classified by itself. Neither waits nor logs.
ModemReading readModemLine(QIODevice& input);

// Gives pending input 1 ms to arrive, then reads one line from the port. A line that is
// not blank is logged, and its text stored in lastAnswer; else lastAnswer stays as it is.
// The port's own thread.
ModemResponse readModemResponse(QSerialPort& port, QString& lastAnswer);

// Throws away more than 64 KiB of input without a line end, and more than 1 MiB that comes faster
// than its lines are read. So a device that never stops sending cannot use up the memory.
void dropEndlessInput(QIODevice& input);

// Throws away all bytes that have arrived, also those in the driver: they cannot be answers to the
// command that is written next. Does not wait. The port's own thread.
void dropInput(QSerialPort& port);

// How long a command waits for a modem that does not accept bytes.
constexpr int commandWriteWaitMs = 500;

// Writes the bytes and waits up to waitMs for them to go out. The port's own thread.
void writeCommand(QSerialPort& port, const QByteArray& command, int waitMs);

// The commands. The control symbol at the end is read from the settings each time, so an edit takes
// effect with the next command. A character that Latin-1 does not have becomes "?".
QByteArray initCommand(const QString& initString); // as configured, nothing added
QByteArray checkCommand(); // "AT"
QByteArray answerCommand(); // "ATA"
QByteArray dialCommand(const QString& number); // "ATD" and the number, unchanged
QByteArray escapeCommand(); // "+++", without a line end
QByteArray resetHangUpCommand(); // "ATH" after a control symbol that ends an unfinished line
QByteArray exitHangUpCommand(); // "ATH"
