// What a program sees through the ptylines object: bounded depth, waiting for room, flush and drain.
#include "tests/sim/ptyendpointfixture.h"

#include <QElapsedTimer>
#include <QSerialPort>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/select.h>
#include <sys/uio.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

using namespace simtest;

TEST_F(PtyEndpointTest, WriteStopsAtTheDepth)
{
    PtyEndpoint endpoint;
    const int fd = openFd(endpoint);
    EXPECT_EQ(writeFill(fd, 10000), 4096);
    EXPECT_EQ(outQueue(fd), 4096);
    EXPECT_EQ(endpoint.bytesFromProgram(), 4096);
    errno = 0;
    EXPECT_EQ(::write(fd, "y", 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(pollFor(fd, POLLOUT, 0), 0);

    QByteArray seen;
    ASSERT_TRUE(waitFor([&] {
        seen += endpoint.read(100 - seen.size());
        return seen.size() == 100;
    }));
    EXPECT_EQ(outQueue(fd), 3996);
    EXPECT_EQ(pollFor(fd, POLLOUT, 0), POLLOUT);
    EXPECT_EQ(writeFill(fd, 10000), 100);
    EXPECT_EQ(outQueue(fd), 4096);
}

TEST_F(PtyEndpointTest, TheDepthCanBeSet)
{
    PtyEndpoint endpoint;
    endpoint.setDepth(16);
    const int fd = openFd(endpoint);
    EXPECT_EQ(::write(fd, "0123456789abcdefXYZ", 19), 16);
    endpoint.setDepth(20);
    EXPECT_EQ(::write(fd, "0123456789abcdefXYZ", 19), 4);
    EXPECT_EQ(outQueue(fd), 20);
}

TEST_F(PtyEndpointTest, WritevStopsAtTheDepth)
{
    PtyEndpoint endpoint;
    endpoint.setDepth(6);
    const int fd = openFd(endpoint);
    char first[] = "abcd";
    char second[] = "efgh";
    const iovec parts[] = {{first, 4}, {second, 4}};
    EXPECT_EQ(::writev(fd, parts, 2), 6);
    EXPECT_EQ(::writev(fd, parts, 2), -1);
    QByteArray seen;
    ASSERT_TRUE(waitFor([&] {
        seen += endpoint.read();
        return seen.size() >= 6;
    }));
    EXPECT_EQ(seen, QByteArray("abcdef"));
}

TEST_F(PtyEndpointTest, APollerWakesSoonAfterRoomOpens)
{
    PtyEndpoint endpoint;
    endpoint.setDepth(64);
    const int fd = openFd(endpoint);
    ASSERT_EQ(writeFill(fd, 64), 64);
    // Its own time-out is kept.
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(pollFor(fd, POLLOUT, 30), 0);
    EXPECT_GE(timer.elapsed(), 29);

    std::atomic<bool> woken{false};
    std::thread poller([&] { woken = pollFor(fd, POLLOUT, -1) == POLLOUT; });
    ASSERT_TRUE(waitFor([&] { return !endpoint.read(1).isEmpty(); }));
    EXPECT_TRUE(waitFor([&] { return woken.load(); }));
    poller.join();
}

// Room opens at once for who writes; who waits for it is told only below the level.
TEST_F(PtyEndpointTest, WaitersAreWokenBelowTheWakeUpLevel)
{
    qputenv("PTYLINES_WAKEUP", "256");
    PtyEndpoint endpoint;
    const int fd = openFd(endpoint);
    ASSERT_EQ(writeFill(fd, 4096), 4096);
    qint64 taken = 0;
    const auto take = [&](qint64 upTo) {
        return waitFor([&] {
            taken += endpoint.read(upTo - taken).size();
            return taken == upTo;
        });
    };
    ASSERT_TRUE(take(3840));
    EXPECT_EQ(outQueue(fd), 256);
    EXPECT_EQ(pollFor(fd, POLLOUT, 0), 0);
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(fd, &writable);
    timeval none{0, 0};
    EXPECT_EQ(select(fd + 1, nullptr, &writable, nullptr, &none), 0);
    EXPECT_EQ(writeFill(fd, 10), 10);
    ASSERT_TRUE(take(3851));
    EXPECT_EQ(outQueue(fd), 255);
    EXPECT_EQ(pollFor(fd, POLLOUT, 0), POLLOUT);
}

namespace {

// Also where the pace that was told is wrong: one byte a second.
class WakeUpLevel : public PtyEndpointTest, public testing::WithParamInterface<int>
{
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Pace, WakeUpLevel, testing::Values(0, 1, 100000000));

TEST_P(WakeUpLevel, IsSeenByAWaiterInTheEnd)
{
    qputenv("PTYLINES_WAKEUP", "256");
    PtyEndpoint endpoint;
    endpoint.setDrainRate(GetParam());
    const int fd = openFd(endpoint);
    ASSERT_EQ(writeFill(fd, 4096), 4096);
    std::atomic<bool> woken{false};
    std::thread poller([&] { woken = pollFor(fd, POLLOUT, -1) == POLLOUT; });
    qint64 taken = 0;
    EXPECT_TRUE(waitFor([&] {
        taken += endpoint.read(64).size();
        return woken.load();
    }));
    poller.join();
    EXPECT_GT(taken, 3840);
}

TEST_P(WakeUpLevel, IsSeenByABlockingWriter)
{
    qputenv("PTYLINES_WAKEUP", "256");
    PtyEndpoint endpoint;
    endpoint.setDrainRate(GetParam());
    const int fd = openFd(endpoint, 0);
    std::atomic<ssize_t> result{-2};
    std::thread writer([&] { result = writeFill(fd, 4096 + 1000); });
    EXPECT_TRUE(waitFor([&] { return endpoint.bytesFromProgram() == 4096; })) << "it has to wait for room";
    qint64 taken = 0;
    EXPECT_TRUE(waitFor([&] {
        taken += endpoint.read(3840 - taken).size();
        return taken == 3840;
    }));
    EXPECT_EQ(result, -2);
    EXPECT_EQ(endpoint.bytesFromProgram(), 256);
    EXPECT_TRUE(waitFor([&] {
        taken += endpoint.read(1).size();
        return result != -2;
    }));
    writer.join();
    EXPECT_EQ(result, 5096);
    EXPECT_LE(endpoint.bytesFromProgram(), 4096);
}

TEST_F(PtyEndpointTest, PpollAndSelectWaitForRoomToo)
{
    PtyEndpoint endpoint;
    endpoint.setDepth(8);
    const int fd = openFd(endpoint);
    ASSERT_EQ(::write(fd, "12345678", 8), 8);
    const timespec shortWait{0, 5000000};
    pollfd entry{fd, POLLOUT, 0};
    EXPECT_EQ(ppoll(&entry, 1, &shortWait, nullptr), 0);
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(fd, &writable);
    timeval wait{0, 5000};
    EXPECT_EQ(select(fd + 1, nullptr, &writable, nullptr, &wait), 0);
    EXPECT_FALSE(FD_ISSET(fd, &writable));

    ASSERT_TRUE(waitFor([&] { return !endpoint.read(1).isEmpty(); }));
    EXPECT_EQ(ppoll(&entry, 1, &shortWait, nullptr), 1);
    FD_SET(fd, &writable);
    wait = {0, 5000};
    EXPECT_EQ(select(fd + 1, nullptr, &writable, nullptr, &wait), 1);
    EXPECT_TRUE(FD_ISSET(fd, &writable));
}

TEST_F(PtyEndpointTest, AFullSlaveStillReportsInput)
{
    PtyEndpoint endpoint;
    endpoint.setDepth(8);
    const int fd = openFd(endpoint);
    ASSERT_EQ(::write(fd, "12345678", 8), 8);
    ASSERT_EQ(endpoint.write("in"), 2);
    EXPECT_EQ(pollFor(fd, POLLIN | POLLOUT, rig::defaultDeadlineMs), POLLIN);
}

TEST_F(PtyEndpointTest, ABlockingWriterWaitsForRoom)
{
    PtyEndpoint endpoint;
    endpoint.setDepth(100);
    const int fd = openFd(endpoint, 0);
    QByteArray block;
    for (int i = 0; i < 5000; ++i)
        block.append(static_cast<char>(i * 7));
    std::atomic<ssize_t> result{-2};
    std::thread writer([&] { result = ::write(fd, block.constData(), static_cast<size_t>(block.size())); });
    QByteArray seen;
    qint64 most = 0;
    EXPECT_TRUE(waitFor([&] {
        most = qMax(most, endpoint.bytesFromProgram());
        seen += endpoint.read(50);
        return seen.size() >= block.size();
    }));
    writer.join();
    EXPECT_EQ(result, block.size());
    EXPECT_EQ(seen, block);
    EXPECT_LE(most, 100);
}

TEST_F(PtyEndpointTest, QSerialPortKeepsTheRestForLater)
{
    PtyEndpoint endpoint;
    QSerialPort port;
    ASSERT_TRUE(open(port, endpoint));
    const QByteArray block(10000, 'q');
    ASSERT_EQ(port.write(block), 10000);
    ASSERT_TRUE(waitFor([&] { return endpoint.bytesFromProgram() == 4096; }));
    EXPECT_EQ(port.bytesToWrite(), 10000 - 4096);
    // Still the same after its events had every chance to write more.
    for (int i = 0; i < 20; ++i)
        QCoreApplication::processEvents();
    EXPECT_EQ(endpoint.bytesFromProgram(), 4096);
    QByteArray seen;
    EXPECT_TRUE(waitFor([&] {
        seen += endpoint.read();
        return seen.size() >= 10000;
    }));
    EXPECT_EQ(seen, block);
    EXPECT_EQ(port.bytesToWrite(), 0);
    EXPECT_EQ(port.error(), QSerialPort::NoError);
}

TEST_F(PtyEndpointTest, WaitForBytesWrittenWaitsForRoom)
{
    PtyEndpoint endpoint;
    endpoint.setDepth(10);
    QSerialPort port;
    ASSERT_TRUE(open(port, endpoint));
    ASSERT_EQ(port.write("0123456789"), 10);
    ASSERT_TRUE(port.waitForBytesWritten(rig::defaultDeadlineMs));
    ASSERT_EQ(port.write("abc"), 3);
    EXPECT_FALSE(port.waitForBytesWritten(20));
    std::thread modem([&] { waitFor([&] { return !endpoint.read(4).isEmpty(); }); });
    EXPECT_TRUE(port.waitForBytesWritten(rig::defaultDeadlineMs));
    modem.join();
}

TEST_F(PtyEndpointTest, FlushedOutputIsNeverSent)
{
    PtyEndpoint endpoint;
    QSerialPort port;
    ASSERT_TRUE(open(port, endpoint));
    ASSERT_EQ(port.write(QByteArray(3000, 'o')), 3000);
    ASSERT_TRUE(waitFor([&] { return endpoint.bytesFromProgram() == 3000; }));
    ASSERT_TRUE(port.clear());
    EXPECT_EQ(endpoint.bytesFromProgram(), 0);
    ASSERT_EQ(port.write("AT\r"), 3);
    QByteArray seen;
    ASSERT_TRUE(waitFor([&] {
        seen += endpoint.read();
        return seen.size() >= 3;
    }));
    EXPECT_EQ(seen, QByteArray("AT\r"));
    EXPECT_EQ(endpoint.bytesFromProgram(), 0);
}

TEST_F(PtyEndpointTest, FlushedInputIsNotRead)
{
    PtyEndpoint endpoint;
    const int fd = openFd(endpoint);
    ASSERT_EQ(endpoint.write("old"), 3);
    ASSERT_EQ(pollFor(fd, POLLIN, rig::defaultDeadlineMs), POLLIN);
    ASSERT_EQ(tcflush(fd, TCIOFLUSH), 0);
    EXPECT_EQ(pollFor(fd, POLLIN, 0), 0);
}

TEST_F(PtyEndpointTest, DrainWaitsUntilTheModemHasTakenAll)
{
    PtyEndpoint endpoint;
    const int fd = openFd(endpoint);
    ASSERT_EQ(::write(fd, "0123456789", 10), 10);
    std::atomic<int> takenSoFar{0};
    int takenAtDrain = -1;
    std::thread program([&] {
        if (tcdrain(fd) == 0)
            takenAtDrain = takenSoFar;
    });
    while (takenSoFar < 9) {
        if (!endpoint.read(1).isEmpty())
            ++takenSoFar;
    }
    // Nine are gone; the drain must still wait for the tenth.
    ++takenSoFar;
    ASSERT_TRUE(waitFor([&] { return !endpoint.read(1).isEmpty(); }));
    program.join();
    EXPECT_EQ(takenAtDrain, 10);
}

TEST_F(PtyEndpointTest, AnUnpluggedBlockingWriterIsReleased)
{
    PtyEndpoint endpoint;
    endpoint.setDepth(4);
    const int fd = openFd(endpoint, 0);
    std::atomic<ssize_t> result{-2};
    std::thread writer([&] { result = writeFill(fd, 100); });
    ASSERT_TRUE(waitFor([&] { return endpoint.bytesFromProgram() == 4; }));
    endpoint.unplug();
    EXPECT_TRUE(waitFor([&] { return result != -2; }));
    writer.join();
    // What had gone is counted; only the next write fails.
    EXPECT_EQ(result, 4);
    errno = 0;
    EXPECT_EQ(writeFill(fd, 96), -1);
    EXPECT_EQ(errno, EIO);
}

namespace {

// A modem's program that is killed leaves its rows as they were; only the kernel knows. With and
// without a wake-up level, for which a writer waits in another place.
class KilledModem : public PtyEndpointTest, public testing::WithParamInterface<int>
{
};

} // namespace

INSTANTIATE_TEST_SUITE_P(WakeUpLevel, KilledModem, testing::Values(0, 256));

TEST_P(KilledModem, ReleasesWritersAndDrains)
{
    qputenv("PTYLINES_WAKEUP", QByteArray::number(GetParam()));
    PtyEndpoint endpoint;
    endpoint.setDepth(4);
    const int fd = openFd(endpoint, 0);
    std::atomic<int> released{0};
    std::atomic<ssize_t> written{-2};
    std::thread writer([&] {
        written = writeFill(fd, 100);
        ++released;
    });
    ASSERT_TRUE(waitFor([&] { return endpoint.bytesFromProgram() == 4; }));
    std::thread drainer([&] {
        tcdrain(fd);
        ++released;
    });
    const int nothing = ::open("/dev/null", O_RDWR);
    ASSERT_GE(::dup2(nothing, endpoint.masterFd()), 0);
    ::close(nothing);
    EXPECT_TRUE(waitFor([&] { return released == 2; }));
    writer.join();
    drainer.join();
    EXPECT_EQ(written, 4);
}

TEST_F(PtyEndpointTest, BytesOfAProgramThatIsNotCountedDoNotOpenMoreRoom)
{
    PtyEndpoint endpoint;
    const int fd = openFd(endpoint);
    // A write that goes round the object, as a foreign program's does.
    ASSERT_EQ(std::system(("printf hello > " + endpoint.portPath().toStdString()).c_str()), 0);
    QByteArray seen;
    ASSERT_TRUE(waitFor([&] {
        seen += endpoint.read();
        return seen.size() >= 5;
    }));
    EXPECT_EQ(writeFill(fd, 9000), 4096);
}
