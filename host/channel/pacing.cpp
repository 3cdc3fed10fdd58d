#include "host/channel/pacing.h"

#include <algorithm>
#include <limits>

namespace host {

namespace {

constexpr qint64 rateWindowMs = 500;

constexpr int sendingPauseMs = 5;
constexpr int longestSendingPauseMs = 25;
constexpr int receivingPauseMs = 10; // while nothing is to be sent
constexpr int bulkReceivingPauseMs = 20; // and much is still to come, on a line that is not fast
constexpr int longestBulkReceivingPauseMs = 40;
constexpr qint64 fastBytesPerS = 20000;
// On a slow line less than so much comes or goes in the usual pauses: half a small packet.
constexpr qint64 pauseBytes = 60;

// While the peer sends too, so much a pass that its confirmations do not wait long: what the
// line carries in this time, or where passes take longer, in twice that, or each would be
// shorter of bytes than the one before.
constexpr qint64 busyBytesPerS = 256; // more than answers make
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
    if (m_hasSent) { // as a rule the channel has waited for room in the driver: that counts
        const qint64 pauseMs = onSlowLine(sendingPauseMs, longestSendingPauseMs);
        return static_cast<int>(std::max<qint64>(0, pauseMs - (nowMs - m_passBeganMs)));
    }
    if (m_in.bytesPerS() > fastBytesPerS)
        return sendingPauseMs;
    return hasMuchToReceive ? onSlowLine(bulkReceivingPauseMs, longestBulkReceivingPauseMs) : receivingPauseMs;
}

// A pause of usualMs, or what pauseBytes take on the line where that is more.
int Pacing::onSlowLine(int usualMs, int longestMs) const
{
    const qint64 lineBytesPerS = std::max(m_in.bytesPerS(), m_out.bytesPerS());
    if (lineBytesPerS == 0) // nothing is known of it yet
        return usualMs;
    return static_cast<int>(std::max<qint64>(usualMs, std::min<qint64>(longestMs, pauseBytes * 1000 / lineBytesPerS)));
}

} // namespace host
