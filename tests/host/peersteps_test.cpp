// What another program changes in the list of abonents between two looks of ours at it.
#include "common/global.h"
#include "host/channel/peers.h"
#include "host/installation/keypair.h"
#include "tests/support/systemcalls.h"

#include <gtest/gtest.h>

using namespace host;
using testsupport::SystemCall;
using testsupport::SystemCallWatch;

namespace {

const QString bob = QStringLiteral("Bob");

QString onlyBob(AbonentRecords* records)
{
    *records = AbonentRecords();
    Abonent abonent;
    abonent.name = bob;
    records->abonents.append(abonent);
    return QString();
}

} // namespace

// The first answer is looked at, then the list is locked to pin it: who was blocked meanwhile is not.
TEST(PeerSteps, WhoIsBlockedMeanwhileIsNotPinned)
{
    const QString path = Global::abonentsSettingsFilePath();
    const QByteArray key = KeyPair::generate().publicKey();
    for (const bool isKeyBlocked : {false, true}) {
        AbonentBook book(path);
        ASSERT_EQ(book.change(onlyBob), QString());
        QVector<PeerNews> news;
        Peers peers(&book, KeyPair::generate().publicKey(), false, [&](const PeerNews& what) { news.append(what); });
        int changes = 0;
        PeerDirectory::Verdict verdict;
        {
            const std::string lockPath = path.toStdString() + ".lock";
            SystemCallWatch watch(std::string(), [&](SystemCall& call) {
                if (call.name != "open" || call.path != lockPath || changes++ > 0)
                    return 0;
                EXPECT_EQ(AbonentBook(path).change([&](AbonentRecords* records) {
                    if (isKeyBlocked)
                        records->blockedKeys = {key};
                    else
                        records->abonents[0].isBlocked = true;
                    return QString();
                }),
                          QString());
                return 0;
            });
            verdict = peers.whoAnswers(bob, key);
        }
        EXPECT_GE(changes, 1);
        EXPECT_EQ(verdict.kind, PeerDirectory::Verdict::Kind::Refused) << isKeyBlocked;
        EXPECT_TRUE(news.isEmpty());
        AbonentRecords records;
        ASSERT_EQ(book.read(&records), QString());
        EXPECT_EQ(records.abonents.first().key, QByteArray());
    }
}

// Another line was faster: its key is the abonent's, and ours is looked at as any other.
TEST(PeerSteps, WhatAnotherLinePinnedMeanwhileCounts)
{
    const QString path = Global::abonentsSettingsFilePath();
    const QByteArray key = KeyPair::generate().publicKey();
    for (const QByteArray& faster : {KeyPair::generate().publicKey(), key}) {
        AbonentBook book(path);
        ASSERT_EQ(book.change(onlyBob), QString());
        QVector<PeerNews> news;
        Peers peers(&book, KeyPair::generate().publicKey(), false, [&](const PeerNews& what) { news.append(what); });
        int changes = 0;
        PeerDirectory::Verdict verdict;
        {
            const std::string lockPath = path.toStdString() + ".lock";
            SystemCallWatch watch(std::string(), [&](SystemCall& call) {
                if (call.name != "open" || call.path != lockPath || changes++ > 0)
                    return 0;
                EXPECT_EQ(AbonentBook(path).change([&](AbonentRecords* records) {
                    return records->pin(0, faster, Abonent::Pinned::OnFirstCall);
                }),
                          QString());
                return 0;
            });
            verdict = peers.whoAnswers(bob, key);
        }
        EXPECT_GE(changes, 1);
        if (faster == key) {
            EXPECT_EQ(verdict.kind, PeerDirectory::Verdict::Kind::Proved);
            EXPECT_TRUE(news.isEmpty()) << "it was said by whoever pinned it";
        } else {
            EXPECT_EQ(verdict.cause, PeerDirectory::Verdict::Cause::WrongKey);
        }
        AbonentRecords records;
        ASSERT_EQ(book.read(&records), QString());
        EXPECT_EQ(records.abonents.first().key, faster);
    }
}
