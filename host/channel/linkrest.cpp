#include "host/channel/linkrest.h"

#include <algorithm>

namespace host {

LinkRest::LinkRest(SleepRules rules, qint64 nowMs)
    : m_rules(std::move(rules)), m_seenConfirmedBytes(m_rules.confirmedBytes ? m_rules.confirmedBytes() : 0),
      m_beganMs(nowMs), m_lastConfirmationMs(nowMs), m_confirmedByMs(nowMs)
{
}

void LinkRest::read(qint64 bytes, qint64 beganMs, qint64 endedMs)
{
    m_beganMs = beganMs;
    const qint64 confirmedBytes = m_rules.confirmedBytes ? m_rules.confirmedBytes() : 0;
    const qint64 newlyConfirmedBytes = confirmedBytes - m_seenConfirmedBytes;
    m_seenConfirmedBytes = confirmedBytes;
    m_unconfirmedBytes -= newlyConfirmedBytes;
    if (bytes > 0) {
        // If the last confirmation is older than the interval, the link has confirmed in this pass.
        // There is one more pass before a sleep all the same, because the port's event that the
        // confirmation was written would end the sleep.
        const bool wasConfirmedAtOnce = beganMs - m_lastConfirmationMs > m_rules.confirmationIntervalMs;
        m_lastConfirmationMs = endedMs;
        m_confirmedByMs = endedMs + 1 + (wasConfirmedAtOnce ? 0 : m_rules.confirmationIntervalMs);
    } else if (m_wasWoken && newlyConfirmedBytes == 0) {
        // The beginning of a packet, or a packet that came before and is confirmed again.
        m_confirmedByMs = std::max(m_confirmedByMs, endedMs + m_rules.confirmationIntervalMs + 1);
    }
    m_wasWoken = false;
}

} // namespace host
