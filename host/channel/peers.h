// Who may have a session with this installation, answered from its book of abonents.
#pragma once

#include "host/installation/abonentbook.h"
#include "host/session/peerdirectory.h"

#include <QHash>
#include <QMutex>
#include <QString>

#include <functional>

namespace host {

// What happened when a peer's key was looked up, for the journal and the views. It has fingerprints,
// no keys.
struct PeerNews
{
    enum class Kind
    {
        Pinned, // the first answer to a call of ours: the key is the abonent's from now on
        KeyChanged, // another key is pinned for the called abonent
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

    // The last answer of the abonent if it came with a wrong key, as long as the same key is still
    // pinned; otherwise null.
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
