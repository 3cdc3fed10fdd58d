// What an adaptive channel sends next, and how much it may have under way: the rules put together.
// Knows no port and no clock; each call brings the time and how much the port still holds.
// docs/link-protocol.md tells the life of a packet under it.
#pragma once

#include "com/link/ccompacket.h"
#include "com/link/deliveryrate.h"
#include "com/link/drainrate.h"
#include "com/link/noiseestimate.h"
#include "com/link/passgap.h"
#include "com/link/roundtriptime.h"
#include "com/link/silence.h"
#include "com/link/transmissions.h"

#include <QList>
#include <QVector>

class AdaptiveSender
{
public:
    struct Settings // of the channel without it; in force until something is measured
    {
        int packetSize = 0;
        int maxBytesToWrite = 0;
        int maxBytesInQueue = 0;
        int resendIntervalMs = 0;
    };
    // noise: to begin with.
    explicit AdaptiveSender(const Settings& settings, const NoiseEstimate& noise = {})
        : m_settings(settings), m_noise(noise)
    {
    }

    // The channel's queue as it stands: first what was sent, then what was not.
    struct Queue
    {
        const QList<CComPacket>& packets;
        int newPacketsLimit; // how many numbers beyond the first one a new packet may be
        quint8 nextNumber; // of a packet that would be added
    };

    struct Step
    {
        enum Kind
        {
            Nothing,
            SendNew, // the first packet of the queue that never went out
            SendEmpty, // a new packet without payload: it moves on what the peer holds
            Repeat,
        };
        Kind kind = Nothing;
        quint8 number = 0; // to be repeated
        bool isNeeded = false; // since it is known to be lost
        bool isForOldest = false; // since the peer may be waiting for it
    };

    // At the beginning of each pass, before what has come is looked at. pendingBytes: written, and
    // not on the line as far as the port knows.
    void beginPass(qint64 nowUs, qint64 pendingBytes);

    // The packets that one confirmation has taken from the queue; all had gone out.
    void confirmed(const QVector<quint8>& numbers, qint64 nowUs);

    // What to write now. Called until it says Nothing; each step is taken and noted by sent().
    Step next(const Queue& queue, qint64 nowUs, qint64 pendingBytes);

    // The step was taken with a packet of this number and size.
    void sent(const Step& step, quint8 number, int wireBytes);
    // A confirmation went out.
    void written(int bytes) { m_transmissions.written(bytes); }

    // Size on the wire of a packet to be made now, and how many bytes may wait in the queue.
    int packetBytes() const;
    int mostQueuedBytes() const;

    const NoiseEstimate& noise() const { return m_noise; }

private:
    struct View; // of the queue, taken apart

    void takeSamples(const QVector<Transmissions::Packet>& packets, qint64 nowUs);
    void takeLosses();
    Step repeatLost(const View& view, qint64 nowUs);
    Step repeatAll(const View& view, qint64 nowUs);
    Step repeatOverdue(const View& view, qint64 nowUs) const;
    Step sendNew(const View& view, qint64 nowUs) const;
    Step probe(const View& view, qint64 nowUs);
    bool hasRoom(qint64 pendingBytes) const;
    bool mayBeUnderWay(qint64 nowUs) const;
    bool hidesQueue() const;
    qint64 slackUs() const;
    qint64 timeoutUs() const;
    double lineBytesPerS() const;

    const Settings m_settings;
    PassGap m_gap;
    RoundTripTime m_roundTrip;
    DrainRate m_drain;
    DeliveryRate m_delivery;
    NoiseEstimate m_noise;
    Transmissions m_transmissions;
    Silence m_silence;
    QVector<quint8> m_lost; // one batch of repeats, still to be sent, the lowest number first
    QVector<quint8> m_round; // of a long silence, the same
    bool m_wasRepeat = false; // what went out last
    bool m_needsFollower = false; // that was no repeat of the newest number
    quint8 m_newest = 0; // the number that went out for the first time last
    bool m_hasMore = false; // the queue had more to send when it was last looked at
    bool m_isProbing = false; // the oldest packet is still to follow
    bool m_tookDoubtful = false; // in this silence
};
