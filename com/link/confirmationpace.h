// When an adaptive channel confirms, and what it says twice.
#pragma once

#include "com/link/linkrules.h"

#include <QSet>
#include <QVector>

class ConfirmationPace
{
public:
    // Of the peer's data, between two confirmations, while data of ours is under way too.
    static constexpr int bytesBetween = 1500;
    // Of the previous confirmation, numbers up to this far behind the highest one are said again. A
    // number comes again 256 later, and the peer sends at most 120 beyond what has arrived: twice
    // this would still do.
    static constexpr int saidAgainBehind = 60;

    // A data packet arrived, wireBytes long. expected: the number due before it was looked at.
    void arrived(quint8 number, quint8 expected, int wireBytes);

    // isSending: data of ours waits to be sent; pendingBytes: what the port still holds.
    bool isDue(bool isSending, qint64 pendingBytes) const;

    // The numbers of the next confirmation: numbers, and the last one's again if that is worth its
    // bytes. noisePerByte: of the way that the confirmation takes.
    QSet<quint8> take(const QSet<quint8>& numbers, bool isWayIdle, double noisePerByte);

private:
    qint64 placeOf(quint8 number) const;

    qint64 m_expected = 1; // place in the stream of what is expected
    qint64 m_highest = 0;
    int m_bytes = 0; // since the last confirmation
    int m_packets = 0;
    QVector<qint64> m_arrived; // places, since the last confirmation
    QVector<qint64> m_previous;
};
