#include "host/session/sessiontimes.h"

namespace host {

namespace {

// With its confirmation a filler takes 25 bytes of the line, and whoever takes a file in may
// have nothing else to say for long.
constexpr int slowerHeartbeats = 5; // times as long between two
constexpr int heartbeatsAtUsualPace = 20; // after the last frame: if that stands behind a gap, the next packet frees it
constexpr int heartbeatsBeforeSilence = 3; // but the other side must not take us for dead: its limit is as ours

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

bool SessionTimes::isHeartbeatDue(bool isMuchComing, qint64 nowMs) const
{
    int afterMs = m_settings.heartbeatMs;
    // Not soon after a frame: it may stand behind a gap until the next packet comes.
    if (isMuchComing && nowMs - m_saidMs >= m_settings.heartbeatMs * heartbeatsAtUsualPace)
        afterMs = qMin(afterMs * slowerHeartbeats, m_settings.silenceMs / heartbeatsBeforeSilence);
    return nowMs - m_sentMs >= afterMs;
}

bool SessionTimes::isAliveDue(qint64 nowMs) const
{
    return nowMs - qMax(m_saidMs, m_aliveMs) >=
           qMin(m_settings.aliveMs, m_settings.silenceMs / heartbeatsBeforeSilence);
}

std::optional<SessionTimes::Overdue> SessionTimes::overdue(const Facts& facts, qint64 nowMs) const
{
    if (facts.isStranger && nowMs - m_beganMs >= m_settings.strangerMs)
        return Overdue{
            SessionEnd::TimeUsedUp,
            QStringLiteral("a peer that is not known here may stay for %1 s").arg(seconds(m_settings.strangerMs))};
    if (silentMs(nowMs) >= m_settings.silenceMs)
        return Overdue{
            SessionEnd::Silence,
            QStringLiteral("nothing was heard from the other side for %1 s").arg(seconds(m_settings.silenceMs))};
    if (facts.isOpening && nowMs - m_beganMs >= m_settings.openingMs)
        return Overdue{
            SessionEnd::OpeningTimedOut,
            QStringLiteral("the other side did not say who it is within %1 s").arg(seconds(m_settings.openingMs))};
    if (facts.awaitsAcknowledgement && nowMs - m_usefulMs >= m_settings.stallMs)
        return Overdue{SessionEnd::Stalled, QStringLiteral("the other side acknowledges nothing")};
    if (!facts.awaitsAcknowledgement && nowMs - m_usefulMs >= m_settings.uselessMs)
        return Overdue{
            SessionEnd::Useless,
            QStringLiteral("nothing of use came from the other side for %1 s").arg(seconds(m_settings.uselessMs))};
    return std::nullopt;
}

} // namespace host
