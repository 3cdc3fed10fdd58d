#include "host/channel/pacing.h"

#include <algorithm>
#include <limits>

namespace host {

namespace {

constexpr qint64 rateWindowMs = 500;

constexpr int sendingPauseMs = 5;
constexpr int longestSendingPauseMs = 25;
constexpr int receivingPauseMs = 10; // while nothing is to be sent
constexpr int bulkReceivingPauseMs = 20; // the same while a file comes in, on a line that is not fast
constexpr int longestBulkReceivingPauseMs = 40;
constexpr qint64 fastBytesPerS = 20000;
// On a slow line the usual pauses carry less than this, which is half a small packet: there the
// pauses become longer.
constexpr qint64 pauseBytes = 60;

// While the peer sends too, a pass writes only what the line carries in this time, so that the peer's
// data is confirmed soon. Where passes take longer, twice the time of a pass counts; otherwise each
// pass would write less than the one before.
constexpr qint64 busyBytesPerS = 256; // the peer sends data, not only answers
constexpr qint64 turnMs = 30;

} // namespace

Pacing::Pacing(qint64 nowMs)
    : m_in(rateWindowMs, nowMs), m_out(rateWindowMs, nowMs), m_passBeganMs(nowMs), m_writingBeganMs(nowMs)
{
}

void Pacing::received(int bytes, qint64 nowMs)
{
    m_in.count(bytes, nowMs);
    m_out.count(0, nowMs);
}

void Pacing::beginWriting(bool isFull, qint64 nowMs)
{
    const qint64 lineBytesPerS = std::max(m_in.bytesPerS(), m_out.bytesPerS());
    const qint64 passMs = std::max(turnMs, 2 * (nowMs - m_writingBeganMs));
    m_mostBytes = m_in.bytesPerS() > busyBytesPerS ? lineBytesPerS * passMs / 1000 : std::numeric_limits<qint64>::max();
    m_writtenBytes = 0;
    m_writingBeganMs = nowMs;
    m_hasSent = isFull;
}

void Pacing::written(int bytes, qint64 nowMs)
{
    m_writtenBytes += bytes;
    m_out.count(bytes, nowMs);
    m_hasSent = true;
}

int Pacing::pauseMs(bool hasMuchToReceive, qint64 nowMs) const
{
    if (m_hasSent) { // the channel has usually waited for room in the driver, which is part of the pause
        const qint64 pauseMs = onSlowLine(sendingPauseMs, longestSendingPauseMs);
        return static_cast<int>(std::max<qint64>(0, pauseMs - (nowMs - m_passBeganMs)));
    }
    if (m_in.bytesPerS() > fastBytesPerS)
        return sendingPauseMs;
    return hasMuchToReceive ? onSlowLine(bulkReceivingPauseMs, longestBulkReceivingPauseMs) : receivingPauseMs;
}

// A pause of usualMs, or the time of pauseBytes on the line if that is longer.
int Pacing::onSlowLine(int usualMs, int longestMs) const
{
    const qint64 lineBytesPerS = std::max(m_in.bytesPerS(), m_out.bytesPerS());
    if (lineBytesPerS == 0) // nothing is known of it yet
        return usualMs;
    return static_cast<int>(std::max<qint64>(usualMs, std::min<qint64>(longestMs, pauseBytes * 1000 / lineBytesPerS)));
}

} // namespace host
