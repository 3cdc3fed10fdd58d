#include "host/session/sessionevent.h"

namespace host {

SessionEvent fileEvent(SessionEvent::Kind kind, const OutgoingMessage& message, qint64 doneBytes, const QString& text)
{
    SessionEvent event = textEvent(kind, text);
    event.file = {true, message.id, message.fileName, message.sha256, message.size, doneBytes};
    return event;
}

SessionEvent fileEvent(SessionEvent::Kind kind, const OfferFrame& offer, qint64 doneBytes, const QString& text)
{
    SessionEvent event = textEvent(kind, text);
    event.file = {false, offer.messageId, offer.fileName, offer.sha256, offer.size, doneBytes};
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
