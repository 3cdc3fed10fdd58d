// A fuzz input as a row of choices. At its end every choice is zero and every run empty.
#pragma once

#include <QByteArray>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace fuzz {

class Input
{
public:
    Input(const std::uint8_t* data, std::size_t size) : m_at(data), m_end(data + size) {}

    bool atEnd() const { return m_at == m_end; }
    int left() const { return static_cast<int>(m_end - m_at); }

    int byte() { return atEnd() ? 0 : *m_at++; }
    int word()
    {
        const int low = byte();
        return low | byte() << 8;
    }

    // Of at most size bytes.
    QByteArray run(int size)
    {
        const int taken = std::min(size, left());
        const QByteArray bytes(reinterpret_cast<const char*>(m_at), taken);
        m_at += taken;
        return bytes;
    }
    QByteArray rest() { return run(left()); }

private:
    const std::uint8_t* m_at;
    const std::uint8_t* m_end;
};

} // namespace fuzz
