// Two channels over a bad line: what arrives is what was sent, in order and once, and in
// the end it all arrives.
#include "tests/link/channelfixture.h"
#include "tests/link/linesimulator.h"

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

    void expectDelivered(const LineFaults& faults, const Stream& stream, int runs)
    {
        for (int run = 0; run < runs; ++run) {
            const unsigned seed = testsupport::seed() + static_cast<unsigned>(run) * 1000003u;
            ASSERT_EQ(exchange(faults, stream, seed, limitMs), Outcome::Delivered) << "run " << run << ", seed " << seed;
        }
    }
};

constexpr Stream smallPackets{4000, 7};

} // namespace

TEST_F(BadLine, WithoutFaultsDelivers)
{
    expectDelivered({}, smallPackets, 1);
}

TEST_F(BadLine, ThatLosesDelivers)
{
    for (const int percent : {2, 10, 40}) {
        LineFaults faults;
        faults.lostPercent = percent;
        expectDelivered(faults, smallPackets, 1);
    }
}

TEST_F(BadLine, ThatDoublesDelivers)
{
    LineFaults faults;
    faults.doubledPercent = 30;
    expectDelivered(faults, smallPackets, 3);
}

TEST_F(BadLine, ThatDamagesDelivers)
{
    LineFaults faults;
    faults.damagedPercent = 15;
    expectDelivered(faults, smallPackets, 3);
}

TEST_F(BadLine, ThatDelaysDelivers)
{
    LineFaults faults;
    faults.minDelayMs = 50;
    faults.maxDelayMs = 700; // beyond the repeat interval
    expectDelivered(faults, smallPackets, 1);
}

TEST_F(BadLine, WithAllFaultsDelivers)
{
    LineFaults faults;
    faults.lostPercent = 10;
    faults.doubledPercent = 10;
    faults.damagedPercent = 10;
    faults.minDelayMs = 5;
    faults.maxDelayMs = 200;
    expectDelivered(faults, smallPackets, 2);
}

TEST_F(BadLine, ThatIsOutForAWhileDelivers)
{
    LineFaults faults;
    faults.lostPercent = 5;
    faults.minDelayMs = 20;
    faults.maxDelayMs = 120;
    faults.outageEveryMs = 3000;
    faults.outageMs = 900;
    expectDelivered(faults, smallPackets, 2);
}

TEST_F(BadLine, CarriesFullPacketsToo)
{
    LineFaults faults;
    faults.lostPercent = 10;
    faults.damagedPercent = 5;
    faults.maxDelayMs = 50;
    expectDelivered(faults, {60000, 1024}, 3);
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
    testsupport::VirtualClock m_clock;
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
