// Numbers and byte strings as the session's frames carry them.
#pragma once

#include <QByteArray>
#include <QtEndian>

namespace host {

inline void putU8(QByteArray& out, quint8 value)
{
    out.append(static_cast<char>(value));
}

inline void putU64(QByteArray& out, quint64 value)
{
    char bytes[8];
    qToBigEndian(value, bytes);
    out.append(bytes, 8);
}

// Seven bits a byte, lowest first, the top bit set on all but the last byte.
inline void putNumber(QByteArray& out, quint64 value)
{
    while (value >= 0x80) {
        putU8(out, static_cast<quint8>(value) | 0x80);
        value >>= 7;
    }
    putU8(out, static_cast<quint8>(value));
}

// A length as a number, then the bytes.
inline void putBytes(QByteArray& out, const QByteArray& bytes)
{
    putNumber(out, static_cast<quint64>(bytes.size()));
    out.append(bytes);
}

// Reads what the functions above wrote. The bytes come from the peer: if they are too short or make
// no sense, ok() becomes false, and every later read gives zero.
class ByteReader
{
public:
    explicit ByteReader(const QByteArray& bytes) : m_bytes(bytes) {}

    [[nodiscard]] bool ok() const { return m_ok; }
    [[nodiscard]] bool atEnd() const { return m_position == m_bytes.size(); }

    quint8 u8()
    {
        const QByteArray byte = take(1);
        return m_ok ? static_cast<quint8>(byte.at(0)) : 0;
    }

    quint64 u64()
    {
        const QByteArray bytes = take(8);
        return m_ok ? qFromBigEndian<quint64>(bytes.constData()) : 0;
    }

    quint64 number()
    {
        quint64 value = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            const quint8 byte = u8();
            if (!m_ok)
                return 0;
            if (shift == 63 && byte > 1)
                break;
            value |= static_cast<quint64>(byte & 0x7F) << shift;
            if (!(byte & 0x80))
                return value;
        }
        m_ok = false;
        return 0;
    }

    QByteArray take(int count)
    {
        if (!m_ok || count < 0 || count > m_bytes.size() - m_position) {
            m_ok = false;
            return QByteArray();
        }
        const QByteArray bytes(m_bytes.constData() + m_position, count); // a copy: the frame's bytes do not last
        m_position += count;
        return bytes;
    }

    QByteArray bytes(int maxSize)
    {
        const quint64 size = number();
        if (!m_ok || size > static_cast<quint64>(maxSize)) {
            m_ok = false;
            return QByteArray();
        }
        return take(static_cast<int>(size));
    }

    QByteArray rest() { return take(m_bytes.size() - m_position); }

private:
    const QByteArray m_bytes;
    int m_position = 0;
    bool m_ok = true;
};

} // namespace host
