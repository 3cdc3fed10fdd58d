#include "host/sessionprotocol.h"

#include <limits>

#include <QThread>

#include "common/global.h"

namespace host {

namespace {

// The channel reads, confirms and repeats only while it is read: often enough to keep the
// line busy. Between its passes the worker sleeps instead of waiting in the event loop,
// where the port's notifier would wake it for each few bytes of a packet that comes in.
constexpr int sendingPauseMs = 5;
constexpr int receivingPauseMs = 10;     // while nothing is to be sent
constexpr int bulkReceivingPauseMs = 20; // and much is still to come, on a line that is not too fast for that
constexpr qint64 bulkBytes = 4096;
constexpr qint64 fastBytesPerS = 20000;
constexpr qint64 rateWindowMs = 500;

// The channel writes all it is given before it confirms what came in: while the peer sends
// too, so much a pass that its confirmations do not wait long.
constexpr qint64 busyBytesPerS = 256; // more than answers make
constexpr qint64 turnMs = 30;
constexpr int leastBlocks = 1; // the line must not rest between two passes

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
    m_sinceRest.start();
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
    rest();
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

void SessionProtocol::rest()
{
    int pauseMs = receivingPauseMs;
    if (m_hasSent) // as a rule the channel has waited for room in the driver: that counts
        pauseMs = qMax(0, sendingPauseMs - static_cast<int>(m_sinceRest.elapsed()));
    else if (m_bytesPerS > fastBytesPerS)
        pauseMs = sendingPauseMs;
    else if (m_session->bytesToReceive() > bulkBytes)
        pauseMs = bulkReceivingPauseMs;
    QThread::msleep(static_cast<unsigned long>(pauseMs));
    m_sinceRest.start();
}

void SessionProtocol::measureRate(int bytes)
{
    m_rateBytes += bytes;
    const qint64 elapsedMs = m_clock.elapsed() - m_rateSinceMs;
    if (elapsedMs < rateWindowMs)
        return;
    m_bytesPerS = m_rateBytes * 1000 / elapsedMs;
    m_rateSinceMs += elapsedMs;
    m_rateBytes = 0;
}

void SessionProtocol::readAll()
{
    for (;;) {
        const QByteArray bytes = channel->read(readBytes);
        measureRate(bytes.size());
        m_session->receive(bytes, m_clock.elapsed());
        if (bytes.size() < readBytes)
            return;
    }
}

void SessionProtocol::writeAll()
{
    m_hasSent = channel->idealBlockSize() <= 0; // what was sent before is still on its way
    const qint64 mostBytes = m_bytesPerS > busyBytesPerS ? m_bytesPerS * turnMs / 1000 : std::numeric_limits<qint64>::max();
    qint64 bytes = 0;
    for (int blocks = 0; blocks < leastBlocks || bytes < mostBytes; ++blocks) {
        const int offered = channel->idealBlockSize();
        if (offered <= 0)
            return;
        const int blockBytes = qMax(1, qMin(offered, m_context->maxBlockBytes) - linkOverheadBytes);
        const QByteArray block = m_session->takeOutput(blockBytes, m_clock.elapsed());
        if (block.isEmpty())
            return;
        channel->write(block);
        bytes += block.size();
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
