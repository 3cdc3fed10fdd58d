// Who stands at the other end of a session.
#pragma once

#include "host/installation/names.h"

#include <QByteArray>
#include <QString>

namespace host {

struct Peer
{
    QString abonent; // proved: the name under which this installation knows it;
                     // unproved: a name made of its key's fingerprint
    QByteArray publicKey; // 32 bytes; empty only where nothing depends on it
    bool isProved = false;
    QString claimedName; // as it called itself; shown only, never a key for anything
};

// Whose parts, acknowledgements and share of the disk are meant. An unproved peer never has
// the key of an abonent: that has no slash.
[[nodiscard]] inline QString unprovedPeerKey(const QByteArray& publicKey)
{
    return QStringLiteral("unproved/") + QString::fromLatin1(publicKey.toHex());
}

[[nodiscard]] inline QString peerKey(const Peer& peer)
{
    return peer.isProved ? abonentKey(peer.abonent) : unprovedPeerKey(peer.publicKey);
}

} // namespace host
