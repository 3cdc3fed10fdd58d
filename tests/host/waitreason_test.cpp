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

TEST(WaitReasons, Sentences)
{
    const QString bob = QStringLiteral("Bob");
    WaitReason reason = of(Kind::CallsFailed);
    EXPECT_EQ(reason.sentence(bob), QStringLiteral("2 calls in a row failed, the last: text"));
    reason.calls = 1;
    reason.text.clear();
    EXPECT_EQ(reason.sentence(bob), QStringLiteral("1 call in a row failed"));
    // Both keys and the way out.
    const QString changed = of(Kind::KeyChanged).sentence(bob);
    EXPECT_TRUE(changed.contains(QStringLiteral("1111")) && changed.contains(QStringLiteral("2222")) &&
                changed.contains(QStringLiteral("transport-host abonent forget-key")))
        << qPrintable(changed);
}

TEST(WaitReasons, WhatIsNotUnderstoodIsNoReason)
{
    EXPECT_EQ(WaitReason::fromJson({}), WaitReason());
    EXPECT_EQ(WaitReason::fromJson({{QStringLiteral("kind"), QStringLiteral("future")}}), WaitReason());
    EXPECT_EQ(
        WaitReason::fromJson({{QStringLiteral("kind"), 7}, {QStringLiteral("reason"), QStringLiteral("old")}}).text,
        QStringLiteral("old"));
}
