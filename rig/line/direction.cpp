#include "rig/line/direction.h"

#include "rig/packetoracle.h"

#include <algorithm>
#include <cstring>

namespace rig {

namespace {

// A driver with less than this to send calls itself writable.
constexpr std::size_t lowWaterBytes = 256;

constexpr int keptTakenBytes = 16384; // at the front of a queue, until they are moved out of the way

} // namespace

QByteArray Direction::Queue::take(std::size_t size)
{
    const QByteArray bytes = m_bytes.mid(m_taken, static_cast<int>(size));
    m_taken += bytes.size();
    if (m_taken == m_bytes.size()) {
        clear();
    } else if (m_taken > keptTakenBytes) {
        m_bytes.remove(0, m_taken);
        m_taken = 0;
    }
    return bytes;
}

void Direction::Queue::clear()
{
    m_bytes.resize(0);
    m_taken = 0;
}

Direction::Direction(const LineSettings& settings, std::uint64_t seed)
    : m_settings(settings), m_rng(seed), m_portPace(std::max(1, settings.portBitsPerSecond)),
      m_pace(settings.bitsPerSecond)
{
}

void Direction::setFaults(const Faults& faults, std::int64_t now)
{
    m_faults = faults;
    m_noise.reset();
    if (faults.bitErrorRate > 0 || faults.burst.meanIntervalSeconds > 0)
        m_noise.emplace(faults.bitErrorRate, faults.burst, m_settings.bitsPerSecond, m_rng.next());
    scheduleGarbage(now);
}

void Direction::clear()
{
    dropOutput();
    m_modem.clear();
    m_underWay.clear();
    dropInput();
}

std::int64_t Direction::nextEventNs() const
{
    std::int64_t next = std::min({m_nextGarbageNs, nextToModemNs(), nextToLineNs()});
    if (!m_underWay.isEmpty())
        next = std::min<std::int64_t>(next, m_underWay.nextArrivalNs());
    return next;
}

void Direction::advanceTo(std::int64_t now)
{
    while (std::min(nextToModemNs(), nextToLineNs()) <= now) {
        if (nextToModemNs() < nextToLineNs())
            moveToModem();
        else
            carryChunk();
    }
    while (m_nextGarbageNs <= now) {
        ++m_faultsMade;
        m_underWay.launch(m_nextGarbageNs + m_settings.delayNs, garbage());
        scheduleGarbage(m_nextGarbageNs);
    }
    const QByteArray arrived = m_underWay.take(now);
    const std::size_t depth = static_cast<std::size_t>(m_settings.inputDepth);
    const std::size_t room = depth - std::min(depth, bytesToReceive());
    const std::size_t size = static_cast<std::size_t>(arrived.size());
    m_bytesOverrun += size - std::min(room, size);
    m_input.append(arrived.left(static_cast<int>(std::min(room, size))));
}

std::size_t Direction::send(const char* data, std::size_t size, std::int64_t now)
{
    advanceTo(now);
    const std::size_t room = roomToSend();
    const std::size_t taken = std::min(room, size);
    sim::Pace& pace = hasModem() ? m_portPace : m_pace;
    if (taken > 0 && bytesToSend() == 0 && pace.throughNs(0) < now)
        pace.begin(now);
    m_output.append(QByteArray(data, static_cast<int>(taken)));
    return taken;
}

bool Direction::takesMore() const
{
    if (m_settings.wakesWhenLow)
        return bytesToSend() < lowWaterBytes;
    return bytesToSend() < static_cast<std::size_t>(m_settings.driverDepth);
}

std::size_t Direction::receive(char* data, std::size_t maxSize)
{
    const QByteArray bytes = m_input.take(std::min(maxSize, bytesToReceive()));
    std::memcpy(data, bytes.constData(), static_cast<std::size_t>(bytes.size()));
    return static_cast<std::size_t>(bytes.size());
}

std::int64_t Direction::nextArrivalNs() const
{
    if (!m_underWay.isEmpty())
        return m_underWay.nextArrivalNs();
    if (bytesToSend() == 0)
        return never;
    return m_pace.throughNs(std::min<qint64>(static_cast<qint64>(bytesToSend()), m_settings.chunkBytes)) +
           m_settings.delayNs;
}

std::int64_t Direction::lastArrivalNs() const
{
    if (bytesToSend() > 0) // there is no modem where somebody asks
        return m_pace.throughNs(static_cast<qint64>(bytesToSend())) + m_settings.delayNs;
    return m_underWay.isEmpty() ? never : m_underWay.lastArrivalNs();
}

void Direction::pauseUntil(std::int64_t ns)
{
    if (m_pace.throughNs(0) < ns)
        m_pace.begin(ns);
}

std::int64_t Direction::nextToLineNs() const
{
    return carried().size() > 0 ? m_pace.throughNs(0) : never;
}

// With flow control: as soon as there is room.
std::int64_t Direction::nextToModemNs() const
{
    if (!hasModem() || bytesToSend() == 0)
        return never;
    const bool isFull = m_modem.size() >= static_cast<std::size_t>(m_settings.modemBytes);
    return isFull && m_settings.flowControl ? never : m_portPace.throughNs(0);
}

void Direction::moveToModem()
{
    const std::int64_t nowNs = m_portPace.throughNs(0);
    const std::size_t room = static_cast<std::size_t>(m_settings.modemBytes) - m_modem.size();
    std::size_t size = std::min(bytesToSend(), static_cast<std::size_t>(m_settings.chunkBytes));
    if (m_settings.flowControl)
        size = std::min(size, room);
    const QByteArray bytes = m_output.take(size);
    m_portPace.take(bytes.size());
    if (m_modem.size() == 0 && m_pace.throughNs(0) < nowNs)
        m_pace.begin(nowNs);
    m_faultsMade += size > room;
    m_modem.append(bytes.left(static_cast<int>(std::min(room, size))));
}

// A chunk leaves its queue when the line begins with it.
void Direction::carryChunk()
{
    const bool wasFull = hasModem() && m_modem.size() >= static_cast<std::size_t>(m_settings.modemBytes);
    if (wasFull && m_settings.flowControl && m_portPace.throughNs(0) < m_pace.throughNs(0))
        m_portPace.begin(m_pace.throughNs(0));
    Queue& queue = carried();
    QByteArray bytes = queue.take(std::min(queue.size(), static_cast<std::size_t>(m_settings.chunkBytes)));
    m_pace.take(bytes.size());
    m_bytesCarried += static_cast<std::uint64_t>(bytes.size());
    if (m_faults.silence) {
        ++m_faultsMade;
        return;
    }
    if (m_noise)
        m_faultsMade += static_cast<std::uint64_t>(m_noise->apply(bytes));
    if (happens(m_faults.dropChunk))
        return;
    const std::int64_t arrivalNs = m_pace.throughNs(0) + m_settings.delayNs;
    if (happens(m_faults.doubleChunk))
        launch(arrivalNs, bytes);
    launch(happens(m_faults.delayChunk) ? arrivalNs + m_rng.between(0, m_faults.delayedByNs) : arrivalNs, bytes);
}

// Noise that is hard on a receiver: what looks like the beginning of a packet, too.
QByteArray Direction::garbage()
{
    const int size = static_cast<int>(1 + m_rng.below(static_cast<std::uint64_t>(m_faults.garbageBytes)));
    switch (m_rng.below(5)) {
    case 0: return QByteArray(size, rig::startSymbol);
    case 1: {
        const std::string header =
            rig::headerImage(static_cast<std::uint8_t>(m_rng.below(3)), static_cast<std::uint8_t>(m_rng.next()),
                             static_cast<std::uint16_t>(1 + m_rng.below(65535)));
        return QByteArray::fromStdString(header).left(size);
    }
    case 2: return "\r\nNO CARRIER\r\n";
    default:
        QByteArray bytes(size, Qt::Uninitialized);
        for (char& byte : bytes)
            byte = static_cast<char>(m_rng.next());
        return bytes;
    }
}

void Direction::scheduleGarbage(std::int64_t from)
{
    if (m_faults.garbagePerSecond <= 0 || m_faults.garbageBytes <= 0) {
        m_nextGarbageNs = never;
        return;
    }
    const double seconds = -std::log1p(-m_rng.unit()) / m_faults.garbagePerSecond;
    m_nextGarbageNs = from + 1 + static_cast<std::int64_t>(seconds * static_cast<double>(nsPerS));
}

void Direction::launch(std::int64_t arrivalNs, const QByteArray& bytes)
{
    if (m_faults.jitterNs > 0) {
        arrivalNs += m_rng.between(0, m_faults.jitterNs);
        arrivalNs = std::max<std::int64_t>(arrivalNs, m_underWay.lastArrivalNs());
    }
    m_underWay.launch(arrivalNs, bytes);
}

bool Direction::happens(double probability)
{
    const bool does = m_rng.chance(probability);
    m_faultsMade += does;
    return does;
}

} // namespace rig
