#include "tests/soak/hubline.h"

#include <algorithm>
#include <utility>

namespace soak {

namespace {

constexpr int queueBytes = 4096; // of a channel and its driver
constexpr int mostTapped = 4096;
constexpr int pieceBytes = 256; // that arrive together, at the least
constexpr std::int64_t pieceNs = 100 * nsPerMs;

} // namespace

HubPipe::HubPipe(int bitsPerSecond, std::int64_t delayNs) : m_nsPerByte(10 * nsPerS / bitsPerSecond), m_delayNs(delayNs)
{
}

int HubPipe::room(std::int64_t now) const
{
    const std::int64_t waiting = std::max<std::int64_t>(0, m_freeNs - now) / m_nsPerByte;
    return static_cast<int>(std::max<std::int64_t>(0, queueBytes - waiting));
}

void HubPipe::send(const QByteArray& bytes, std::int64_t now)
{
    if (m_said.size() < mostTapped)
        m_said += bytes;
    m_freeNs = std::max(m_freeNs, now);
    const int piece = std::max(pieceBytes, static_cast<int>(pieceNs / m_nsPerByte));
    for (int at = 0; at < bytes.size(); at += piece) {
        const QByteArray part = bytes.mid(at, piece);
        m_freeNs += part.size() * m_nsPerByte;
        m_carried += static_cast<std::uint64_t>(part.size());
        if (!m_dead)
            m_flights.push_back({m_freeNs + m_delayNs, part});
    }
}

QByteArray HubPipe::take(std::int64_t now)
{
    QByteArray bytes;
    while (!m_flights.empty() && m_flights.front().arrivalNs <= now) {
        bytes += m_flights.front().bytes;
        m_flights.pop_front();
    }
    return bytes;
}

std::int64_t HubPipe::nextArrivalNs() const
{
    return m_flights.empty() ? never : m_flights.front().arrivalNs;
}

std::int64_t HubPipe::lastArrivalNs(std::int64_t now) const
{
    return m_flights.empty() ? now : m_flights.back().arrivalNs;
}

void HubPipe::clear()
{
    m_flights.clear();
    m_freeNs = 0;
    if (!m_said.isEmpty())
        m_saidEarlier = std::exchange(m_said, QByteArray());
}

HubLine::HubLine(const HubScenario::LinePlan& linePlan)
    : plan(linePlan), m_pipes{HubPipe(linePlan.bitsPerSecond, linePlan.delayNs),
                              HubPipe(linePlan.bitsPerSecond, linePlan.delayNs)}
{
}

void HubLine::connect()
{
    for (int end = 0; end < 2; ++end) {
        m_pipes[end].clear();
        m_pipes[end].setDead(false);
        m_hungUp[end] = false;
        m_learnsNs[end] = never;
    }
    m_stands = true;
    ++m_call;
}

void HubLine::hangUp(int end, std::int64_t lateNs)
{
    m_hungUp[end] = true;
    const int other = 1 - end;
    m_learnsNs[other] = std::min(m_learnsNs[other], m_pipes[end].lastArrivalNs(nowNs()) + lateNs);
    m_stands = !m_hungUp[0] || !m_hungUp[1];
}

void HubLine::die(std::int64_t firstLearnsNs, std::int64_t secondLearnsNs)
{
    for (HubPipe& pipe : m_pipes) {
        pipe.clear();
        pipe.setDead(true);
    }
    m_learnsNs[0] = std::min(m_learnsNs[0], firstLearnsNs);
    m_learnsNs[1] = std::min(m_learnsNs[1], secondLearnsNs);
}

} // namespace soak
