// Who may have a session with this installation: its book of abonents, as sessions ask it.
#pragma once

#include "host/installation/abonentbook.h"
#include "host/session/peerdirectory.h"

#include <QHash>
#include <QMutex>
#include <QString>

#include <functional>

namespace host {

// What came of a look at a peer's key, for the journal and the views. Fingerprints, no keys.
struct PeerNews
{
    enum class Kind
    {
        Pinned, // the first answer to a call of ours: the key is the abonent's from now on
        KeyChanged, // the called abonent is known by another key
    };
    Kind kind = Kind::Pinned;
    QString abonent;
    QString pinned; // KeyChanged: the fingerprint that was expected
    QString answered; // the fingerprint that answered
};

// Any thread may call any operation.
class Peers : public PeerDirectory
{
public:
    // book: not owned. ownKey: the public key of this installation. acceptUnknown: whoever
    // calls with a key that is not known may leave messages. tell is called in the thread of
    // the session that asks.
    Peers(AbonentBook* book, const QByteArray& ownKey, bool acceptUnknown, std::function<void(const PeerNews&)> tell);

    Verdict whoCalls(const QByteArray& publicKey) override;
    Verdict whoAnswers(const QString& calledAbonent, const QByteArray& publicKey) override;
    std::optional<Verdict> whyExpelled(const Peer& peer) override;

    // The last answer since the start, when it came with a wrong key and the pinned one is still
    // the one that it did not fit; null otherwise.
    [[nodiscard]] std::optional<PeerNews> keyTrouble(const Abonent& abonent) const;

private:
    struct Trouble
    {
        QByteArray pinned;
        QByteArray answered;
    };

    Verdict answeredByAnother(const Abonent& called, const AbonentRecords& records, const QByteArray& publicKey);
    Verdict pinFirstAnswer(const QString& called, const QByteArray& publicKey);

    AbonentBook* const m_book; // not owned
    const QByteArray m_ownKey;
    const bool m_acceptUnknown;
    const std::function<void(const PeerNews&)> m_tell;

    mutable QMutex m_mutex; // guards the rest; a leaf
    QHash<QString, Trouble> m_troubles; // by the abonent's key
};

} // namespace host
