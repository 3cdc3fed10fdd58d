// Whether there is room for an offered message: the inbox's code about its limits.
#include "host/store/inbox.h"

#include <algorithm>

namespace host {

namespace {

// A caller that is not proved is told nothing about this installation.
const QString noRoomForStrangers = QStringLiteral("there is no room for it here");

QString bytesText(const QString& pattern, qint64 first, qint64 second)
{
    return pattern.arg(QString::number(first), QString::number(second));
}

} // namespace

bool Inbox::refuse(RefusedFrame* refused, RefusalCode code, const QString& reason)
{
    refused->code = code;
    refused->reason = reason;
    return false;
}

bool Inbox::admits(const Peer& peer, const OfferFrame& offer, qint64 partBytes, RefusedFrame* refused)
{
    if (offer.size > m_limits.maxMessageBytes)
        return refuse(refused, RefusalCode::NotAllowed,
                      bytesText(QStringLiteral("it has %1 bytes, more than the %2 that are allowed here"), offer.size,
                                m_limits.maxMessageBytes));
    const Part* const part = m_parts.find(Parts::idOf(peer, offer.messageId));
    qint64 promised = m_parts.promisedBytes();
    if (part && !part->holder.expired()) // the new session will take it over
        promised -= qMax<qint64>(0, part->announcedBytes - partBytes);
    QString reason = volumeRefuses(peer, offer.size - partBytes, part == nullptr, qMax<qint64>(0, promised));
    if (reason.isEmpty())
        reason = sharesRefuse(peer, offer);
    return reason.isEmpty() || refuse(refused, RefusalCode::NoRoom, reason);
}

// promised: bytes for messages that other sessions are receiving.
QString Inbox::volumeRefuses(const Peer& peer, qint64 wanted, bool isNew, qint64 promised) const
{
    const VolumeRoom room = volumeRoom(m_incompleteDir.absolutePath());
    const qint64 free = qMax<qint64>(0, room.freeBytes - m_limits.keepFreeBytes - promised);
    const bool hasNoBytes = room.freeBytes >= 0 && wanted > free;
    const bool hasNoInodes =
        isNew && room.freeInodes >= 0 && room.freeInodes < m_limits.keepFreeInodes + inodesOfMessage;
    if (!hasNoBytes && !hasNoInodes)
        return QString();
    if (!peer.isProved)
        return noRoomForStrangers;
    return hasNoBytes ? bytesText(QStringLiteral("the disk is full: %1 bytes are needed, %2 are free"), wanted, free)
                      : QStringLiteral("the disk is full: it holds no more files");
}

QString Inbox::diskIsFull(qint64 wanted) const
{
    const VolumeRoom room = volumeRoom(m_incompleteDir.absolutePath());
    if (room.freeBytes < 0 || room.freeBytes - wanted >= m_limits.keepFreeBytes)
        return QString();
    return QStringLiteral("the disk is full");
}

// ---- shares ----

QVector<Counted> Inbox::countedWithout(const std::vector<PartId>& without) const
{
    return m_inputCount.entries() + m_parts.countedWithout(without);
}

QString Inbox::sharesRefuseWithout(const QVector<Counted>& counted, const Peer& peer, const OfferFrame& offer) const
{
    const QString key = shareKey(peer);
    Share own{offer.size, 1, inodesOfMessage};
    Share all = own;
    for (const Counted& one : counted) {
        all = all + one.used;
        if (one.shareKey == key)
            own = own + one.used;
    }
    const bool isOwnFull = !fits(own, peer.isProved ? m_limits.ofAbonent : m_limits.ofUnproved);
    if (!isOwnFull && fits(all, m_limits.ofAll))
        return QString();
    if (!peer.isProved)
        return noRoomForStrangers;
    return isOwnFull
               ? QStringLiteral("too much from this sender waits in the inbox: there is room when it is taken out")
               : QStringLiteral("the inbox is full: there is room when messages are taken out");
}

QString Inbox::sharesRefuse(const Peer& peer, const OfferFrame& offer)
{
    const PartId known = Parts::idOf(peer, offer.messageId);
    std::vector<PartId> without{known};
    if (sharesRefuseWithout(countedWithout(without), peer, offer).isEmpty())
        return QString();
    // The user may have taken something out. Counting means to look through the whole inbox while all
    // sessions wait, so that an unknown caller must not cause that with each offer.
    if (peer.isProved || m_inputCount.isOlderThan(m_limits.strangersCountMs))
        m_inputCount.refresh();
    const QString reason = sharesRefuseWithout(countedWithout(without), peer, offer);
    if (reason.isEmpty())
        return reason;
    // Drop parts that no session holds, the oldest first, if that makes enough room.
    std::vector<PartId> givingWay;
    for (const PartId& id : m_parts.idle(shareKey(peer))) {
        if (id.peerKey == known.peerKey && id.id == known.id)
            continue;
        givingWay.push_back(id);
        without.push_back(id);
        if (!sharesRefuseWithout(countedWithout(without), peer, offer).isEmpty())
            continue;
        const bool allGone = std::all_of(givingWay.begin(), givingWay.end(),
                                         [this](const PartId& part) { return m_parts.drop(part).isEmpty(); });
        return allGone ? QString() : reason;
    }
    return reason;
}

} // namespace host
