#include "sim/line/underway.h"

#include <algorithm>
#include <utility>

namespace sim {

void UnderWay::launch(qint64 arrivesNs, QByteArray bytes)
{
    auto place = m_pieces.end();
    while (place != m_pieces.begin() && std::prev(place)->arrivesNs > arrivesNs)
        --place;
    m_pieces.insert(place, {arrivesNs, std::move(bytes)});
}

QByteArray UnderWay::take(qint64 nowNs, qint64 mostBytes)
{
    QByteArray taken;
    while (!isEmpty() && m_pieces.front().arrivesNs <= nowNs && taken.size() != mostBytes) {
        QByteArray& arrived = m_pieces.front().bytes;
        const qint64 left = mostBytes < 0 ? arrived.size() : mostBytes - taken.size();
        const int size = static_cast<int>(std::min<qint64>(arrived.size(), left));
        taken += arrived.left(size);
        arrived.remove(0, size);
        if (arrived.isEmpty())
            m_pieces.pop_front();
    }
    return taken;
}

qint64 UnderWay::bytes() const
{
    qint64 bytes = 0;
    for (const Piece& piece : m_pieces)
        bytes += piece.bytes.size();
    return bytes;
}

} // namespace sim
