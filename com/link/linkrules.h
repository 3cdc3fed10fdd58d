// The rules of the link channel as plain functions: order of numbers, what is due, what
// may wait. No port and no clock: bytes, numbers and times are handed in.
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

// Room kept in the number window when it is checked whether more may be written.
constexpr int numbersKeptFree = 10;

// As many numbers are confirmed at once, without waiting for the confirmation interval.
constexpr int confirmAtOnceCount = 61;

// A held packet that was overtaken is dropped once the stream is more than this many
// numbers past it, or stands still behind it by more than this many.
constexpr int overtakenGrace = 8;

// Whether a stands before b in the stream. The distance around the wrap is counted in
// 255s, not 256s, and peers do the same.
bool numberLessThen(quint8 a, quint8 b);

// How many steps lead from one number on to another, 0 to 255.
inline int stepsFrom(quint8 from, quint8 to)
{
    return static_cast<quint8>(to - from);
}

// Payload bytes of a full packet; at least 1 whatever the settings say.
int blockSize(int packetSize, int maxBytesToWrite);

// Whether the host may write now. first: the number of the oldest queued packet, of no
// meaning when there is none.
bool mayQueueMore(int queuedPackets, int queuedBytes, int maxBytesInQueue, quint8 next, quint8 first);

// Whether a packet may be handed to a port that still has pendingBytes to write. A port
// with nothing waiting takes any packet, so that none is too large for good.
bool hasRoom(int maxBytesToWrite, qint64 pendingBytes, int wireSize);

// Whether a packet written at sentTimeMs is to be written again. One that was sent in
// the future is: the clock was set back, and the link must not wait for it to catch up.
bool isRepeatDue(qint64 nowMs, qint64 sentTimeMs, int resendIntervalMs);

bool isConfirmationDue(qint64 sinceLastMs, int numbers, int confirmationIntervalMs);

// Confirmed numbers as a confirmation carries them: plainly ascending.
QByteArray confirmationPayload(const QSet<quint8>& numbers);

// Decimal, joined with ", ", in the order of the payload.
QString numbersText(const QByteArray& confirmationPayload);

// Whether the peer has confirmed something beyond the oldest packet that it has not:
// then numbers are missing within the queue.
bool hasGap(const QList<CComPacket>& queue);

// Drops held packets that the stream has passed by and that can do harm: they would
// block those behind them, and come up as new data when their number comes round again.
void dropOvertaken(QList<CComPacket>& held, quint8 expected, quint8 arriving);

// Adds a packet that arrived ahead, unless its number is there already, and sorts (by
// stable insertion: numberLessThen is no order over all numbers).
void hold(QList<CComPacket>& held, const CComPacket& packet);

} // namespace linkrules
