// The line of one call: paces, delays, spoils and counts the bytes of its two directions.
// Time is handed in, as nanoseconds of any one monotonic clock. Not thread-safe.
#pragma once

#include "sim/line/linesettings.h"
#include "sim/line/noise.h"
#include "sim/line/pace.h"
#include "sim/line/underway.h"

#include <QByteArray>

namespace sim {

struct DirectionStatistics
{
    qint64 bytesCarried = 0; // taken from the sender's driver
    qint64 bytesDelivered = 0; // that came out at the other end
    qint64 bytesLost = 0; // that did not: in flight when the call ended, or not taken in there
    qint64 bitsFlipped = 0;
    qint64 bytesSpoiled = 0;
    qint64 busyNs = 0;
};

class LineDirection
{
public:
    // A line counts as idle when its sender has had no bytes for this long. A program that
    // wakes up late can catch up within this time; over longer times the rate holds.
    static constexpr qint64 graceNs = 5000000;

    LineDirection(const LineSettings& settings, int rate, quint64 seed);

    // The sender has bytes again after isIdle(): the line begins to carry them now.
    void wake(qint64 nowNs);
    bool isIdle() const { return m_idle; }
    // The sender has left data mode: no time counts until it wakes the line again.
    void rest() { m_idle = true; }
    // How many bytes the line has had the time to carry since it was last asked.
    qint64 room(qint64 nowNs) const { return m_idle ? 0 : m_pace.room(nowNs); }
    // When there will be room for at least one byte; only while not idle.
    qint64 nextRoomNs() const { return m_pace.throughNs(1); }
    // Takes bytes (at most room(nowNs) of them) from the sender. senderWaits: the sender
    // has more. When there are fewer than room and no more, the line goes idle after graceNs.
    void carry(QByteArray bytes, bool senderWaits, qint64 nowNs);

    // What has come out at the other end by now, at most mostBytes of it, or all.
    QByteArray deliver(qint64 nowNs, qint64 mostBytes = -1);
    // When the next bytes come out; -1: none in flight.
    qint64 nextDeliveryNs() const { return m_underWay.nextArrivalNs(); }

    void setNoisy(bool noisy) { m_noisy = noisy; }
    // Bytes that came out, but found no place at the receiver.
    void countLost(qint64 bytes) { m_statistics.bytesLost += bytes; }
    // With the bytes still in flight counted as lost.
    DirectionStatistics finalStatistics() const;
    const DirectionStatistics& statistics() const { return m_statistics; }
    int rate() const { return m_pace.rate(); }

private:
    Pace m_pace;
    const qint64 m_delayNs;
    Noise m_noise;
    bool m_noisy = true;
    bool m_idle = true;
    qint64 m_shortSinceNs = -1;
    UnderWay m_underWay;
    DirectionStatistics m_statistics;
};

class Line
{
public:
    // connectedNs: when the call was connected. mayDrop: whether settings.dropTimes lets
    // this call be dropped. callNumber: gives each call a noise of its own.
    Line(const LineSettings& settings, int callNumber, bool mayDrop, qint64 connectedNs);

    LineDirection forward; // from the caller
    LineDirection backward; // to the caller

    const LineSettings& settings() const { return m_settings; }
    void setNoisy(bool noisy);
    // How many more bytes may come out before carrier is dropped; -1: any number.
    qint64 bytesBeforeDrop() const;
    // Whether carrier is lost, by the time or by the bytes that came out.
    bool hasDropped(qint64 nowNs) const;
    // When it will be lost by time; -1: never.
    qint64 dropNs() const;

private:
    const LineSettings m_settings;
    const bool m_mayDrop;
    const qint64 m_connectedNs;
};

} // namespace sim
