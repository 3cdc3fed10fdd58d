// The rules of the link channel as plain functions: the order of numbers, what is due, what may
// wait. They know no port and no clock: bytes, numbers and times are arguments.
#pragma once

#include "com/link/ccompacket.h"

#include <QByteArray>
#include <QList>
#include <QSet>

namespace linkrules {

// Numbers up to this far ahead count as ahead.
constexpr int numberWindow = 119;

// idealBlockSize() answers 0 while more packets than this wait for confirmation.
constexpr int maxPacketsInQueue = 110;

// Numbers of the window that must stay free when the host asks whether it may write more.
constexpr int numbersKeptFree = 10;

// When this many numbers wait, they are confirmed at once, without waiting for the interval.
constexpr int confirmAtOnceCount = 61;

// An overtaken held packet is dropped when the stream is more than this many numbers past it, or
// when a packet arrives more than this many numbers ahead of the expected one.
constexpr int overtakenGrace = 8;

// Whether a is before b in the stream. When the numbers have started again at 0, the distance is
// calculated with 255, not 256, as peers do.
bool numberLessThen(quint8 a, quint8 b);

// How many steps lead from one number on to another, 0 to 255.
inline int stepsFrom(quint8 from, quint8 to)
{
    return static_cast<quint8>(to - from);
}

// Payload bytes of a full packet; at least 1 whatever the settings say.
int blockSize(int packetSize, int maxBytesToWrite);

// Whether the host may write now. first: the number of the oldest queued packet; without meaning
// if there is none.
bool mayQueueMore(int queuedPackets, int queuedBytes, int maxBytesInQueue, quint8 next, quint8 first);

// Whether a packet may be given to a port that still has pendingBytes to write. A port that has
// none accepts any packet; otherwise a large one could never be sent.
bool hasRoom(int maxBytesToWrite, qint64 pendingBytes, int wireSize);

// Whether a packet written at sentTimeMs must be written again. Also if sentTimeMs is in the
// future: the clock was set back, and the link must not wait until it has caught up.
bool isRepeatDue(qint64 nowMs, qint64 sentTimeMs, int resendIntervalMs);

bool isConfirmationDue(qint64 sinceLastMs, int numbers, int confirmationIntervalMs);

// Confirmed numbers as a confirmation carries them: in ascending order, 0 to 255.
QByteArray confirmationPayload(const QSet<quint8>& numbers);

// Decimal, joined with ", ", in the order of the payload.
QString numbersText(const QByteArray& confirmationPayload);

// Whether the peer has confirmed a packet after the oldest unconfirmed one: then numbers are
// missing inside the queue.
bool hasGap(const QList<CComPacket>& queue);

// Drops held packets that the stream has passed and that can do harm: they would block the packets
// after them, and be delivered as new data when their number is expected again.
void dropOvertaken(QList<CComPacket>& held, quint8 expected, quint8 arriving);

// Adds a packet that arrived ahead, unless its number is there already, and sorts (by
// stable insertion: numberLessThen is no order over all numbers).
void hold(QList<CComPacket>& held, const CComPacket& packet);

} // namespace linkrules
