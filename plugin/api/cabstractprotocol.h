// The host's session protocol, run over one channel by a port worker.
#pragma once

#include "plugin/api/cchannel.h"
#include "plugin/api/channelapi_export.h"

#include <QObject>
#include <QString>

// A protocol is made by the host's factory in the port worker's thread, lives there
// and is deleted there by the worker. start() and stop() are called by the worker;
// stop() may also be called from the server's thread while the protocol runs, so an
// implementation must only ask itself to stop (set a flag, post an event).
// keepAlive is set from the server's thread by an atomic store: read it with an
// atomic load (__atomic_load_n).
class CHANNELAPI_EXPORT CAbstractProtocol : public QObject
{
    Q_OBJECT

public:
    explicit CAbstractProtocol(CChannel* ownedChannel = nullptr) : channel(ownedChannel) {}

    // Deletes the channel.
    ~CAbstractProtocol() override;

    // Begins the session. The base clears wasUseful and does nothing else.
    virtual void start();

    // Asks the session to end; finished() follows. The base does nothing.
    virtual void stop();

    CChannel* channel; // owned, may be null
    QString remoteAbonentName; // the other party; preset to the called one on an outgoing call
    QString remoteAbonentNameFiltered; // the same without punctuation, in lower case
    QString channelName; // the serial port's name, set before start()
    bool keepAlive = false; // the host asks to keep the connection although nothing is left to send
    bool wasUseful = false; // set by the protocol when the connection carried useful work

signals:
    // The session is over; the worker then hangs up and deletes the protocol.
    void finished();

    // The peer has told its name.
    void remoteAbonentNameChanged(const QString& remoteAbonentName);
};
