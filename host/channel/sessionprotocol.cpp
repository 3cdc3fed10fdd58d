#include "host/channel/sessionprotocol.h"

#include "common/global.h"

#include <QThread>

namespace host {

SessionProtocol::SessionProtocol(CChannel* ownedChannel, std::shared_ptr<const SessionContext> context)
    : CAbstractProtocol(ownedChannel), m_context(std::move(context)), m_call([] {
          static std::atomic<quint64> calls{0};
          return ++calls;
      }()),
      m_timer([this](bool wasWoken) { tick(wasWoken); })
{
    keepAlive = m_context->keepsConnections;
}

SessionProtocol::~SessionProtocol()
{
    if (m_session)
        m_session->connectionLost();
}

void SessionProtocol::start()
{
    CAbstractProtocol::start();
    m_clock.start();
    // The worker has set the name only if it placed the call.
    m_called = remoteAbonentName;
    const SessionCall call{!m_called.isEmpty(), m_called};
    m_session = std::make_unique<Session>(
        m_context->settings, call, m_context->directory, m_context->store,
        [this](const SessionEvent& event) { onEvent(event); }, m_clock.elapsed());
    m_pass = std::make_unique<SessionPass>(
        m_session.get(), channel, m_context->maxBlockBytes, [this] { return m_clock.elapsed(); },
        m_context->sleepRules ? m_context->sleepRules(channelName) : SleepRules());
    report(SessionReport::Kind::Begun);
    m_timer.start();
}

void SessionProtocol::stop()
{
    m_stopRequested = true;
    m_timer.wake();
}

// Called from a timer. Reading from a posted event could run at the same time as the port's notifier.
void SessionProtocol::tick(bool wasWoken)
{
    if (m_ended)
        return;
    if (wasWoken)
        m_pass->woken();
    if (!m_timer.sleeps())
        rest();
    m_pass->rested();
    const bool isConnected = channel->isConnected();
    if (m_stopRequested)
        m_session->stop(QStringLiteral("stopped"), m_clock.elapsed());
    // Set by an atomic store of the port worker.
    m_session->setKeepAlive(__atomic_load_n(&keepAlive, __ATOMIC_RELAXED));
    m_pass->readAll();
    m_session->advance(m_clock.elapsed());
    m_pass->writeAll();
    // By now all that came before the carrier fell has been read.
    if (!isConnected)
        m_session->connectionLost();
    if (m_session->isFinished())
        end();
    else
        m_timer.setSleep(m_pass->sleepMs());
}

// While the link works, the thread does not wait in the event loop for its next pass: there the port's
// notifier would wake it for every few bytes of a packet.
void SessionProtocol::rest()
{
    QThread::msleep(static_cast<unsigned long>(m_pass->pauseMs()));
}

void SessionProtocol::onEvent(const SessionEvent& event)
{
    if (event.kind == SessionEvent::Kind::PeerNamed) {
        remoteAbonentName = event.text;
        remoteAbonentNameFiltered = Global::filterName(event.text);
        emit remoteAbonentNameChanged(event.text);
    }
    report(SessionReport::Kind::Event, event);
}

void SessionProtocol::report(SessionReport::Kind kind, const SessionEvent& event)
{
    SessionReport told;
    told.kind = kind;
    told.call = m_call;
    told.claimant = m_session->claimant();
    told.channelName = channelName;
    told.called = m_called;
    told.peer = m_session->peerName();
    told.event = event;
    told.end = m_session->end();
    told.isProved = m_session->peer().isProved;
    told.wasUseful = m_session->wasUseful();
    told.reason = m_session->endReason();
    m_context->report(told);
}

void SessionProtocol::end()
{
    m_ended = true;
    m_timer.stop();
    wasUseful = m_session->wasUseful();
    report(SessionReport::Kind::Ended);
    emit finished();
}

} // namespace host
