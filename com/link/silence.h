// What to do while no confirmation comes: probe with little, at growing intervals, and in a long
// silence repeat everything, because the far end may be waiting for bytes behind a false header.
#pragma once

#include <QtGlobal>

class Silence
{
public:
    // What a false header can announce, and what a driver holds: after so many bytes a peer behind
    // such a header has got out of it. If they were lost too, the same follows after a pause as long
    // as they took, so that a line that comes back is not left idle, nor a dead one kept full.
    static constexpr int mostRoundBytes = 65546 + 4096;

    // From this many probes without an answer on, everything is repeated.
    static constexpr int probesBeforeRounds = 2;

    void confirmed(qint64 nowUs);
    void probed(qint64 nowUs);
    void repeatedInRound(int wireBytes, qint64 nowUs);

    // All that was sent has left the port, the oldest of it at departedUs; timeoutUs: RTO;
    // resendIntervalUs: what the settings say.
    bool isProbeDue(qint64 nowUs, qint64 departedUs, qint64 timeoutUs, qint64 resendIntervalUs) const;

    bool mayRepeatAll(qint64 nowUs);

    qint64 lastProbeUs() const { return m_lastProbeUs; } // -1: never

private:
    int m_probes = 0; // since the last confirmation: the back-off
    int m_roundBytes = 0; // since then, or since the last pause
    qint64 m_roundsBeganUs = 0;
    qint64 m_roundsEndedUs = 0;
    qint64 m_lastProbeUs = -1;
    qint64 m_lastConfirmedUs = -1;
};
