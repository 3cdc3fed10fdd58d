// The modem's end of a pty: modem lines, bytes both ways, the link under which programs find it, unplugging.
#include "tests/sim/ptyendpointfixture.h"

#include <QFile>
#include <QFileInfo>
#include <QSerialPort>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <unistd.h>

using namespace simtest;

TEST_F(PtyEndpointTest, OpensAndNamesASlave)
{
    PtyEndpoint endpoint;
    ASSERT_TRUE(endpoint.isOpen()) << endpoint.errorString().toStdString();
    EXPECT_TRUE(endpoint.portPath().startsWith(QStringLiteral("/dev/pts/")));
    EXPECT_TRUE(QFile::exists(endpoint.portPath()));
    EXPECT_GE(endpoint.masterFd(), 0);
}

TEST_F(PtyEndpointTest, ModemSignalsAreSeenByTheProgramAtOnce)
{
    PtyEndpoint endpoint;
    QSerialPort port;
    ASSERT_TRUE(open(port, endpoint)) << port.errorString().toStdString();
    const struct
    {
        int line;
        QSerialPort::PinoutSignal pin;
    } pairs[] = {{sim::SignalDsr, QSerialPort::DataSetReadySignal},
                 {sim::SignalDcd, QSerialPort::DataCarrierDetectSignal},
                 {sim::SignalRi, QSerialPort::RingIndicatorSignal},
                 {sim::SignalCts, QSerialPort::ClearToSendSignal}};
    for (const auto& pair : pairs) {
        endpoint.setModemSignals(pair.line);
        EXPECT_EQ(endpoint.modemSignals(), pair.line);
        EXPECT_EQ(port.pinoutSignals(), QSerialPort::PinoutSignals(pair.pin));
    }
    endpoint.setModemSignals(sim::SignalDsr | sim::SignalCts);
    EXPECT_EQ(port.pinoutSignals(),
              QSerialPort::PinoutSignals(QSerialPort::DataSetReadySignal | QSerialPort::ClearToSendSignal));
    endpoint.setModemSignals(0);
    EXPECT_EQ(port.pinoutSignals(), QSerialPort::PinoutSignals(QSerialPort::NoSignal));
    EXPECT_EQ(port.error(), QSerialPort::NoError);
}

TEST_F(PtyEndpointTest, ProgramSignalsAreSeenByTheModemAtOnce)
{
    PtyEndpoint endpoint;
    QSerialPort port;
    ASSERT_TRUE(open(port, endpoint));
    EXPECT_FALSE(endpoint.programSignals() & sim::SignalDtr);
    ASSERT_TRUE(port.setDataTerminalReady(true)) << port.errorString().toStdString();
    EXPECT_TRUE(endpoint.programSignals() & sim::SignalDtr);
    EXPECT_TRUE(endpoint.programSetsSignals());
    ASSERT_TRUE(port.setRequestToSend(true));
    EXPECT_EQ(endpoint.programSignals(), sim::SignalDtr | sim::SignalRts);
    EXPECT_EQ(port.pinoutSignals(),
              QSerialPort::PinoutSignals(QSerialPort::DataTerminalReadySignal | QSerialPort::RequestToSendSignal));
    ASSERT_TRUE(port.setDataTerminalReady(false));
    EXPECT_EQ(endpoint.programSignals(), sim::SignalRts);
    EXPECT_EQ(endpoint.dtrDrops(), 1u);
    ASSERT_TRUE(port.setRequestToSend(false));
    EXPECT_EQ(endpoint.programSignals(), 0);
}

TEST_F(PtyEndpointTest, AShortDropOfDtrIsCounted)
{
    PtyEndpoint endpoint;
    QSerialPort port;
    ASSERT_TRUE(open(port, endpoint));
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(port.setDataTerminalReady(true));
        ASSERT_TRUE(port.setDataTerminalReady(false));
    }
    ASSERT_TRUE(port.setDataTerminalReady(false));
    EXPECT_EQ(endpoint.dtrDrops(), 3u);
}

TEST_F(PtyEndpointTest, SetReplacesBothSignalsAndNothingElse)
{
    PtyEndpoint endpoint;
    const int fd = openFd(endpoint);
    endpoint.setModemSignals(sim::SignalDsr);
    int lines = TIOCM_RTS | TIOCM_CAR;
    ASSERT_EQ(ioctl(fd, TIOCMSET, &lines), 0);
    EXPECT_EQ(endpoint.programSignals(), sim::SignalRts);
    EXPECT_EQ(endpoint.modemSignals(), sim::SignalDsr);
    lines = TIOCM_DTR;
    ASSERT_EQ(ioctl(fd, TIOCMSET, &lines), 0);
    EXPECT_EQ(endpoint.programSignals(), sim::SignalDtr);
}

TEST_F(PtyEndpointTest, SignalsOfOnePtyAreNotThoseOfAnother)
{
    PtyEndpoint first;
    PtyEndpoint second;
    QSerialPort port;
    ASSERT_TRUE(open(port, second));
    first.setModemSignals(sim::SignalDsr | sim::SignalDcd);
    EXPECT_EQ(port.pinoutSignals(), QSerialPort::PinoutSignals(QSerialPort::NoSignal));
    ASSERT_TRUE(port.setDataTerminalReady(true));
    EXPECT_EQ(first.programSignals(), 0);
}

TEST_F(PtyEndpointTest, APtyWithoutAnEndpointHasNoSignals)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(unlockpt(master), 0);
    m_fd = ::open(ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(m_fd, 0);
    int lines = 0;
    EXPECT_EQ(ioctl(m_fd, TIOCMGET, &lines), -1);
    ::close(master);
}

TEST_F(PtyEndpointTest, BytesPassBothWaysUnchanged)
{
    PtyEndpoint endpoint;
    QSerialPort port;
    ASSERT_TRUE(open(port, endpoint));
    QByteArray all;
    for (int i = 0; i < 256; ++i)
        all.append(static_cast<char>(i));
    ASSERT_EQ(port.write(all), all.size());
    QByteArray seen;
    ASSERT_TRUE(waitFor([&] {
        seen += endpoint.read();
        return seen.size() >= all.size();
    }));
    EXPECT_EQ(seen, all);
    ASSERT_EQ(endpoint.write(all), all.size());
    seen.clear();
    ASSERT_TRUE(waitFor([&] {
        seen += port.readAll();
        return seen.size() >= all.size();
    }));
    EXPECT_EQ(seen, all);
}

TEST_F(PtyEndpointTest, BytesWrittenBeforeThePortIsConfiguredAreNeitherEchoedNorCooked)
{
    PtyEndpoint endpoint;
    const int fd = openFd(endpoint);
    ASSERT_EQ(::write(fd, "AT\r\n\x03", 5), 5);
    QByteArray seen;
    ASSERT_TRUE(waitFor([&] {
        seen += endpoint.read();
        return seen.size() >= 5;
    }));
    EXPECT_EQ(seen, QByteArray("AT\r\n\x03"));
    ASSERT_EQ(endpoint.write("\r\nOK\r\n"), 6);
    ASSERT_EQ(pollFor(fd, POLLIN, rig::defaultDeadlineMs), POLLIN);
    char buffer[64];
    EXPECT_EQ(::read(fd, buffer, sizeof(buffer)), 6);
    EXPECT_EQ(QByteArray(buffer, 6), QByteArray("\r\nOK\r\n"));
    EXPECT_EQ(endpoint.read(), QByteArray());
}

TEST_F(PtyEndpointTest, TheMasterSurvivesTheProgramsCloseAndReopen)
{
    PtyEndpoint endpoint;
    for (int i = 0; i < 3; ++i) {
        QSerialPort port;
        ASSERT_TRUE(open(port, endpoint));
        ASSERT_EQ(port.write("AT\r"), 3);
        QByteArray seen;
        ASSERT_TRUE(waitFor([&] {
            seen += endpoint.read();
            return seen.size() >= 3;
        }));
        EXPECT_EQ(seen, QByteArray("AT\r"));
        port.close();
    }
    EXPECT_TRUE(endpoint.isOpen());
}

TEST_F(PtyEndpointTest, TheProgramsSpeedIsSeen)
{
    PtyEndpoint endpoint;
    QSerialPort port;
    ASSERT_TRUE(open(port, endpoint));
    for (int rate : {1200, 9600, 57600, 115200, 921600, 33600}) {
        ASSERT_TRUE(port.setBaudRate(rate)) << rate;
        EXPECT_EQ(endpoint.baudRate(), rate);
    }
}

TEST_F(PtyEndpointTest, AnUnpluggedPortFailsAndComesBackUnderTheSameLink)
{
    PtyEndpoint endpoint(linkPath());
    ASSERT_TRUE(endpoint.isOpen()) << endpoint.errorString().toStdString();
    EXPECT_EQ(endpoint.portPath(), linkPath());
    EXPECT_TRUE(QFileInfo(linkPath()).isSymLink());
    endpoint.setDepth(77);
    QSerialPort port;
    ASSERT_TRUE(open(port, endpoint)) << port.errorString().toStdString();
    ASSERT_TRUE(port.setDataTerminalReady(true));
    endpoint.setModemSignals(sim::SignalDsr);

    endpoint.unplug();
    EXPECT_FALSE(endpoint.isOpen());
    EXPECT_FALSE(QFileInfo(linkPath()).isSymLink());
    EXPECT_FALSE(QFile::exists(linkPath()));
    EXPECT_EQ(endpoint.write("x"), -1);
    EXPECT_EQ(endpoint.read(), QByteArray());
    EXPECT_EQ(port.pinoutSignals(), QSerialPort::PinoutSignals(QSerialPort::NoSignal));
    EXPECT_NE(port.error(), QSerialPort::NoError);
    QSerialPort again;
    EXPECT_FALSE(open(again, endpoint));

    ASSERT_TRUE(endpoint.plugIn()) << endpoint.errorString().toStdString();
    EXPECT_EQ(endpoint.portPath(), linkPath());
    EXPECT_EQ(endpoint.programSignals(), 0);
    EXPECT_EQ(endpoint.modemSignals(), 0);
    port.close();
    QSerialPort fresh;
    ASSERT_TRUE(open(fresh, endpoint)) << fresh.errorString().toStdString();
    endpoint.setModemSignals(sim::SignalDsr);
    EXPECT_EQ(fresh.pinoutSignals(), QSerialPort::PinoutSignals(QSerialPort::DataSetReadySignal));
    ASSERT_EQ(fresh.write(QByteArray(100, 'z')), 100);
    EXPECT_TRUE(waitFor([&] { return endpoint.bytesFromProgram() == 77; }));
}

TEST_F(PtyEndpointTest, ALinkThatCannotBeMadeIsReported)
{
    PtyEndpoint endpoint(rig::installRoot() + QStringLiteral("/no/such/place"));
    EXPECT_FALSE(endpoint.isOpen());
    EXPECT_TRUE(endpoint.errorString().contains(QStringLiteral("cannot make the link")))
        << endpoint.errorString().toStdString();
}

TEST_F(PtyEndpointTest, AStaleLinkIsReplacedAndTheLinkOfAnotherIsLeft)
{
    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/pts/99999"), linkPath()));
    {
        PtyEndpoint first(linkPath());
        ASSERT_TRUE(first.isOpen());
        PtyEndpoint second(linkPath());
        ASSERT_TRUE(second.isOpen());
        first.unplug();
        EXPECT_TRUE(QFile::exists(linkPath()));
    }
    EXPECT_FALSE(QFileInfo(linkPath()).isSymLink());
}
