// Bytes that have entered one end of a line and not yet left the other.
#pragma once

#include <QByteArray>

#include <deque>

namespace sim {

class UnderWay
{
public:
    struct Piece
    {
        qint64 arrivesNs;
        QByteArray bytes;
    };

    // A piece overtakes those that arrive later, and no others.
    void launch(qint64 arrivesNs, QByteArray bytes);
    // What has arrived by now, at most mostBytes of it, or all.
    QByteArray take(qint64 nowNs, qint64 mostBytes = -1);
    void clear() { m_pieces.clear(); }

    bool isEmpty() const { return m_pieces.empty(); }
    qint64 bytes() const;
    // When the next piece arrives; -1: nothing is under way.
    qint64 nextArrivalNs() const { return isEmpty() ? -1 : m_pieces.front().arrivesNs; }
    qint64 lastArrivalNs() const { return isEmpty() ? -1 : m_pieces.back().arrivesNs; }

    // The piece that arrives next, for whoever decides what becomes of it. Not when empty.
    QByteArray& first() { return m_pieces.front().bytes; }
    void dropFirst() { m_pieces.pop_front(); }
    void doubleFirst() { m_pieces.push_front(m_pieces.front()); }

private:
    std::deque<Piece> m_pieces; // by arrival
};

} // namespace sim
