// Two channels over a bad line: what arrives is what was sent, in order and once, and in
// the end it all arrives.
#include "tests/link/channelfixture.h"
#include "tests/link/linesimulator.h"

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
    for (const int percent : {1, 5, 15, 40}) {
        LineFaults faults;
        faults.lostPercent = percent;
        expectDelivered(faults, smallPackets, 3);
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
    expectDelivered(faults, smallPackets, 3);
}

TEST_F(BadLine, WithAllFaultsDelivers)
{
    LineFaults faults;
    faults.lostPercent = 10;
    faults.doubledPercent = 10;
    faults.damagedPercent = 10;
    faults.minDelayMs = 5;
    faults.maxDelayMs = 200;
    expectDelivered(faults, smallPackets, 5);
}

TEST_F(BadLine, ThatIsOutForAWhileDelivers)
{
    LineFaults faults;
    faults.lostPercent = 5;
    faults.minDelayMs = 20;
    faults.maxDelayMs = 120;
    faults.outageEveryMs = 3000;
    faults.outageMs = 900;
    expectDelivered(faults, smallPackets, 5);
}

TEST_F(BadLine, CarriesFullPacketsToo)
{
    LineFaults faults;
    faults.lostPercent = 10;
    faults.damagedPercent = 5;
    faults.maxDelayMs = 50;
    expectDelivered(faults, {60000, 1024}, 3);
}
