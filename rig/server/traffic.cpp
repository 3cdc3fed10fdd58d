#include "rig/server/traffic.h"

#include "plugin/api/cchannel.h"

#include <QMutexLocker>
#include <QtEndian>

#include <algorithm>

namespace rig {

namespace {

constexpr int headerBytes = sizeof(quint32);
constexpr int readBytes = 16384;
constexpr int blocksPerTurn = 4;
constexpr int keptTimes = 3;

} // namespace

// --- the bytes --------------------------------------------------------------------------

ByteStream::ByteStream(quint32 id) : m_state((id + 1) * Q_UINT64_C(0x9E3779B97F4A7C15)) {}

char ByteStream::next()
{
    m_state ^= m_state << 13;
    m_state ^= m_state >> 7;
    m_state ^= m_state << 17;
    const unsigned drawn = static_cast<unsigned>(m_state >> 32);
    switch (drawn & 0x3F) {
    case 0: return 0x7C;
    case 1: return '+';
    default: break;
    }
    const char byte = static_cast<char>(drawn >> 8);
    return byte == 'T' || byte == 't' ? '+' : byte;
}

// --- the account ------------------------------------------------------------------------

quint32 Account::open(const QString& port)
{
    QMutexLocker locker(&m_mutex);
    Stream& stream = m_streams[++m_lastId];
    stream.port = port;
    stream.since.start();
    return m_lastId;
}

void Account::sent(quint32 id, int bytes)
{
    QMutexLocker locker(&m_mutex);
    m_streams[id].sent += bytes;
    m_figures.bytesSent += bytes;
}

QString Account::beginReading(quint32 ownId, quint32 id)
{
    QMutexLocker locker(&m_mutex);
    const auto stream = m_streams.find(id);
    if (id == ownId) {
        violateLocked(QStringLiteral("its own stream came to %1").arg(m_streams[ownId].port));
        return {};
    }
    if (stream == m_streams.end()) {
        violateLocked(QStringLiteral("stream %1 came to %2: there is none such").arg(id).arg(m_streams[ownId].port));
        return {};
    }
    if (stream->reader != 0) {
        violateLocked(
            QStringLiteral("the stream of %1 came twice, to %2 too").arg(stream->port, m_streams[ownId].port));
        return {};
    }
    stream->reader = ownId;
    stream->received = headerBytes;
    ++m_figures.withPeer;
    m_figures.bytesReceived += headerBytes;
    return stream->port;
}

void Account::received(quint32 id, int bytes)
{
    QMutexLocker locker(&m_mutex);
    Stream& stream = m_streams[id];
    stream.received += bytes;
    m_figures.bytesReceived += bytes;
    if (stream.received > stream.sent)
        violateLocked(
            QStringLiteral("%1 sent %2 bytes, %3 arrived").arg(stream.port).arg(stream.sent).arg(stream.received));
}

void Account::keptAlive()
{
    QMutexLocker locker(&m_mutex);
    ++m_figures.kept;
}

void Account::begun(bool isCalled)
{
    QMutexLocker locker(&m_mutex);
    ++m_figures.sessions;
    ++m_figures.running;
    m_figures.called += isCalled ? 1 : 0;
}

void Account::ended(quint32 ownId, bool isOfKnownParty)
{
    QMutexLocker locker(&m_mutex);
    m_streams[ownId].isRunning = false;
    --m_figures.running;
    m_figures.ofKnownParty += isOfKnownParty ? 1 : 0;
}

void Account::violate(const QString& text)
{
    QMutexLocker locker(&m_mutex);
    violateLocked(text);
}

void Account::violateLocked(const QString& text)
{
    m_violations.append(text);
}

void Account::phase(quint32 id, const char* phase)
{
    QMutexLocker locker(&m_mutex);
    Stream& stream = m_streams[id];
    stream.phase = phase;
    stream.since.start();
}

Account::Figures Account::figures() const
{
    QMutexLocker locker(&m_mutex);
    return m_figures;
}

std::vector<qint64> Account::receivedByRunning() const
{
    QMutexLocker locker(&m_mutex);
    std::vector<qint64> received;
    for (const Stream& stream : m_streams) {
        if (stream.isRunning)
            received.push_back(stream.received);
    }
    std::sort(received.begin(), received.end());
    return received;
}

QStringList Account::violations() const
{
    QMutexLocker locker(&m_mutex);
    return m_violations;
}

QStringList Account::lines() const
{
    QMutexLocker locker(&m_mutex);
    QStringList lines;
    for (const Stream& stream : m_streams) {
        if (stream.isRunning)
            lines.append(QStringLiteral("session on %1: %2, for %3 ms")
                             .arg(stream.port, QLatin1String(stream.phase), QString::number(stream.since.elapsed())));
    }
    return lines;
}

void Account::forgetEnded()
{
    QMutexLocker locker(&m_mutex);
    QMap<quint32, Stream> running;
    for (auto it = m_streams.constBegin(); it != m_streams.constEnd(); ++it) {
        if (it->isRunning)
            running.insert(it.key(), it.value());
    }
    m_streams = running;
}

// --- sessions ---------------------------------------------------------------------------

TrafficFactory::TrafficFactory(Account* account, std::function<std::optional<SessionPlan>()> draw)
    : m_account(account), m_draw(std::move(draw))
{
}

CAbstractProtocol* TrafficFactory::createProtocol(CChannel* channel)
{
    const std::optional<SessionPlan> plan = m_draw();
    return plan ? new TrafficSession(channel, m_account, *plan) : nullptr;
}

QString TrafficFactory::nameOf(const QString& port)
{
    return QStringLiteral("Абонент \"%1\"").arg(port.section(QLatin1Char('/'), -1));
}

TrafficSession::TrafficSession(CChannel* ownedChannel, Account* account, const SessionPlan& plan)
    : CAbstractProtocol(ownedChannel), m_account(account), m_plan(plan)
{
}

TrafficSession::~TrafficSession()
{
    m_account->ended(m_ownId, !remoteAbonentName.isEmpty());
}

void TrafficSession::start()
{
    CAbstractProtocol::start();
    m_ownId = m_account->open(channelName);
    m_account->begun(!remoteAbonentName.isEmpty());
    m_own.emplace(m_ownId);
    m_age.start();
    if (m_plan.endsInStart) {
        emit finished();
        return;
    }
    connect(&m_timer, &QTimer::timeout, this, [this] { turn(); });
    m_timer.start(m_plan.periodMs);
}

void TrafficSession::stop()
{
    if (m_stopAsked.exchange(true))
        return;
    if (m_plan.endsWithinStop)
        emit finished();
}

void TrafficSession::turn()
{
    m_account->phase(m_ownId, "reading");
    readAll();
    if (isOver()) {
        end();
        return;
    }
    m_account->phase(m_ownId, "writing");
    writeSome();
    m_account->phase(m_ownId, "waiting");
}

bool TrafficSession::isOver() const
{
    if (m_isBad || m_stopAsked || !channel->isConnected())
        return true;
    if (m_plan.lifetimeMs < 0)
        return false;
    return m_age.elapsed() > m_plan.lifetimeMs * (m_isKept ? keptTimes : 1);
}

void TrafficSession::readAll()
{
    const QByteArray bytes = channel->read(readBytes);
    // A modem that has lost its carrier echoes what is still written to it, and the link's
    // packets look the same in both directions: these bytes may be our own.
    if (!channel->isConnected())
        return;
    const quint32 known = m_peerId;
    int inBody = 0;
    for (const char byte : bytes) {
        inBody += m_peerId != 0 ? 1 : 0;
        take(byte);
        if (m_isBad)
            return;
    }
    wasUseful = wasUseful || !bytes.isEmpty();
    if (inBody > 0)
        m_account->received(m_peerId, inBody);
    if (known == 0 && m_peerId != 0 && m_plan.tellsName)
        emit remoteAbonentNameChanged(remoteAbonentName);
    if (!m_isKept && __atomic_load_n(&keepAlive, __ATOMIC_RELAXED)) {
        m_isKept = true;
        m_account->keptAlive();
    }
}

void TrafficSession::take(char byte)
{
    if (m_peerId != 0) {
        if (byte == m_peer->next())
            return;
        m_isBad = true;
        m_account->violate(QStringLiteral("a wrong byte came to %1").arg(channelName));
        return;
    }
    m_peerHeader.append(byte);
    if (m_peerHeader.size() < headerBytes)
        return;
    const auto id = qFromBigEndian<quint32>(m_peerHeader.constData());
    const QString port = m_account->beginReading(m_ownId, id);
    if (port.isEmpty()) {
        m_isBad = true;
        return;
    }
    m_peerId = id;
    m_peer.emplace(id);
    if (m_plan.tellsName)
        remoteAbonentName = TrafficFactory::nameOf(port);
}

void TrafficSession::writeSome()
{
    for (int block = 0; block < blocksPerTurn; ++block) {
        qint64 size = channel->idealBlockSize();
        if (m_plan.bytesToSend >= 0)
            size = qMin(size, m_plan.bytesToSend - m_sent);
        if (size <= 0)
            return;
        QByteArray bytes;
        if (m_sent == 0) {
            bytes.resize(headerBytes);
            qToBigEndian(m_ownId, bytes.data());
        }
        while (bytes.size() < size)
            bytes.append(m_own->next());
        // Before: the peer may read them before write() has returned.
        m_account->sent(m_ownId, bytes.size());
        m_sent += bytes.size();
        channel->write(bytes);
    }
}

void TrafficSession::end()
{
    m_timer.stop();
    if (m_plan.hangsUp && channel->isConnected()) {
        m_account->phase(m_ownId, "hanging up");
        channel->disconnectFromAbonent();
    }
    m_account->phase(m_ownId, "ended");
    emit finished();
}

} // namespace rig
