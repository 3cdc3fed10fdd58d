// The session on a channel: the protocol that a port worker runs, and the factory that
// makes it.
#pragma once

#include "host/channel/passtimer.h"
#include "host/channel/sessionpass.h"
#include "host/session/session.h"
#include "plugin/api/cabstractprotocol.h"
#include "plugin/api/cabstractprotocolfactory.h"

#include <QElapsedTimer>

#include <atomic>
#include <functional>
#include <memory>

namespace host {

// What a session tells the host, in the port worker's thread.
struct SessionReport
{
    enum class Kind
    {
        Begun,
        Event,
        Ended
    };

    Kind kind = Kind::Event;
    quint64 call = 0; // counts the sessions of the process
    const void* claimant = nullptr; // the session's token in the store; only compared
    QString channelName;
    QString called; // whom we called; empty when the call came in
    QString peer; // empty until it is known
    SessionEvent event; // Event
    SessionEnd end = SessionEnd::None; // Ended
    bool isProved = false; // the peer, once it is known
    bool wasUseful = false;
    QString reason;
};

// What all sessions of a host share. It is not changed once sessions run.
struct SessionContext
{
    SessionSettings settings;
    SessionStore store;
    PeerDirectory* directory = nullptr; // not owned
    std::function<void(const SessionReport&)> report; // called from several threads at once
    int maxBlockBytes = 1024; // the largest packet of the link, with its header and checks
    // Asked when a session begins on the channel of this name; null: sessions do not sleep.
    std::function<SleepRules(const QString& channelName)> sleepRules;
    // Set from the beginning: a session with little to say would be over before the server could
    // tell it that the host wants to keep the connection.
    bool keepsConnections = false;
};

class SessionProtocol : public CAbstractProtocol
{
    Q_OBJECT

public:
    SessionProtocol(CChannel* channel, std::shared_ptr<const SessionContext> context);
    ~SessionProtocol() override;

    // Called by the port worker.
    void start() override;

    // Any thread; the session ends soon after.
    void stop() override;

private:
    void tick(bool wasWoken);
    void rest();
    void onEvent(const SessionEvent& event);
    void report(SessionReport::Kind kind, const SessionEvent& event = {});
    void end();

    const std::shared_ptr<const SessionContext> m_context;
    const quint64 m_call;
    QString m_called; // empty when the call came in
    std::unique_ptr<Session> m_session;
    std::unique_ptr<SessionPass> m_pass;
    QElapsedTimer m_clock;
    PassTimer m_timer;
    std::atomic<bool> m_stopRequested{false}; // set from the server's thread
    bool m_ended = false;
};

class SessionProtocolFactory : public CAbstractProtocolFactory
{
public:
    explicit SessionProtocolFactory(std::shared_ptr<const SessionContext> context) : m_context(std::move(context)) {}

    CAbstractProtocol* createProtocol(CChannel* channel) override { return new SessionProtocol(channel, m_context); }

private:
    const std::shared_ptr<const SessionContext> m_context;
};

} // namespace host
