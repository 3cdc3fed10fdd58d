// The shapes that host and plug-in agree on: slot orders, member order, meta-objects.
#include "plugin/cabstractprotocol.h"
#include "plugin/cchannelserver.h"

#include <QMetaMethod>

#include <gtest/gtest.h>

TEST(Interfaces, ServerMethodsStandInTheContractsOrder)
{
    const QMetaObject& meta = CChannelServer::staticMetaObject;
    const QByteArrayList expected{
        "connected(QString,int)", "notConnected(QString)", "disconnected(QString,int,bool)", "finished()",
        "settingsWasChanged()", "connectToAbonent(QString,QByteArray)", "disconnectFromAbonent(QString,int)",
        "keepAliveConnection(int)"};
    QByteArrayList found;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        found.append(meta.method(i).methodSignature());
    EXPECT_EQ(found, expected);
}
