// Whether the link under a session has work of its own: something to repeat, something to confirm.
//
// The link works only while its host reads and writes, and does not say whether it needs to. The
// host can tell: the channels table counts what the peer has confirmed, and what came in is
// confirmed within an interval that the settings give.
#pragma once

#include <QtGlobal>

#include <functional>

namespace host {

// How long a session may sleep.
struct SleepRules
{
    int longestMs = 0; // 0: it does not sleep
    int confirmationIntervalMs = 0; // of the link
    std::function<qint64()> confirmedBytes; // of all that was ever written over this port
};

// For one thread. nowMs: any steady clock, in milliseconds.
class LinkRest
{
public:
    LinkRest(SleepRules rules, qint64 nowMs);

    void written(int bytes) { m_unconfirmedBytes += bytes; }

    // Something, as a rule input, ended a sleep.
    void woken() { m_wasWoken = true; }

    // A pass has read all there was.
    void read(qint64 bytes, qint64 beganMs, qint64 endedMs);

    // Nothing is unconfirmed, here or there. What this cannot see is a packet that came a second
    // time: it brings no bytes. If it did not end a sleep either, its confirmation may wait for
    // the end of the next one.
    [[nodiscard]] bool isAtRest() const { return m_unconfirmedBytes == 0 && m_beganMs >= m_confirmedByMs; }

private:
    const SleepRules m_rules;
    qint64 m_unconfirmedBytes = 0; // of what was written
    qint64 m_seenConfirmedBytes = 0;
    bool m_wasWoken = false;
    qint64 m_beganMs; // the last pass
    qint64 m_lastConfirmationMs; // of what came in; it was not later
    qint64 m_confirmedByMs; // a pass that begins then, or later, has confirmed all that came in
};

} // namespace host
