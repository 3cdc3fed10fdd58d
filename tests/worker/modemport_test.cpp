// What the worker asks a serial port: its modem lines, and whether its device is still there.
#include "com/port/modemport.h"
#include "rig/deadline.h"
#include "rig/testroot.h"
#include "sim/pty/ptyendpoint.h"

#include <QFile>
#include <gtest/gtest.h>

namespace {

class ModemPortTest : public testing::Test
{
protected:
    ModemPortTest()
    {
        port.setPortName(link);
        EXPECT_TRUE(port.open(QIODevice::ReadWrite)) << port.errorString().toStdString();
        EXPECT_TRUE(port.setDataTerminalReady(true));
    }

    // What a test has put there is none of the endpoint's, which leaves it.
    static QString freeLink()
    {
        const QString path = rig::installRoot() + QStringLiteral("/modem1");
        QFile::remove(path);
        return path;
    }

    const QString link = freeLink();
    sim::PtyEndpoint endpoint{link};
    QSerialPort port;
};

} // namespace

TEST_F(ModemPortTest, LinesAreThoseOfAnOpenPort)
{
    endpoint.setModemSignals(sim::SignalDsr | sim::SignalDcd);
    EXPECT_EQ(modemLines(port),
              QSerialPort::PinoutSignals(QSerialPort::DataTerminalReadySignal | QSerialPort::DataSetReadySignal |
                                         QSerialPort::DataCarrierDetectSignal));
    port.close();
    port.clearError();
    EXPECT_EQ(modemLines(port), QSerialPort::PinoutSignals(QSerialPort::NoSignal));
    EXPECT_EQ(port.error(), QSerialPort::NoError) << "a closed port is not asked";
}

TEST_F(ModemPortTest, ADeviceIsThereAsLongAsItsNameLeadsToIt)
{
    EXPECT_FALSE(deviceHasVanished(port, link));
    EXPECT_FALSE(deviceHasVanished(port, endpoint.portPath()));
    ASSERT_TRUE(QFile::remove(link));
    EXPECT_TRUE(deviceHasVanished(port, link)) << "the name is gone";
    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/null"), link));
    EXPECT_TRUE(deviceHasVanished(port, link)) << "another device has it";
}

// A converter that is plugged in again may come back under the name that it had.
TEST_F(ModemPortTest, ADeviceThatCameBackIsAnotherOne)
{
    const sim::PtyEndpoint second(rig::installRoot() + QStringLiteral("/modem2"));
    ASSERT_TRUE(QFile::remove(link));
    ASSERT_TRUE(QFile::link(QFile::symLinkTarget(second.portPath()), link));
    EXPECT_TRUE(deviceHasVanished(port, link));
}

TEST_F(ModemPortTest, ANameWithoutAPathIsOneOfTheSystemsDevices)
{
    EXPECT_TRUE(deviceHasVanished(port, QStringLiteral("null"))) << "/dev/null, not the port's device";
    EXPECT_TRUE(deviceHasVanished(port, QStringLiteral("no_such_device")));
    const QString device = QFile::symLinkTarget(link);
    ASSERT_TRUE(device.startsWith(QStringLiteral("/dev/"))) << device.toStdString();
    EXPECT_FALSE(deviceHasVanished(port, device.mid(5)));
}

TEST_F(ModemPortTest, APortThatIsNotOpenHasNoDeviceToLose)
{
    port.close();
    EXPECT_FALSE(deviceHasVanished(port, QStringLiteral("no_such_device")));
}

TEST_F(ModemPortTest, ShuttingDropsDtrAndWhatWaits)
{
    ASSERT_EQ(port.write("old"), 3);
    ASSERT_TRUE(rig::waitFor([&] {
        port.flush();
        return endpoint.bytesFromProgram() == 3;
    })) << "in the driver";
    ASSERT_EQ(endpoint.write("unread"), 6);
    const unsigned dropsBefore = endpoint.dtrDrops();
    shutPort(port);
    EXPECT_FALSE(port.isOpen());
    EXPECT_EQ(endpoint.dtrDrops(), dropsBefore + 1);
    EXPECT_EQ(endpoint.programSignals() & sim::SignalDtr, 0);
    // The next call must hear and say nothing of this one.
    ASSERT_TRUE(port.open(QIODevice::ReadWrite));
    ASSERT_EQ(port.write("new"), 3);
    QByteArray heard;
    ASSERT_TRUE(rig::waitFor([&] {
        port.flush();
        heard += endpoint.read();
        return heard.size() >= 3;
    }));
    EXPECT_EQ(heard, QByteArray("new"));
    ASSERT_EQ(endpoint.write("fresh"), 5);
    QByteArray received;
    ASSERT_TRUE(rig::waitFor([&] {
        received += port.readAll();
        return received.size() >= 5;
    }));
    EXPECT_EQ(received, QByteArray("fresh"));
}

TEST_F(ModemPortTest, AClosedPortIsLeftAlone)
{
    port.close();
    port.clearError();
    shutPort(port);
    EXPECT_EQ(port.error(), QSerialPort::NoError);
}
