#include "rig/line/line.h"

#include "rig/packetoracle.h"

#include <algorithm>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

namespace soak {

namespace {

constexpr int bitsPerByteOnLine = 10;
constexpr int bitsPerByte = 8;

// What a receiving driver keeps for a program that does not read; more is lost.
constexpr std::size_t inputDepth = 65536;

// A driver with less than this to send calls itself writable.
constexpr std::size_t lowWaterBytes = 256;

void compact(std::string& bytes, std::size_t& taken)
{
    if (taken == bytes.size()) {
        bytes.clear();
        taken = 0;
    } else if (taken > 16384) {
        bytes.erase(0, taken);
        taken = 0;
    }
}

} // namespace

Direction::Direction(const LineSettings& settings, std::uint64_t seed)
    : m_settings(settings), m_nsPerByte(bitsPerByteOnLine * nsPerS / settings.bitsPerSecond), m_rng(seed)
{
}

void Direction::setFaults(const Faults& faults, std::int64_t now)
{
    m_faults = faults;
    m_bitsToError = m_rng.failuresBefore(faults.bitErrorRate);
    m_burstLeft = 0;
    scheduleBurst();
    scheduleGarbage(now);
}

void Direction::clear()
{
    dropQueue();
    m_flight.clear();
    dropInput();
}

std::int64_t Direction::nextEventNs() const
{
    std::int64_t next = m_nextGarbageNs;
    if (bytesToSend() > 0)
        next = std::min(next, m_lineFreeNs);
    if (!m_flight.empty())
        next = std::min(next, m_flight.front().arrivalNs);
    return next;
}

void Direction::advanceTo(std::int64_t now)
{
    while (bytesToSend() > 0 && m_lineFreeNs <= now)
        carryChunk(m_lineFreeNs);
    while (m_nextGarbageNs <= now) {
        ++m_faultsMade;
        launch(m_nextGarbageNs + m_settings.delayNs, garbage());
        scheduleGarbage(m_nextGarbageNs);
    }
    while (!m_flight.empty() && m_flight.front().arrivalNs <= now) {
        const std::string& bytes = m_flight.front().bytes;
        const std::size_t room = inputDepth - std::min(inputDepth, bytesToReceive());
        m_bytesOverrun += bytes.size() - std::min(room, bytes.size());
        m_input.append(bytes, 0, room);
        m_flight.pop_front();
    }
}

std::size_t Direction::send(const char* data, std::size_t size, std::int64_t now)
{
    const std::size_t room = static_cast<std::size_t>(m_settings.driverDepth) - bytesToSend();
    const std::size_t taken = std::min(room, size);
    if (taken > 0 && bytesToSend() == 0)
        m_lineFreeNs = std::max(m_lineFreeNs, now);
    m_queue.append(data, taken);
    return taken;
}

bool Direction::takesMore() const
{
    if (m_settings.wakesWhenLow)
        return bytesToSend() < lowWaterBytes;
    return bytesToSend() < static_cast<std::size_t>(m_settings.driverDepth);
}

void Direction::dropQueue()
{
    m_queue.clear();
    m_queueTaken = 0;
}

std::size_t Direction::receive(char* data, std::size_t maxSize)
{
    const std::size_t taken = std::min(maxSize, bytesToReceive());
    std::memcpy(data, m_input.data() + m_inputTaken, taken);
    m_inputTaken += taken;
    compact(m_input, m_inputTaken);
    return taken;
}

void Direction::dropInput()
{
    m_input.clear();
    m_inputTaken = 0;
}

void Direction::carryChunk(std::int64_t start)
{
    const std::size_t size = std::min(bytesToSend(), static_cast<std::size_t>(m_settings.chunkBytes));
    std::string bytes = m_queue.substr(m_queueTaken, size);
    m_queueTaken += size;
    compact(m_queue, m_queueTaken);
    m_lineFreeNs = start + static_cast<std::int64_t>(size) * m_nsPerByte;
    m_bytesCarried += size;
    if (m_faults.silence) {
        ++m_faultsMade;
        return;
    }
    damage(bytes);
    std::int64_t arrival = m_lineFreeNs + m_settings.delayNs;
    if (m_rng.chance(m_faults.dropChunk)) {
        ++m_faultsMade;
        return;
    }
    if (m_rng.chance(m_faults.doubleChunk)) {
        ++m_faultsMade;
        launch(arrival, bytes);
    }
    if (m_rng.chance(m_faults.delayChunk)) {
        ++m_faultsMade;
        arrival += m_rng.between(0, m_faults.delayedByNs);
    }
    launch(arrival, std::move(bytes));
}

void Direction::damage(std::string& bytes)
{
    const auto bits = static_cast<std::int64_t>(bytes.size()) * bitsPerByte;
    if (m_bitsToError < bits) {
        std::int64_t bit = m_bitsToError;
        while (bit < bits) {
            ++m_faultsMade;
            bytes[static_cast<std::size_t>(bit / bitsPerByte)] ^= static_cast<char>(1 << (bit % bitsPerByte));
            bit += 1 + m_rng.failuresBefore(m_faults.bitErrorRate);
        }
        m_bitsToError = bit - bits;
    } else if (m_bitsToError != never) {
        m_bitsToError -= bits;
    }
    if (m_bytesToBurst == never)
        return;
    for (char& byte : bytes) {
        if (m_burstLeft == 0 && m_bytesToBurst-- <= 0) {
            ++m_faultsMade;
            m_burstLeft = m_faults.burstBytes;
            scheduleBurst();
        }
        if (m_burstLeft > 0) {
            --m_burstLeft;
            for (int bit = 0; bit < bitsPerByte; ++bit)
                byte ^= static_cast<char>(m_rng.chance(m_faults.burstBitErrorRate) << bit);
        }
    }
}

// Noise that is hard on a receiver: what looks like the beginning of a packet, too.
std::string Direction::garbage()
{
    const std::size_t size = 1 + m_rng.below(static_cast<std::uint64_t>(m_faults.garbageBytes));
    std::string bytes(size, '\0');
    switch (m_rng.below(5)) {
    case 0: bytes.assign(size, testsupport::startSymbol); break;
    case 1: {
        std::string header =
            testsupport::headerImage(static_cast<std::uint8_t>(m_rng.below(3)), static_cast<std::uint8_t>(m_rng.next()),
                                     static_cast<std::uint16_t>(1 + m_rng.below(65535)));
        bytes = header.substr(0, std::max<std::size_t>(size, 1));
        break;
    }
    case 2: bytes = "\r\nNO CARRIER\r\n"; break;
    default:
        for (char& byte : bytes)
            byte = static_cast<char>(m_rng.next());
        break;
    }
    return bytes;
}

void Direction::scheduleBurst()
{
    const double bytesPerSecond = static_cast<double>(nsPerS) / static_cast<double>(m_nsPerByte);
    m_bytesToBurst = m_faults.burstBytes > 0 ? m_rng.failuresBefore(m_faults.burstsPerSecond / bytesPerSecond) : never;
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

void Direction::launch(std::int64_t arrivalNs, std::string bytes)
{
    auto place = m_flight.end();
    while (place != m_flight.begin() && std::prev(place)->arrivalNs > arrivalNs)
        --place;
    m_flight.insert(place, {arrivalNs, std::move(bytes)});
}

Line::Line(const LineSettings& settings, std::uint64_t seed)
    : m_directions{Direction(settings, seed), Direction(settings, ~seed)}, m_ports{Port(this, 0), Port(this, 1)}
{
    for (int end = 0; end < 2; ++end)
        setDevice(path(end).c_str(), &m_ports[end]);
    setWorld(this);
}

Line::~Line()
{
    setWorld(nullptr);
    for (int end = 0; end < 2; ++end)
        setDevice(path(end).c_str(), nullptr);
}

std::string Line::path(int end)
{
    // QSerialPort locks a port by its name, for all processes of the machine.
    return devicePrefix + std::to_string(getpid()) + (end == 0 ? "a" : "b");
}

std::int64_t Line::nextEventNs() const
{
    return std::min(m_directions[0].nextEventNs(), m_directions[1].nextEventNs());
}

void Line::advanceTo(std::int64_t ns)
{
    for (Direction& direction : m_directions)
        direction.advanceTo(ns);
}

std::size_t Line::Port::read(char* data, std::size_t maxSize)
{
    const std::size_t taken = in().receive(data, maxSize);
    if (m_line->m_listener && taken > 0)
        m_line->m_listener->bytesRead(m_end, data, taken);
    return taken;
}

std::size_t Line::Port::write(const char* data, std::size_t size)
{
    return out().send(data, size, nowNs());
}

int Line::Port::modemLines() const
{
    return TIOCM_DSR | TIOCM_CTS | (m_line->m_carrier ? TIOCM_CAR : 0);
}

} // namespace soak
