#include "host/session/sessiontimes.h"

#include "host/session/steadytime.h"

#include <algorithm>

namespace host {

namespace {

// A filler and its confirmation take 25 bytes of the line. While a file comes in, there may be
// nothing else to say for a long time, so that fillers become rare.
constexpr int slowerHeartbeats = 5; // the time between two is so many times longer
// So many come at the usual pace after the last frame. The link may hold that frame behind a gap,
// and the next packet makes it deliver the frame.
constexpr int heartbeatsAtUsualPace = 20;
// At least so many within the other side's silence limit, which should be the same as ours.
constexpr int heartbeatsBeforeSilence = 3;

QString seconds(int ms)
{
    return QString::number(ms / 1000.0);
}

} // namespace

SessionTimes::SessionTimes(const SessionSettings& settings, qint64 nowMs)
    : m_settings(settings), m_beganMs(nowMs), m_heardMs(nowMs), m_sentMs(nowMs), m_saidMs(nowMs), m_aliveMs(nowMs),
      m_usefulMs(nowMs)
{
}

void SessionTimes::sent(bool isHeartbeat, qint64 nowMs)
{
    m_sentMs = nowMs;
    if (!isHeartbeat)
        m_saidMs = nowMs;
}

qint64 SessionTimes::nextHeartbeatMs(bool hasMuchToReceive, qint64 nowMs) const
{
    const qint64 usualMs = m_sentMs + m_settings.heartbeatMs;
    // Not soon after a frame: the link may hold it behind a gap until another packet comes.
    const qint64 slowFromMs = m_saidMs + m_settings.heartbeatMs * heartbeatsAtUsualPace;
    if (!hasMuchToReceive || std::max(usualMs, nowMs) < slowFromMs)
        return usualMs;
    const int slowMs =
        std::min(m_settings.heartbeatMs * slowerHeartbeats, m_settings.silenceMs / heartbeatsBeforeSilence);
    return std::max(slowFromMs, m_sentMs + slowMs);
}

bool SessionTimes::isAliveDue(qint64 nowMs) const
{
    return nowMs - qMax(m_saidMs, m_aliveMs) >=
           qMin(m_settings.aliveMs, m_settings.silenceMs / heartbeatsBeforeSilence);
}

// In order of precedence.
std::array<SessionTimes::Limit, 4> SessionTimes::limits(const Facts& facts) const
{
    const Limit stalled{m_usefulMs + m_settings.stallMs, SessionEnd::Stalled};
    const Limit useless{m_usefulMs + m_settings.uselessMs, SessionEnd::Useless};
    return {{{facts.isStranger ? m_beganMs + m_settings.strangerMs : never, SessionEnd::TimeUsedUp},
             {m_heardMs + m_settings.silenceMs, SessionEnd::Silence},
             {facts.isOpening ? m_beganMs + m_settings.openingMs : never, SessionEnd::OpeningTimedOut},
             facts.awaitsAcknowledgement ? stalled : useless}};
}

std::optional<SessionTimes::Overdue> SessionTimes::overdue(const Facts& facts, qint64 nowMs) const
{
    for (const Limit& limit : limits(facts)) {
        if (nowMs >= limit.atMs)
            return Overdue{limit.end, reason(limit.end)};
    }
    return std::nullopt;
}

qint64 SessionTimes::nextLimitMs(const Facts& facts) const
{
    qint64 nextMs = never;
    for (const Limit& limit : limits(facts))
        nextMs = std::min(nextMs, limit.atMs);
    return nextMs;
}

QString SessionTimes::reason(SessionEnd limit) const
{
    if (limit == SessionEnd::TimeUsedUp)
        return QStringLiteral("a peer that is not known here may stay for %1 s").arg(seconds(m_settings.strangerMs));
    if (limit == SessionEnd::Silence)
        return QStringLiteral("nothing was heard from the other side for %1 s").arg(seconds(m_settings.silenceMs));
    if (limit == SessionEnd::OpeningTimedOut)
        return QStringLiteral("the other side did not say who it is within %1 s").arg(seconds(m_settings.openingMs));
    if (limit == SessionEnd::Stalled)
        return QStringLiteral("the other side acknowledges nothing");
    return QStringLiteral("nothing of use came from the other side for %1 s").arg(seconds(m_settings.uselessMs));
}

} // namespace host
