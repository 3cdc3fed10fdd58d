// The peer's messages on their way into the inbox: the parts that we have, the data that comes in,
// and what we acknowledge.
#pragma once

#include "host/session/peer.h"
#include "host/session/sessioncontrol.h"

#include <QCryptographicHash>
#include <QVector>

#include <map>
#include <memory>
#include <optional>

namespace host {

class IncomingMessages
{
public:
    // peer, store, session: not owned, outlive this object.
    IncomingMessages(const Peer& peer, IncomingStore* store, SessionControl* session);

    // Call it once the peer is known: looks for parts of its messages. hashParts() hashes them in
    // slices; it returns true once all are hashed and our State is said.
    void lookForParts();
    bool hashParts();

    // Frames of the peer.
    void onOffer(const Frame& frame);
    void onData(const Frame& frame);
    void onAbort(const Frame& frame);
    void onSettled(const Frame& frame);

    // Says one acknowledgement; false when there is nothing to acknowledge.
    bool acknowledge();

    // The peer knows of everything that we have stored.
    void settleAll() { settleFirst(m_toSettle.size()); }

    [[nodiscard]] bool hasMuchToReceive() const;
    [[nodiscard]] bool nothingLeft() const { return m_toAcknowledge.isEmpty() && !m_receiving; }
    // True when too many answers wait: the peer makes us answer and does not take the answers.
    [[nodiscard]] bool hasPiledUp() const;

    // Call it when the session is over: the parts stay for the next one.
    void drop();

private:
    struct Part // left from an earlier session
    {
        std::unique_ptr<IncomingFile> file;
        std::unique_ptr<QCryptographicHash> hash;
        qint64 hashedBytes = 0;
        bool done = false;
    };

    struct Receiving
    {
        OfferFrame offer;
        quint64 offerIndex = 0;
        std::unique_ptr<IncomingFile> file; // null while the data is skipped
        std::unique_ptr<QCryptographicHash> hash;
        qint64 position = 0;
    };

    static bool hashSlice(Part* part, qint64* budget, QString* error);
    void sayState();
    void duplicate();
    bool beginOrResume(RefusedFrame* refused);
    void receivedAll();
    void refuse(RefusalCode code, const QString& reason);
    void toAcknowledge();
    void settleFirst(int count);

    const Peer& m_peer;
    IncomingStore* const m_store;
    SessionControl* const m_session;

    std::map<quint64, Part> m_parts;
    std::optional<Receiving> m_receiving;
    quint64 m_nextOffer = 0;
    QVector<quint64> m_toAcknowledge; // offers
    int m_refusals = 0;
    int m_settledCount = 0;
    QVector<quint64> m_toSettle; // message ids in the order they were told to the peer
};

} // namespace host
