#include "host/session/opening.h"
#include "host/session/sessionframes.h"
#include "rig/host/sealedpeer.h"
#include "rig/testroot.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

using namespace host;
using namespace rig;

namespace {

const QString bob = QStringLiteral("Боб");
const QByteArray callerWord = QByteArray("transport-host\x02"
                                         "C\x40\x00",
                                         18);
const QByteArray answererWord = QByteArray("transport-host\x02"
                                           "A\x40\x00",
                                           18);

// Both ends of a line in memory.
struct Line
{
    Line()
    {
        callerBook.names[testKey(2)->publicKey()] = bob;
        answererBook.names[testKey(1)->publicKey()] = QStringLiteral("Alice");
    }

    // What is under way to one of them, changed by the test before it arrives.
    using Change = std::function<QByteArray(QByteArray)>;

    void exchange(const Change& toAnswerer = {}, const Change& toCaller = {})
    {
        for (int round = 0; round < 3; ++round) {
            const QByteArray said = caller.takeOutput(nowMs);
            answerer.receive(toAnswerer ? toAnswerer(said) : said, nowMs);
            const QByteArray answered = answerer.takeOutput(nowMs);
            caller.receive(toCaller ? toCaller(answered) : answered, nowMs);
        }
    }

    qint64 nowMs = 1000;
    TestDirectory callerBook;
    TestDirectory answererBook;
    HandshakeGuard guard{[this] { return nowMs; }};
    Opening caller{SessionCall{true, bob}, testKey(1), &callerBook, nullptr};
    Opening answerer{SessionCall{}, testKey(2), &answererBook, &guard};
};

} // namespace

TEST(Opening, BothProveWhoTheyAre)
{
    Line line;
    const QByteArray first = line.caller.takeOutput(0);
    EXPECT_EQ(first.size(), 18 + 32);
    EXPECT_EQ(first.left(18), callerWord);
    EXPECT_EQ(line.answerer.takeOutput(0), QByteArray()) << "the caller speaks first";
    line.answerer.receive(first, 0);
    const QByteArray second = line.answerer.takeOutput(0);
    EXPECT_EQ(second.size(), 18 + 96);
    EXPECT_EQ(second.left(18), answererWord);
    EXPECT_FALSE(line.caller.maySend());
    line.caller.receive(second, 0);
    EXPECT_EQ(line.callerBook.called, bob);
    const QByteArray third = line.caller.takeOutput(0);
    EXPECT_EQ(third.size(), 1 + 64);
    EXPECT_TRUE(line.caller.maySend());
    EXPECT_FALSE(line.caller.isOver()) << "the answerer has yet to say that it goes on";
    line.answerer.receive(third + "sealed", 0);
    EXPECT_EQ(line.answerer.takeOutput(0), QByteArray("\x04"));
    ASSERT_TRUE(line.answerer.maySend());
    ASSERT_TRUE(line.answerer.isOver());
    EXPECT_EQ(line.answerer.takeRest(), QByteArray("sealed"));
    line.caller.receive("\x04more", 0);
    ASSERT_TRUE(line.caller.isOver());
    EXPECT_EQ(line.caller.takeRest(), QByteArray("more"));
    EXPECT_EQ(line.caller.peer().abonent, bob);
    EXPECT_TRUE(line.caller.peer().isProved);
    EXPECT_EQ(line.answerer.peer().abonent, QStringLiteral("Alice"));
    EXPECT_EQ(line.answerer.peer().publicKey, testKey(1)->publicKey());
    NoiseCipher sending = line.caller.takeSending();
    NoiseCipher receiving = line.answerer.takeReceiving();
    QByteArray plain;
    ASSERT_TRUE(receiving.open(sending.seal("hello"), &plain));
    EXPECT_EQ(plain, QByteArray("hello"));
}

TEST(Opening, ComesInPiecesOfAnySizeWithFillersBetween)
{
    std::mt19937 random(rig::seed());
    for (int round = 0; round < 50; ++round) {
        Line line;
        for (int step = 0; step < 400 && !(line.caller.isOver() && line.answerer.isOver()); ++step) {
            for (auto [from, to] : {std::pair(&line.caller, &line.answerer), std::pair(&line.answerer, &line.caller)}) {
                QByteArray said = from->takeOutput(0);
                if (from->maySend() && from->isOver())
                    said.clear(); // sealed frames would follow
                if (said.isEmpty() && !from->maySend())
                    said = Opening::filler();
                while (!said.isEmpty()) {
                    const int size = 1 + static_cast<int>(random() % 7);
                    to->receive(said.left(size), 0);
                    said.remove(0, size);
                }
                if (to->isOver())
                    break;
            }
            if (line.answerer.isOver())
                line.caller.receive(line.answerer.takeOutput(0), 0);
        }
        EXPECT_TRUE(line.caller.isOver() && line.answerer.isOver())
            << round << qPrintable(line.caller.reason() + line.answerer.reason());
    }
}

// No bit of it can be changed, neither of the words nor of the messages.
TEST(Opening, NoChangedBitPasses)
{
    for (const bool isToAnswerer : {true, false}) {
        for (int bit = 0; bit < (isToAnswerer ? 18 + 32 + 1 + 64 : 18 + 96) * 8; ++bit) {
            Line line;
            int seen = 0;
            const auto spoil = [&](QByteArray bytes) {
                const int at = bit / 8 - seen;
                seen += bytes.size();
                if (at >= 0 && at < bytes.size())
                    bytes[at] = static_cast<char>(bytes.at(at) ^ (1 << bit % 8));
                return bytes;
            };
            line.exchange(isToAnswerer ? spoil : Line::Change(), isToAnswerer ? Line::Change() : spoil);
            EXPECT_FALSE(line.caller.isOver() && line.answerer.isOver()) << isToAnswerer << " " << bit;
        }
    }
}

TEST(Opening, WhatDoesNotSpeakThisIsToldFromItsFirstWrongByte)
{
    for (const QByteArray& said :
         {QByteArray("l"), QByteArray("\r\n"), QByteArray("transport-hose"), QByteArray("\x03"), QByteArray("\x04"),
          QByteArray("\xFF"), QByteArray("\x01\x10\x00login", 8)}) {
        Line line;
        line.answerer.receive(said, 0);
        EXPECT_EQ(line.answerer.end(), SessionEnd::NotThisProtocol) << said.toHex().constData();
        EXPECT_EQ(line.answerer.reason(), QStringLiteral("the other side does not speak this protocol"));
        EXPECT_EQ(line.answerer.takeOutput(0), QByteArray());
        EXPECT_EQ(line.guard.failures(), 1);
    }
}

TEST(Opening, AnotherVersionIsNamedOnBothSides)
{
    QByteArray later = callerWord;
    later[14] = 3;
    Line line;
    line.answerer.receive(later.left(15), 0);
    EXPECT_EQ(line.answerer.end(), SessionEnd::OtherVersion);
    EXPECT_EQ(line.answerer.reason(),
              QStringLiteral("the other side speaks version 3 of the session protocol, this one "
                             "version 2: install the same version on both"));
    EXPECT_EQ(line.answerer.takeOutput(0), answererWord) << "so that the other side can say it too";

    // The first version began with a frame in the clear: 01, length, "transport-host", 01.
    Line old;
    (void)old.caller.takeOutput(0);
    old.caller.receive(QByteArray("\x01\x00\x24transport-host\x01", 18), 0);
    EXPECT_EQ(old.caller.end(), SessionEnd::OtherVersion);
    EXPECT_EQ(old.caller.reason(), QStringLiteral("the other side speaks version 1 of the session protocol, this one "
                                                  "version 2: install the same version on both"));
}

TEST(Opening, ReasonsAreToldWhole)
{
    Line damaged;
    damaged.exchange([](QByteArray said) {
        if (said.size() == 1 + 64)
            said[20] = char(said[20] ^ 1);
        return said;
    });
    EXPECT_EQ(damaged.answerer.end(), SessionEnd::Damaged);
    EXPECT_EQ(damaged.answerer.reason(),
              QStringLiteral("the handshake failed: its bytes were changed on the way, or the other side is no "
                             "transport-host"));

    TestDirectory book;
    Opening answerer{SessionCall{}, testKey(1), &book, nullptr};
    Line looped;
    answerer.receive(looped.caller.takeOutput(0), 0);
    looped.caller.receive(answerer.takeOutput(0), 0);
    EXPECT_EQ(looped.caller.end(), SessionEnd::SelfCall);
    EXPECT_EQ(looped.caller.reason(),
              QStringLiteral("the line leads back to this installation, or its identity key was copied from here"));
}

TEST(Opening, TwoThatBothThinkTheyCalled)
{
    Line line;
    line.caller.receive(callerWord, 0);
    EXPECT_EQ(line.caller.end(), SessionEnd::NotThisProtocol);
    EXPECT_EQ(line.caller.reason(), QStringLiteral("the line gives back what is said on it"));
}

TEST(Opening, AWordTwiceOrAMessageOutOfTurnEndsIt)
{
    Line twice;
    const QByteArray first = twice.caller.takeOutput(0);
    twice.answerer.receive(first + first, 0);
    EXPECT_EQ(twice.answerer.end(), SessionEnd::ProtocolError);

    Line early;
    (void)early.caller.takeOutput(0);
    early.caller.receive("\x04", 0);
    EXPECT_EQ(early.caller.end(), SessionEnd::NotThisProtocol);

    Line foreign;
    (void)foreign.caller.takeOutput(0);
    foreign.answerer.receive(QByteArray("\x03") + QByteArray(64, 'x'), 0);
    EXPECT_EQ(foreign.answerer.end(), SessionEnd::NotThisProtocol);
}

// The words of an earlier call, said again.
TEST(Opening, AReplayedCallProvesNothing)
{
    Line recorded;
    QByteArray said;
    recorded.exchange([&](QByteArray bytes) {
        said += bytes;
        return bytes;
    });
    ASSERT_TRUE(recorded.answerer.isOver());
    Line line;
    line.answerer.receive(said, 0);
    EXPECT_FALSE(line.answerer.isOver());
    EXPECT_EQ(line.answerer.end(), SessionEnd::Damaged);
    EXPECT_EQ(line.guard.failures(), 1);
}

TEST(Opening, TheCallerShowsItselfOnlyToTheCalledOne)
{
    for (const bool isWrong : {false, true}) {
        Line line;
        if (isWrong)
            line.callerBook.refusal = PeerDirectory::Verdict::Cause::WrongKey;
        QByteArray said;
        line.exchange([&](QByteArray bytes) {
            said += bytes;
            return bytes;
        });
        EXPECT_EQ(said.size(), isWrong ? 18 + 32 : 18 + 32 + 1 + 64);
        EXPECT_EQ(line.caller.end(), isWrong ? SessionEnd::WrongKey : SessionEnd::None);
    }
}

TEST(Opening, ARefusedCallerIsKnownAndCounted)
{
    Line line;
    line.answererBook.names.clear();
    line.exchange();
    EXPECT_TRUE(line.answerer.isOver());
    EXPECT_TRUE(line.answerer.maySend()) << "to tell it so, sealed";
    EXPECT_EQ(line.answerer.verdict().kind, PeerDirectory::Verdict::Kind::Refused);
    EXPECT_EQ(line.guard.failures(), 1);
}

TEST(Opening, AnswersWaitAfterFailures)
{
    Line line;
    line.guard.failed();
    line.guard.failed();
    line.answerer.receive(line.caller.takeOutput(line.nowMs), line.nowMs);
    EXPECT_EQ(line.answerer.takeOutput(line.nowMs), QByteArray());
    EXPECT_EQ(line.answerer.takeOutput(line.nowMs + 999), QByteArray());
    line.caller.receive(line.answerer.takeOutput(line.nowMs + 1000), line.nowMs + 1000);
    line.answerer.receive(line.caller.takeOutput(line.nowMs + 1000), line.nowMs + 1000);
    EXPECT_TRUE(line.answerer.isOver()) << "a proved caller is let in all the same: "
                                        << qPrintable(line.answerer.reason());
    EXPECT_EQ(line.guard.failures(), 2);
}

// Whoever only fetches our key, and whoever lets the time run out.
TEST(Opening, ACallerThatDoesNotGoOnCounts)
{
    Line silent;
    silent.answerer.abandon();
    EXPECT_EQ(silent.guard.failures(), 0) << "nobody began with a handshake";
    Line begun;
    begun.answerer.receive(begun.caller.takeOutput(0), 0);
    begun.answerer.abandon();
    EXPECT_EQ(begun.guard.failures(), 1);
    Line done;
    done.exchange();
    done.answerer.abandon();
    EXPECT_EQ(done.guard.failures(), 0);
}
