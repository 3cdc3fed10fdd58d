#include "tests/soak/hubline.h"

#include <algorithm>
#include <utility>

namespace soak {

using namespace rig;

namespace {

constexpr int mostTapped = 4096;
constexpr int chunkBytes = 256; // at the least
constexpr int chunksPerSecond = 10;

LineSettings settingsOf(int bitsPerSecond, std::int64_t delayNs)
{
    LineSettings settings;
    settings.bitsPerSecond = bitsPerSecond;
    settings.delayNs = delayNs;
    settings.chunkBytes = std::max(chunkBytes, bitsPerSecond / sim::bitsPerByte / chunksPerSecond);
    settings.inputDepth = 1 << 30; // no link below that would repeat what is lost
    return settings;
}

} // namespace

HubWay::HubWay(int bitsPerSecond, std::int64_t delayNs) : m_direction(settingsOf(bitsPerSecond, delayNs), 0) {}

int HubWay::room(std::int64_t now)
{
    m_direction.advanceTo(now);
    return static_cast<int>(m_direction.roomToSend());
}

void HubWay::send(const QByteArray& bytes, std::int64_t now)
{
    if (m_said.size() < mostTapped)
        m_said += bytes;
    m_direction.send(bytes.constData(), static_cast<std::size_t>(bytes.size()), now);
}

QByteArray HubWay::take(std::int64_t now)
{
    m_direction.advanceTo(now);
    return m_direction.receiveAll();
}

std::int64_t HubWay::nextArrivalNs() const
{
    return m_direction.bytesToReceive() > 0 ? 0 : m_direction.nextArrivalNs();
}

std::int64_t HubWay::lastArrivalNs(std::int64_t now) const
{
    const std::int64_t last = m_direction.lastArrivalNs();
    return last == never ? now : last;
}

void HubWay::clear()
{
    m_direction.clear();
    if (!m_said.isEmpty())
        m_saidEarlier = std::exchange(m_said, QByteArray());
}

HubLine::HubLine(const HubScenario::LinePlan& linePlan)
    : plan(linePlan), m_ways{HubWay(linePlan.bitsPerSecond, linePlan.delayNs),
                             HubWay(linePlan.bitsPerSecond, linePlan.delayNs)}
{
}

void HubLine::connect()
{
    for (int end = 0; end < 2; ++end) {
        m_ways[end].clear();
        m_ways[end].setDead(false);
        m_hungUp[end] = false;
        m_learnsNs[end] = never;
    }
    m_stands = true;
    m_isDead = false;
    ++m_call;
}

void HubLine::hangUp(int end, std::int64_t lateNs)
{
    m_hungUp[end] = true;
    const int other = 1 - end;
    m_learnsNs[other] = std::min(m_learnsNs[other], m_ways[end].lastArrivalNs(nowNs()) + lateNs);
    m_stands = !m_hungUp[0] || !m_hungUp[1];
}

void HubLine::die(std::int64_t firstLearnsNs, std::int64_t secondLearnsNs)
{
    for (HubWay& way : m_ways) {
        way.clear();
        way.setDead(true);
    }
    m_isDead = true;
    m_learnsNs[0] = std::min(m_learnsNs[0], firstLearnsNs);
    m_learnsNs[1] = std::min(m_learnsNs[1], secondLearnsNs);
}

} // namespace soak
