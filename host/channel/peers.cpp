#include "host/channel/peers.h"

#include "host/installation/keytext.h"
#include "host/installation/names.h"

#include <QMutexLocker>

namespace host {

namespace {

using Verdict = PeerDirectory::Verdict;
using Kind = Verdict::Kind;
using Cause = Verdict::Cause;

Verdict proved(const Abonent& abonent)
{
    Verdict verdict;
    verdict.kind = Kind::Proved;
    verdict.abonent = abonent.name;
    return verdict;
}

Verdict refused(Cause cause, const QString& reason)
{
    Verdict verdict;
    verdict.kind = Kind::Refused;
    verdict.cause = cause;
    verdict.reason = reason;
    return verdict;
}

Verdict keyIsBlocked(const QByteArray& key)
{
    return refused(Cause::BlockedKey,
                   QStringLiteral("the key %1 is blocked here (transport-host key unblock)").arg(keyFingerprint(key)));
}

Verdict abonentIsBlocked(const Abonent& abonent)
{
    return refused(
        Cause::BlockedKey,
        QStringLiteral("'%1' is blocked here (transport-host abonent unblock)").arg(displayName(abonent.name)));
}

} // namespace

Peers::Peers(AbonentBook* book, const QByteArray& ownKey, bool acceptUnknown, std::function<void(const PeerNews&)> tell)
    : m_book(book), m_ownKey(ownKey), m_acceptUnknown(acceptUnknown), m_tell(std::move(tell))
{
}

Verdict Peers::whoCalls(const QByteArray& publicKey)
{
    AbonentRecords records;
    // What was read before may still say whom to trust, but not who was blocked since then.
    const QString error = m_book->read(&records);
    if (!error.isEmpty())
        return refused(Cause::Failed, error);
    if (records.blockedKeys.contains(publicKey))
        return keyIsBlocked(publicKey);
    const int owner = records.findKey(publicKey);
    if (owner >= 0)
        return records.abonents.at(owner).isBlocked ? abonentIsBlocked(records.abonents.at(owner))
                                                    : proved(records.abonents.at(owner));
    if (!m_acceptUnknown)
        return refused(Cause::UnknownKey, QStringLiteral("the key %1 is not known here: if you know whose it is, "
                                                         "\"transport-host abonent add NAME --number NUMBER --key %2\"")
                                              .arg(keyFingerprint(publicKey), keyText(publicKey)));
    Verdict verdict;
    verdict.kind = Kind::Unproved;
    verdict.abonent = QStringLiteral("key %1").arg(keyFingerprint(publicKey));
    return verdict;
}

Verdict Peers::whoAnswers(const QString& calledAbonent, const QByteArray& publicKey)
{
    AbonentRecords records;
    const QString error = m_book->read(&records);
    if (!error.isEmpty())
        return refused(Cause::Failed, error);
    const int index = records.find(calledAbonent);
    if (index < 0)
        return refused(Cause::Failed,
                       QStringLiteral("'%1' is not known here any more").arg(displayName(calledAbonent)));
    const Abonent& called = records.abonents.at(index);
    if (called.isBlocked)
        return abonentIsBlocked(called);
    if (records.blockedKeys.contains(publicKey))
        return keyIsBlocked(publicKey);
    if (called.key == publicKey) {
        QMutexLocker locker(&m_mutex);
        m_troubles.remove(abonentKey(called.name));
        return proved(called);
    }
    if (!called.key.isEmpty() || records.findKey(publicKey) >= 0 || publicKey == m_ownKey)
        return answeredByAnother(called, records, publicKey);
    return pinFirstAnswer(called.name, publicKey);
}

std::optional<Verdict> Peers::whyExpelled(const Peer& peer)
{
    AbonentRecords records;
    if (!m_book->read(&records).isEmpty())
        return std::nullopt;
    if (records.blockedKeys.contains(peer.publicKey))
        return keyIsBlocked(peer.publicKey);
    // The abonent under whose name it came in, and the one who has its key now.
    for (const int index : {peer.isProved ? records.find(peer.abonent) : -1, records.findKey(peer.publicKey)}) {
        if (index >= 0 && records.abonents.at(index).isBlocked)
            return abonentIsBlocked(records.abonents.at(index));
    }
    return std::nullopt;
}

Verdict Peers::answeredByAnother(const Abonent& called, const AbonentRecords& records, const QByteArray& publicKey)
{
    const int owner = records.findKey(publicKey);
    const QString answered = keyFingerprint(publicKey);
    if (called.key.isEmpty()) {
        const QString who = owner < 0 ? QStringLiteral("this installation itself")
                                      : QStringLiteral("'%1'").arg(displayName(records.abonents.at(owner).name));
        return refused(Cause::WrongKey, QStringLiteral("'%1' was called and %2 answered (key %3): check the number")
                                            .arg(displayName(called.name), who, answered));
    }
    {
        QMutexLocker locker(&m_mutex);
        m_troubles[abonentKey(called.name)] = Trouble{called.key, publicKey};
    }
    const PeerNews news{PeerNews::Kind::KeyChanged, called.name, keyFingerprint(called.key), answered};
    m_tell(news);
    const QString known =
        owner < 0 ? QString()
                  : QStringLiteral(", which is that of '%1'").arg(displayName(records.abonents.at(owner).name));
    return refused(Cause::WrongKey, QStringLiteral("'%1' answered with the key %2%3, but %4 is pinned")
                                        .arg(displayName(called.name), answered, known, news.pinned));
}

// Two ports may call the abonent at the same time. What the file says while it is locked decides.
Verdict Peers::pinFirstAnswer(const QString& called, const QByteArray& publicKey)
{
    Abonent now;
    bool isPinnedHere = false;
    const QString error = m_book->change([&](AbonentRecords* records) {
        const int index = records->find(called);
        if (index < 0)
            return QStringLiteral("'%1' is not known here any more").arg(displayName(called));
        if (records->abonents.at(index).isBlocked || records->blockedKeys.contains(publicKey))
            return QStringLiteral("it was blocked meanwhile");
        isPinnedHere = records->abonents.at(index).key.isEmpty();
        const QString trouble = isPinnedHere ? records->pin(index, publicKey, Abonent::Pinned::OnFirstCall) : QString();
        now = records->abonents.at(index);
        return trouble;
    });
    if (!error.isEmpty())
        return refused(Cause::Failed,
                       QStringLiteral("the key of '%1' cannot be pinned: %2").arg(displayName(called), error));
    if (!isPinnedHere)
        return whoAnswers(called, publicKey); // somebody else has pinned a key meanwhile: compare with that one
    m_tell(PeerNews{PeerNews::Kind::Pinned, now.name, QString(), keyFingerprint(publicKey)});
    return proved(now);
}

std::optional<PeerNews> Peers::keyTrouble(const Abonent& abonent) const
{
    QMutexLocker locker(&m_mutex);
    const auto trouble = m_troubles.constFind(abonentKey(abonent.name));
    if (trouble == m_troubles.constEnd() || trouble->pinned != abonent.key)
        return std::nullopt;
    return PeerNews{PeerNews::Kind::KeyChanged, abonent.name, keyFingerprint(trouble->pinned),
                    keyFingerprint(trouble->answered)};
}

} // namespace host
