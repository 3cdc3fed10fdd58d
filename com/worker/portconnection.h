// The connection of one port: the other party, the host's session protocol that runs over it, and
// what must be reported when it is over.
#pragma once

#include <QMutex>
#include <QString>

#include <atomic>

class CAbstractProtocol;
class CChannelServer;
class PortReports;
class QSerialPort;

// Lives as long as the port worker. For the worker's thread, unless something else is said.
class PortConnection
{
public:
    // Neither is owned.
    PortConnection(CChannelServer* server, const PortReports* reports);

    // The party of the current call; empty for an incoming call whose party has not told its
    // name, and the last party when there is no call. Any thread; never waits long.
    QString abonentName() const;
    void setAbonentName(const QString& name);

    // Sets keepAlive of the running session, if there is one. Any thread; does not wait behind
    // a session that is being made or ended.
    void keepAlive();

    // Asks the running session to end, if there is one. Any thread, under the worker's mutex,
    // as making, beginning and deleting the protocol are.
    void stop();

    // Makes the link channel over port and the host's protocol over that; null if the host
    // refuses. Connect to the protocol before it begins.
    CAbstractProtocol* makeProtocol(QSerialPort* port, const QString& portName);
    void begin(CAbstractProtocol* protocol);
    bool hasFinished() const { return m_hasFinished; }
    void deleteProtocol();

    // The host must see connected() before disconnected(). So this waits, for half a second at most,
    // until the server's thread has passed on all names that the protocol has reported.
    void waitForHandledNames(const std::atomic<bool>& stopRequested) const;
    // The server's thread: one more name was passed on.
    void nameHandled() { ++m_handledNames; }

    // Tell the host how the call ended.
    void reportRefusal() const;
    void reportEnd(int connectionId) const;

private:
    void setProtocol(CAbstractProtocol* protocol);

    CChannelServer* const m_server; // not owned
    const PortReports* const m_reports; // not owned

    CAbstractProtocol* m_protocol = nullptr; // owned; not null only while a session runs
    QString m_abonentName; // guarded by m_lifeMutex

    // Guards the life of m_protocol and m_abonentName. A leaf: nothing is called out to
    // and no other lock is taken while it is held.
    mutable QMutex m_lifeMutex;

    // The called party, empty for an incoming call. Kept apart, since the name that the peer
    // tells takes the place of m_abonentName. The worker's thread only.
    QString m_calledName;

    std::atomic<bool> m_hasFinished{false}; // the current protocol has emitted finished()

    // Names that the protocols have reported, and those that the server's thread has passed on.
    std::atomic<int> m_toldNames{0};
    std::atomic<int> m_handledNames{0};
};
