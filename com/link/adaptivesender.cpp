#include "com/link/adaptivesender.h"

#include "com/link/linkrules.h"

#include <algorithm>

namespace {

constexpr double usPerS = 1e6;
constexpr qint64 usPerMs = 1000;

// The port holds what the line takes until the next pass, with something to spare.
constexpr qint64 paceSpareUs = 10 * usPerMs;
constexpr qint64 mostPaceUs = 300 * usPerMs;

// What a round trip may take beyond the line: a pass at either end, and what they do in it.
constexpr qint64 passWorkUs = 20 * usPerMs;

constexpr double queueGain = 1.5;
constexpr int packetsOfQueue = 8; // at the least
// At the most: Linux keeps 64 KiB of what comes in for a program that does not read, and what is
// more than that is lost.
constexpr int mostQueuedForPausingPeer = 30 * 1024;

constexpr int packetsUnderWay = 3; // beyond what rate and round trip make
constexpr double fasterPort = 1.3; // than the line, if it is no mistake of measuring

constexpr int timeoutsOfLastResort = 4;

} // namespace

struct AdaptiveSender::View
{
    const Queue& queue;
    qsizetype unsent; // index of the first packet that never went out; the queue's size: none

    explicit View(const Queue& of) : queue(of), unsent(of.packets.size())
    {
        while (unsent > 0 && of.packets.at(static_cast<int>(unsent) - 1).sentTime == 0)
            --unsent;
    }

    bool hasUnsent() const { return unsent < queue.packets.size(); }
    bool hasSent() const { return unsent > 0; }
    quint8 number(qsizetype index) const { return queue.packets.at(static_cast<int>(index)).number; }
    quint8 newest() const { return number(unsent - 1); } // of what was sent
    const CComPacket& nextNew() const { return queue.packets.at(static_cast<int>(unsent)); }

    bool isWithinLimit(quint8 next) const
    {
        const int ahead = queue.packets.isEmpty() ? 0 : linkrules::stepsFrom(number(0), next);
        return ahead <= queue.newPacketsLimit;
    }
    bool maySendEmpty() const
    {
        return !hasUnsent() && queue.packets.size() <= linkrules::maxPacketsInQueue && isWithinLimit(queue.nextNumber);
    }
};

void AdaptiveSender::beginPass(qint64 nowUs, qint64 pendingBytes)
{
    m_gap.pass(nowUs);
    m_drain.look(nowUs, m_transmissions.writtenBytes(), pendingBytes);
    m_transmissions.look(nowUs, pendingBytes, m_delivery, m_hasMore);
}

void AdaptiveSender::confirmed(const QVector<quint8>& numbers, qint64 nowUs)
{
    if (numbers.isEmpty())
        return;
    QVector<Transmissions::Packet> packets;
    for (const quint8 number : numbers) {
        packets.append(m_transmissions.confirmed(number));
        m_noise.confirmed(packets.last().wireBytes);
        if (!packets.last().isLost)
            m_delivery.settled(packets.last().wireBytes);
    }
    takeLosses();
    takeSamples(packets, nowUs);
    m_silence.confirmed(nowUs);
    m_round.clear();
    m_isProbing = false;
}

// One for each confirmation: of the packet that has waited longest for it.
void AdaptiveSender::takeSamples(const QVector<Transmissions::Packet>& packets, qint64 nowUs)
{
    const Transmissions::Packet* sure = nullptr;
    const Transmissions::Packet* doubtful = nullptr;
    for (const Transmissions::Packet& packet : packets) {
        if (packet.live.departedUs < 0)
            continue;
        const bool isSure = packet.liveOrder == packet.order && packet.live.departedUs > m_silence.lastProbeUs();
        const Transmissions::Packet*& longest = isSure ? sure : doubtful;
        if (!longest || packet.live.departedUs < longest->live.departedUs)
            longest = &packet;
    }
    if (sure) {
        m_roundTrip.take(nowUs - sure->live.departedUs);
        m_delivery.confirmed(sure->live, nowUs);
    } else if (doubtful && !m_tookDoubtful) {
        m_roundTrip.takeDoubtful(nowUs - doubtful->live.departedUs);
        m_tookDoubtful = true;
    }
}

void AdaptiveSender::takeLosses()
{
    const QVector<quint8> lost = m_transmissions.takeLost();
    for (int first = 0; first < lost.size();) {
        qint64 bytes = 0;
        int next = first;
        do {
            const Transmissions::Packet& packet = m_transmissions.of(lost.at(next));
            bytes += packet.wireBytes;
            m_delivery.settled(packet.wireBytes);
            ++next;
        } while (next < lost.size() &&
                 m_transmissions.of(lost.at(next)).order == m_transmissions.of(lost.at(next - 1)).order + 1);
        m_noise.lost(next - first, bytes);
        first = next;
    }
}

AdaptiveSender::Step AdaptiveSender::next(const Queue& queue, qint64 nowUs, qint64 pendingBytes)
{
    const View view(queue);
    m_hasMore = view.hasUnsent();
    Step step = probe(view, nowUs);
    if (step.kind != Step::Nothing || !hasRoom(pendingBytes))
        return step;
    step = repeatLost(view, nowUs);
    if (step.kind == Step::Nothing)
        step = repeatAll(view, nowUs);
    if (step.kind == Step::Nothing)
        step = repeatOverdue(view, nowUs);
    if (step.kind == Step::Nothing)
        step = sendNew(view, nowUs);
    if (step.kind == Step::Nothing && m_needsFollower && pendingBytes == 0 && view.maySendEmpty())
        step = {Step::SendEmpty, 0, false};
    return step;
}

void AdaptiveSender::sent(const Step& step, quint8 number, int wireBytes)
{
    const bool isRepeat = step.kind == Step::Repeat;
    if (isRepeat)
        m_transmissions.repeated(number, step.isNeeded);
    else
        m_transmissions.sent(number, wireBytes);
    m_wasRepeat = isRepeat;
    // What fills a gap is delivered alone.
    m_needsFollower = isRepeat && (step.isNeeded || step.isForOldest) && number != m_newest;
    if (!isRepeat)
        m_newest = number;
}

// A batch stays as it is until it is out, from the highest number down: then each repeat but the
// last is ahead of what the peer expects, fills in or moves on what it holds, and leaves no copy
// behind that the peer's stream has passed. Between two batches goes something new, so that the
// first of the second does not meet what the last of the first has left.
AdaptiveSender::Step AdaptiveSender::repeatLost(const View& view, qint64 nowUs)
{
    const auto isToRepeat = [this](quint8 number) {
        return m_transmissions.of(number).isOut && m_transmissions.of(number).isLost;
    };
    while (!m_lost.isEmpty() && !isToRepeat(m_lost.last()))
        m_lost.removeLast();
    if (!mayBeUnderWay(nowUs))
        return {}; // and no batch begins
    bool begins = false;
    if (m_lost.isEmpty()) {
        for (qsizetype i = 0; i < view.unsent; ++i) {
            if (isToRepeat(view.number(i)))
                m_lost.append(view.number(i));
        }
        begins = !m_lost.isEmpty();
    }
    if (m_lost.isEmpty())
        return {};
    if (begins && m_wasRepeat) {
        if (view.hasUnsent() && view.isWithinLimit(view.nextNew().number))
            return {Step::SendNew, 0, false};
        if (view.maySendEmpty())
            return {Step::SendEmpty, 0, false};
    }
    return {Step::Repeat, m_lost.takeLast(), true};
}

// In a long silence, round after round, each from the highest number down.
AdaptiveSender::Step AdaptiveSender::repeatAll(const View& view, qint64 nowUs)
{
    if (!view.hasSent() || !m_silence.mayRepeatAll(nowUs))
        return {};
    if (m_round.isEmpty()) {
        for (qsizetype i = 0; i < view.unsent; ++i)
            m_round.append(view.number(i));
    }
    const quint8 number = m_round.takeLast();
    m_silence.repeatedInRound(m_transmissions.of(number).wireBytes, nowUs);
    return {Step::Repeat, number, false, number == view.number(0)};
}

// Whatever the rules above may have missed goes again, long after it went.
AdaptiveSender::Step AdaptiveSender::repeatOverdue(const View& view, qint64 nowUs) const
{
    const qint64 longestUs = std::max(m_settings.resendIntervalMs * usPerMs, timeoutsOfLastResort * timeoutUs());
    for (qsizetype i = view.unsent; i > 0; --i) {
        const Transmissions::Packet& packet = m_transmissions.of(view.number(i - 1));
        if (packet.departedUs >= 0 && nowUs - packet.departedUs > longestUs)
            return {Step::Repeat, view.number(i - 1), packet.isLost, true};
    }
    return {};
}

AdaptiveSender::Step AdaptiveSender::sendNew(const View& view, qint64 nowUs) const
{
    if (!view.hasUnsent() || !view.isWithinLimit(view.nextNew().number) || !mayBeUnderWay(nowUs))
        return {};
    return {Step::SendNew, 0, false};
}

// Something that the peer can answer, and then the oldest packet, which it must be waiting for.
AdaptiveSender::Step AdaptiveSender::probe(const View& view, qint64 nowUs)
{
    if (!view.hasSent())
        return {};
    if (m_isProbing) {
        m_isProbing = false;
        return {Step::Repeat, view.number(0), false, true};
    }
    const qint64 departedUs = m_transmissions.of(view.number(0)).live.departedUs;
    if (!m_transmissions.hasAllDeparted() || departedUs < 0 ||
        !m_silence.isProbeDue(nowUs, departedUs, timeoutUs(), m_settings.resendIntervalMs * usPerMs))
        return {};
    m_silence.probed(nowUs);
    m_tookDoubtful = false;
    m_isProbing = true;
    if (view.maySendEmpty())
        return {Step::SendEmpty, 0, false};
    if (view.newest() == view.number(0)) {
        m_isProbing = false;
        return {Step::Repeat, view.number(0), false, true};
    }
    return {Step::Repeat, view.newest(), false};
}

bool AdaptiveSender::hasRoom(qint64 pendingBytes) const
{
    const double bytesPerS = lineBytesPerS();
    if (bytesPerS <= 0)
        return pendingBytes == 0 || pendingBytes < m_settings.maxBytesToWrite;
    const qint64 paceUs = std::min(mostPaceUs, m_gap.us() + m_gap.us() / 2 + paceSpareUs);
    return static_cast<double>(pendingBytes) <= bytesPerS * static_cast<double>(paceUs) / usPerS;
}

// Whether what has left the port, and is not confirmed, leaves room for more behind it.
bool AdaptiveSender::mayBeUnderWay(qint64 nowUs) const
{
    double most = m_settings.maxBytesInQueue;
    if (m_delivery.isMeasured()) {
        most = m_delivery.mostUnderWay(slackUs(), hidesQueue(), nowUs) + packetsUnderWay * packetBytes();
    }
    return static_cast<double>(m_transmissions.underWayBytes()) <= most;
}

// Whether a queue may grow where the driver does not show it: in a modem behind a faster port, or in
// a driver that tells nothing.
bool AdaptiveSender::hidesQueue() const
{
    return !m_drain.isMeasured() || m_drain.fastestBytesPerS() > fasterPort * m_delivery.bytesPerS();
}

int AdaptiveSender::packetBytes() const
{
    const int fitting = m_noise.packetBytes(lineBytesPerS(), m_roundTrip.isMeasured() ? m_roundTrip.smoothedUs() : 0);
    return std::min(m_settings.packetSize, fitting - 1);
}

int AdaptiveSender::mostQueuedBytes() const
{
    double bytesPerS = lineBytesPerS();
    if (bytesPerS <= 0 || !m_roundTrip.isMeasured())
        return m_settings.maxBytesInQueue;
    if (m_delivery.isMeasured())
        bytesPerS = std::min(bytesPerS, 2 * m_delivery.bytesPerS());
    const double roundTripS = static_cast<double>(m_roundTrip.smoothedUs() + slackUs()) / usPerS;
    const double most = queueGain * bytesPerS * roundTripS + packetsOfQueue * packetBytes();
    return static_cast<int>(std::min<double>(most, mostQueuedForPausingPeer));
}

qint64 AdaptiveSender::slackUs() const
{
    return 2 * m_gap.us() + passWorkUs;
}

qint64 AdaptiveSender::timeoutUs() const
{
    return m_roundTrip.timeoutUs(m_gap.us(), m_settings.resendIntervalMs * usPerMs);
}

// The port's rate; of a driver that never shows what it holds, that of the confirmations.
double AdaptiveSender::lineBytesPerS() const
{
    if (m_drain.isMeasured())
        return m_drain.bytesPerS();
    return m_delivery.isMeasured() ? m_delivery.bytesPerS() : 0;
}
