// What a port tells the host's table and journal.
#include "com/worker/portreports.h"
#include "tests/worker/workertest.h"

namespace {

const QString port = QStringLiteral("ttyS7");

class PortReportsTest : public testing::Test
{
protected:
    PortReportsTest()
    {
        server.channelsState = &table;
        server.journal = &journal;
    }

    rig::CallLog log;
    rig::RecordingChannelsState table{&log};
    rig::RecordingJournal journal{&log};
    BareServer server;
    PortReports reports{&server, port};
};

} // namespace

TEST_F(PortReportsTest, TakesARowOfTheDialUpChannelAndLeavesIt)
{
    EXPECT_EQ(reports.index(), 0);
    reports.enterTable(QStringLiteral("text"));
    EXPECT_EQ(reports.index(), 101);
    reports.leaveTable();
    EXPECT_EQ(log.entries(), (QStringList{QStringLiteral("add 101 2 ttyS7 text"), QStringLiteral("remove 101")}));
}

TEST_F(PortReportsTest, TellsTableAndJournalInThisOrder)
{
    reports.enterTable(QStringLiteral("text"));
    log.clear();
    reports.report(QStringLiteral("both"));
    reports.setStatus(QStringLiteral("row"));
    reports.addEvent(QStringLiteral("event"));
    reports.addError(QStringLiteral("error"));
    EXPECT_EQ(log.entries(), (QStringList{QStringLiteral("state 101 both"), QStringLiteral("journal 0 ttyS7 both"),
                                          QStringLiteral("state 101 row"), QStringLiteral("journal 0 ttyS7 event"),
                                          QStringLiteral("journal 1 ttyS7 error")}));
}

// A worker that could not be ended outlives its server, and leaves the table all the same
// when its thread is cancelled at last.
TEST(PortReports, LeavesTheTableWithoutTheServer)
{
    rig::CallLog log;
    rig::RecordingChannelsState table(&log);
    auto server = std::make_unique<BareServer>();
    server->channelsState = &table;
    PortReports reports(server.get(), port);
    reports.enterTable(QStringLiteral("text"));
    // As in memory that somebody else uses by now.
    server->channelsState = nullptr;
    server.reset();
    reports.leaveTable();
    EXPECT_EQ(log.entries().last(), QStringLiteral("remove 101"));
}
