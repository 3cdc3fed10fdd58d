// What a port of the dial-up channel says about a call, in its journal records (the record's source
// is the port's name) and in its state text. The server's signals say that a call failed, but not
// why, and there is none for a call whose port went down meanwhile: a host learns both from these
// texts. The words are fixed; %1 and %2 are replaced.
#pragma once

#include <QString>

namespace ComCallTexts {

// The port dials: %1 is the abonent's name as the host gave it, %2 the number. The journal record
// continues after it.
inline QString calling()
{
    return QStringLiteral("Вызов '%1' (%2)");
}

// No port could take the call to %1; the channel itself says so, not a port.
inline QString noFreePort()
{
    return QStringLiteral("Не удалось вызвать абонента '%1' т.к. не удалось найти свободный COM порт");
}

// A call, incoming or outgoing, failed: %1 says why. For an outgoing call notConnected() follows.
inline QString failed()
{
    return QStringLiteral("Не удалось установить соединение: %1");
}

// The modems are connected: %1 is the modem's answer. For an outgoing call one of the signals
// follows, disconnected() at the latest, unless the port goes down at this very moment.
inline QString carrier()
{
    return QStringLiteral("Соединение установлено: %1");
}

// The session has learnt that the peer is %1.
inline QString connected()
{
    return QStringLiteral("Установлено соединение с '%1'");
}

} // namespace ComCallTexts
