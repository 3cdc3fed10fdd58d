// Sessions that send one another streams of bytes, and the account of what arrived: at
// every moment what one end has received must be a prefix of what the other has sent.
#pragma once

#include "plugin/api/cabstractprotocol.h"
#include "plugin/api/cabstractprotocolfactory.h"

#include <QElapsedTimer>
#include <QMap>
#include <QMutex>
#include <QStringList>
#include <QTimer>

#include <atomic>
#include <functional>
#include <optional>
#include <vector>

namespace rig {

// The bytes of one stream, drawn from its number; rich in what a link takes for the
// beginning of a packet and a modem for its escape. Never "AT": a modem that has lost its
// carrier takes what is still written to it for commands, and a drawn ATX or ATQ would
// change its results for the rest of the test.
class ByteStream
{
public:
    explicit ByteStream(quint32 id);
    char next();

private:
    quint64 m_state;
};

// Any thread.
class Account
{
public:
    struct Figures
    {
        int sessions = 0;
        int running = 0;
        int withPeer = 0; // sessions that heard from the other end
        int called = 0; // sessions whose party the host had called
        int kept = 0; // sessions that found keepAlive set
        int ofKnownParty = 0; // ended sessions of which the host is told by disconnected()
        qint64 bytesSent = 0;
        qint64 bytesReceived = 0;
    };

    // A new stream; its number goes in front of its bytes.
    quint32 open(const QString& port);
    void sent(quint32 id, int bytes);
    // The stream read by the session that writes ownId; empty and a violation when there is
    // no such stream or another session reads it already. Else the port of its sender.
    QString beginReading(quint32 ownId, quint32 id);
    // So many bytes of the stream, all as they should be.
    void received(quint32 id, int bytes);
    void keptAlive();
    void begun(bool isCalled);
    void ended(quint32 ownId, bool isOfKnownParty);
    void violate(const QString& text);
    // Where a session is, for the watchdog; phase: a literal.
    void phase(quint32 id, const char* phase);

    Figures figures() const;
    // Received bytes of each session's peer that still runs, least first.
    std::vector<qint64> receivedByRunning() const;
    QStringList violations() const;
    // "session on <port>: phase, for so many ms" of those that run.
    QStringList lines() const;
    // Drops the streams of sessions that have ended, so that they count for no leak.
    void forgetEnded();

private:
    struct Stream
    {
        QString port;
        quint32 reader = 0; // the stream that the reading session writes; 0: nobody yet
        qint64 sent = 0;
        qint64 received = 0;
        bool isRunning = true;
        const char* phase = "made";
        QElapsedTimer since;
    };

    void violateLocked(const QString& text);

    mutable QMutex m_mutex; // guards all below
    QMap<quint32, Stream> m_streams;
    Figures m_figures;
    QStringList m_violations;
    quint32 m_lastId = 0;
};

// How one session is to behave.
struct SessionPlan
{
    qint64 bytesToSend = -1; // -1: as long as it lasts
    int lifetimeMs = -1; // -1: until it is asked to end; three times that when it is kept alive
    int periodMs = 20; // between reads
    bool tellsName = true; // of the peer, to the host
    bool endsInStart = false;
    bool endsWithinStop = false; // says so at once, in the thread that asks
    bool hangsUp = false; // by itself, before it ends
};

class TrafficFactory : public CAbstractProtocolFactory
{
public:
    // draw: called in the workers' threads; nothing: no session is made. account: not owned.
    TrafficFactory(Account* account, std::function<std::optional<SessionPlan>()> draw);
    CAbstractProtocol* createProtocol(CChannel* channel) override;

    // The party that answers at a port, as the sessions tell it.
    static QString nameOf(const QString& port);

private:
    Account* m_account;
    std::function<std::optional<SessionPlan>()> m_draw;
};

class TrafficSession : public CAbstractProtocol
{
public:
    TrafficSession(CChannel* ownedChannel, Account* account, const SessionPlan& plan);
    ~TrafficSession() override;
    void start() override;
    void stop() override;

private:
    void turn();
    void readAll();
    void writeSome();
    void take(char byte);
    bool isOver() const;
    void end();

    Account* m_account; // not owned
    const SessionPlan m_plan;
    quint32 m_ownId = 0;
    quint32 m_peerId = 0;
    QByteArray m_peerHeader;
    std::optional<ByteStream> m_own;
    std::optional<ByteStream> m_peer;
    qint64 m_sent = 0;
    bool m_isBad = false;
    bool m_isKept = false;
    std::atomic<bool> m_stopAsked{false};
    QElapsedTimer m_age;
    QTimer m_timer;
};

} // namespace rig
