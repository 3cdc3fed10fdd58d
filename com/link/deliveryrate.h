// How fast the far end gets what left the port, and how soon it says so when nothing is queued on
// the way. A modem has a buffer of its own: behind a fast port the driver is soon empty, and what
// the line still has to carry shows only in the confirmations.
#pragma once

#include <QtGlobal>

#include <deque>

class DeliveryRate
{
public:
    static constexpr qint64 epochUs = 10 * 1000 * 1000; // what "lately" means

    // What is kept of a packet from the moment it leaves the driver.
    struct Start
    {
        qint64 departedUs = -1;
        qint64 settledBytes = 0;
        qint64 settledUs = 0;
        bool hadMore = false;
    };
    // isAlone: nothing else is on its way. hasMore: more follows; otherwise what comes of it tells
    // how much the host had to say, not what the line can do.
    Start start(qint64 nowUs, bool isAlone, bool hasMore);

    // A packet has left the line: it was confirmed, or is known to be lost.
    void settled(int wireBytes) { m_settledBytes += wireBytes; }

    // When all is settled that a confirmation settles. packet: the one that has waited longest for
    // it, of those that were sent once.
    void confirmed(const Start& packet, qint64 nowUs);

    bool isMeasured() const { return !m_rates.empty(); }

    // The best of lately; only if measured, as the next two.
    double bytesPerS() const { return m_rates.front().bytesPerS; }
    qint64 leastRoundTripUs() const { return m_leastUs; }

    // How much may be on its way beyond the driver. slackUs: what the host's passes add to a round
    // trip. isHidden: a queue may have grown there; then it is now and then let run off, so that
    // the round trip without it shows itself.
    double mostUnderWay(qint64 slackUs, bool isHidden, qint64 nowUs) const;

private:
    struct Rate
    {
        qint64 atUs;
        double bytesPerS;
    };

    void takeRate(double bytesPerS, bool hadMore, qint64 nowUs);
    void lookAtGrowth(qint64 nowUs);
    void takeRoundTrip(qint64 roundTripUs, qint64 nowUs);

    qint64 m_settledBytes = 0;
    qint64 m_settledUs = 0;
    std::deque<Rate> m_rates; // each smaller than the one before it
    qint64 m_leastUs = 0;
    qint64 m_leastOfLastEpochUs = 0;
    qint64 m_leastOfEpochUs = 0;
    qint64 m_epochBeganUs = 0;
    qint64 m_drainUntilUs = 0;
    bool m_isFull = false; // the line, since it does not get faster
    double m_grownBytesPerS = 0;
    int m_withoutGrowth = 0; // round trips
    qint64 m_growthLookedAtUs = 0;
};
