#include "host/sessionprotocol.h"

#include <QThread>

#include "common/global.h"

namespace host {

namespace {

// The channel reads, confirms and repeats only while it is read: often enough to keep the
// line busy. Between its passes the worker sleeps instead of waiting in the event loop,
// where the port's notifier would wake it for each few bytes of a packet that comes in.
constexpr int passPauseMs = 5;
constexpr int receivingPauseMs = 10;     // while nothing is to be sent
constexpr int bulkReceivingPauseMs = 20; // and much is still to come; the driver's buffer holds 44 ms at 921600 bit/s
constexpr qint64 bulkBytes = 4096;

constexpr int readBytes = 64 * 1024;
constexpr int linkOverheadBytes = 10; // of each packet: a block without them fills one packet exactly

} // namespace

SessionProtocol::SessionProtocol(CChannel* ownedChannel, std::shared_ptr<const SessionContext> context)
    : CAbstractProtocol(ownedChannel), m_context(std::move(context)), m_call([] {
          static std::atomic<quint64> calls{0};
          return ++calls;
      }())
{
    // Reading from an event posted meanwhile would race the port's own notifier: a timer.
    // Without an interval: a tick brings its own pause.
    m_timer.setInterval(0);
    connect(&m_timer, &QTimer::timeout, this, &SessionProtocol::tick);
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
    m_session = std::make_unique<Session>(
        m_context->settings, m_context->store, [this](const SessionEvent& event) { onEvent(event); }, m_clock.elapsed());
    report(SessionReport::Kind::Begun);
    m_timer.start();
}

void SessionProtocol::stop()
{
    m_stopRequested = true;
}

void SessionProtocol::tick()
{
    if (m_ended)
        return;
    QThread::msleep(static_cast<unsigned long>(pauseMs()));
    const bool isConnected = channel->isConnected();
    if (m_stopRequested)
        m_session->stop(QStringLiteral("stopped"), m_clock.elapsed());
    // Set by an atomic store of the port worker.
    m_session->setKeepAlive(__atomic_load_n(&keepAlive, __ATOMIC_RELAXED));
    readAll();
    m_session->advance(m_clock.elapsed());
    writeAll();
    // What came before the carrier fell has been read.
    if (!isConnected)
        m_session->connectionLost();
    if (m_session->isFinished())
        end();
}

int SessionProtocol::pauseMs() const
{
    if (m_hasSent)
        return passPauseMs;
    return m_session->bytesToReceive() > bulkBytes ? bulkReceivingPauseMs : receivingPauseMs;
}

void SessionProtocol::readAll()
{
    for (;;) {
        const QByteArray bytes = channel->read(readBytes);
        m_session->receive(bytes, m_clock.elapsed());
        if (bytes.size() < readBytes)
            return;
    }
}

void SessionProtocol::writeAll()
{
    m_hasSent = channel->idealBlockSize() <= 0; // what was sent before is still on its way
    for (int offered = 0; (offered = channel->idealBlockSize()) > 0;) {
        const int blockBytes = qMax(1, qMin(offered, m_context->maxBlockBytes) - linkOverheadBytes);
        const QByteArray block = m_session->takeOutput(blockBytes, m_clock.elapsed());
        if (block.isEmpty())
            return;
        channel->write(block);
        m_hasSent = true;
    }
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
    told.channelName = channelName;
    told.peer = m_session->peerName();
    told.event = event;
    told.endedWell = m_session->endedWell();
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
