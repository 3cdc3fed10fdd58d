// The link's packets after their description, written a second time and without a look at
// com/: what the fuzz targets hold the channel's own code against.
#pragma once

#include "fuzz/input.h"

#include <QByteArray>

namespace fuzz {

struct PlainPacket
{
    int type = 0;
    int number = 0;
    QByteArray data;
    QByteArray bytes;
};

quint16 plainHeaderCheck(const QByteArray& header);
quint32 plainPayloadCheck(const QByteArray& bytes);

QByteArray plainWire(int type, int number, const QByteArray& data);

// Takes a packet from the front of buffer as a peer does.
bool plainRead(QByteArray& buffer, PlainPacket& packet);

// What comes from a line, as the input tells: runs of bytes, whole packets, packets with a
// byte changed, headers with nothing behind them. Kinds of the pieces in the source file.
QByteArray lineBytes(Input& input);

} // namespace fuzz
