// One modem of the exchange: the AT command side, its pty, its control signals and the
// faults it was told to have. Used in the exchange's thread only.
#pragma once

#include "sim/modem/callparty.h"
#include "sim/pty/backlog.h"
#include "sim/pty/ptyendpoint.h"

#include <deque>
#include <functional>

namespace sim {

struct ModemSettings
{
    QString number;
    QString linkPath; // stable name of the port; empty: none
    RingStyle ringStyle = RingStyle::Text;
    int depthBytes = PtyEndpoint::defaultDepthBytes;
};

// What a modem asks of the exchange.
struct ModemRequest
{
    enum Kind
    {
        Dial,
        Answer,
        HangUp
    };
    Kind kind;
    QString number = {};
    qint64 pauseNs = 0;
};

struct ModemFaults
{
    bool silent = false; // takes everything, answers nothing
    bool busy = false; // whoever calls it hears busy
    bool noDialTone = false; // when it dials
    bool noAnswer = false; // is not told that it is called
    bool noNoise = false; // the noise of its telephone lines is off
};

class VirtualModem : public CallParty, private ModemHost
{
public:
    using Trace = std::function<void(int modem, const QString& text)>;

    // index: counted from 1, names the modem in what trace is told.
    VirtualModem(int index, const ModemSettings& settings, Trace trace);

    const ModemSettings settings;
    PtyEndpoint endpoint;
    Modem modem;
    ModemFaults faults;
    std::deque<ModemRequest> requests;

    // Powered and plugged in.
    bool isAlive() const { return m_powered && endpoint.isOpen(); }
    bool isPowered() const { return m_powered; }
    // Alive and not silent.
    bool responds() const { return isAlive() && !faults.silent; }

    // Its program's DTR, as it stands and as it went.
    void watchDtr(qint64 nowNs);
    // One byte of a command; false when the program has written none.
    bool takeCommandByte(qint64 nowNs);
    // Drops what the program has written.
    void swallow() { endpoint.read(); }
    void say(const QByteArray& text) { toProgram("\r\n" + text + "\r\n"); }
    // Writes what its program could not yet take; true while some is left.
    bool flush();

    void setPowered(bool powered);
    void unplug();
    bool plugIn();

    int index() const override { return m_index; }
    ModemState state() const override { return modem.state(); }
    bool hasDialTone() const override { return !faults.noDialTone; }
    bool isBusy() const override;
    bool isNoisy() const override { return !faults.noNoise; }
    int carrierWaitSeconds() const override { return modem.registerValue(CarrierWaitSeconds); }
    void ring(qint64 nowNs) override;
    void ringPauses() override { modem.ringPauses(); }
    void ringingStopped() override { modem.ringingStopped(); }
    void connected(int bitsPerSecond, qint64 nowNs) override { modem.connected(bitsPerSecond, nowNs); }
    void callFailed(CallFailure failure) override { modem.callFailed(failure); }
    void carrierLost() override { modem.carrierLost(); }
    bool isInDataMode() const override { return responds() && modem.state() == ModemState::Data; }
    void setPace(int bytesPerS) override { endpoint.setDrainRate(bytesPerS); }
    bool hasData() const override { return endpoint.hasInput(); }
    QByteArray takeData(qint64 room, qint64 nowNs) override;
    qint64 waitingBytes() const override { return endpoint.bytesFromProgram(); }
    qint64 deliver(const QByteArray& bytes) override;

private:
    void toProgram(const QByteArray& bytes) override;
    void toLine(char byte) override;
    void dial(const QString& number, qint64 pauseNs) override;
    void answer() override;
    void hangUp() override;
    void setCarrierDetect(bool raised) override;
    void setRingIndicator(bool raised) override;
    void trace(const QString& text) override;
    void reset();
    void showSignals();

    const int m_index;
    const Trace m_trace;
    bool m_powered = true;
    bool m_carrier = false;
    bool m_ringing = false;
    bool m_dtr = false;
    unsigned m_dtrDrops = 0;
    Backlog m_toProgram;
    QByteArray m_toLine;
    qint64 m_overrun = 0; // bytes that found no place, since the last delivery
};

} // namespace sim
