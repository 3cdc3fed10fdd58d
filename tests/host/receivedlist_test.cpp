// What is remembered of messages that were received.
#include "host/session/peer.h"
#include "host/session/sessionframes.h"
#include "host/store/receivedlist.h"
#include "tests/host/storetools.h"

#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;

namespace {

class Received : public testing::Test
{
protected:
    Received() { QDir().mkpath(rig::installRoot()); }

    // Stored, and the sender has heard of it.
    static QByteArray settledLines(const QString& peer, quint64 id)
    {
        const QByteArray idAndPeer[] = {idText(id).toLatin1(), peer.toUtf8().toPercentEncoding()};
        return "+ " + idAndPeer[0] + ' ' + sha.toHex() + ' ' + idAndPeer[1] + "\ns " + idAndPeer[0] + ' ' +
               idAndPeer[1] + '\n';
    }

    static const inline QByteArray sha = QByteArray(32, 'h');
    const QString path = rig::installRoot() + QStringLiteral("/received.list");
};

QString stranger(int number)
{
    return unprovedPeerKey(QByteArray::number(number).rightJustified(32, '0'));
}

} // namespace

TEST_F(Received, NobodysMessagesPushOutWhatIsRememberedOfAnother)
{
    QByteArray lines = settledLines(QStringLiteral("alice"), 1);
    for (quint64 id = 1; id <= 1500; ++id)
        lines += settledLines(QStringLiteral("bob"), id);
    writeFile(path, lines);
    ReceivedList list(path);
    ASSERT_EQ(list.load(), QString());
    EXPECT_TRUE(list.contains(QStringLiteral("alice"), 1, sha));
    EXPECT_FALSE(list.contains(QStringLiteral("bob"), 500, sha)) << "the oldest go";
    EXPECT_TRUE(list.contains(QStringLiteral("bob"), 501, sha));
    EXPECT_TRUE(list.contains(QStringLiteral("bob"), 1500, sha));
}

// Who makes a key for each message must not make the list grow without end.
TEST_F(Received, AllWhoAreNotProvedAreRememberedTogether)
{
    QByteArray lines = settledLines(QStringLiteral("alice"), 1);
    for (int number = 1; number <= 1500; ++number)
        lines += settledLines(stranger(number), 7);
    writeFile(path, lines);
    ReceivedList list(path);
    ASSERT_EQ(list.load(), QString());
    EXPECT_TRUE(list.contains(QStringLiteral("alice"), 1, sha));
    EXPECT_FALSE(list.contains(stranger(500), 7, sha));
    EXPECT_TRUE(list.contains(stranger(501), 7, sha));
    EXPECT_TRUE(list.contains(stranger(1500), 7, sha));
    EXPECT_EQ(readAll(path).count("\ns "), 1001);
}

TEST_F(Received, WhatTheSenderHasNotHeardOfIsKept)
{
    QByteArray lines;
    for (quint64 id = 1; id <= 1500; ++id)
        lines += settledLines(QStringLiteral("bob"), id).split('\n').first() + '\n';
    writeFile(path, lines);
    ReceivedList list(path);
    ASSERT_EQ(list.load(), QString());
    EXPECT_EQ(list.unsettled(QStringLiteral("bob")).size(), 1500);
}
