#include "com/link/confirmationpace.h"

#include "com/formats/packetlayout.h"

#include <algorithm>

void ConfirmationPace::arrived(quint8 number, quint8 expected, int wireBytes)
{
    m_expected += linkrules::stepsFrom(static_cast<quint8>(m_expected), expected);
    const qint64 place = placeOf(number);
    m_highest = std::max(m_highest, place);
    m_arrived.append(place);
    m_bytes += wireBytes;
    ++m_packets;
}

bool ConfirmationPace::isDue(bool isSending, qint64 pendingBytes) const
{
    return isSending ? m_bytes >= bytesBetween : pendingBytes == 0;
}

// It is worth it if more bytes would be repeated for a lost confirmation than saying it again takes.
QSet<quint8> ConfirmationPace::take(const QSet<quint8>& numbers, bool isWayIdle, double noisePerByte)
{
    QSet<quint8> told = numbers;
    const double confirmationBytes = packetlayout::maxOverhead + 2.0 * numbers.size();
    const double bytesPerPacket = m_packets > 0 ? static_cast<double>(m_bytes) / m_packets : 0;
    if (isWayIdle || noisePerByte * confirmationBytes * bytesPerPacket > 1) {
        for (const qint64 place : qAsConst(m_previous)) {
            if (place > m_highest - saidAgainBehind)
                told.insert(static_cast<quint8>(place));
        }
    }
    m_previous = std::exchange(m_arrived, {});
    m_bytes = 0;
    m_packets = 0;
    return told;
}

// The nearest one with this number that can be meant: ahead within the window, or behind.
qint64 ConfirmationPace::placeOf(quint8 number) const
{
    const auto expected = static_cast<quint8>(m_expected);
    if (linkrules::numberLessThen(expected, number))
        return m_expected + linkrules::stepsFrom(expected, number);
    return m_expected - linkrules::stepsFrom(number, expected);
}
