// Whether the link under a session has work of its own: something to repeat or to confirm.
//
// The link works only while its host reads and writes, and it does not say whether it has work. The
// host can work it out: the channels table counts what the peer has confirmed, and the link confirms
// what came in after at most an interval that is in the settings.
#pragma once

#include <QtGlobal>

#include <functional>

namespace host {

// How long a session may sleep.
struct SleepRules
{
    int longestMs = 0; // 0: it does not sleep
    int confirmationIntervalMs = 0; // the link's setting
    std::function<qint64()> confirmedBytes; // by peers, over this port, in all calls
};

// For one thread. nowMs: any steady clock, in milliseconds.
class LinkRest
{
public:
    LinkRest(SleepRules rules, qint64 nowMs);

    void written(int bytes) { m_unconfirmedBytes += bytes; }

    // Something ended a sleep, as a rule input.
    void woken() { m_wasWoken = true; }

    // A pass has read all there was.
    void read(qint64 bytes, qint64 beganMs, qint64 endedMs);

    // True when neither side waits for a confirmation. Not seen is a packet that comes a second time
    // between two passes without a sleep, because it brings no bytes. Its confirmation may then wait
    // for one sleep.
    [[nodiscard]] bool isAtRest() const { return m_unconfirmedBytes == 0 && m_beganMs >= m_confirmedByMs; }

private:
    const SleepRules m_rules;
    qint64 m_unconfirmedBytes = 0; // of what was written
    qint64 m_seenConfirmedBytes = 0;
    bool m_wasWoken = false;
    qint64 m_beganMs; // the last pass
    qint64 m_lastConfirmationMs; // the link's last confirmation was not after this
    qint64 m_confirmedByMs; // a pass that begins then or later has confirmed all that came in
};

} // namespace host
