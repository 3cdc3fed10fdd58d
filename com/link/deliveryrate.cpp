#include "com/link/deliveryrate.h"

#include <algorithm>
#include <limits>

namespace {

constexpr double usPerS = 1e6;
constexpr qint64 never = std::numeric_limits<qint64>::max();

// What may be under way, in what the line and the way back need. At first twice as much, so that
// the rate that shows itself doubles with each round trip. Then, where a modem hides a queue, as
// little more as still shows it when the line becomes faster. Where the driver shows all that
// waits, the queue there is short, and this is to end only what nobody has thought of.
constexpr double growingGain = 2;
constexpr double hiddenGain = 1.25;
constexpr double openGain = 8;

// The line is full when so many round trips in a row have not made it faster by a quarter.
constexpr double growth = 1.25;
constexpr int roundTripsWithoutGrowth = 3;

constexpr double drainGain = 0.5;

// Confirmations that come this much later than the soonest ones: a queue is in their way.
constexpr qint64 queueUs = 50 * 1000;

} // namespace

DeliveryRate::Start DeliveryRate::start(qint64 nowUs, bool isAlone, bool hasMore)
{
    if (isAlone)
        m_settledUs = nowUs;
    return {nowUs, m_settledBytes, m_settledUs, hasMore};
}

void DeliveryRate::confirmed(const Start& packet, qint64 nowUs)
{
    m_settledUs = nowUs;
    const qint64 tookUs = nowUs - packet.settledUs;
    if (packet.departedUs < 0 || tookUs <= 0)
        return;
    takeRoundTrip(nowUs - packet.departedUs, nowUs);
    const auto settledBytes = static_cast<double>(m_settledBytes - packet.settledBytes);
    takeRate(settledBytes * usPerS / static_cast<double>(tookUs), packet.hadMore, nowUs);
}

double DeliveryRate::mostUnderWay(qint64 slackUs, bool isHidden, qint64 nowUs) const
{
    if (isHidden && nowUs < m_drainUntilUs)
        return drainGain * bytesPerS() * static_cast<double>(m_leastUs) / usPerS;
    const double steadyGain = isHidden ? hiddenGain : openGain;
    return (m_isFull ? steadyGain : growingGain) * bytesPerS() * static_cast<double>(m_leastUs + slackUs) / usPerS;
}

void DeliveryRate::takeRate(double bytesPerS, bool hadMore, qint64 nowUs)
{
    if (!hadMore && isMeasured() && bytesPerS < m_rates.front().bytesPerS)
        return;
    while (!m_rates.empty() && m_rates.back().bytesPerS <= bytesPerS)
        m_rates.pop_back();
    m_rates.push_back({nowUs, bytesPerS});
    while (m_rates.front().atUs < nowUs - epochUs)
        m_rates.pop_front();
    if (hadMore && nowUs - m_growthLookedAtUs >= m_leastUs)
        lookAtGrowth(nowUs);
}

void DeliveryRate::lookAtGrowth(qint64 nowUs)
{
    m_growthLookedAtUs = nowUs;
    if (bytesPerS() >= growth * m_grownBytesPerS) {
        m_grownBytesPerS = bytesPerS();
        m_withoutGrowth = 0;
    } else if (++m_withoutGrowth >= roundTripsWithoutGrowth) {
        m_isFull = true;
    }
}

// The least of two epochs counts. If all of an epoch was slower, a queue may have grown on the way:
// it is let run off, and what is measured then is either as fast as before or the new way.
void DeliveryRate::takeRoundTrip(qint64 roundTripUs, qint64 nowUs)
{
    if (!isMeasured()) {
        m_leastUs = m_leastOfLastEpochUs = m_leastOfEpochUs = roundTripUs;
        m_epochBeganUs = nowUs;
        return;
    }
    m_leastOfEpochUs = std::min(m_leastOfEpochUs, roundTripUs);
    m_leastUs = std::min(m_leastUs, roundTripUs);
    if (nowUs - m_epochBeganUs < epochUs)
        return;
    if (m_leastOfEpochUs > m_leastUs + m_leastUs / 4 + queueUs)
        m_drainUntilUs = nowUs + m_leastOfEpochUs;
    m_leastUs = std::min(m_leastOfLastEpochUs, m_leastOfEpochUs);
    m_leastOfLastEpochUs = m_leastOfEpochUs;
    m_leastOfEpochUs = never;
    m_epochBeganUs = nowUs;
}
