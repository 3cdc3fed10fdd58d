// Peers as a handshake would find them.
#pragma once

#include "host/session/peer.h"

namespace rig {

inline host::Peer provedPeer(const QString& abonent)
{
    host::Peer peer;
    peer.abonent = abonent;
    peer.isProved = true;
    peer.claimedName = abonent;
    return peer;
}

// seed: two peers with different ones have different keys.
inline host::Peer unprovedPeer(char seed)
{
    host::Peer peer;
    peer.publicKey = QByteArray(32, seed);
    peer.abonent = QStringLiteral("unknown ") + QString::fromLatin1(peer.publicKey.left(4).toHex());
    return peer;
}

} // namespace rig
