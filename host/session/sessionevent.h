// What a session tells its host.
#pragma once

#include "host/session/sessionstore.h"

#include <QByteArray>
#include <QString>

namespace host {

struct SessionEvent
{
    enum class Kind
    {
        PeerNamed, // text: the peer's name
        FileBegun, // done: where it is taken up
        FileProgress, // done: bytes received, or handed to the channel
        FileStored, // incoming: whole, verified, in the inbox (text: where)
        FileDelivered, // outgoing: the peer has stored it
        FileDuplicate, // incoming: it was stored before; acknowledged again
        FileFailed, // text: why; an outgoing one stays queued
        Note, // text, for the journal
    };

    Kind kind = Kind::Note;
    bool outgoing = false;
    quint64 messageId = 0;
    QString fileName;
    QByteArray sha256;
    qint64 size = 0;
    qint64 done = 0;
    QString text;
};

[[nodiscard]] SessionEvent fileEvent(SessionEvent::Kind kind, const OutgoingMessage& message, qint64 done,
                                     const QString& text = QString());
[[nodiscard]] SessionEvent fileEvent(SessionEvent::Kind kind, const OfferFrame& offer, qint64 done,
                                     const QString& text = QString());
[[nodiscard]] SessionEvent textEvent(SessionEvent::Kind kind, const QString& text);

} // namespace host
