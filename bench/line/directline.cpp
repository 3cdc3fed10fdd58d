#include "bench/line/directline.h"

#include "sim/line/moments.h"

#include <algorithm>
#include <poll.h>

namespace benchline {

using sim::clockNs;
using sim::earlier;
using sim::nsPerSecond;
using sim::sliceNs;

DirectLine::DirectLine(const sim::LineSettings& settings, int depthBytes) : m_line(settings, 1, false, clockNs())
{
    for (int side = 0; side < 2; ++side) {
        sim::PtyEndpoint& endpoint = m_ends[side].endpoint;
        endpoint.setDepth(depthBytes);
        endpoint.setDrainRate(direction(side).rate() / sim::bitsPerByte);
        endpoint.setModemSignals(sim::SignalDsr | sim::SignalDcd | sim::SignalCts);
    }
}

QString DirectLine::problem() const
{
    return m_ends[0].endpoint.isOpen() ? m_ends[1].endpoint.errorString() : m_ends[0].endpoint.errorString();
}

bool DirectLine::run(int stopFd)
{
    for (;;) {
        const qint64 nowNs = clockNs();
        const qint64 wakeNs = step(nowNs);
        if (wait(stopFd, nowNs, wakeNs))
            return true;
        if (!m_ends[0].endpoint.isOpen() || !m_ends[1].endpoint.isOpen())
            return false;
    }
}

// Returns when there is something to do again; -1: only when a program writes.
qint64 DirectLine::step(qint64 nowNs)
{
    qint64 wakeNs = -1;
    for (int from = 0; from < 2; ++from) {
        sim::LineDirection& way = direction(from);
        carry(m_ends[from], way, nowNs);
        deliver(m_ends[1 - from], way, nowNs);
        wakeNs = earlier(wakeNs, way.nextDeliveryNs());
        if (!way.isIdle())
            wakeNs = earlier(wakeNs, way.nextRoomNs());
        if (!m_ends[1 - from].backlog.isEmpty())
            wakeNs = earlier(wakeNs, nowNs + sliceNs);
    }
    return wakeNs < 0 ? -1 : std::max(wakeNs, nowNs + sliceNs);
}

void DirectLine::carry(End& from, sim::LineDirection& way, qint64 nowNs)
{
    if (way.isIdle() && from.endpoint.hasInput())
        way.wake(nowNs);
    from.mostWaiting = std::max(from.mostWaiting, from.endpoint.bytesFromProgram());
    const qint64 room = way.room(nowNs);
    if (room <= 0)
        return;
    const QByteArray bytes = from.endpoint.read(room);
    way.carry(bytes, from.endpoint.hasInput(), nowNs);
}

void DirectLine::deliver(End& to, sim::LineDirection& way, qint64 nowNs)
{
    to.backlog.flush(to.endpoint);
    way.countLost(to.backlog.add(way.deliver(nowNs)));
    to.backlog.flush(to.endpoint);
}

// True once the end is asked for.
bool DirectLine::wait(int stopFd, qint64 nowNs, qint64 wakeNs)
{
    pollfd polled[3] = {{stopFd, POLLIN, 0}, {-1, POLLIN, 0}, {-1, POLLIN, 0}};
    for (int side = 0; side < 2; ++side) {
        // Bytes that the line has no time to carry yet must not wake us.
        if (direction(side).isIdle())
            polled[1 + side].fd = m_ends[side].endpoint.masterFd();
    }
    const qint64 waitNs = std::max<qint64>(wakeNs - std::max(clockNs(), nowNs), 0);
    const timespec timeout = sim::toTimespec(waitNs);
    const int ready = ppoll(polled, 3, wakeNs < 0 ? nullptr : &timeout, nullptr);
    if (ready == 0) {
        const qint64 latenessNs = std::max<qint64>(clockNs() - wakeNs, 0);
        ++m_wakeUps;
        m_latenessSumNs += latenessNs;
        m_worstLatenessNs = std::max(m_worstLatenessNs, latenessNs);
    }
    return ready > 0 && polled[0].revents != 0;
}

QJsonObject DirectLine::statistics() const
{
    QJsonObject all;
    const sim::DirectionStatistics ways[2] = {m_line.forward.finalStatistics(), m_line.backward.finalStatistics()};
    const char* const names[2] = {"forward", "backward"};
    for (int from = 0; from < 2; ++from) {
        const sim::DirectionStatistics& way = ways[from];
        all[QLatin1String(names[from])] = QJsonObject{
            {QStringLiteral("bytesCarried"), way.bytesCarried},
            {QStringLiteral("bytesDelivered"), way.bytesDelivered},
            {QStringLiteral("bytesLost"), way.bytesLost},
            {QStringLiteral("bitsFlipped"), way.bitsFlipped},
            {QStringLiteral("busySeconds"), static_cast<double>(way.busyNs) / nsPerSecond},
            {QStringLiteral("mostWaiting"), m_ends[from].mostWaiting},
        };
    }
    all[QStringLiteral("worstLatenessMs")] = static_cast<double>(m_worstLatenessNs) / 1e6;
    all[QStringLiteral("meanLatenessMs")] =
        m_wakeUps > 0 ? static_cast<double>(m_latenessSumNs) / 1e6 / static_cast<double>(m_wakeUps) : 0.0;
    return all;
}

} // namespace benchline
