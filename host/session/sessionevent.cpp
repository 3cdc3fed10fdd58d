#include "host/session/sessionevent.h"

namespace host {

SessionEvent fileEvent(SessionEvent::Kind kind, const OutgoingMessage& message, qint64 done, const QString& text)
{
    SessionEvent event = textEvent(kind, text);
    event.outgoing = true;
    event.messageId = message.id;
    event.fileName = message.fileName;
    event.sha256 = message.sha256;
    event.size = message.size;
    event.done = done;
    return event;
}

SessionEvent fileEvent(SessionEvent::Kind kind, const OfferFrame& offer, qint64 done, const QString& text)
{
    SessionEvent event = textEvent(kind, text);
    event.messageId = offer.messageId;
    event.fileName = offer.fileName;
    event.sha256 = offer.sha256;
    event.size = offer.size;
    event.done = done;
    return event;
}

SessionEvent textEvent(SessionEvent::Kind kind, const QString& text)
{
    SessionEvent event;
    event.kind = kind;
    event.text = text;
    return event;
}

} // namespace host
