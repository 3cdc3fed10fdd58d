// One pass of a session over its channel: reads all there is, writes in blocks that fill the
// link's packets, as much as the pace allows.
#pragma once

#include "host/channel/pacing.h"
#include "host/session/session.h"
#include "plugin/api/cchannel.h"

#include <functional>

namespace host {

// For the thread of the channel. A pass: rested(), readAll(), Session::advance(),
// writeAll(), and then a rest of pauseMs().
class SessionPass
{
public:
    using Clock = std::function<qint64()>; // a steady one, in milliseconds

    // Neither is owned, both outlive this. maxBlockBytes: what the link takes as one packet,
    // together with its own bytes.
    SessionPass(Session* session, CChannel* channel, int maxBlockBytes, Clock clock);

    void rested() { m_pacing.rested(m_clock()); }
    void readAll();
    void writeAll();
    [[nodiscard]] int pauseMs() const { return m_pacing.pauseMs(m_session->isMuchComing(), m_clock()); }

private:
    Session* const m_session;
    CChannel* const m_channel;
    const int m_maxBlockBytes;
    const Clock m_clock;
    Pacing m_pacing;
};

} // namespace host
