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

// What our own look at the answer of a call to bob led to.
struct Answered
{
    PeerDirectory::Verdict verdict;
    QVector<PeerNews> news;
    AbonentRecords records; // afterwards
};

// Bob answers with the key. Between the first look at the list and the lock that is to pin it,
// another program makes the change.
Answered answerWhile(const AbonentBook::Change& change, const QByteArray& key)
{
    const QString path = Global::abonentsSettingsFilePath();
    AbonentBook book(path);
    EXPECT_EQ(book.change(onlyBob), QString());
    Answered answered;
    Peers peers(&book, KeyPair::generate().publicKey(), false,
                [&](const PeerNews& what) { answered.news.append(what); });
    int openings = 0;
    {
        const std::string lockPath = path.toStdString() + ".lock";
        SystemCallWatch watch(std::string(), [&](SystemCall& call) {
            if (call.name == "open" && call.path == lockPath && openings++ == 0) {
                EXPECT_EQ(AbonentBook(path).change(change), QString());
            }
            return 0;
        });
        answered.verdict = peers.whoAnswers(bob, key);
    }
    EXPECT_GE(openings, 1);
    EXPECT_EQ(book.read(&answered.records), QString());
    return answered;
}

} // namespace

// The first answer is looked at, then the list is locked to pin it: who was blocked meanwhile is not.
TEST(PeerSteps, WhoIsBlockedMeanwhileIsNotPinned)
{
    const QByteArray key = KeyPair::generate().publicKey();
    for (const bool isKeyBlocked : {false, true}) {
        const Answered answered = answerWhile(
            [&](AbonentRecords* records) {
                if (isKeyBlocked)
                    records->blockedKeys = {key};
                else
                    records->abonents[0].isBlocked = true;
                return QString();
            },
            key);
        EXPECT_EQ(answered.verdict.kind, PeerDirectory::Verdict::Kind::Refused) << isKeyBlocked;
        EXPECT_TRUE(answered.news.isEmpty());
        EXPECT_EQ(answered.records.abonents.value(0).key, QByteArray());
    }
}

// Another line was faster: its key is the abonent's, and ours is looked at as any other.
TEST(PeerSteps, WhatAnotherLinePinnedMeanwhileCounts)
{
    const QByteArray key = KeyPair::generate().publicKey();
    for (const QByteArray& faster : {KeyPair::generate().publicKey(), key}) {
        const Answered answered = answerWhile(
            [&](AbonentRecords* records) { return records->pin(0, faster, Abonent::Pinned::OnFirstCall); }, key);
        if (faster == key) {
            EXPECT_EQ(answered.verdict.kind, PeerDirectory::Verdict::Kind::Proved);
            EXPECT_TRUE(answered.news.isEmpty()) << "it was said by whoever pinned it";
        } else {
            EXPECT_EQ(answered.verdict.cause, PeerDirectory::Verdict::Cause::WrongKey);
        }
        EXPECT_EQ(answered.records.abonents.value(0).key, faster);
    }
}
