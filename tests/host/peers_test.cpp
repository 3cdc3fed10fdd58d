#include "common/global.h"
#include "host/channel/peers.h"
#include "host/installation/keypair.h"
#include "host/installation/keytext.h"
#include "tests/host/storetools.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

using namespace host;
using namespace hosttest;
using namespace rig;
using Kind = PeerDirectory::Verdict::Kind;
using Cause = PeerDirectory::Verdict::Cause;

namespace {

class PeersTest : public testing::Test
{
protected:
    PeersTest()
    {
        for (const char* name : {"Bob", "Carol"}) {
            EXPECT_EQ(book.change([&](AbonentRecords* records) {
                Abonent abonent;
                abonent.name = QString::fromLatin1(name);
                records->abonents.append(abonent);
                return QString();
            }),
                      QString());
        }
    }
    std::unique_ptr<Peers> peers(bool acceptUnknown = false)
    {
        return std::make_unique<Peers>(&book, own, acceptUnknown, [this](const PeerNews& what) {
            std::lock_guard<std::mutex> lock(mutex);
            news.append(what);
        });
    }
    // As another program does it.
    void change(const AbonentBook::Change& change) { EXPECT_EQ(AbonentBook(path).change(change), QString()); }
    void pin(int index, const QByteArray& key)
    {
        change([&](AbonentRecords* records) { return records->pin(index, key, Abonent::Pinned::ByHand); });
    }

    const QString path = Global::abonentsSettingsFilePath();
    AbonentBook book{path};
    const QByteArray own = KeyPair::generate().publicKey();
    const QByteArray bobs = KeyPair::generate().publicKey();
    const QByteArray other = KeyPair::generate().publicKey();
    const QString bob = QStringLiteral("Bob");
    std::mutex mutex;
    QVector<PeerNews> news;
};

} // namespace

TEST_F(PeersTest, ACallerIsWhoseKeyItHas)
{
    pin(0, bobs);
    const auto directory = peers();
    const auto verdict = directory->whoCalls(bobs);
    EXPECT_EQ(verdict.kind, Kind::Proved);
    EXPECT_EQ(verdict.abonent, bob);
    EXPECT_TRUE(news.isEmpty());
}

TEST_F(PeersTest, AnUnknownCallerIsRefusedWithTheWayToLetItIn)
{
    const auto directory = peers();
    const auto verdict = directory->whoCalls(other);
    EXPECT_EQ(verdict.kind, Kind::Refused);
    EXPECT_EQ(verdict.cause, Cause::UnknownKey);
    EXPECT_TRUE(verdict.reason.contains(keyFingerprint(other)));
    EXPECT_TRUE(verdict.reason.contains(QStringLiteral("--key ") + keyText(other)));
    // A change counts at once.
    pin(1, other);
    EXPECT_EQ(directory->whoCalls(other).abonent, QStringLiteral("Carol"));
}

TEST_F(PeersTest, AnUnknownCallerIsUnprovedWhereThatIsAllowed)
{
    const auto directory = peers(true);
    const auto verdict = directory->whoCalls(other);
    EXPECT_EQ(verdict.kind, Kind::Unproved);
    EXPECT_TRUE(verdict.abonent.contains(keyFingerprint(other)));
    change([&](AbonentRecords* records) {
        records->blockedKeys.append(other);
        return QString();
    });
    EXPECT_EQ(directory->whoCalls(other).kind, Kind::Refused);
    EXPECT_EQ(directory->whoCalls(other).cause, Cause::BlockedKey);
}

TEST_F(PeersTest, TheFirstAnswerToACallOfOursIsPinnedAndSaidOnce)
{
    const auto directory = peers();
    EXPECT_EQ(directory->whoAnswers(QStringLiteral("BOB"), bobs).kind, Kind::Proved);
    EXPECT_EQ(directory->whoAnswers(bob, bobs).kind, Kind::Proved);
    ASSERT_EQ(news.size(), 1);
    EXPECT_EQ(news.first().kind, PeerNews::Kind::Pinned);
    EXPECT_EQ(news.first().abonent, bob);
    EXPECT_EQ(news.first().answered, keyFingerprint(bobs));
    AbonentRecords records;
    ASSERT_EQ(AbonentBook(path).read(&records), QString());
    EXPECT_EQ(records.abonents.first().key, bobs);
    EXPECT_EQ(records.abonents.first().pinned, Abonent::Pinned::OnFirstCall);
    EXPECT_EQ(directory->whoCalls(bobs).abonent, bob) << "and now it may call";
}

TEST_F(PeersTest, AnotherKeyLaterIsRefusedUntilTheOldOneIsForgotten)
{
    pin(0, bobs);
    const auto directory = peers();
    const auto verdict = directory->whoAnswers(bob, other);
    EXPECT_EQ(verdict.kind, Kind::Refused);
    EXPECT_EQ(verdict.cause, Cause::WrongKey);
    ASSERT_EQ(news.size(), 1);
    EXPECT_EQ(news.first().kind, PeerNews::Kind::KeyChanged);
    EXPECT_EQ(news.first().pinned, keyFingerprint(bobs));
    EXPECT_EQ(news.first().answered, keyFingerprint(other));
    AbonentRecords records;
    ASSERT_EQ(book.read(&records), QString());
    EXPECT_EQ(records.abonents.first().key, bobs) << "nothing is changed by it";
    EXPECT_TRUE(directory->keyTrouble(records.abonents.at(0)));
    EXPECT_FALSE(directory->keyTrouble(records.abonents.at(1)));
    change([](AbonentRecords* changed) {
        changed->forgetKey(0);
        return QString();
    });
    ASSERT_EQ(book.read(&records), QString());
    EXPECT_FALSE(directory->keyTrouble(records.abonents.at(0)));
    EXPECT_EQ(directory->whoAnswers(bob, other).kind, Kind::Proved);
}

TEST_F(PeersTest, TheRightKeyLaterEndsTheTrouble)
{
    pin(0, bobs);
    const auto directory = peers();
    EXPECT_EQ(directory->whoAnswers(bob, other).kind, Kind::Refused);
    AbonentRecords records;
    ASSERT_EQ(book.read(&records), QString());
    EXPECT_TRUE(directory->keyTrouble(records.abonents.at(0)));
    EXPECT_EQ(directory->whoAnswers(bob, bobs).kind, Kind::Proved);
    EXPECT_FALSE(directory->keyTrouble(records.abonents.at(0)));
}

TEST_F(PeersTest, AnotherAbonentOrWeOurselvesAreNotPinned)
{
    pin(1, other);
    const auto directory = peers();
    const auto carol = directory->whoAnswers(bob, other);
    EXPECT_EQ(carol.kind, Kind::Refused);
    EXPECT_EQ(carol.cause, Cause::WrongKey);
    EXPECT_TRUE(carol.reason.contains(QStringLiteral("'Carol' answered"))) << qPrintable(carol.reason);
    EXPECT_EQ(directory->whoAnswers(bob, own).kind, Kind::Refused);
    AbonentRecords records;
    ASSERT_EQ(book.read(&records), QString());
    EXPECT_EQ(records.abonents.first().key, QByteArray());
    EXPECT_TRUE(news.isEmpty());
}

TEST_F(PeersTest, WhoIsBlockedMeanwhileMayNotStay)
{
    pin(0, bobs);
    const auto directory = peers(true);
    Peer in = provedPeer(bob);
    in.publicKey = bobs;
    Peer stranger = unprovedPeer('s');
    stranger.publicKey = other;
    const auto cause = [&](const Peer& peer) {
        const auto verdict = directory->whyExpelled(peer);
        return verdict ? std::optional<Cause>(verdict->cause) : std::nullopt;
    };
    EXPECT_EQ(cause(in), std::nullopt);
    EXPECT_EQ(cause(stranger), std::nullopt) << "it was let in unproved, and still may";

    const auto blockKeys = [&](const QVector<QByteArray>& keys) {
        change([&](AbonentRecords* records) {
            records->blockedKeys = keys;
            return QString();
        });
    };
    blockKeys({bobs, other});
    EXPECT_EQ(cause(in), Cause::BlockedKey);
    EXPECT_EQ(directory->whyExpelled(in)->reason,
              QStringLiteral("the key %1 is blocked here (transport-host key unblock)").arg(keyFingerprint(bobs)));
    EXPECT_EQ(cause(stranger), Cause::BlockedKey);
    blockKeys({});
    EXPECT_EQ(cause(in), std::nullopt);

    const auto blockBob = [&](bool isBlocked) {
        change([&](AbonentRecords* records) {
            records->abonents[0].isBlocked = isBlocked;
            return QString();
        });
    };
    blockBob(true);
    EXPECT_EQ(cause(in), Cause::BlockedKey);
    EXPECT_EQ(directory->whyExpelled(in)->reason,
              QStringLiteral("'Bob' is blocked here (transport-host abonent unblock)"));
    change([&](AbonentRecords* records) {
        records->forgetKey(0);
        return QString();
    });
    EXPECT_EQ(cause(in), Cause::BlockedKey) << "the abonent is, whatever its key";
    EXPECT_EQ(cause(stranger), std::nullopt);
    pin(0, other);
    EXPECT_EQ(cause(stranger), Cause::BlockedKey) << "it turned out to be the blocked one";
    blockBob(false);
    EXPECT_EQ(cause(in), std::nullopt);

    writeFile(path, "damaged");
    EXPECT_EQ(cause(in), std::nullopt) << "who was let in is not thrown out for that";
}

TEST_F(PeersTest, WhoIsBlockedGetsNowhere)
{
    pin(0, bobs);
    change([](AbonentRecords* records) {
        records->abonents[0].isBlocked = true;
        return QString();
    });
    const auto directory = peers(true);
    EXPECT_EQ(directory->whoCalls(bobs).cause, Cause::BlockedKey);
    EXPECT_EQ(directory->whoCalls(bobs).kind, Kind::Refused);
    EXPECT_EQ(directory->whoAnswers(bob, bobs).kind, Kind::Refused);
}

// Whether it stands with an abonent or with nobody.
TEST_F(PeersTest, ABlockedKeyGetsNowhere)
{
    pin(0, bobs);
    change([this](AbonentRecords* records) {
        records->blockedKeys = {bobs, other};
        return QString();
    });
    const auto directory = peers(true);
    for (const QByteArray& key : {bobs, other})
        EXPECT_EQ(directory->whoCalls(key).cause, Cause::BlockedKey);
    const auto pinned = directory->whoAnswers(bob, bobs);
    EXPECT_EQ(pinned.kind, Kind::Refused);
    EXPECT_EQ(pinned.cause, Cause::BlockedKey);
    const auto first = directory->whoAnswers(QStringLiteral("Carol"), other);
    EXPECT_EQ(first.kind, Kind::Refused);
    EXPECT_EQ(first.cause, Cause::BlockedKey);
    EXPECT_TRUE(news.isEmpty());
}

TEST_F(PeersTest, WithoutAReadableBookNobodyIsLetIn)
{
    pin(0, bobs);
    const auto directory = peers(true);
    writeFile(path, "damaged");
    EXPECT_EQ(directory->whoCalls(bobs).cause, Cause::Failed);
    EXPECT_EQ(directory->whoCalls(other).kind, Kind::Refused);
    EXPECT_EQ(directory->whoAnswers(bob, bobs).kind, Kind::Refused);
    QFile::remove(path);
    EXPECT_EQ(directory->whoAnswers(bob, bobs).cause, Cause::Failed);
    EXPECT_FALSE(QFile::exists(path));
}

// Several lines reach numbers of one abonent at the same moment; behind them stand several keys.
TEST_F(PeersTest, OnlyOneOfSeveralFirstAnswersIsPinned)
{
    constexpr int lines = 4;
    std::atomic<int> provedCount{0};
    std::vector<std::thread> threads;
    const auto directory = peers();
    for (int i = 0; i < lines; ++i) {
        threads.emplace_back([&] {
            if (directory->whoAnswers(bob, KeyPair::generate().publicKey()).kind == Kind::Proved)
                ++provedCount;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(provedCount, 1);
    EXPECT_EQ(std::count_if(news.cbegin(), news.cend(),
                            [](const PeerNews& what) { return what.kind == PeerNews::Kind::Pinned; }),
              1);
}

// What stands in the journals of both ends, with the way out.
TEST_F(PeersTest, RefusalsAreToldWhole)
{
    const auto directory = peers();
    const std::string otherPrint = keyFingerprint(other).toStdString();
    const std::string bobsPrint = keyFingerprint(bobs).toStdString();
    const auto answering = [&](const char* called, const QByteArray& key) {
        return directory->whoAnswers(QString::fromLatin1(called), key).reason.toStdString();
    };
    EXPECT_EQ(
        directory->whoCalls(other).reason.toStdString(),
        "the key " + otherPrint +
            " is not known here: if you know whose it is, \"transport-host abonent add NAME --number NUMBER --key " +
            keyText(other).toStdString() + "\"");
    EXPECT_EQ(answering("Dave", other), "'Dave' is not known here any more");
    pin(1, other);
    EXPECT_EQ(answering("Bob", other),
              "'Bob' was called and 'Carol' answered (key " + otherPrint + "): check the number");
    EXPECT_EQ(answering("Bob", own), "'Bob' was called and this installation itself answered (key " +
                                         keyFingerprint(own).toStdString() + "): check the number");
    pin(0, bobs);
    EXPECT_EQ(answering("Bob", other), "'Bob' answered with the key " + otherPrint +
                                           ", which is that of 'Carol', but " + bobsPrint + " is pinned");
    EXPECT_EQ(answering("Bob", own),
              "'Bob' answered with the key " + keyFingerprint(own).toStdString() + ", but " + bobsPrint + " is pinned");
    change([&](AbonentRecords* records) {
        records->abonents[1].isBlocked = true;
        records->blockedKeys.append(bobs);
        return QString();
    });
    EXPECT_EQ(directory->whoCalls(other).reason.toStdString(),
              "'Carol' is blocked here (transport-host abonent unblock)");
    EXPECT_EQ(answering("Carol", other), "'Carol' is blocked here (transport-host abonent unblock)");
    EXPECT_EQ(answering("Bob", bobs), "the key " + bobsPrint + " is blocked here (transport-host key unblock)");
}

TEST_F(PeersTest, AnUnprovedCallerIsCalledByItsKey)
{
    EXPECT_EQ(peers(true)->whoCalls(other).abonent, QStringLiteral("key ") + keyFingerprint(other));
}
