// What has come for a program and waits until the program takes it, up to a bound.
#pragma once

#include <QByteArray>

namespace sim {

class PtyEndpoint;

class Backlog
{
public:
    static constexpr int mostBytes = 65536;

    // Puts bytes behind what waits. How many of them found no place and are lost.
    int add(const QByteArray& bytes);
    // Hands over what the program takes now; true while some is left. While the port is
    // unplugged nothing is taken.
    bool flush(PtyEndpoint& endpoint);
    bool isEmpty() const { return m_bytes.isEmpty(); }
    void clear() { m_bytes.clear(); }

private:
    QByteArray m_bytes;
};

} // namespace sim
