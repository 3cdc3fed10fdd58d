// What the two directions of a session need from the session.
#pragma once

#include "host/session/sessionevent.h"
#include "host/session/sessionframes.h"

#include <QByteArray>
#include <QString>

namespace host {

class SessionControl
{
public:
    // Says a frame to the peer.
    virtual void put(FrameType type, const QByteArray& payload = QByteArray()) = 0;

    // Tells the host. The session also learns from it that something useful has happened.
    virtual void tell(const SessionEvent& event) = 0;

    // The peer breaks a rule: the session ends, and the peer is told why.
    virtual void giveUp(const QString& reason) = 0;

protected:
    ~SessionControl() = default;
};

// in: the frame, or the phase of the session, in which the rule was broken.
[[nodiscard]] inline QString brokenProtocol(const QString& in)
{
    return QStringLiteral("the other side does not keep to the protocol (%1)").arg(in);
}

} // namespace host
