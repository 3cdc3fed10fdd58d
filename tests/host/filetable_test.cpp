// The files on their way as a host's views see them.
#include "host/filetable.h"

#include <gtest/gtest.h>

using namespace host;
using Kind = SessionEvent::Kind;
using State = FileProgress::State;

namespace {

SessionReport reportOf(quint64 call, Kind kind, bool isOutgoing, quint64 id, qint64 doneBytes,
                       const QString& text = QString())
{
    SessionReport report;
    report.call = call;
    report.channelName = QStringLiteral("ttyS0");
    report.peer = QStringLiteral("Боб");
    report.event.kind = kind;
    report.event.text = text;
    report.event.file = {isOutgoing, id, QStringLiteral("f.txt"), QByteArray(32, 'h'), 1000, doneBytes};
    return report;
}

} // namespace

TEST(FileTable, AnIncomingFileFromItsBeginningToItsEnd)
{
    FileTable table;
    FileProgress row = table.update(reportOf(1, Kind::FileBegun, false, 7, 300), 10);
    EXPECT_EQ(row.peer, QStringLiteral("Боб"));
    EXPECT_EQ(row.channelName, QStringLiteral("ttyS0"));
    EXPECT_EQ(row.file.messageId, 7u);
    EXPECT_EQ(row.state, State::Moving);
    EXPECT_EQ(row.resumedFrom, 300);
    EXPECT_EQ(row.beganMs, 10);
    EXPECT_EQ(row.changedMs, 10);
    row = table.update(reportOf(1, Kind::FileProgress, false, 7, 1000), 20);
    EXPECT_EQ(row.state, State::Moving) << "whole, and not yet stored";
    EXPECT_EQ(row.file.doneBytes, 1000);
    EXPECT_EQ(row.beganMs, 10);
    EXPECT_EQ(row.changedMs, 20);
    EXPECT_FALSE(row.isOver());
    row = table.update(reportOf(1, Kind::FileStored, false, 7, 1000, QStringLiteral("/in/f.txt")), 30);
    EXPECT_EQ(row.state, State::Whole);
    EXPECT_EQ(row.text, QStringLiteral("/in/f.txt"));
    EXPECT_EQ(row.resumedFrom, 300);
    EXPECT_TRUE(row.isOver());
    EXPECT_EQ(table.rows().size(), 1);
}

// What has all been handed to the channel is not delivered: the peer has to say so.
TEST(FileTable, AnOutgoingFileWaitsForThePeersWord)
{
    FileTable table;
    (void)table.update(reportOf(1, Kind::FileBegun, true, 7, 0), 0);
    EXPECT_EQ(table.update(reportOf(1, Kind::FileProgress, true, 7, 999), 1).state, State::Moving);
    EXPECT_EQ(table.update(reportOf(1, Kind::FileProgress, true, 7, 1000), 2).state, State::Waiting);
    EXPECT_FALSE(table.rows().first().isOver());
    EXPECT_EQ(table.update(reportOf(1, Kind::FileDelivered, true, 7, 1000), 3).state, State::Whole);
}

TEST(FileTable, ADuplicateSaysSo)
{
    FileTable table;
    const FileProgress row = table.update(reportOf(1, Kind::FileDuplicate, false, 7, 1000), 0);
    EXPECT_EQ(row.state, State::Whole);
    EXPECT_EQ(row.text, QStringLiteral("received before"));
}

TEST(FileTable, AFailureShowsNoMoreBytesThanBefore)
{
    FileTable table;
    (void)table.update(reportOf(1, Kind::FileBegun, false, 7, 0), 0);
    (void)table.update(reportOf(1, Kind::FileProgress, false, 7, 400), 1);
    const FileProgress row =
        table.update(reportOf(1, Kind::FileFailed, false, 7, 600, QStringLiteral("the disk is full")), 2);
    EXPECT_EQ(row.state, State::Failed);
    EXPECT_EQ(row.text, QStringLiteral("the disk is full"));
    EXPECT_EQ(row.file.doneBytes, 400);
    EXPECT_TRUE(row.isOver());
}

TEST(FileTable, CallsDirectionsAndMessagesAreToldApart)
{
    FileTable table;
    for (const quint64 call : {1, 2}) {
        for (const bool isOutgoing : {false, true}) {
            for (const quint64 id : {7, 8})
                (void)table.update(reportOf(call, Kind::FileBegun, isOutgoing, id, 0), 0);
        }
    }
    EXPECT_EQ(table.rows().size(), 8);
    (void)table.update(reportOf(2, Kind::FileBegun, true, 8, 0), 0);
    EXPECT_EQ(table.rows().size(), 8);
}

TEST(FileTable, TheEndOfASessionCutsOffItsOwnFilesAlone)
{
    FileTable table;
    (void)table.update(reportOf(1, Kind::FileBegun, false, 7, 0), 0);
    (void)table.update(reportOf(1, Kind::FileStored, false, 8, 1000, QStringLiteral("/in/f.txt")), 0);
    (void)table.update(reportOf(1, Kind::FileProgress, true, 9, 1000), 0);
    (void)table.update(reportOf(2, Kind::FileBegun, false, 7, 0), 0);
    const QVector<FileProgress> changed = table.cutOff(1, 50);
    ASSERT_EQ(changed.size(), 2);
    for (const FileProgress& row : changed) {
        EXPECT_EQ(row.state, State::Failed);
        EXPECT_EQ(row.text, QStringLiteral("cut off, to be continued"));
        EXPECT_EQ(row.changedMs, 50);
    }
    EXPECT_EQ(changed.at(0).file.messageId, 7u);
    EXPECT_EQ(changed.at(1).file.messageId, 9u) << "it waited for a word that will not come";
    EXPECT_TRUE(table.cutOff(1, 60).isEmpty());
    int moving = 0;
    for (const FileProgress& row : table.rows())
        moving += row.state == State::Moving ? 1 : 0;
    EXPECT_EQ(moving, 1);
}

TEST(FileTable, WhatIsOverIsShownForFiveSeconds)
{
    FileTable table;
    (void)table.update(reportOf(1, Kind::FileStored, false, 7, 1000), 100);
    (void)table.update(reportOf(1, Kind::FileBegun, false, 8, 0), 100);
    table.prune(5100);
    EXPECT_EQ(table.rows().size(), 2);
    table.prune(5101);
    ASSERT_EQ(table.rows().size(), 1);
    EXPECT_EQ(table.rows().first().file.messageId, 8u) << "one under way stays, however long nothing comes";
}
