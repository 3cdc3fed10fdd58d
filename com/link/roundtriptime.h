// How long a confirmation takes, and how long to wait for one: RFC 6298, with the pauses of the
// host's own passes on top.
#pragma once

#include <QtGlobal>

class RoundTripTime
{
public:
    static constexpr qint64 granularityUs = 20 * 1000; // "G"
    // (2.5) asks for a minute at least, for the sake of a net that others use too. A line has nobody
    // else, and answers in less unless it is silent.
    static constexpr qint64 longestTimeoutUs = 8 * 1000 * 1000;

    bool isMeasured() const { return m_smoothedUs >= 0; }

    // The time from the moment a packet left the driver until it was confirmed. Counts as no more
    // than four times the usual: a peer that waits behind a false header answers after minutes, and
    // that must not make the next silence as long.
    void take(qint64 sampleUs);

    // The same of a packet of which several copies were under way, so that nobody knows which was
    // confirmed: counts as no more than twice the usual.
    void takeDoubtful(qint64 sampleUs);

    qint64 smoothedUs() const { return m_smoothedUs; } // SRTT; only if measured

    // RTO. passGapUs: the longest time between two passes lately. unmeasuredUs: the answer as long
    // as there is no sample.
    qint64 timeoutUs(qint64 passGapUs, qint64 unmeasuredUs) const;

private:
    void takeAtMost(qint64 sampleUs, int usuals);
    qint64 usualUs() const; // RTO without the pauses

    qint64 m_smoothedUs = -1;
    qint64 m_variationUs = 0; // RTTVAR
};
