// Two ports with a line between them and no modems: like a call that is already connected when a
// program starts.
#pragma once

#include "sim/line/line.h"
#include "sim/pty/backlog.h"
#include "sim/pty/ptyendpoint.h"

#include <QJsonObject>
#include <QString>

#include <memory>

namespace benchline {

class DirectLine
{
public:
    DirectLine(const sim::LineSettings& settings, int depthBytes);

    // Empty when both ports are there, else what is wrong.
    QString problem() const;
    QString portPath(int side) const { return m_ends[side].endpoint.portPath(); }

    // Carries bytes until descriptor stopFd becomes readable. False when a port failed.
    bool run(int stopFd);

    // What each direction carried, whether the line's clock was in time, and whether any program
    // wrote more than the driver holds.
    QJsonObject statistics() const;

private:
    struct End
    {
        sim::PtyEndpoint endpoint;
        sim::Backlog backlog; // bytes that its program has not read yet
        qint64 mostWaiting = 0; // of its program's bytes, in the driver
    };

    qint64 step(qint64 nowNs);
    void carry(End& from, sim::LineDirection& way, qint64 nowNs);
    void deliver(End& to, sim::LineDirection& way, qint64 nowNs);
    bool wait(int stopFd, qint64 nowNs, qint64 wakeNs);
    sim::LineDirection& direction(int from) { return from == 0 ? m_line.forward : m_line.backward; }

    End m_ends[2];
    sim::Line m_line;
    qint64 m_wakeUps = 0;
    qint64 m_worstLatenessNs = 0;
    qint64 m_latenessSumNs = 0;
};

} // namespace benchline
