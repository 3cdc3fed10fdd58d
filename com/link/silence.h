// What to do while no confirmation comes: probe with little, at growing intervals, and in a long
// silence repeat everything, because the far end may be waiting for bytes behind a false header.
#pragma once

#include <QtGlobal>

class Silence
{
public:
    // What a false header can announce, and what a driver holds: after so many bytes in one silence
    // a peer behind such a header has got out of it.
    static constexpr int mostRoundBytes = 65546 + 4096;

    // From this many probes without an answer on, everything is repeated.
    static constexpr int probesBeforeRounds = 2;

    void confirmed(qint64 nowUs);
    void probed(qint64 nowUs);
    void repeatedInRound(int wireBytes) { m_roundBytes += wireBytes; }

    // All that was sent has left the port, the last of it at departedUs; timeoutUs: RTO;
    // resendIntervalUs: what the settings say.
    bool isProbeDue(qint64 nowUs, qint64 departedUs, qint64 timeoutUs, qint64 resendIntervalUs) const;

    bool mayRepeatAll() const { return m_probes >= probesBeforeRounds && m_roundBytes < mostRoundBytes; }

    qint64 lastProbeUs() const { return m_lastProbeUs; } // -1: never

private:
    int m_probes = 0; // since the last confirmation: the back-off
    int m_roundBytes = 0; // since then
    qint64 m_lastProbeUs = -1;
    qint64 m_lastConfirmedUs = -1;
};
