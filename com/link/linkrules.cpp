#include "com/link/linkrules.h"

#include "com/formats/packetlayout.h"

#include <QStringList>

#include <algorithm>

namespace linkrules {

bool numberLessThen(quint8 a, quint8 b)
{
    if (a < b)
        return b - a <= numberWindow;
    return a > b && b + 255 - a <= numberWindow;
}

int blockSize(int packetSize, int maxBytesToWrite)
{
    return std::max(1, std::min(packetSize, maxBytesToWrite) - packetlayout::blockReserve);
}

bool mayQueueMore(int queuedPackets, int queuedBytes, int maxBytesInQueue, quint8 next, quint8 first)
{
    if (queuedPackets > maxPacketsInQueue || queuedBytes > maxBytesInQueue)
        return false;
    // The sum wraps as the numbers do.
    return queuedPackets == 0 || !numberLessThen(static_cast<quint8>(next + numbersKeptFree), first);
}

bool hasRoom(int maxBytesToWrite, qint64 pendingBytes, int wireSize)
{
    return pendingBytes <= 0 || maxBytesToWrite - pendingBytes >= wireSize;
}

bool isRepeatDue(qint64 nowMs, qint64 sentTimeMs, int resendIntervalMs)
{
    return nowMs < sentTimeMs || nowMs - sentTimeMs > resendIntervalMs;
}

bool isConfirmationDue(qint64 sinceLastMs, int numbers, int confirmationIntervalMs)
{
    return numbers > 0 && (sinceLastMs > confirmationIntervalMs || numbers >= confirmAtOnceCount);
}

QByteArray confirmationPayload(const QSet<quint8>& numbers)
{
    QList<quint8> sorted = numbers.values();
    std::sort(sorted.begin(), sorted.end());
    QByteArray payload;
    payload.reserve(sorted.size());
    for (const quint8 number : qAsConst(sorted))
        payload.append(static_cast<char>(number));
    return payload;
}

QString numbersText(const QByteArray& confirmationPayload)
{
    QStringList texts;
    texts.reserve(confirmationPayload.size());
    for (const char number : confirmationPayload)
        texts.append(QString::number(static_cast<quint8>(number)));
    return texts.join(QStringLiteral(", "));
}

bool hasGap(const QList<CComPacket>& queue)
{
    for (int i = 1; i < queue.size(); ++i) {
        if (stepsFrom(queue.at(i - 1).number, queue.at(i).number) != 1)
            return true;
    }
    return false;
}

void dropOvertaken(QList<CComPacket>& held, quint8 expected, quint8 arriving)
{
    const bool standsStill = numberLessThen(expected, arriving) && stepsFrom(expected, arriving) > overtakenGrace;
    const auto isToGo = [&](const CComPacket& packet) {
        const bool overtaken = packet.number != expected && !numberLessThen(expected, packet.number);
        return overtaken && (standsStill || stepsFrom(packet.number, expected) > overtakenGrace);
    };
    held.erase(std::remove_if(held.begin(), held.end(), isToGo), held.end());
}

void hold(QList<CComPacket>& held, const CComPacket& packet)
{
    const auto sameNumber = [&](const CComPacket& other) { return other.number == packet.number; };
    if (std::any_of(held.cbegin(), held.cend(), sameNumber))
        return;
    held.append(packet);
    for (int sorted = 1; sorted < held.size(); ++sorted) {
        for (int i = sorted; i > 0 && numberLessThen(held.at(i).number, held.at(i - 1).number); --i)
            held.swapItemsAt(i, i - 1);
    }
}

} // namespace linkrules
