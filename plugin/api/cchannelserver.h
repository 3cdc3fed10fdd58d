// The server object of one kind of channel: through it the host starts and stops the channel,
// asks for calls and learns their results.
#pragma once

#include "plugin/api/channelapi_export.h"

#include <QByteArray>
#include <QObject>
#include <QString>

class CAbstractChannelsState;
class CAbstractJournal;
class CAbstractProtocolFactory;

// The server lives in a thread with an event loop. The slots are meant to be invoked
// through queued connections, so that they run there. The order of the virtual
// operations, of the signals and slots with their parameter names, and of the data
// members is part of the contract between host and plug-in.
class CHANNELAPI_EXPORT CChannelServer : public QObject
{
    Q_OBJECT

public:
    CChannelServer();

    // Deletes protocolFactory. The server must have been stopped before.
    ~CChannelServer() override;

    int type = 0; // the channel type number, set by the implementation
    int stateId = 0; // this server's identifier in channelsState, given by the host

    // The host must set these three before start(), stop() or connectToAbonent(); null is not
    // checked.
    CAbstractProtocolFactory* protocolFactory = nullptr; // owned
    CAbstractChannelsState* channelsState = nullptr; // not owned
    CAbstractJournal* journal = nullptr; // not owned

    // Polled by the host, from any thread; the answer may be a moment old.
    virtual bool hasFreeChannel() const = 0; // a line is free for a call
    virtual bool isHardwareOn() const = 0; // a device answers
    virtual bool canCheckOnline() const = 0; // the channel can tell whether an abonent is reachable

    // Starts the channel; call it in the server's thread.
    virtual void start();

    // Stops the channel; may be called from any thread. From another thread it returns
    // at once and finished() follows; from the server's own thread it blocks until the
    // channel has stopped and finished() is not emitted.
    virtual void stop();

signals:
    // There is a connection, and the session over it has learnt the peer's name. connectionId names
    // the connection in later calls.
    void connected(const QString& abonentName, int connectionId);

    // A requested call could not be placed or did not succeed. Not emitted if the port went down
    // while it dialled, or was stopped, or if the channel cannot read abonentsData: the host sees
    // that in the port's state text and journal records (comcalltexts.h).
    void notConnected(QString abonentName);

    // The connection ended; wasUseful tells whether it carried useful work.
    void disconnected(const QString& abonentName, int connectionId, bool wasUseful);

    // The server has stopped completely.
    void finished();

public slots:
    // The channel's settings file has changed: read it again.
    virtual void settingsWasChanged();

    // Places a call; abonentsData is the abonent's addressing in the channel's own format.
    virtual void connectToAbonent(const QString& abonentName, const QByteArray& abonentsData) = 0;

    // Ends the connection connectionId; -1 selects by abonentName instead.
    virtual void disconnectFromAbonent(const QString& abonentName, int connectionId) = 0;

    // Asks the session on connectionId to keep the connection although nothing is left to send.
    virtual void keepAliveConnection(int connectionId) = 0;
};
