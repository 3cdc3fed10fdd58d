// When a session last heard, said and did something, and what is due because of that. The time is
// handed in.
#pragma once

#include "host/session/sessioncall.h"
#include "host/session/sessionsettings.h"

#include <QString>

#include <array>
#include <optional>

namespace host {

class SessionTimes
{
public:
    SessionTimes(const SessionSettings& settings, qint64 nowMs);

    void heard(qint64 nowMs) { m_heardMs = nowMs; }
    void useful(qint64 nowMs) { m_usefulMs = nowMs; }
    // Bytes were given to the channel; they may be nothing but a heartbeat.
    void sent(bool isHeartbeat, qint64 nowMs);
    void saidAlive(qint64 nowMs) { m_aliveMs = nowMs; }

    [[nodiscard]] qint64 heardMs() const { return m_heardMs; }
    [[nodiscard]] qint64 silentMs(qint64 nowMs) const { return nowMs - m_heardMs; }

    // When the next heartbeat is due, if nothing else is said before. hasMuchToReceive: much of a file
    // is still to come in, so that there is little else to say.
    [[nodiscard]] qint64 nextHeartbeatMs(bool hasMuchToReceive, qint64 nowMs) const;
    [[nodiscard]] bool isHeartbeatDue(bool hasMuchToReceive, qint64 nowMs) const
    {
        return nowMs >= nextHeartbeatMs(hasMuchToReceive, nowMs);
    }
    // Whether a heartbeat has to prove that it is ours.
    [[nodiscard]] bool isAliveDue(qint64 nowMs) const;

    struct Facts
    {
        bool isOpening = false; // the peer has not said who it is
        bool isStranger = false; // it has, and is not proved
        bool awaitsAcknowledgement = false;
    };
    struct Overdue
    {
        SessionEnd end = SessionEnd::None;
        QString reason;
    };
    [[nodiscard]] std::optional<Overdue> overdue(const Facts& facts, qint64 nowMs) const;
    // When the first limit is reached, if nothing happens before.
    [[nodiscard]] qint64 nextLimitMs(const Facts& facts) const;

private:
    struct Limit
    {
        qint64 atMs;
        SessionEnd end;
    };
    [[nodiscard]] std::array<Limit, 4> limits(const Facts& facts) const;
    [[nodiscard]] QString reason(SessionEnd limit) const;

    const SessionSettings& m_settings; // the session's
    const qint64 m_beganMs;
    qint64 m_heardMs;
    qint64 m_sentMs;
    qint64 m_saidMs; // the same, without heartbeats
    qint64 m_aliveMs;
    qint64 m_usefulMs;
};

} // namespace host
