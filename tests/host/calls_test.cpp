#include "host/calls/calls.h"
#include "tests/host/recordedrun.h"

#include <QVector>
#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;

namespace {

const QString bob = QStringLiteral("Bob");
const QString port = QStringLiteral("ttyS0");

class CallsTest : public ::testing::Test
{
protected:
    CallsTest()
    {
        calls.setWaiting({bob});
        EXPECT_EQ(calls.next(0), bob);
        calls.placed(bob, 0);
    }

    static CallRules rules()
    {
        CallRules rules;
        rules.lengthen = [](int* timeout) { *timeout += 10; };
        rules.shorten = [](int* timeout) { *timeout = 0; };
        return rules;
    }

    RecordedRun records;
    Calls calls{rules(), &records};
};

} // namespace

TEST_F(CallsTest, ACallThatConnectsAndEnds)
{
    EXPECT_TRUE(calls.isCalling(bob));
    calls.connected(bob, 7);
    EXPECT_TRUE(calls.isConnectedTo(bob));
    EXPECT_EQ(records.last.value(QStringLiteral("connection")).toInt(), 7);
    calls.disconnected(bob, 7, true, 1000);
    EXPECT_FALSE(calls.isConnectedTo(bob));
    EXPECT_EQ(records.last.value(QStringLiteral("useful")).toBool(), true);
    EXPECT_EQ(records.names, QStringList({"callPlaced", "connected", "disconnected"}));
    EXPECT_EQ(records.lines, QStringList());
}

TEST_F(CallsTest, ACallThatFailsWaitsForItsPause)
{
    calls.notConnected(bob, 1000);
    EXPECT_EQ(calls.failedCalls(bob), 1);
    EXPECT_EQ(calls.next(1001), std::nullopt);
    EXPECT_EQ(calls.next(11000), bob);
    EXPECT_EQ(records.names, QStringList({"callPlaced", "notConnected"}));
}

TEST_F(CallsTest, AConnectionWhosePortIsGoneIsToldAndFree)
{
    calls.connected(bob, 7);
    calls.portState(port, QStringLiteral("Установлено соединение с 'Bob'"), 500);
    EXPECT_EQ(records.lines, QStringList());
    calls.portGone(port, 1000);
    EXPECT_FALSE(calls.isConnectedTo(bob));
    EXPECT_EQ(calls.failedCalls(bob), 0);
    EXPECT_EQ(records.lines, QStringList{"E the connection with 'Bob' is over: ttyS0 went down under it"});
    EXPECT_EQ(records.names.last(), QStringLiteral("connectionLost"));
    EXPECT_EQ(records.last.value(QStringLiteral("port")).toString(), port);
    calls.portGone(port, 2000);
    EXPECT_EQ(records.names.size(), 3) << "told once";
}

TEST_F(CallsTest, ACallWhosePortGoesDownIsToldAndTriedAgainAtOnce)
{
    calls.journalRecord(port, QStringLiteral("Вызов 'Bob' (102)"));
    calls.portState(port, QStringLiteral("Вызов 'Bob' (102)"), 500);
    calls.portState(port, QStringLiteral("Открытие COM порта"), 1000);
    EXPECT_EQ(records.lines, QStringList{"E the call to 'Bob' is over: ttyS0 went down while it dialled"});
    EXPECT_EQ(records.names.last(), QStringLiteral("callLost"));
    EXPECT_FALSE(calls.isCalling(bob));
    EXPECT_EQ(calls.next(1001), bob);
}

TEST_F(CallsTest, WhatASessionSaidIsTheReason)
{
    calls.connected(bob, 7);
    calls.sessionEnded(bob, QStringLiteral("the connection was lost"));
    calls.disconnected(bob, 7, false, 1000);
    EXPECT_EQ(calls.failure(bob), QStringLiteral("the connection was lost"));
}

// The fields as docs/reference-host.md has them.
TEST_F(CallsTest, EachEventHasTheDocumentedFieldsAndNoOthers)
{
    calls.connected(bob, 7);
    calls.disconnected(bob, 7, false, 1000);
    calls.notConnected(bob, 1000);
    calls.placed(bob, 2000);
    calls.connected(bob, 8);
    calls.portState(port, QStringLiteral("Установлено соединение с 'Bob'"), 500);
    calls.portGone(port, 1000);
    calls.placed(bob, 3000);
    calls.journalRecord(port, QStringLiteral("Вызов 'Bob' (102)"));
    calls.portState(port, QStringLiteral("Вызов 'Bob' (102)"), 3500);
    calls.portGone(port, 4000);
    EXPECT_EQ(records.names, QStringList({"callPlaced", "connected", "disconnected", "notConnected", "callPlaced",
                                          "connected", "connectionLost", "callPlaced", "callLost"}));
    using Fields = QJsonObject;
    EXPECT_EQ(jsonTexts(records.all),
              jsonTexts({Fields{{"peer", bob}}, Fields{{"peer", bob}, {"connection", 7}},
                         Fields{{"peer", bob}, {"connection", 7}, {"useful", false}}, Fields{{"peer", bob}},
                         Fields{{"peer", bob}}, Fields{{"peer", bob}, {"connection", 8}},
                         Fields{{"peer", bob}, {"port", port}}, Fields{{"peer", bob}},
                         Fields{{"peer", bob}, {"port", port}}}));
}
