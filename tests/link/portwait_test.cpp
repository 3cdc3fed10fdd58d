// The waits on a port, on ports in memory and on real ones.
#include "com/port/portwait.h"
#include "rig/port/fakeserialport.h"
#include "rig/time/virtualclock.h"
#include "sim/pty/ptyendpoint.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <gtest/gtest.h>

using rig::FakeSerialPort;
using rig::VirtualClock;

TEST(WaitForWritten, DoesNotWaitWithNothingPending)
{
    const VirtualClock clock;
    FakeSerialPort port;
    EXPECT_FALSE(waitForWritten(port, 500));
    EXPECT_TRUE(port.takeWriteWaits().isEmpty());
}

TEST(WaitForWritten, IsTrueWhenOutputWentOut)
{
    const VirtualClock clock;
    FakeSerialPort port;
    port.write("abc");
    EXPECT_TRUE(waitForWritten(port, 500));
    EXPECT_TRUE(port.expectWritten("abc"));
    EXPECT_EQ(port.takeWriteWaits(), QList<int>{500});
}

TEST(WaitForWritten, EndsAfterItsTimeOnABlockedPort)
{
    const VirtualClock clock;
    FakeSerialPort port;
    port.setRoom(0);
    port.write("abc");
    EXPECT_FALSE(waitForWritten(port, 50));
    EXPECT_EQ(clock.nowMs(), 50);
}

TEST(WaitForInput, IsTrueWhenInputCame)
{
    const VirtualClock clock;
    FakeSerialPort port;
    port.injectOnWait("abc");
    EXPECT_TRUE(waitForInput(port, 10));
    EXPECT_EQ(clock.nowMs(), 0);
}

TEST(WaitForInput, EndsAfterItsTime)
{
    const VirtualClock clock;
    FakeSerialPort port;
    EXPECT_FALSE(waitForInput(port, 10));
    EXPECT_EQ(clock.nowMs(), 10);
}

namespace {

class RealPort : public testing::Test
{
protected:
    RealPort()
    {
        m_port.setPortName(m_endpoint.portPath());
        EXPECT_TRUE(m_port.open(QIODevice::ReadWrite)) << m_port.errorString().toStdString();
        m_port.clearError();
    }

    sim::PtyEndpoint m_endpoint;
    QSerialPort m_port;
};

} // namespace

TEST_F(RealPort, GivesAndTakesBytes)
{
    m_port.write("out");
    EXPECT_TRUE(waitForWritten(m_port, 5000));
    EXPECT_EQ(m_endpoint.read(), "out");
    m_endpoint.write("in");
    EXPECT_TRUE(waitForInput(m_port, 5000));
    EXPECT_EQ(m_port.readAll(), "in");
}

// A busy line brings a few bytes each millisecond; none of them makes room.
TEST_F(RealPort, InputNeitherEndsTheWaitForRoomNorIsLost)
{
    m_endpoint.setDepth(4);
    m_port.write("12345678");
    ASSERT_TRUE(waitForWritten(m_port, 5000)); // the first four
    ASSERT_EQ(m_port.bytesToWrite(), 4);
    ASSERT_EQ(m_endpoint.write("in"), 2);
    const QSignalSpy errors(&m_port, &QSerialPort::errorOccurred);
    QElapsedTimer timer;
    timer.start();
    EXPECT_FALSE(waitForWritten(m_port, 60));
    EXPECT_GE(timer.elapsed(), 59);
    EXPECT_EQ(m_port.readAll(), "in");
    EXPECT_EQ(errors.count(), 0);
    EXPECT_EQ(m_endpoint.read(), "1234");
    EXPECT_TRUE(waitForWritten(m_port, 5000));
    EXPECT_EQ(m_endpoint.read(), "5678");
}

TEST_F(RealPort, ThatLostItsDeviceRefusesOutputAtOnce)
{
    m_endpoint.setDepth(4);
    m_port.write("12345678");
    ASSERT_TRUE(waitForWritten(m_port, 5000));
    m_endpoint.unplug();
    const QSignalSpy errors(&m_port, &QSerialPort::errorOccurred);
    QElapsedTimer timer;
    timer.start();
    EXPECT_FALSE(waitForWritten(m_port, 60000));
    EXPECT_LT(timer.elapsed(), 60000);
    EXPECT_GE(errors.count(), 1);
}

TEST_F(RealPort, RaisesNoErrorWhileItIsIdle)
{
    const QSignalSpy errors(&m_port, &QSerialPort::errorOccurred);
    EXPECT_FALSE(waitForWritten(m_port, 5));
    EXPECT_FALSE(waitForInput(m_port, 5));
    EXPECT_EQ(errors.count(), 0);
    EXPECT_EQ(m_port.error(), QSerialPort::NoError);
}

// What is left of a time may be less than nothing by the time it is worked out.
TEST_F(RealPort, ATimeThatIsOverIsNotWaitedForForEver)
{
    EXPECT_FALSE(waitForInput(m_port, -1));
    m_endpoint.setDepth(4);
    m_port.write("12345678");
    ASSERT_TRUE(waitForWritten(m_port, 5000));
    EXPECT_FALSE(waitForWritten(m_port, -1));
    EXPECT_FALSE(waitForInput(m_port, -1)) << "with output pending the port itself waits";
}

TEST_F(RealPort, ThatLostItsDeviceDoesNotSpin)
{
    m_endpoint.unplug();
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(waitForInput(m_port, 20));
    EXPECT_GE(timer.elapsed(), 3 * 20 - 3);
}
