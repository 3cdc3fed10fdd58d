// Bytes that look like nothing in particular, the same for the same seed on every machine.
#pragma once

#include <QByteArray>

#include <random>

namespace rig {

// draw: a generator of numbers, of which the low byte counts.
template <typename Draw>
QByteArray drawBytes(int size, Draw&& draw)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = static_cast<char>(draw());
    return bytes;
}

inline QByteArray randomBytes(int size, unsigned seed)
{
    return drawBytes(size, std::mt19937(seed));
}

// The byte at that position of an endless stream, for whoever does not keep what was sent.
inline char streamByte(quint32 stream, int position)
{
    quint32 value = stream + static_cast<quint32>(position) * 2654435761u;
    value ^= value >> 15;
    return static_cast<char>(value * 2246822519u >> 24);
}

} // namespace rig
