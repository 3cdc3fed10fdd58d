// What the limits of the send window cost a line that loses nothing, in simulated time.
#include "com/link/ccomchannel.h"
#include "rig/line/line.h"
#include "rig/line/turns.h"
#include "rig/runs/runprocess.h"
#include "rig/silentstate.h"

#include <QSerialPort>
#include <gtest/gtest.h>

namespace {

using rig::nowNs;
using rig::nsPerMs;
using rig::nsPerS;

// One end: a host that reads every 10 ms and writes as much as the channel takes.
class End
{
public:
    End(int end, int payloadBytes) : m_payload(payloadBytes, 'x'), m_channel(&m_port, &m_state, end)
    {
        m_port.setPortName(QString::fromStdString(rig::Line::path(end)));
        EXPECT_TRUE(m_port.open(QIODevice::ReadWrite));
    }

    std::int64_t nextTurnNs() const { return m_nextTurnNs; }
    std::int64_t receivedBytes() const { return m_receivedBytes; }

    void turn()
    {
        rig::readAll(m_channel, 1 << 16, [this](const QByteArray& bytes) { m_receivedBytes += bytes.size(); });
        while (!m_payload.isEmpty() && m_channel.idealBlockSize() > 0)
            m_channel.write(m_payload);
        m_nextTurnNs = nowNs() + 10 * nsPerMs;
    }

private:
    QByteArray m_payload; // of each write; empty: writes nothing
    QSerialPort m_port;
    rig::SilentState m_state;
    CComChannel m_channel;
    std::int64_t m_nextTurnNs = 0;
    std::int64_t m_receivedBytes = 0;
};

struct SmallPackets
{
    const char* name;
    int lineBytesPerS;
    int payloadBytes;
    int roundTripMs;
    int unlimitedBytesPerS; // payload, with a window that knows no lag
};

class LossFreeLine : public testing::TestWithParam<SmallPackets>
{
};

} // namespace

// Here a packet waits for its confirmation longer than the resend interval now and then, though
// nothing was lost. What follows such a repeat must not slow the stream down.
TEST_P(LossFreeLine, ARepeatThatCameTooEarlyCostsLittle)
{
    const SmallPackets& stream = GetParam();
    constexpr int measuredS = 300;
    rig::beginRunProcess();
    rig::LineSettings settings;
    settings.bitsPerSecond = stream.lineBytesPerS * 10;
    settings.delayNs = stream.roundTripMs * nsPerMs / 2;
    rig::Line line(settings, 1);
    std::array<End, 2> ends{End(0, stream.payloadBytes), End(1, 0)};
    while (nowNs() < measuredS * nsPerS)
        rig::awaitNextTurn(ends).turn();
    EXPECT_GE(ends[1].receivedBytes() / measuredS, 0.95 * stream.unlimitedBytesPerS);
}

INSTANTIATE_TEST_SUITE_P(Streams, LossFreeLine,
                         testing::Values(SmallPackets{"Of8BytesAt1440", 1440, 8, 200, 606},
                                         SmallPackets{"Of30BytesAt3360", 3360, 30, 500, 2454},
                                         SmallPackets{"Of40BytesAt4200", 4200, 40, 500, 3288},
                                         SmallPackets{"Of30BytesAt4200", 4200, 30, 1000, 2172}),
                         [](const auto& stream) { return stream.param.name; });
