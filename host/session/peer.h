// Who is at the other end of a session.
#pragma once

#include "host/installation/names.h"

#include <QByteArray>
#include <QString>

namespace host {

struct Peer
{
    QString abonent; // proved: its name in this installation;
                     // unproved: a name made of its key's fingerprint
    QByteArray publicKey; // 32 bytes; empty only where nothing depends on it
    bool isProved = false;
    QString claimedName; // as it calls itself; only shown, nothing is looked up by it
};

// The key under which a peer's parts, acknowledgements and share of the disk are kept. It contains a
// slash for a peer that is not proved, and never for an abonent, so that they cannot be mixed up.
[[nodiscard]] inline QString unprovedPeerKey(const QByteArray& publicKey)
{
    return QStringLiteral("unproved/") + QString::fromLatin1(publicKey.toHex());
}

[[nodiscard]] inline QString peerKey(const Peer& peer)
{
    return peer.isProved ? abonentKey(peer.abonent) : unprovedPeerKey(peer.publicKey);
}

} // namespace host
