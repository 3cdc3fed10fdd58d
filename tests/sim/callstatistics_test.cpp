// The end of a call as people and programs read it.
#include "sim/line/callstatistics.h"
#include "sim/line/moments.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <gtest/gtest.h>

using namespace sim;

namespace {

CallStatistics connectedCall()
{
    CallStatistics call;
    call.call = 3;
    call.caller = 1;
    call.called = 2;
    call.number = QStringLiteral("102");
    call.connected = true;
    call.end = QStringLiteral("modem1 hung up");
    call.startedNs = 1500 * nsPerMs;
    call.waitedNs = 2500 * nsPerMs;
    call.connectedNs = 10 * nsPerSecond;
    call.line.rateForward = 9600;
    call.line.rateBackward = 2400;
    call.forward.bytesCarried = 4800;
    call.forward.bytesDelivered = 4790;
    call.forward.bytesLost = 10;
    call.forward.busyNs = 5 * nsPerSecond;
    call.forward.bitsFlipped = 7;
    call.forward.bytesSpoiled = 6;
    call.backward.busyNs = 1250 * nsPerMs;
    return call;
}

} // namespace

TEST(CallStatisticsTest, AConnectionTakesThreeLines)
{
    EXPECT_EQ(connectedCall().toText(),
              QStringLiteral("call 3: modem1 -> modem2 (102), connected after 2.500 s for 10.000 s: modem1 hung up\n"
                             "  forward  at 9600 bit/s: 4800 bytes carried, 4790 delivered, 10 lost, "
                             "busy 5.000 s (50.0 %), 7 bits flipped in 6 bytes\n"
                             "  backward at 2400 bit/s: 0 bytes carried, 0 delivered, 0 lost, "
                             "busy 1.250 s (12.5 %), 0 bits flipped in 0 bytes"));
}

TEST(CallStatisticsTest, WithoutAConnectionOne)
{
    CallStatistics call;
    call.call = 1;
    call.caller = 2;
    call.number = QStringLiteral("999");
    call.waitedNs = 40 * nsPerMs;
    call.end = QStringLiteral("nobody has that number");
    EXPECT_EQ(call.toText(),
              QStringLiteral("call 1: modem2 -> '999', not connected after 0.040 s: nobody has that number"));
}

// A call that ended in the moment in which it was connected was busy for no share of its time.
TEST(CallStatisticsTest, AConnectionOfNoTimeHasNoShare)
{
    CallStatistics call = connectedCall();
    call.connectedNs = 0;
    EXPECT_TRUE(call.toText().contains(QStringLiteral("busy 5.000 s (0.0 %)"))) << call.toText().toStdString();
}

TEST(CallStatisticsTest, JsonHasAllOfIt)
{
    const QJsonObject json = connectedCall().toJson();
    EXPECT_EQ(json[QStringLiteral("call")].toInt(), 3);
    EXPECT_EQ(json[QStringLiteral("caller")].toInt(), 1);
    EXPECT_EQ(json[QStringLiteral("called")].toInt(), 2);
    EXPECT_EQ(json[QStringLiteral("number")].toString(), QStringLiteral("102"));
    EXPECT_TRUE(json[QStringLiteral("connected")].toBool());
    EXPECT_EQ(json[QStringLiteral("end")].toString(), QStringLiteral("modem1 hung up"));
    EXPECT_DOUBLE_EQ(json[QStringLiteral("startedSeconds")].toDouble(), 1.5);
    EXPECT_DOUBLE_EQ(json[QStringLiteral("waitedSeconds")].toDouble(), 2.5);
    EXPECT_DOUBLE_EQ(json[QStringLiteral("connectedSeconds")].toDouble(), 10);
    LineSettings line;
    QString error;
    EXPECT_TRUE(line.change(json[QStringLiteral("line")].toString(), &error)) << error.toStdString();
    EXPECT_EQ(line, connectedCall().line);
    EXPECT_EQ(json[QStringLiteral("forward")].toObject(), (QJsonObject{{QStringLiteral("bitsPerSecond"), 9600},
                                                                       {QStringLiteral("bytesCarried"), 4800},
                                                                       {QStringLiteral("bytesDelivered"), 4790},
                                                                       {QStringLiteral("bytesLost"), 10},
                                                                       {QStringLiteral("busySeconds"), 5.0},
                                                                       {QStringLiteral("bitsFlipped"), 7},
                                                                       {QStringLiteral("bytesSpoiled"), 6}}));
    EXPECT_EQ(json[QStringLiteral("backward")].toObject()[QStringLiteral("bitsPerSecond")].toInt(), 2400);
    EXPECT_EQ(json.size(), 12);
}

TEST(CallStatisticsTest, TheFileHasTheCallsInOrder)
{
    CallStatistics other = connectedCall();
    other.call = 4;
    const QJsonObject file = QJsonDocument::fromJson(statisticsJson({connectedCall(), other})).object();
    const QJsonArray calls = file[QStringLiteral("calls")].toArray();
    ASSERT_EQ(calls.size(), 2);
    EXPECT_EQ(calls.at(0).toObject(), connectedCall().toJson());
    EXPECT_EQ(calls.at(1).toObject(), other.toJson());
    EXPECT_EQ(QJsonDocument::fromJson(statisticsJson({})).object()[QStringLiteral("calls")], QJsonValue(QJsonArray()));
}
