#include "sim/line/line.h"

#include "sim/line/moments.h"

#include <algorithm>

namespace sim {

namespace {

// Neighbouring seeds must not give related noise (the finalizer of splitmix64).
quint64 mixed(quint64 value)
{
    value += Q_UINT64_C(0x9e3779b97f4a7c15);
    value = (value ^ (value >> 30)) * Q_UINT64_C(0xbf58476d1ce4e5b9);
    value = (value ^ (value >> 27)) * Q_UINT64_C(0x94d049bb133111eb);
    return value ^ (value >> 31);
}

quint64 directionSeed(const LineSettings& settings, int callNumber, int direction)
{
    return mixed(mixed(settings.seed) ^ mixed(static_cast<quint64>(callNumber) * 2 + static_cast<quint64>(direction)));
}

} // namespace

LineDirection::LineDirection(const LineSettings& settings, int rate, quint64 seed)
    : m_pace(rate), m_delayNs(settings.delayMs * nsPerMs), m_noise(settings.bitErrorRate, settings.burst, rate, seed)
{
}

void LineDirection::wake(qint64 nowNs)
{
    if (!m_idle)
        return;
    m_idle = false;
    m_shortSinceNs = -1;
    m_pace.begin(nowNs);
}

void LineDirection::carry(QByteArray bytes, bool senderWaits, qint64 nowNs)
{
    const bool isShort = bytes.size() < room(nowNs) && !senderWaits;
    if (!bytes.isEmpty()) {
        m_pace.take(bytes.size());
        m_statistics.bytesCarried += bytes.size();
        m_statistics.busyNs += bytes.size() * bitsPerByte * nsPerSecond / rate();
        if (m_noisy) {
            const QByteArray sent = bytes;
            m_statistics.bitsFlipped += m_noise.apply(bytes);
            for (int i = 0; i < bytes.size(); ++i)
                m_statistics.bytesSpoiled += bytes.at(i) != sent.at(i);
        }
        m_underWay.launch(m_pace.throughNs(0) + m_delayNs, bytes);
    }
    if (!isShort) {
        m_shortSinceNs = -1;
    } else if (m_shortSinceNs < 0) {
        m_shortSinceNs = nowNs;
    } else if (nowNs - m_shortSinceNs >= graceNs) {
        m_idle = true;
    }
}

QByteArray LineDirection::deliver(qint64 nowNs, qint64 mostBytes)
{
    const QByteArray bytes = m_underWay.take(nowNs, mostBytes);
    m_statistics.bytesDelivered += bytes.size();
    return bytes;
}

DirectionStatistics LineDirection::finalStatistics() const
{
    DirectionStatistics statistics = m_statistics;
    statistics.bytesLost += m_underWay.bytes();
    return statistics;
}

Line::Line(const LineSettings& settings, int callNumber, bool mayDrop, qint64 connectedNs)
    : forward(settings, settings.rateForward, directionSeed(settings, callNumber, 0)),
      backward(settings, settings.rateBackward, directionSeed(settings, callNumber, 1)), m_settings(settings),
      m_mayDrop(mayDrop), m_connectedNs(connectedNs)
{
}

void Line::setNoisy(bool noisy)
{
    forward.setNoisy(noisy);
    backward.setNoisy(noisy);
}

qint64 Line::bytesBeforeDrop() const
{
    if (!m_mayDrop || m_settings.dropAfterBytes <= 0)
        return -1;
    const qint64 delivered = forward.statistics().bytesDelivered + backward.statistics().bytesDelivered;
    return std::max<qint64>(m_settings.dropAfterBytes - delivered, 0);
}

bool Line::hasDropped(qint64 nowNs) const
{
    return (dropNs() >= 0 && nowNs >= dropNs()) || bytesBeforeDrop() == 0;
}

qint64 Line::dropNs() const
{
    if (!m_mayDrop || m_settings.dropAfterSeconds <= 0)
        return -1;
    return m_connectedNs + static_cast<qint64>(m_settings.dropAfterSeconds * static_cast<double>(nsPerSecond));
}

} // namespace sim
