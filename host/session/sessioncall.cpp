#include "host/session/sessioncall.h"

namespace host {

QString endWord(SessionEnd end)
{
    switch (end) {
    case SessionEnd::None: return QStringLiteral("none");
    case SessionEnd::Agreed: return QStringLiteral("agreed");
    case SessionEnd::Stopped: return QStringLiteral("stopped");
    case SessionEnd::StoppedByPeer: return QStringLiteral("stoppedByPeer");
    case SessionEnd::ConnectionLost: return QStringLiteral("connectionLost");
    case SessionEnd::Silence: return QStringLiteral("silence");
    case SessionEnd::Useless: return QStringLiteral("useless");
    case SessionEnd::Stalled: return QStringLiteral("stalled");
    case SessionEnd::OpeningTimedOut: return QStringLiteral("openingTimedOut");
    case SessionEnd::TimeUsedUp: return QStringLiteral("timeUsedUp");
    case SessionEnd::NotThisProtocol: return QStringLiteral("notThisProtocol");
    case SessionEnd::OtherVersion: return QStringLiteral("otherVersion");
    case SessionEnd::SelfCall: return QStringLiteral("selfCall");
    case SessionEnd::WrongKey: return QStringLiteral("wrongKey");
    case SessionEnd::UnknownKey: return QStringLiteral("unknownKey");
    case SessionEnd::BlockedKey: return QStringLiteral("blockedKey");
    case SessionEnd::DirectoryFailed: return QStringLiteral("directoryFailed");
    case SessionEnd::RefusedByPeer: return QStringLiteral("refusedByPeer");
    case SessionEnd::Damaged: return QStringLiteral("damaged");
    case SessionEnd::ProtocolError: return QStringLiteral("protocolError");
    }
    return QString();
}

} // namespace host
