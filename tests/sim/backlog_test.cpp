#include "rig/deadline.h"
#include "sim/pty/backlog.h"
#include "sim/pty/ptyendpoint.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

using sim::Backlog;
using sim::PtyEndpoint;

TEST(BacklogTest, keepsUpToItsBoundAndCountsTheRest)
{
    Backlog backlog;
    EXPECT_TRUE(backlog.isEmpty());
    EXPECT_EQ(backlog.add(QByteArray(Backlog::mostBytes - 10, 'a')), 0);
    EXPECT_FALSE(backlog.isEmpty());
    EXPECT_EQ(backlog.add(QByteArray(10, 'b')), 0);
    EXPECT_EQ(backlog.add(QByteArray(7, 'c')), 7);
    backlog.clear();
    EXPECT_TRUE(backlog.isEmpty());
    EXPECT_EQ(backlog.add(QByteArray(Backlog::mostBytes + 3, 'd')), 3);
}

TEST(BacklogTest, handsOverInOrderAsTheProgramReads)
{
    PtyEndpoint endpoint;
    ASSERT_TRUE(endpoint.isOpen()) << endpoint.errorString().toStdString();
    const int port = open(endpoint.portPath().toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(port, 0);
    QByteArray sent;
    for (int i = 0; i < Backlog::mostBytes; ++i)
        sent += static_cast<char>(i % 251);
    Backlog backlog;
    ASSERT_EQ(backlog.add(sent), 0);
    EXPECT_TRUE(backlog.flush(endpoint)); // more than a pty holds
    QByteArray received;
    EXPECT_TRUE(rig::waitFor([&] {
        char buffer[4096];
        const ssize_t size = read(port, buffer, sizeof(buffer));
        if (size > 0)
            received.append(buffer, static_cast<int>(size));
        return !backlog.flush(endpoint) && received.size() == sent.size();
    }));
    EXPECT_EQ(received, sent);
    close(port);
}

TEST(BacklogTest, keepsEverythingWhileThePortIsUnplugged)
{
    PtyEndpoint endpoint;
    ASSERT_TRUE(endpoint.isOpen()) << endpoint.errorString().toStdString();
    Backlog backlog;
    backlog.add("abc");
    endpoint.unplug();
    EXPECT_TRUE(backlog.flush(endpoint));
    ASSERT_TRUE(endpoint.plugIn()) << endpoint.errorString().toStdString();
    EXPECT_FALSE(backlog.flush(endpoint));
}
