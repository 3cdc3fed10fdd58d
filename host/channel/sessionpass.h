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

    // Neither is owned, both outlive this object. maxBlockBytes: the size of the largest packet of
    // the link, with its header and checks.
    SessionPass(Session* session, CChannel* channel, int maxBlockBytes, Clock clock, SleepRules sleep = {});

    void rested() { m_pacing.rested(m_clock()); }
    // Something ended the sleep before its time, as a rule input.
    void woken() { m_link.woken(); }
    void readAll();
    void writeAll();
    [[nodiscard]] int pauseMs() const { return m_pacing.pauseMs(m_session->hasMuchToReceive(), m_clock()); }

    // How long there will be nothing to do unless something comes in; 0 while the link or the session
    // has something to do. The sleep lasts until the session's next turn, but not longer than the
    // rules allow: nobody wakes a session because the carrier fell, a message was queued, or the host
    // wants to keep the connection.
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
