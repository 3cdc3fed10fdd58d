// What a session tells its host.
#pragma once

#include "host/session/fileunderway.h"
#include "host/session/sessionstore.h"

#include <QString>

namespace host {

struct SessionEvent
{
    enum class Kind
    {
        PeerNamed, // text: the peer's name
        FileBegun, // doneBytes: of the part that is resumed
        FileProgress,
        FileStored, // incoming: whole, verified, in the inbox (text: where)
        FileDelivered, // outgoing: the peer has stored it
        FileDuplicate, // incoming: it was stored before; acknowledged again
        FileFailed, // text: why; an outgoing one stays queued
        Note, // text, for the journal
    };

    Kind kind = Kind::Note;
    FileUnderWay file; // of the kinds that begin with File
    QString text;
};

[[nodiscard]] SessionEvent fileEvent(SessionEvent::Kind kind, const OutgoingMessage& message, qint64 doneBytes,
                                     const QString& text = QString());
[[nodiscard]] SessionEvent fileEvent(SessionEvent::Kind kind, const OfferFrame& offer, qint64 doneBytes,
                                     const QString& text = QString());
[[nodiscard]] SessionEvent textEvent(SessionEvent::Kind kind, const QString& text);

} // namespace host
