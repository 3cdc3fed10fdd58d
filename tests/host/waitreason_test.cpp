#include "host/store/waitreason.h"

#include <QSet>
#include <gtest/gtest.h>

using namespace host;
using Kind = WaitReason::Kind;

namespace {

WaitReason of(Kind kind)
{
    WaitReason reason;
    reason.kind = kind;
    reason.text = QStringLiteral("text");
    reason.calls = 2;
    reason.pinned = QStringLiteral("1111");
    reason.answered = QStringLiteral("2222");
    return reason;
}

const Kind kinds[] = {Kind::NotTried,   Kind::NoNumber, Kind::NumberDamaged, Kind::Blocked,
                      Kind::NoCalls,    Kind::NoModem,  Kind::CallsFailed,   Kind::BrokenOff,
                      Kind::KeyChanged, Kind::Refused,  Kind::CopyAtFault,   Kind::Other};

} // namespace

TEST(WaitReasons, EachKindIsKeptAndSaysSomethingElse)
{
    QSet<QString> words;
    QSet<QString> sentences;
    for (const Kind kind : kinds) {
        const WaitReason reason = of(kind);
        EXPECT_EQ(WaitReason::fromJson(reason.toJson()), reason) << static_cast<int>(kind);
        EXPECT_FALSE(reason.word().isEmpty());
        EXPECT_FALSE(reason.sentence(QStringLiteral("Bob")).isEmpty());
        words.insert(reason.word());
        sentences.insert(reason.sentence(QStringLiteral("Bob")));
    }
    EXPECT_EQ(words.size(), 12);
    EXPECT_EQ(sentences.size(), 10) << "refused, copyAtFault and other are their text";
}

// The words are those of docs/reference-host.md: programs compare them, and files keep them.
TEST(WaitReasons, WordsAndSentences)
{
    const struct
    {
        Kind kind;
        const char* word;
        const char* sentence;
    } table[] = {
        {Kind::NotTried, "notTried", "not tried yet"},
        {Kind::NoNumber, "noNumber",
         "no number is known for 'Bob' (transport-host abonent add): it waits for their call"},
        {Kind::NumberDamaged, "numberDamaged",
         "the number of 'Bob' cannot be read (text): tell it again with \"transport-host abonent add\""},
        {Kind::Blocked, "blocked", "'Bob' is blocked here (transport-host abonent unblock)"},
        {Kind::NoCalls, "noCalls", "this host places no calls: it waits for theirs"},
        {Kind::NoModem, "noModem", "no modem is ready"},
        {Kind::CallsFailed, "callsFailed", "2 calls in a row failed, the last: text"},
        {Kind::BrokenOff, "brokenOff", "the last call broke off: text"},
        {Kind::KeyChanged, "keyChanged",
         "'Bob' answered with the key 2222, but 1111 is pinned: ask them; if theirs is new, \"transport-host abonent "
         "forget-key\" lets the next call pin it"},
        {Kind::Refused, "refused", "text"},
        {Kind::CopyAtFault, "copyAtFault", "text"},
        {Kind::Other, "other", "text"},
    };
    for (const auto& row : table) {
        const WaitReason reason = of(row.kind);
        EXPECT_EQ(reason.word().toStdString(), row.word);
        EXPECT_EQ(reason.sentence(QStringLiteral("Bob")).toStdString(), row.sentence);
        const QJsonObject kept{
            {"kind", row.word}, {"calls", 2}, {"text", "text"}, {"pinned", "1111"}, {"answered", "2222"}};
        EXPECT_EQ(reason.toJson(), kept) << row.word;
        EXPECT_EQ(WaitReason::fromJson(kept), reason) << row.word;
    }
    WaitReason once = of(Kind::CallsFailed);
    once.calls = 1;
    once.text.clear();
    EXPECT_EQ(once.sentence(QStringLiteral("Bob")), QStringLiteral("1 call in a row failed"));
}

TEST(WaitReasons, WhatIsNotUnderstoodIsNoReason)
{
    EXPECT_EQ(WaitReason::fromJson({}), WaitReason());
    EXPECT_EQ(WaitReason::fromJson({{QStringLiteral("kind"), QStringLiteral("future")}}), WaitReason());
    EXPECT_EQ(
        WaitReason::fromJson({{QStringLiteral("kind"), 7}, {QStringLiteral("reason"), QStringLiteral("old")}}).text,
        QStringLiteral("old"));
}
