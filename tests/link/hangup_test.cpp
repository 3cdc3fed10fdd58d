// Hanging up over the channel, and the carrier.
#include "rig/deadline.h"
#include "sim/pty/ptyendpoint.h"
#include "tests/link/channelfixture.h"

#include <QThread>

using namespace linktest;

namespace {

const QString resetTimeoutKey = QStringLiteral("Details/transportComResetTimeout");
const QString failed = QStringLiteral("CComChannel: Не удалось разорвать соединение вовремя");
const QString command = QStringLiteral("CComThread: Запись команды: +++, ATH");

// A modem on the other side of the port: what it answers to each chunk written.
class HangUpTest : public ChannelTest
{
protected:
    void answerToEscape(const QByteArray& answer)
    {
        m_port.setLine([this, answer](const QByteArray& bytes) {
            m_chunks.append(bytes);
            if (bytes == "+++") {
                m_escapeAt = m_clock.nowMs();
                m_port.injectOnWait(answer);
            }
        });
    }

    QList<QByteArray> m_chunks;
    qint64 m_escapeAt = -1;
};

} // namespace

TEST_F(HangUpTest, WaitsTheGuardTimeThenEscapesAndHangsUpOnOk)
{
    answerToEscape("OK\r\n");
    m_channel.disconnectFromAbonent();
    EXPECT_EQ(m_chunks, (QList<QByteArray>{"+++", fromHex("4154480d0a")}));
    EXPECT_GE(m_escapeAt, 1000);
    EXPECT_LE(m_escapeAt, 1010);
    EXPECT_LT(m_clock.nowMs(), 1100);
    EXPECT_EQ(logLines(), QStringList{command});
}

TEST_F(HangUpTest, HangsUpWithoutOkAfterTheTimeout)
{
    answerToEscape("");
    m_channel.disconnectFromAbonent();
    EXPECT_EQ(m_chunks, (QList<QByteArray>{"+++", "ATH\r\n"}));
    EXPECT_GE(m_clock.nowMs() - m_escapeAt, 2000);
    EXPECT_LT(m_clock.nowMs() - m_escapeAt, 2100);
    EXPECT_EQ(logLines(), (QStringList{command, failed}));
    EXPECT_EQ(keyInFile(resetTimeoutKey).toInt(), 2000);
}

TEST_F(HangUpTest, TakesItsTimeoutFromTheSettings)
{
    setKey(resetTimeoutKey, 1100);
    answerToEscape("");
    m_channel.disconnectFromAbonent();
    EXPECT_GE(m_clock.nowMs() - m_escapeAt, 1100);
    EXPECT_LT(m_clock.nowMs() - m_escapeAt, 1200);
}

TEST_F(HangUpTest, ReplacesATimeoutOutOfRange)
{
    setKey(resetTimeoutKey, 1099);
    answerToEscape("OK\r\n");
    m_channel.disconnectFromAbonent();
    EXPECT_EQ(keyInFile(resetTimeoutKey).toInt(), 2000);
}

// Echoes and noise that come without a pause do not hold up the escape.
TEST_F(HangUpTest, ALineThatIsNeverSilentIsLeftAllTheSame)
{
    int reads = 0;
    m_port.injectOnWait("x\n");
    m_port.setAfterRead([&] {
        if (m_escapeAt >= 0 || ++reads > 1000)
            return;
        QThread::msleep(1);
        m_port.injectOnWait("x\n");
    });
    answerToEscape("OK\r\n");
    m_channel.disconnectFromAbonent();
    EXPECT_EQ(m_chunks, (QList<QByteArray>{"+++", "ATH\r\n"}));
    EXPECT_GE(m_escapeAt, 1000);
    EXPECT_LE(m_escapeAt, 1020);
    EXPECT_EQ(logLines(), QStringList{command});
}

TEST_F(HangUpTest, DoesNotTakeAnOkThatWasPending)
{
    m_port.inject("OK\r\n");
    m_port.injectOnWait("OK\r\n");
    answerToEscape("");
    m_channel.disconnectFromAbonent();
    EXPECT_EQ(logLines().last(), failed);
}

TEST_F(HangUpTest, TakesOkInAnyCaseAmongOtherLines)
{
    answerToEscape("x|~noise\r\n\r\nNO CARRIER\r\n\r\nok\r\n");
    m_channel.disconnectFromAbonent();
    EXPECT_EQ(logLines(), QStringList{command});
}

TEST_F(HangUpTest, TakesNoLineThatOnlyContainsOk)
{
    answerToEscape("OK!\r\nNOT OK\r\n OK\r\nOK");
    m_channel.disconnectFromAbonent();
    EXPECT_EQ(logLines().last(), failed);
}

TEST_F(HangUpTest, TakesAnOkThatArrivesInPieces)
{
    QByteArray pieces = "O\rK\r\n";
    m_port.setLine([&](const QByteArray& bytes) {
        if (bytes == "+++")
            m_port.injectOnWait(pieces.left(2));
        m_chunks.append(bytes);
    });
    m_port.setAfterRead([&] {
        pieces.remove(0, std::min(2, pieces.size()));
        m_port.injectOnWait(pieces.left(2));
    });
    m_channel.disconnectFromAbonent();
    EXPECT_EQ(logLines(), QStringList{command});
}

TEST_F(HangUpTest, GivesTheEscape500MsAndTheHangUpABoundedTime)
{
    m_port.setRoom(0);
    m_channel.disconnectFromAbonent();
    const QList<int> waits = m_port.takeWriteWaits();
    ASSERT_EQ(waits.size(), 2);
    EXPECT_EQ(waits[0], 500);
    EXPECT_LE(waits[1], 500);
}

TEST_F(HangUpTest, LeavesReadWorkingAsBefore)
{
    answerToEscape("OK\r\n");
    m_channel.write("queued");
    m_channel.disconnectFromAbonent();
    m_chunks.clear();
    m_port.inject(dataWire(1, "received"));
    EXPECT_EQ(read(), "received");
    EXPECT_EQ(m_chunks, (QList<QByteArray>{dataWire(1, "queued"), confirmationWire(fromHex("01"))}));
    m_clock.advanceMs(2001);
    m_port.inject(confirmationWire(fromHex("01")));
    EXPECT_EQ(read(), QByteArray());
    EXPECT_EQ(m_chunks.size(), 2); // confirmed, so not repeated
    EXPECT_EQ(reports(), (QStringList{QStringLiteral("received 7 8"), QStringLiteral("sent 7 6")}));
    EXPECT_FALSE(m_channel.isConnected());
}

// On a real port, with modem lines.

class Carrier : public testing::Test
{
protected:
    Carrier()
    {
        m_port.setPortName(m_endpoint.portPath());
        EXPECT_TRUE(m_port.open(QIODevice::ReadWrite)) << m_port.errorString().toStdString();
    }

    sim::PtyEndpoint m_endpoint;
    QSerialPort m_port;
    rig::CallLog m_calls;
    rig::RecordingChannelsState m_state{&m_calls};
    CComChannel m_channel{&m_port, &m_state, 7};
};

TEST_F(Carrier, IsWhatMakesTheChannelConnected)
{
    EXPECT_FALSE(m_channel.isConnected());
    m_endpoint.setModemSignals(sim::SignalDcd);
    EXPECT_TRUE(m_channel.isConnected());
    m_endpoint.setModemSignals(sim::SignalDsr | sim::SignalCts | sim::SignalRi);
    EXPECT_FALSE(m_channel.isConnected());
    m_endpoint.setModemSignals(sim::SignalDsr | sim::SignalDcd);
    EXPECT_TRUE(m_channel.isConnected());
}

TEST_F(Carrier, DoesNotMakeAChannelConnectedThatHungUp)
{
    setKey(resetTimeoutKey, 1100);
    m_endpoint.setModemSignals(sim::SignalDcd | sim::SignalDsr);
    m_channel.disconnectFromAbonent();
    EXPECT_FALSE(m_channel.isConnected());
    EXPECT_EQ(m_endpoint.modemSignals(), sim::SignalDcd | sim::SignalDsr);
    EXPECT_EQ(m_endpoint.read(), "+++ATH\r\n");
}

TEST_F(Carrier, IsNotAskedForOnAClosedPort)
{
    m_endpoint.setModemSignals(sim::SignalDcd);
    m_port.close();
    m_port.clearError();
    EXPECT_FALSE(m_channel.isConnected());
    EXPECT_EQ(m_port.error(), QSerialPort::NoError);
}

TEST_F(Carrier, CarriesPacketsBothWays)
{
    m_endpoint.setModemSignals(sim::SignalDcd);
    m_endpoint.write(dataWire(1, "Hello"));
    m_channel.write("A");
    QByteArray received;
    EXPECT_TRUE(rig::waitFor([&] {
        received += m_channel.read(100);
        return received == "Hello";
    }));
    EXPECT_TRUE(sameBytes(m_endpoint.read(), dataWire(1, "A")));
}
