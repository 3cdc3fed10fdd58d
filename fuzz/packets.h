// The rig's packets as the fuzz targets use them: what they hold the channel's own code
// against, and rows of bytes that an input tells.
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

QByteArray plainWire(int type, int number, const QByteArray& data);

// Takes a packet from the front of buffer as a peer does.
bool plainRead(QByteArray& buffer, PlainPacket& packet);

// What comes from a line, as the input tells: runs of bytes, whole packets, packets with a
// byte changed, headers with nothing behind them. Kinds of the pieces in the source file.
QByteArray lineBytes(Input& input);

} // namespace fuzz
