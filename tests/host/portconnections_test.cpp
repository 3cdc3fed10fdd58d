#include "host/calls/portconnections.h"

#include <gtest/gtest.h>

using namespace host;

namespace {

const QString bob = QStringLiteral("Bob");
const QString carol = QStringLiteral("Carol");
const QString first = QStringLiteral("ttyS0");
const QString second = QStringLiteral("ttyS1");
const QString opens = QStringLiteral("Открытие COM порта");
const QString dials = QStringLiteral("Вызов 'Bob' (102)");
const QString carrier = QStringLiteral("Соединение установлено: CONNECT 9600");

QString with(const QString& abonent)
{
    return QStringLiteral("Установлено соединение с '%1'").arg(abonent);
}

QStringList told(const QVector<PortConnections::Lost>& lost)
{
    QStringList texts;
    for (const PortConnections::Lost& one : lost)
        texts.append(QStringLiteral("%1 %2").arg(one.abonent, QString::number(one.connectionId)));
    texts.sort();
    return texts;
}

} // namespace

TEST(PortConnections, APortThatDoesSomethingElseHasLostItsConnection)
{
    PortConnections connections;
    connections.connected(bob, 1);
    connections.connected(carol, 2);
    EXPECT_EQ(told(connections.portState(first, with(bob))), QStringList());
    EXPECT_EQ(told(connections.portState(second, with(carol))), QStringList());
    EXPECT_EQ(told(connections.portState(first, opens)), QStringList{QStringLiteral("Bob 1")});
    EXPECT_EQ(told(connections.portState(first, opens)), QStringList()) << "once";
    EXPECT_EQ(told(connections.portGone(second)), QStringList{QStringLiteral("Carol 2")});
}

TEST(PortConnections, WhatASignalEndedIsNotLost)
{
    PortConnections connections;
    connections.connected(bob, 1);
    (void)connections.portState(first, with(bob));
    connections.disconnected(1);
    EXPECT_EQ(told(connections.portState(first, opens)), QStringList());
    EXPECT_EQ(told(connections.portGone(first)), QStringList());
}

TEST(PortConnections, TheStatesOfACallLoseNothing)
{
    PortConnections connections;
    connections.connected(bob, 1);
    for (const QString& text : {dials, carrier, with(bob), QStringLiteral("Не удалось установить соединение: BUSY")})
        EXPECT_EQ(told(connections.portState(first, text)), QStringList()) << qPrintable(text);
    EXPECT_EQ(told(connections.portGone(second)), QStringList()) << "another port";
    EXPECT_EQ(told(connections.portGone(first)), QStringList{QStringLiteral("Bob 1")});
}

// Two ports may be connected with one abonent.
TEST(PortConnections, EachOfTwoConnectionsWithOneAbonentHasItsPort)
{
    PortConnections connections;
    connections.connected(bob, 1);
    (void)connections.portState(first, with(bob));
    connections.connected(bob, 2);
    (void)connections.portState(second, with(bob));
    EXPECT_EQ(told(connections.portGone(first)), QStringList{QStringLiteral("Bob 1")});
    EXPECT_EQ(told(connections.portGone(second)), QStringList{QStringLiteral("Bob 2")});
}
