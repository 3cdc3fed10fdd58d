// One pass of a session over its channel: reads all there is, writes in blocks that fill the
// link's packets, as much as the pace allows.
#pragma once

#include "host/channel/linkrest.h"
#include "host/channel/pacing.h"
#include "host/session/session.h"
#include "plugin/api/cchannel.h"

#include <functional>

namespace host {

// For the thread of the channel. A pass: rested(), readAll(), Session::advance(),
// writeAll(), and then a sleep of sleepMs() or, if that is 0, a rest of pauseMs().
class SessionPass
{
public:
    using Clock = std::function<qint64()>; // a steady one, in milliseconds

    // Neither is owned, both outlive this. maxBlockBytes: what the link takes as one packet,
    // together with its own bytes.
    SessionPass(Session* session, CChannel* channel, int maxBlockBytes, Clock clock, SleepRules sleep = {});

    void rested() { m_pacing.rested(m_clock()); }
    // Something, as a rule input, ended the sleep before its time.
    void woken() { m_link.woken(); }
    void readAll();
    void writeAll();
    [[nodiscard]] int pauseMs() const { return m_pacing.pauseMs(m_session->hasMuchToReceive(), m_clock()); }

    // How long there will be nothing to do unless something comes in: until the session's next
    // turn, and no longer than the rules allow, since nobody tells a session that the carrier fell,
    // that a message was queued or that the host wants to keep the connection. 0 while the link
    // or the session have something to do.
    [[nodiscard]] int sleepMs() const;

private:
    Session* const m_session;
    CChannel* const m_channel;
    const int m_maxBlockBytes;
    const Clock m_clock;
    const int m_longestSleepMs;
    Pacing m_pacing;
    LinkRest m_link;
};

} // namespace host
