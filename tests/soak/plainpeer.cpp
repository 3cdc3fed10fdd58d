#include "tests/soak/plainpeer.h"

#include "plugin/api/cabstractchannelsstate.h"
#include "rig/time/virtualtime.h"

#include <QDateTime>
#include <QSerialPort>

#include <algorithm>

namespace soak {

using namespace rig;

namespace {

constexpr int packetsBeforePause = 110;
constexpr int window = 119;

bool standsBefore(std::uint8_t a, std::uint8_t b)
{
    if (a == b)
        return false;
    return a < b ? b - a <= window : b + 255 - a <= window;
}

} // namespace

PlainPeer::PlainPeer(QSerialPort* port, CAbstractChannelsState* state, int index, const ChannelSettings& settings)
    : m_port(port), m_state(state), m_index(index), m_settings(settings), m_lastConfirmationNs(nowNs())
{
    type = 2;
}

void PlainPeer::disconnectFromAbonent()
{
    m_connected = false;
}

bool PlainPeer::isConnected()
{
    return m_connected && (m_port->pinoutSignals() & QSerialPort::DataCarrierDetectSignal);
}

void PlainPeer::write(const QByteArray& data)
{
    const int block = std::max(1, std::min(m_settings.packetSize, m_settings.maxBytesToWrite) - 10);
    for (int from = 0; from < data.size(); from += block) {
        rig::WirePacket packet;
        packet.number = m_nextNumber++;
        packet.payload = data.mid(from, block).toStdString();
        const int size = static_cast<int>(packet.payload.size());
        m_queue.push_back({packet.number, size, rig::packetImage(packet), 0});
        m_queuedBytes += size;
    }
}

int PlainPeer::idealBlockSize()
{
    if (m_queue.size() > packetsBeforePause || m_queuedBytes > m_settings.maxBytesInQueue)
        return 0;
    if (!m_queue.empty() && standsBefore(static_cast<std::uint8_t>(m_nextNumber + 10), m_queue.front().number))
        return 0;
    return m_settings.packetSize;
}

QByteArray PlainPeer::read(int maxSize)
{
    awaitWritten(10);
    m_port->waitForReadyRead(10);
    const QByteArray bytes = m_port->readAll();
    m_cutter.append(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    rig::WirePacket packet;
    while (m_cutter.next(&packet))
        receive(packet);
    sendPackets();
    sendConfirmations();
    const std::size_t size = std::min(m_received.size(), static_cast<std::size_t>(std::max(maxSize, 0)));
    const QByteArray result(m_received.data(), static_cast<int>(size));
    m_received.erase(0, size);
    return result;
}

void PlainPeer::receive(const rig::WirePacket& packet)
{
    if (packet.type == rig::confirmationType) {
        confirmedByPeer(packet.payload);
        return;
    }
    if (packet.type != rig::dataType)
        return;
    m_toConfirm.insert(packet.number);
    if (packet.number == m_expected) {
        deliver(packet);
        return;
    }
    if (!standsBefore(m_expected, packet.number))
        return;
    const auto sameNumber = [&](const rig::WirePacket& held) { return held.number == packet.number; };
    if (std::none_of(m_held.begin(), m_held.end(), sameNumber)) {
        m_held.push_back(packet);
        for (std::size_t i = m_held.size() - 1; i > 0 && standsBefore(m_held[i].number, m_held[i - 1].number); --i)
            std::swap(m_held[i], m_held[i - 1]);
    }
    while (!m_held.empty() && m_held.front().number == m_expected) {
        deliver(m_held.front());
        m_held.erase(m_held.begin());
    }
}

void PlainPeer::deliver(const rig::WirePacket& packet)
{
    m_state->addReceivedBytes(m_index, static_cast<int>(packet.payload.size()));
    m_received += packet.payload;
    ++m_expected;
}

void PlainPeer::confirmedByPeer(const std::string& numbers)
{
    for (auto queued = m_queue.begin(); queued != m_queue.end();) {
        if (numbers.find(static_cast<char>(queued->number)) == std::string::npos) {
            ++queued;
            continue;
        }
        m_state->addSentBytes(m_index, queued->size);
        m_queuedBytes -= queued->size;
        queued = m_queue.erase(queued);
    }
}

void PlainPeer::sendPackets()
{
    const std::int64_t now = QDateTime::currentMSecsSinceEpoch();
    for (Queued& queued : m_queue) {
        const bool repeat = queued.sentMs != 0;
        if (repeat && now - queued.sentMs <= m_settings.resendIntervalMs)
            continue;
        const std::int64_t waiting = m_port->bytesToWrite();
        if (waiting > 0 && m_settings.maxBytesToWrite - waiting < static_cast<std::int64_t>(queued.image.size())) {
            awaitWritten(repeat ? 100 : 50);
            return;
        }
        queued.sentMs = now;
        m_port->write(queued.image.data(), static_cast<qint64>(queued.image.size()));
        awaitWritten(10);
    }
}

void PlainPeer::sendConfirmations()
{
    const bool many = m_toConfirm.size() >= 61;
    const bool late = nowNs() - m_lastConfirmationNs > m_settings.confirmationIntervalMs * nsPerMs;
    if (m_toConfirm.empty() || (!many && !late))
        return;
    rig::WirePacket packet;
    packet.type = rig::confirmationType;
    for (const std::uint8_t number : m_toConfirm)
        packet.payload += static_cast<char>(number);
    const std::string image = rig::packetImage(packet);
    m_port->write(image.data(), static_cast<qint64>(image.size()));
    m_port->flush();
    awaitWritten(10);
    m_toConfirm.clear();
    m_lastConfirmationNs = nowNs();
}

bool PlainPeer::awaitWritten(int ms)
{
    return m_port->bytesToWrite() > 0 && m_port->waitForBytesWritten(ms);
}

} // namespace soak
