// What sessions tell, as events, journal lines and rows. The fields are those of the table of
// events in docs/reference-host.md.
#include "host/transfers.h"
#include "tests/host/recordedrun.h"

#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;

namespace {

using Kind = SessionEvent::Kind;
using State = FileProgress::State;

const QByteArray sha256 = QByteArray(32, '\x5a');

class TransfersTest : public ::testing::Test
{
protected:
    // Of the third session of the process: a call to Bob through ttyS0.
    static SessionReport report(SessionReport::Kind kind)
    {
        SessionReport told;
        told.kind = kind;
        told.call = 3;
        told.claimant = &sha256;
        told.channelName = QStringLiteral("ttyS0");
        told.called = QStringLiteral("Bob");
        told.peer = QStringLiteral("Bob");
        return told;
    }

    void tell(Kind kind, bool isOutgoing, qint64 doneBytes, const QString& text = QString(), qint64 nowMs = 0)
    {
        SessionReport told = report(SessionReport::Kind::Event);
        told.event = textEvent(kind, text);
        told.event.file = {isOutgoing, 0x1f, QStringLiteral("a\nb.txt"), sha256, 100, doneBytes};
        transfers.onReport(told, nowMs);
    }

    void end(SessionEnd end, const QString& reason, const QString& called, const QString& peer)
    {
        SessionReport told = report(SessionReport::Kind::Ended);
        told.called = called;
        told.peer = peer;
        told.end = end;
        told.reason = reason;
        told.wasUseful = true;
        transfers.onReport(told, 0);
    }

    static QJsonObject fileFields(const char* direction, int bytes, const char* text = nullptr)
    {
        QJsonObject fields{{"call", 3},
                           {"peer", "Bob"},
                           {"port", "ttyS0"},
                           {"direction", direction},
                           {"id", "000000000000001f"},
                           {"file", "a\nb.txt"},
                           {"size", 100},
                           {"sha256", QString(32, QLatin1Char('x')).replace(QLatin1Char('x'), QStringLiteral("5a"))},
                           {"bytes", bytes}};
        if (text)
            fields[QStringLiteral("text")] = text;
        return fields;
    }

    RecordedRun records;
    QVector<FileProgress> changed;
    Transfers transfers{&records, [this](const FileProgress& file) { changed.append(file); }};
};

} // namespace

TEST_F(TransfersTest, AFileThatComesIn)
{
    tell(Kind::FileBegun, false, 10);
    tell(Kind::FileProgress, false, 60);
    EXPECT_EQ(transfers.receivedCount(), 0);
    tell(Kind::FileStored, false, 100, QStringLiteral("/inbox/1/a"));
    tell(Kind::FileDuplicate, false, 100);
    EXPECT_EQ(records.names, QStringList({"fileBegun", "progress", "stored", "duplicate"}));
    EXPECT_EQ(jsonTexts(records.all), jsonTexts({fileFields("in", 10), fileFields("in", 60),
                                                 fileFields("in", 100, "/inbox/1/a"), fileFields("in", 100)}));
    EXPECT_EQ(records.lines, QStringList{"received 'a\\nb.txt' from 'Bob', 100 bytes, hash verified: /inbox/1/a"});
    EXPECT_EQ(transfers.receivedCount(), 1);
    EXPECT_EQ(transfers.deliveredCount(), 0);
}

TEST_F(TransfersTest, AFileThatGoesOut)
{
    tell(Kind::FileBegun, true, 0);
    tell(Kind::FileProgress, true, 100);
    tell(Kind::FileDelivered, true, 100);
    tell(Kind::FileFailed, true, 100, QStringLiteral("no room"));
    EXPECT_EQ(records.names, QStringList({"fileBegun", "progress", "delivered", "failed"}));
    EXPECT_EQ(jsonTexts(records.all), jsonTexts({fileFields("out", 0), fileFields("out", 100), fileFields("out", 100),
                                                 fileFields("out", 100, "no room")}));
    EXPECT_EQ(records.lines,
              (QStringList{"delivered 'a\\nb.txt' to 'Bob', 100 bytes", "E failed 'a\\nb.txt' to 'Bob': no room"}));
    EXPECT_EQ(transfers.deliveredCount(), 1);
    EXPECT_EQ(transfers.receivedCount(), 0);
}

TEST_F(TransfersTest, ASessionFromItsBeginToItsEnd)
{
    transfers.onReport(report(SessionReport::Kind::Begun), 0);
    EXPECT_TRUE(transfers.hasSessions());
    end(SessionEnd::Agreed, QString(), QStringLiteral("Bob"), QStringLiteral("Bob"));
    EXPECT_FALSE(transfers.hasSessions());
    EXPECT_EQ(records.names, QStringList({"callBegun", "callEnded"}));
    EXPECT_EQ(jsonTexts(records.all),
              jsonTexts({QJsonObject{{"call", 3}, {"port", "ttyS0"}, {"called", "Bob"}, {"peer", "Bob"}},
                         QJsonObject{{"call", 3},
                                     {"port", "ttyS0"},
                                     {"called", "Bob"},
                                     {"peer", "Bob"},
                                     {"well", true},
                                     {"end", "agreed"},
                                     {"useful", true},
                                     {"reason", ""}}}));
    EXPECT_EQ(records.lines, QStringList()) << "an agreed end is no news";
}

TEST_F(TransfersTest, AnEarlyEndIsJournalledWithWhoseItWas)
{
    const QString reason = QStringLiteral("the connection was lost");
    end(SessionEnd::ConnectionLost, reason, QStringLiteral("Bob"), QString());
    EXPECT_FALSE(records.last.value(QStringLiteral("well")).toBool(true));
    EXPECT_EQ(records.last.value(QStringLiteral("end")).toString(), QStringLiteral("connectionLost"));
    EXPECT_EQ(records.last.value(QStringLiteral("reason")).toString(), reason);
    end(SessionEnd::ConnectionLost, reason, QString(), QStringLiteral("Carol"));
    end(SessionEnd::ConnectionLost, reason, QString(), QString());
    EXPECT_EQ(records.lines,
              (QStringList{"E the call to 'Bob' on ttyS0 ended early: the connection was lost",
                           "E the session with 'Carol' on ttyS0 ended early: the connection was lost",
                           "E the session with an unproved caller on ttyS0 ended early: the connection was lost"}));
}

TEST_F(TransfersTest, ANoteGoesIntoTheJournalAndANameNowhere)
{
    tell(Kind::Note, false, 0, QStringLiteral("a note"));
    tell(Kind::PeerNamed, false, 0, QStringLiteral("Bob"));
    EXPECT_EQ(records.lines, QStringList{"a note"});
    EXPECT_EQ(records.names, QStringList());
    EXPECT_TRUE(changed.isEmpty());
    EXPECT_TRUE(transfers.files().isEmpty());
}

TEST_F(TransfersTest, RowsFollowTheirFile)
{
    tell(Kind::FileBegun, true, 10, QString(), 1000);
    tell(Kind::FileProgress, true, 99, QString(), 1100);
    tell(Kind::FileProgress, true, 100, QString(), 1200);
    tell(Kind::FileDelivered, true, 100, QString(), 1300);
    ASSERT_EQ(changed.size(), 4);
    EXPECT_EQ(changed.at(0).state, State::Moving);
    EXPECT_EQ(changed.at(1).state, State::Moving);
    EXPECT_EQ(changed.at(2).state, State::Waiting) << "all of it is out, and the peer has not said so";
    EXPECT_EQ(changed.at(3).state, State::Whole);
    EXPECT_EQ(changed.at(3).resumedFrom, 10);
    EXPECT_EQ(changed.at(3).beganMs, 1000);
    EXPECT_EQ(changed.at(3).changedMs, 1300);
    EXPECT_EQ(changed.at(3).peer, QStringLiteral("Bob"));
    EXPECT_EQ(changed.at(3).channelName, QStringLiteral("ttyS0"));
    EXPECT_EQ(transfers.files().size(), 1);
    tell(Kind::FileBegun, false, 0);
    EXPECT_EQ(transfers.files().size(), 2) << "the same identifier the other way is another file";
}

TEST_F(TransfersTest, RowsSayWhyTheyAreOver)
{
    tell(Kind::FileDuplicate, false, 100);
    EXPECT_EQ(changed.last().state, State::Whole);
    EXPECT_EQ(changed.last().text, QStringLiteral("received before"));
    tell(Kind::FileStored, false, 100, QStringLiteral("/inbox/1/a"));
    EXPECT_EQ(changed.last().text, QStringLiteral("/inbox/1/a"));
    tell(Kind::FileBegun, false, 0);
    tell(Kind::FileProgress, false, 60);
    tell(Kind::FileFailed, false, 70, QStringLiteral("the disk is full"));
    EXPECT_EQ(changed.last().state, State::Failed);
    EXPECT_EQ(changed.last().text, QStringLiteral("the disk is full"));
    EXPECT_EQ(changed.last().file.doneBytes, 60) << "the last bytes may not have been written";
}

TEST_F(TransfersTest, WhatASessionHadOnTheWayIsCutOffWithIt)
{
    tell(Kind::FileBegun, false, 0);
    tell(Kind::FileDelivered, true, 100);
    changed.clear();
    end(SessionEnd::Agreed, QString(), QStringLiteral("Bob"), QStringLiteral("Bob"));
    ASSERT_EQ(changed.size(), 1) << "what is over stays as it ended";
    EXPECT_EQ(changed.first().state, State::Failed);
    EXPECT_EQ(changed.first().text, QStringLiteral("cut off, to be continued"));
}

TEST_F(TransfersTest, APortThatIsLeftEndsItsSessionsAndNoOthers)
{
    transfers.onReport(report(SessionReport::Kind::Begun), 0);
    tell(Kind::FileBegun, false, 0);
    changed.clear();
    EXPECT_EQ(transfers.portLeft(QStringLiteral("ttyS1"), 10), QVector<const void*>());
    EXPECT_TRUE(transfers.hasSessions());
    EXPECT_EQ(transfers.portLeft(QStringLiteral("ttyS0"), 10), QVector<const void*>{&sha256});
    EXPECT_FALSE(transfers.hasSessions());
    ASSERT_EQ(changed.size(), 1);
    EXPECT_EQ(changed.first().changedMs, 10);
}

// Five seconds are enough to be read.
TEST_F(TransfersTest, WhatIsOverIsForgottenAfterAWhile)
{
    tell(Kind::FileStored, false, 100, QString(), 1000);
    tell(Kind::FileBegun, true, 0, QString(), 1000);
    transfers.prune(6000);
    EXPECT_EQ(transfers.files().size(), 2);
    transfers.prune(6001);
    ASSERT_EQ(transfers.files().size(), 1);
    EXPECT_TRUE(transfers.files().first().file.isOutgoing) << "one on the way stays";
}
