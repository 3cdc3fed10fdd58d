// What a port of the dial-up channel says of a call, in its journal records (the record's source
// is the port's name) and in its state text. The signals of the server tell that a call failed, not
// why, and nothing of a call whose port went down on the way: a host learns both from these texts.
// The words are fixed; %1 and %2 stand for what differs.
#pragma once

#include <QString>

namespace ComCallTexts {

// The port dials: %1 the abonent as the host called it, %2 the number. The journal record goes
// on behind it.
inline QString calling()
{
    return QStringLiteral("Вызов '%1' (%2)");
}

// No port could take the call of %1; told by the channel itself, not by a port.
inline QString noFreePort()
{
    return QStringLiteral("Не удалось вызвать абонента '%1' т.к. не удалось найти свободный COM порт");
}

// The call, either way, came to nothing: %1 says why. notConnected() follows for one of ours.
inline QString failed()
{
    return QStringLiteral("Не удалось установить соединение: %1");
}

// The modems are connected: %1 is the modem's answer. One of the signals follows for a call of
// ours, disconnected() at the latest, unless the port goes down in this very moment.
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
