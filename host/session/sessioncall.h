// What a session is told about its call, and what it tells about its end.
#pragma once

#include <QString>

namespace host {

struct SessionCall
{
    bool isOutgoing = false; // the side that placed the call speaks first
    QString calledAbonent; // outgoing: who was called
};

// How a session ended; the text beside it is for people.
enum class SessionEnd
{
    None, // it has not
    Agreed, // both sides had nothing left
    Stopped, // by our host
    StoppedByPeer,
    ConnectionLost,
    Silence, // nothing was heard for too long
    Useless, // heartbeats, but nothing of use for too long
    Stalled, // acknowledgements were due and did not come
    OpeningTimedOut,
    TimeUsedUp, // a peer that is not proved has stayed as long as it may
    NotThisProtocol, // the other end is no host of this kind
    OtherVersion,
    SelfCall, // the line leads back to this installation
    WrongKey, // who answered our call has another key than the called abonent
    UnknownKey, // an incoming call, not let in
    BlockedKey,
    DirectoryFailed, // we could not find out whether the peer may be let in
    RefusedByPeer, // the peer does not let us in
    Damaged, // the bytes are not what the peer sent
    ProtocolError,
};

// One word for each end, for programs.
[[nodiscard]] QString endWord(SessionEnd end);

} // namespace host
