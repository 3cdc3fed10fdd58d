// What a session is told of the call it runs on, and how it tells its end.
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
    TimeUsedUp, // a peer that is not proved may stay only so long
    NotThisProtocol, // whatever is at the other end, it is no host of this kind
    OtherVersion,
    SelfCall, // the line leads back to this installation
    WrongKey, // our call was answered by a key that is not the called abonent's
    UnknownKey, // incoming, and not let in
    BlockedKey,
    DirectoryFailed, // whether the peer may be let in could not be found out
    RefusedByPeer, // we are not let in over there
    Damaged, // the bytes are not what the peer sent
    ProtocolError,
};

// One word for each, for programs.
[[nodiscard]] QString endWord(SessionEnd end);

} // namespace host
