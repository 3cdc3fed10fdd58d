// Our messages on their way to the peer: each is offered, sent and kept until the peer says
// that it has stored it.
#pragma once

#include "host/session/peer.h"
#include "host/session/sessioncontrol.h"

#include <QCryptographicHash>
#include <QSet>

#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace host {

class OutgoingMessages
{
public:
    // peer, store, session: not owned, outlive this object. Messages of the queue are claimed in the
    // session's name.
    OutgoingMessages(const Peer& peer, OutgoingStore* store, SessionControl* session);

    // Frames of the peer.
    void onState(const Frame& frame);
    void onStored(const Frame& frame);
    void onRefused(const Frame& frame);

    // Each returns whether there was something to do. That need not mean that it put a frame.
    bool tellSettled(qint64 nowMs);
    [[nodiscard]] qint64 settledDueMs() const; // when tellSettled() will have something to say
    bool sendNext();

    // The peer has a part of the next message: it is compared with our copy, in slices.
    [[nodiscard]] bool isComparing() const { return m_sending && m_sending->prefixHash; }
    void compare();

    [[nodiscard]] bool awaitsAcknowledgement() const { return !m_unacknowledged.empty(); }
    [[nodiscard]] bool nothingLeft() const;

    // Call it when the session is over: others may claim its messages again.
    void drop();

private:
    struct Sending
    {
        OutgoingMessage message;
        quint64 offerIndex = 0;
        std::unique_ptr<QIODevice> device;
        qint64 position = 0;
        bool offered = false;
        std::unique_ptr<QCryptographicHash> prefixHash; // while the peer's part is compared
        MessagePart peerPart;
    };

    std::optional<OutgoingMessage> takeNext();
    bool begin();
    bool sendData();
    void offer(qint64 offset);
    void sentAll();
    void failed(const QString& reason);
    void delivered(const OutgoingMessage& message);
    std::optional<OutgoingMessage> takeOffered(quint64 offerIndex, const QString& abortReason);

    const Peer& m_peer;
    OutgoingStore* const m_store;
    SessionControl* const m_session;

    bool m_peerStateKnown = false;
    std::map<quint64, MessagePart> m_peerParts;
    QSet<quint64> m_peerStored; // only messages of our queue, as with the parts above
    std::optional<QSet<quint64>> m_queuedIds; // as they were when the peer's State came
    std::optional<Sending> m_sending;
    std::map<quint64, OutgoingMessage> m_unacknowledged; // by offer
    std::map<quint64, int> m_retries; // by message
    std::vector<OutgoingMessage> m_again; // to be offered once more from the beginning
    quint64 m_nextOffer = 0;
    quint64 m_acknowledgementsSeen = 0; // of the peer's State and Stored frames
    quint64 m_settledTold = 0;
    qint64 m_settledToldMs = 0;
    qint64 m_dataBytesSent = 0; // in this call
};

} // namespace host
