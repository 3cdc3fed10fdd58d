// The connection of one port, without a modem: what its session is given, and what the host is told
// when it is over.
#include "com/worker/portconnection.h"
#include "com/worker/portreports.h"
#include "tests/worker/workertest.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSerialPort>

#include <atomic>

namespace {

class PortConnectionTest : public testing::Test
{
protected:
    static constexpr int connectionId = 7;

    PortConnectionTest() : factory(new ScriptedFactory(&log))
    {
        server.channelsState = &table;
        server.journal = &journal;
        server.protocolFactory = factory;
        QObject::connect(&server, &CChannelServer::notConnected,
                         [this](const QString& name) { log.add(QStringLiteral("notConnected ") + name); });
        QObject::connect(&server, &CChannelServer::disconnected, [this](const QString& name, int id, bool wasUseful) {
            log.add(QStringLiteral("disconnected %1 %2 %3").arg(name).arg(id).arg(wasUseful));
        });
    }
    ~PortConnectionTest() override { connection.deleteProtocol(); }

    // A session with the called party; an empty name: somebody has called us.
    ScriptedProtocol* begin(const QString& called)
    {
        connection.setAbonentName(called);
        CAbstractProtocol* const protocol = connection.makeProtocol(&port, QStringLiteral("ttyS7"));
        EXPECT_EQ(protocol, factory->protocol());
        connection.begin(protocol);
        return factory->protocol();
    }

    rig::CallLog log;
    rig::RecordingChannelsState table{&log};
    rig::RecordingJournal journal{&log};
    BareServer server;
    ScriptedFactory* const factory; // owned by the server
    QSerialPort port; // not open: nothing is read from it here
    PortReports reports{&server, QStringLiteral("ttyS7")};
    PortConnection connection{&server, &reports};
    const std::atomic<bool> noStop{false};
};

} // namespace

TEST_F(PortConnectionTest, ASessionKnowsWhomWeCalled)
{
    begin(QStringLiteral("Пост №1"));
    connection.deleteProtocol();
    begin(QString());
    EXPECT_EQ(
        log.entriesWith(QStringLiteral("protocol start")),
        (QStringList{QStringLiteral("protocol start Пост №1|пост1|ttyS7"), QStringLiteral("protocol start ||ttyS7")}));
}

TEST_F(PortConnectionTest, AHostMayRefuse)
{
    factory->refuses = true;
    connection.setAbonentName(QStringLiteral("A"));
    EXPECT_EQ(connection.makeProtocol(&port, QStringLiteral("ttyS7")), nullptr);
    connection.reportRefusal();
    EXPECT_EQ(log.entries(), QStringList{QStringLiteral("notConnected A")});
    log.clear();
    connection.setAbonentName(QString());
    EXPECT_EQ(connection.makeProtocol(&port, QStringLiteral("ttyS7")), nullptr);
    connection.reportRefusal();
    EXPECT_EQ(log.entries(), QStringList()) << "nobody waits for the outcome of a call that came in";
}

TEST_F(PortConnectionTest, RequestsReachTheSessionThatRunsAndNoOther)
{
    connection.keepAlive();
    connection.stop();
    EXPECT_EQ(log.entries(), QStringList());
    begin(QStringLiteral("A"));
    log.clear();
    connection.keepAlive();
    connection.stop();
    connection.deleteProtocol();
    EXPECT_EQ(log.entries(),
              (QStringList{QStringLiteral("protocol stop"), QStringLiteral("protocol deleted keepAlive=1")}));
    log.clear();
    connection.keepAlive();
    connection.stop();
    connection.deleteProtocol();
    EXPECT_EQ(log.entries(), QStringList());
    begin(QStringLiteral("B"));
    connection.deleteProtocol();
    EXPECT_TRUE(log.contains(QStringLiteral("protocol deleted keepAlive=0"))) << "the wish was for the one before";
}

TEST_F(PortConnectionTest, TheEndIsThatOfTheCurrentSession)
{
    ScriptedProtocol* const first = begin(QStringLiteral("A"));
    EXPECT_FALSE(connection.hasFinished());
    first->finish(true);
    QCoreApplication::processEvents();
    EXPECT_TRUE(connection.hasFinished());
    connection.deleteProtocol();
    begin(QStringLiteral("B"));
    EXPECT_FALSE(connection.hasFinished());
}

namespace {

struct EndRow
{
    const char* name;
    const char* called; // empty: a call that came in
    const char* answered; // the name that the session has at its end
    bool wasUseful;
    const char* told; // the lines of the host's record, joined by "; "
};

void PrintTo(const EndRow& row, std::ostream* out)
{
    *out << row.name;
}

const EndRow endRows[] = {
    {"TheCalledParty", "A", "A", true, "journal 0 ttyS7 Потеряно соединение с абонентом 'A'; disconnected A 7 1"},
    {"TheSamePartySpeltOtherwise", "Пост №1", "пост-1!", false,
     "journal 0 ttyS7 Потеряно соединение с абонентом 'пост-1!'; disconnected пост-1! 7 0"},
    {"AnotherParty", "A", "B", true,
     "journal 0 ttyS7 Потеряно соединение с абонентом 'B'; notConnected A; "
     "journal 0 ttyS7 Не удалось установить соединение с 'A'; disconnected B 7 1"},
    {"ANameThatWasForgotten", "A", "", false, "journal 0 ttyS7 Потеряно соединение с абонентом ''; disconnected A 7 0"},
    {"ACallerWithAName", "", "B", true, "journal 0 ttyS7 Потеряно соединение с абонентом 'B'; disconnected B 7 1"},
    {"ACallerWithoutAName", "", "", false, "journal 0 ttyS7 Потеряно соединение с абонентом ''"},
};

class PortConnectionEnd : public PortConnectionTest, public testing::WithParamInterface<EndRow>
{
};

} // namespace

TEST_P(PortConnectionEnd, IsToldAsTheSessionKnewItsPeer)
{
    ScriptedProtocol* const protocol = begin(QString::fromUtf8(GetParam().called));
    protocol->remoteAbonentName = QString::fromUtf8(GetParam().answered);
    protocol->wasUseful = GetParam().wasUseful;
    log.clear();
    connection.reportEnd(connectionId);
    EXPECT_EQ(log.entries().join(QStringLiteral("; ")).toStdString(), GetParam().told);
}

INSTANTIATE_TEST_SUITE_P(Each, PortConnectionEnd, testing::ValuesIn(endRows),
                         [](const auto& row) { return std::string(row.param.name); });

// The end waits for names that are still on their way to the host, but not for ever.
TEST_F(PortConnectionTest, WaitsHalfASecondForANameOnItsWay)
{
    emit begin(QString())->remoteAbonentNameChanged(QStringLiteral("B"));
    QElapsedTimer timer;
    timer.start();
    connection.waitForHandledNames(noStop);
    EXPECT_GE(timer.elapsed(), 500);
}

TEST_F(PortConnectionTest, WaitsForNoNameThatTheHostHasSeenAndNotWhenItIsToStop)
{
    ScriptedProtocol* const protocol = begin(QString());
    emit protocol->remoteAbonentNameChanged(QStringLiteral("B"));
    const std::atomic<bool> stop{true};
    // A busy machine may make any look late, so the shortest of a few counts.
    const auto shortestMs = [&](const std::atomic<bool>& stopRequested) {
        qint64 shortest = 500;
        for (int attempt = 0; attempt < 10 && shortest >= 500; ++attempt) {
            QElapsedTimer timer;
            timer.start();
            connection.waitForHandledNames(stopRequested);
            shortest = qMin(shortest, timer.elapsed());
        }
        return shortest;
    };
    EXPECT_LT(shortestMs(stop), 500);
    connection.nameHandled();
    EXPECT_LT(shortestMs(noStop), 500);
}
