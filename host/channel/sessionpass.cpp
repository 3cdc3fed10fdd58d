#include "host/channel/sessionpass.h"

#include "com/formats/packetlayout.h"

#include <algorithm>

namespace host {

namespace {

constexpr int readBytes = 64 * 1024;

} // namespace

SessionPass::SessionPass(Session* session, CChannel* channel, int maxBlockBytes, Clock clock, SleepRules sleep)
    : m_session(session), m_channel(channel), m_maxBlockBytes(maxBlockBytes), m_clock(std::move(clock)),
      m_longestSleepMs(sleep.longestMs), m_pacing(m_clock()), m_link(std::move(sleep), m_clock())
{
}

void SessionPass::readAll()
{
    const qint64 beganMs = m_clock();
    qint64 readTotal = 0;
    for (;;) {
        const QByteArray bytes = m_channel->read(readBytes);
        readTotal += bytes.size();
        m_pacing.received(bytes.size(), m_clock());
        m_session->receive(bytes, m_clock());
        if (bytes.size() < readBytes)
            break;
    }
    m_link.read(readTotal, beganMs, m_clock());
}

int SessionPass::sleepMs() const
{
    if (!m_link.isAtRest())
        return 0;
    const qint64 untilTurnMs = std::min<qint64>(m_longestSleepMs, m_session->nextTurnMs() - m_clock());
    return untilTurnMs > pauseMs() ? static_cast<int>(untilTurnMs) : 0;
}

void SessionPass::writeAll()
{
    m_pacing.beginWriting(m_channel->idealBlockSize() <= 0, m_clock());
    while (m_pacing.mayWrite()) {
        const int offered = m_channel->idealBlockSize();
        if (offered <= 0)
            return;
        // A block of this size fills one packet exactly.
        const int blockBytes = std::max(1, std::min(offered, m_maxBlockBytes) - packetlayout::blockReserve);
        const QByteArray block = m_session->takeOutput(blockBytes, m_clock());
        if (block.isEmpty())
            return;
        m_channel->write(block);
        m_pacing.written(block.size(), m_clock());
        m_link.written(block.size());
    }
}

} // namespace host
