// How often a session protocol has its pass over a channel, and how much it writes in one.
//
// The link reads, confirms and repeats only while its host reads and writes. With too few passes the
// line runs empty; too many passes cost processor time and gain nothing. And the link writes all
// that it is given before it confirms what came in.
#pragma once

#include "host/session/ratemeter.h"

#include <QtGlobal>

namespace host {

// A pass: received() for what was read, beginWriting(), written() for each block while
// mayWrite(), and then a rest of pauseMs(). For one thread.
class Pacing
{
public:
    // nowMs, here and below: any steady clock, in milliseconds.
    explicit Pacing(qint64 nowMs);

    // Bytes that came in; to be called each pass, with 0 when none came.
    void received(int bytes, qint64 nowMs);

    // isFull: the channel takes nothing more, because its queue is full.
    void beginWriting(bool isFull, qint64 nowMs);
    void written(int bytes, qint64 nowMs);
    // Whether this pass may write one more block.
    [[nodiscard]] bool mayWrite() const { return m_writtenBytes == 0 || m_writtenBytes < m_mostBytes; }

    // How long to rest before the next pass. hasMuchToReceive: a file comes in that still lacks many
    // bytes.
    [[nodiscard]] int pauseMs(bool hasMuchToReceive, qint64 nowMs) const;
    // The rest is over, the next pass begins.
    void rested(qint64 nowMs) { m_passBeganMs = nowMs; }

private:
    [[nodiscard]] int onSlowLine(int usualMs, int longestMs) const;

    RateMeter m_in;
    RateMeter m_out;
    qint64 m_passBeganMs;
    qint64 m_writingBeganMs;
    qint64 m_mostBytes = 0; // in this pass
    qint64 m_writtenBytes = 0;
    bool m_hasSent = false; // in the last pass, or the channel was full then
};

} // namespace host
