// Two channels over a bad line: what arrives is what was sent, in order and once, and in
// the end it all arrives.
#include "tests/link/badline.h"
#include "tests/link/channelfixture.h"

#include <set>

using namespace linktest;

namespace {

constexpr qint64 limitMs = 3600 * 1000;

// Several hundred small packets each way, so that the numbers come round.
class BadLine : public testing::Test
{
protected:
    BadLine()
    {
        setKey(QStringLiteral("Details/transportComResendInterval"), 300);
        setKey(QStringLiteral("Details/transportComConfirmationInterval"), 100);
    }

    void expectDelivered(const Stream& stream, int runs)
    {
        for (int run = 0; run < runs; ++run) {
            const unsigned seed = rig::seed() + static_cast<unsigned>(run) * 1000003u;
            ASSERT_EQ(exchange(line, stream, seed, limitMs), Outcome::Delivered) << "run " << run << ", seed " << seed;
        }
    }

    LinePlan line;
};

constexpr Stream smallPackets{4000, 7};

} // namespace

TEST_F(BadLine, WithoutFaultsDelivers)
{
    expectDelivered(smallPackets, 1);
}

TEST_F(BadLine, ThatLosesDelivers)
{
    for (const double share : {0.02, 0.1, 0.4}) {
        line.faults.dropChunk = share;
        expectDelivered(smallPackets, 1);
    }
}

TEST_F(BadLine, ThatDoublesDelivers)
{
    line.faults.doubleChunk = 0.3;
    expectDelivered(smallPackets, 3);
}

TEST_F(BadLine, ThatDamagesDelivers)
{
    line.faults.bitErrorRate = 1e-3; // one packet of seven
    expectDelivered(smallPackets, 3);
}

TEST_F(BadLine, ThatDelaysDelivers)
{
    line.delayNs = 50 * rig::nsPerMs;
    line.faults.jitterNs = 650 * rig::nsPerMs; // beyond the repeat interval
    expectDelivered(smallPackets, 1);
}

TEST_F(BadLine, WithAllFaultsDelivers)
{
    line.faults.dropChunk = 0.1;
    line.faults.doubleChunk = 0.1;
    line.faults.bitErrorRate = 7e-4;
    line.delayNs = 5 * rig::nsPerMs;
    line.faults.jitterNs = 195 * rig::nsPerMs;
    expectDelivered(smallPackets, 2);
}

TEST_F(BadLine, ThatIsOutForAWhileDelivers)
{
    line.faults.dropChunk = 0.05;
    line.delayNs = 20 * rig::nsPerMs;
    line.faults.jitterNs = 100 * rig::nsPerMs;
    line.outageEveryMs = 3000;
    line.outageMs = 900;
    expectDelivered(smallPackets, 2);
}

TEST_F(BadLine, CarriesFullPacketsToo)
{
    line.bitsPerSecond = 921600; // so that a queue is through within the repeat interval
    line.faults.dropChunk = 0.002; // one packet of ten
    line.faults.bitErrorRate = 6e-6; // one of twenty
    line.faults.jitterNs = 50 * rig::nsPerMs;
    expectDelivered({60000, 1024}, 3);
}

// One way only, in single bytes, over a line that loses the first sending of some packets.
class LineThatLosesOnce : public testing::Test
{
protected:
    // False if what arrives is wrong, or does not arrive.
    bool isDelivered(std::set<int> lost, int length)
    {
        m_sender.port().setLine([&](const QByteArray& chunk) {
            for (const CComPacket& packet : cutPackets(chunk)) {
                if (packet.type != DataPacket || lost.erase(packet.number) == 0)
                    m_receiver.port().inject(packet.bytes);
            }
        });
        m_receiver.port().setLine([&](const QByteArray& chunk) { m_sender.port().inject(chunk); });
        while (m_receiver.received() < length) {
            m_sender.send(length, 1, m_clock.nowMs());
            if (m_clock.nowMs() > limitMs || !m_sender.receive(receiverSeed) || !m_receiver.receive(senderSeed))
                return false;
        }
        return lost.empty();
    }

    static constexpr unsigned senderSeed = 1;
    static constexpr unsigned receiverSeed = 2;
    rig::VirtualClock m_clock;
    Party m_sender{senderSeed};
    Party m_receiver{receiverSeed};
};

TEST_F(LineThatLosesOnce, DeliversBehindASingleLoss)
{
    EXPECT_TRUE(isDelivered({1}, 400));
}

TEST_F(LineThatLosesOnce, DeliversBehindAnOutageThatFollowsAFilledGap)
{
    std::set<int> lost{1};
    for (int number = 112; number <= 121; ++number)
        lost.insert(number);
    EXPECT_TRUE(isDelivered(lost, 400));
}

// A host that says little at first, one byte a packet, and then fills the queue: what is
// lost is told by the count of data packets and of confirmations on the line.
class ChatBeforeABulk : public testing::Test
{
protected:
    ChatBeforeABulk()
    {
        m_sender.port().setLine([&](const QByteArray& chunk) {
            for (const CComPacket& packet : cutPackets(chunk)) {
                m_last = packet.bytes;
                if (m_lost.count(++m_sent) == 0 && !m_losesAllButTheLast)
                    m_receiver.port().inject(packet.bytes);
            }
        });
        m_receiver.port().setLine([&](const QByteArray& chunk) {
            if (m_lostConfirmations.count(++m_confirmations) == 0)
                m_sender.port().inject(chunk);
        });
    }

    void say(int packets)
    {
        for (int i = 0; i < packets; ++i)
            m_sender.write(1);
    }

    // Time for repeats and confirmations.
    bool pass(qint64 ms)
    {
        for (const qint64 end = m_clock.nowMs() + ms; m_clock.nowMs() < end;) {
            if (!m_sender.receive(receiverSeed) || !m_receiver.receive(senderSeed))
                return false;
        }
        return true;
    }

    static constexpr unsigned senderSeed = 1;
    static constexpr unsigned receiverSeed = 2;
    static constexpr int bulk = 1000;
    rig::VirtualClock m_clock;
    Party m_sender{senderSeed};
    Party m_receiver{receiverSeed};
    std::set<int> m_lost;
    std::set<int> m_lostConfirmations;
    bool m_losesAllButTheLast = false;
    QByteArray m_last; // data packet
    int m_sent = 0;
    int m_confirmations = 0;
};

TEST_F(ChatBeforeABulk, DeliversAlthoughAnOvertakenPacketKeepsThePeerBack)
{
    gComSettings.packetSize = 12; // two bytes a packet
    // 3 arrives ahead and again in its turn: the copy stays among the held ones.
    m_lost = {1, 2};
    m_lostConfirmations = {1};
    say(3);
    ASSERT_TRUE(pass(4000));
    ASSERT_EQ(m_receiver.received(), 3);
    ASSERT_EQ(m_sent, 6);
    // 4 is repeated, so it does not release 5; nor do 6 to 13, behind the held copy of 3.
    m_lost.insert(m_sent + 1);
    say(2);
    ASSERT_TRUE(pass(4000));
    ASSERT_EQ(m_receiver.received(), 4);
    say(8);
    ASSERT_TRUE(pass(1500));
    ASSERT_EQ(m_receiver.received(), 4);
    // All that now goes out at once is lost but the last, which must be within the peer's window.
    m_losesAllButTheLast = true;
    m_sender.send(bulk, 3, m_clock.nowMs());
    ASSERT_TRUE(m_sender.receive(receiverSeed));
    m_losesAllButTheLast = false;
    m_receiver.port().inject(m_last);
    while (m_receiver.received() < bulk && m_clock.nowMs() < limitMs) {
        m_sender.send(bulk, 3, m_clock.nowMs());
        ASSERT_TRUE(pass(1));
    }
    EXPECT_GE(m_receiver.received(), bulk);
}
