// The peer's messages on their way into the inbox: what stands of them, what comes, what is
// acknowledged.
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

    // The peer is known: looks for the parts of its messages that stand. They are hashed in
    // slices; hashParts() answers true once all are and our State was said.
    void lookForParts();
    bool hashParts();

    // Frames of the peer.
    void onOffer(const Frame& frame);
    void onData(const Frame& frame);
    void onAbort(const Frame& frame);
    void onSettled(const Frame& frame);

    // Whether there was something to acknowledge.
    bool acknowledge();

    // The peer has heard of all that we have stored.
    void settleAll() { settleFirst(m_toSettle.size()); }

    [[nodiscard]] bool isReceiving() const { return m_receiving.has_value(); }
    [[nodiscard]] bool hasMuchToReceive() const;
    [[nodiscard]] bool nothingLeft() const { return m_toAcknowledge.isEmpty() && !m_receiving; }
    // The peer makes us answer and takes no answers.
    [[nodiscard]] bool hasPiledUp() const;

    // The session is over: parts are left to the next one.
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
