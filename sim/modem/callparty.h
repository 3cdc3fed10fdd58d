// One end of a call, as the calls of the exchange see it: a modem and its program.
#pragma once

#include "sim/modem/modem.h"

#include <QByteArray>
#include <QString>

namespace sim {

class CallParty
{
public:
    virtual ~CallParty() = default;

    virtual int index() const = 0; // of the modem, counted from 1
    QString name() const { return QStringLiteral("modem%1").arg(index()); }
    virtual ModemState state() const = 0;

    virtual bool hasDialTone() const = 0;
    // Whether callers hear busy, even while no call is known for it.
    virtual bool isBusy() const = 0;
    // Whether it lets the noise of its lines through; a line is noisy when both ends do.
    virtual bool isNoisy() const = 0;
    // How long it waits for an answer, or for carrier after its own.
    virtual int carrierWaitSeconds() const = 0;

    virtual void ring(qint64 nowNs) = 0; // one ring begins
    virtual void ringPauses() = 0; // that ring ends
    virtual void ringingStopped() = 0; // the caller gave up, or the call was answered
    virtual void connected(int bitsPerSecond, qint64 nowNs) = 0;
    virtual void callFailed(CallFailure failure) = 0;
    virtual void carrierLost() = 0;

    // Whether what its program writes is data, and what arrives reaches the program.
    virtual bool isInDataMode() const = 0;
    // At what pace its program's bytes will be taken, in bytes/s; 0: at once.
    virtual void setPace(int bytesPerS) = 0;
    // Whether takeData() would give something.
    virtual bool hasData() const = 0;
    // At most room bytes of its program's data.
    virtual QByteArray takeData(qint64 room, qint64 nowNs) = 0;
    // Bytes that the program has written and nobody has taken yet.
    virtual qint64 waitingBytes() const = 0;
    // Data for the program. How many bytes were lost because the program does not read.
    virtual qint64 deliver(const QByteArray& bytes) = 0;
};

} // namespace sim
