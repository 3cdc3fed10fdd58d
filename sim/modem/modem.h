// A modem as its program and its telephone line see it: the AT command line, the escape to
// it, ringing, answering and carrier. Fed one byte at a time with the time handed in; knows
// no clock, no port and no other modem.
//
// Times are nanoseconds of any one monotonic clock. Not thread-safe.
#pragma once

#include "sim/modem/commandreader.h"
#include "sim/modem/dialstring.h"
#include "sim/modem/escapewatch.h"
#include "sim/modem/profile.h"
#include "sim/modem/resultcodes.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <array>

namespace sim {

// What a modem asks of its surroundings.
class ModemHost
{
public:
    virtual ~ModemHost() = default;

    virtual void toProgram(const QByteArray& bytes) = 0;
    // A byte of the program's data, in data mode only.
    virtual void toLine(char byte) = 0;
    // Answered by connected() or callFailed(); not to be called back from inside.
    virtual void dial(const QString& number, qint64 pauseNs) = 0;
    // Answered by connected() or callFailed(); not to be called back from inside.
    virtual void answer() = 0;
    // Gives up whatever call there is; nothing comes back for it.
    virtual void hangUp() = 0;
    virtual void setCarrierDetect(bool raised) = 0;
    virtual void setRingIndicator(bool raised) = 0;
    // Something worth telling the user, as "command ATDT102".
    virtual void trace(const QString& text) = 0;
};

enum class ModemState
{
    OnHook, // idle, takes commands
    OffHook, // ATH1 or ATD...;  takes commands, its line is busy
    Dialling, // after ATD, until CONNECT or a failure
    Answering, // after ATA, likewise
    Data, // connected, transparent
    OnlineCommand, // connected, after the escape
};

enum class CallFailure
{
    Busy,
    NoDialTone,
    NoAnswer,
    NoCarrier
};

// A ring is told by the result code RING or by the RI pin, never by both.
enum class RingStyle
{
    Text,
    Pin
};

class Modem
{
public:
    static constexpr int maxCommandLength = CommandReader::maxLength;

    // host: not owned. number: shown by ATI1.
    Modem(ModemHost* host, const QString& number, RingStyle ringStyle = RingStyle::Text);

    // From the program.
    void byteFromProgram(char byte, qint64 nowNs);
    // DTR went down; acts as &D says.
    void dtrDropped(qint64 nowNs);
    // Whether DTR stands; a modem whose program dropped it neither rings nor answers by itself (but see &D0).
    void setDtr(bool raised) { m_dtr = raised; }

    // From the line.
    void ring(qint64 nowNs); // one ring begins
    void ringPauses(); // that ring ends
    void ringingStopped(); // the caller gave up, or the call was answered
    void connected(int bitsPerSecond, qint64 nowNs);
    void callFailed(CallFailure failure);
    void carrierLost();

    // Does what is due without any input: the escape after its guard time.
    void advance(qint64 nowNs);
    // When advance() will next have something to do; -1: not at all.
    qint64 nextEventNs() const;

    // Power on: the stored profile, on hook, silent.
    void powerOn();

    ModemState state() const { return m_state; }
    bool isConnected() const { return m_state == ModemState::Data || m_state == ModemState::OnlineCommand; }
    int registerValue(int index) const { return m_profile.at(index); }

private:
    enum class Outcome
    {
        Next,
        Failed,
        Finished
    }; // Finished: the command has answered, or will

    void dataByte(char byte, qint64 nowNs);
    void commandByte(char byte);
    void execute(const QByteArray& text);
    Outcome executeOne(const QByteArray& text, int& at);
    Outcome executeAmpersand(const QByteArray& text, int& at);
    Outcome executeRegister(const QByteArray& text, int& at);
    Outcome setChoice(bool& setting, int value);
    Outcome setLevel(int& setting, int value, int most);
    Outcome answer();
    Outcome dial(const QByteArray& text);
    Outcome hook(int value);
    Outcome returnOnline();
    Outcome information(int value);
    Outcome storeNumber(const QByteArray& text, int& at);
    void resetTo(const Profile& profile);
    void goOnHook();
    void setState(ModemState state);
    void showCarrier();
    void say(const QByteArray& text);
    void result(ResultCode code);
    void resultConnect();
    void sendResult(const QByteArray& text, int number);
    QByteArray textEnd() const;

    ModemHost* m_host; // not owned
    const QString m_number;
    const RingStyle m_ringStyle;
    Profile m_profile;
    Profile m_storedProfile;
    ModemState m_state = ModemState::OnHook;
    bool m_dtr = true;
    int m_speed = 0;

    CommandReader m_reader;
    int m_selectedRegister = 0;

    QString m_lastNumber;
    QString m_dialledSoFar; // by ATD...;
    std::array<QString, 4> m_storedNumbers;
    DialString m_dial;

    EscapeWatch m_escape;
};

} // namespace sim
