// Whatever a line loses and however its ends pause: what an adaptive sender sends arrives, in order and
// within the peer's window, and all of it does.
#include "com/link/confirmationpace.h"
#include "rig/randombytes.h"
#include "rig/rng.h"
#include "rig/testroot.h"
#include "tests/link/receivingpeer.h"
#include "tests/link/senderbed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>

using namespace linktest;

namespace {

constexpr qint64 ms = 1000;
constexpr qint64 s = 1000 * ms;

struct Habits // of one run, all drawn
{
    qint64 lineBytesPerS;
    qint64 delayUs; // one way
    double lossRate;
    double confirmationLossRate;
    double burstEveryUs; // on average; 0: none
    qint64 burstUs; // at most
    qint64 outageFromUs; // the line takes everything and carries nothing, once
    qint64 outageUs; // 0: never
    SenderBed::Port port;
    qint64 passUs; // between two passes at most; now and then the next one
    qint64 sleepUs;
    qint64 confirmEveryUs;
    bool isPeerAdaptive;
    double writeRate; // how often in a pass the host has something to say
    int mostPayloadBytes;
};

Habits draw(rig::Rng& random)
{
    Habits habits;
    habits.lineBytesPerS = static_cast<qint64>(random.logBetween(500, 100'000));
    habits.delayUs = random.oneOf<qint64>({0, 20 * ms, 100 * ms, 500 * ms});
    habits.lossRate = random.chance(0.25) ? 0 : random.logBetween(1e-3, 0.3);
    habits.confirmationLossRate = random.chance(0.25) ? 0 : random.logBetween(1e-3, 0.4);
    habits.burstEveryUs = random.chance(0.5) ? 0 : random.logBetween(1e6, 1e8);
    habits.burstUs = random.between(1, 1000) * ms;
    habits.outageFromUs = random.between(0, 50) * s;
    habits.outageUs = random.chance(0.7) ? 0 : random.between(1, 20) * s;
    habits.port.tellsDepth = true;
    habits.port.hiddenBytes = random.chance(0.8) ? 0 : 4096;
    habits.port.bytesPerS = habits.lineBytesPerS;
    habits.passUs = random.oneOf<qint64>({2 * ms, 10 * ms, 30 * ms});
    habits.sleepUs = random.oneOf<qint64>({0, 0, 300 * ms, 2 * s});
    habits.confirmEveryUs = random.oneOf<qint64>({50 * ms, 500 * ms});
    habits.isPeerAdaptive = random.chance(0.5);
    habits.writeRate = random.oneOf({1.0, 1.0, 0.1, 0.01});
    habits.mostPayloadBytes = random.oneOf({1, 30, 1000, 1000});
    return habits;
}

// A host that writes for a while and then waits until all has arrived.
class Course
{
public:
    explicit Course(unsigned seed) : m_seed(seed), m_random(seed), m_habits(draw(m_random))
    {
        m_bed.port = m_habits.port;
        m_bed.onSent = [this](const CComPacket& packet, SenderBed::Kind kind) { launch(packet, kind); };
    }

    // What went wrong; empty if nothing did.
    std::string run(qint64 writesForUs, qint64 limitUs)
    {
        while (m_trouble.empty() && !(m_nowUs > writesForUs && m_received == m_written)) {
            m_nowUs += nextPassUs();
            deliver();
            confirm();
            pass(m_nowUs <= writesForUs);
            if (m_nowUs > limitUs)
                m_trouble = "not done: " + std::to_string(m_received) + " of " + std::to_string(m_written) + " bytes";
        }
        return m_trouble;
    }

private:
    struct Flight
    {
        qint64 arrivesUs;
        qint64 place;
        CComPacket packet;
        bool isNew;
    };
    struct Confirmation
    {
        qint64 arrivesUs;
        QVector<quint8> numbers;
    };

    qint64 nextPassUs()
    {
        const bool sleeps = m_habits.sleepUs > 0 && m_random.chance(0.01);
        return m_random.between(1, sleeps ? m_habits.sleepUs : m_habits.passUs);
    }

    bool isOut(qint64 atUs) const
    {
        return m_habits.outageFromUs <= atUs && atUs < m_habits.outageFromUs + m_habits.outageUs;
    }

    void deliver()
    {
        for (; !m_line.empty() && m_line.front().arrivesUs <= m_nowUs; m_line.pop_front()) {
            const Flight& flight = m_line.front();
            const qint64 ahead = flight.place - m_peer.expected();
            if (flight.isNew && ahead > linkrules::numberWindow)
                m_trouble = std::to_string(flight.place) + " arrives " + std::to_string(ahead) + " ahead";
            m_pace.arrived(flight.packet.number, m_peer.expectedNumber(), flight.packet.bytes.size());
            m_peer.take(flight.packet);
            for (const char byte : m_peer.takeDelivered()) {
                if (byte != rig::streamByte(m_seed, static_cast<int>(m_received++)))
                    m_trouble = "another byte at " + std::to_string(m_received - 1);
            }
        }
    }

    // An adaptive peer with nothing of its own to say answers at once, and says the previous
    // numbers again; any other one every now and then, or when many wait.
    void confirm()
    {
        if (m_peer.toConfirm() == 0)
            return;
        const bool isDue = m_nowUs - m_lastConfirmationUs > m_habits.confirmEveryUs ||
                           m_peer.toConfirm() >= linkrules::confirmAtOnceCount;
        if (!isDue && !m_habits.isPeerAdaptive)
            return;
        m_lastConfirmationUs = m_nowUs;
        const QSet<quint8> numbers = m_pace.take(m_peer.confirm(), m_habits.isPeerAdaptive, 0);
        if (isOut(m_nowUs) || m_random.chance(m_habits.confirmationLossRate))
            return;
        QVector<quint8> sorted;
        for (const quint8 number : numbers)
            sorted.append(number);
        std::sort(sorted.begin(), sorted.end());
        m_wayBack.push_back({m_nowUs + m_habits.delayUs, sorted});
    }

    void pass(bool writes)
    {
        m_bed.begin(m_nowUs);
        for (; !m_wayBack.empty() && m_wayBack.front().arrivesUs <= m_nowUs; m_wayBack.pop_front())
            m_bed.confirm(m_wayBack.front().numbers);
        if (writes && m_random.chance(m_habits.writeRate))
            write();
        m_stepsOfPass = 0;
        m_bed.steps(mostSteps + 1);
        if (m_stepsOfPass > mostSteps)
            m_trouble = "no end of a pass";
    }

    // As much as the channel takes.
    void write()
    {
        while (m_bed.queue.size() <= linkrules::maxPacketsInQueue &&
               m_bed.queuedBytes <= m_bed.sender.mostQueuedBytes()) {
            const int offered = std::min(m_bed.sender.packetBytes() - 10, m_habits.mostPayloadBytes);
            QByteArray payload(static_cast<int>(m_random.between(1, std::max(1, offered))), '\0');
            for (char& byte : payload)
                byte = rig::streamByte(m_seed, static_cast<int>(m_written++));
            m_bed.append(payload);
        }
    }

    void launch(const CComPacket& packet, SenderBed::Kind kind)
    {
        ++m_stepsOfPass;
        const bool isNew = kind != SenderBed::Kind::Repeat;
        const int ahead = linkrules::stepsFrom(m_bed.queue.first().number, packet.number);
        m_oldest += linkrules::stepsFrom(static_cast<quint8>(m_oldest), m_bed.queue.first().number);
        if (isNew && ahead > SendWindow::maxAheadOfLag)
            m_trouble = std::to_string(ahead) + " beyond the oldest";
        if (m_bed.queue.size() > linkrules::maxPacketsInQueue + 1)
            m_trouble = std::to_string(m_bed.queue.size()) + " packets queue";
        const qint64 size = packet.bytes.size();
        m_lineFreeUs = std::max(m_lineFreeUs, m_nowUs) + size * s / m_habits.lineBytesPerS;
        while (m_habits.burstEveryUs > 0 && m_burstEndsUs < m_lineFreeUs) {
            m_burstBeginsUs = m_burstEndsUs - static_cast<qint64>(m_habits.burstEveryUs * std::log1p(-m_random.unit()));
            m_burstEndsUs = m_burstBeginsUs + m_random.between(1, m_habits.burstUs);
        }
        const bool isInBurst = m_burstBeginsUs <= m_lineFreeUs && m_lineFreeUs < m_burstEndsUs;
        const bool isLost = isInBurst || isOut(m_lineFreeUs) || m_random.chance(m_habits.lossRate);
        if (!isLost)
            m_line.push_back({m_lineFreeUs + m_habits.delayUs, m_oldest + ahead, packet, isNew});
    }

    // A round of the smallest packets, as often as a silence allows it, and all that may be new.
    static constexpr int mostSteps = Silence::mostRoundBytes / 7 + 1000;

    const unsigned m_seed;
    rig::Rng m_random;
    Habits m_habits;
    SenderBed m_bed;
    ReceivingPeer m_peer;
    ConfirmationPace m_pace;
    std::deque<Flight> m_line;
    std::deque<Confirmation> m_wayBack;
    qint64 m_nowUs = 0;
    qint64 m_lineFreeUs = 0;
    qint64 m_lastConfirmationUs = 0;
    qint64 m_oldest = 1; // place of the queue's first packet
    qint64 m_written = 0;
    qint64 m_received = 0;
    int m_stepsOfPass = 0;
    qint64 m_burstBeginsUs = 0;
    qint64 m_burstEndsUs = 0;
    std::string m_trouble;
};

} // namespace

TEST(AdaptiveLimits, EverythingArrivesInOrderWithinThePeersWindow)
{
    for (unsigned run = 0; run < 100; ++run) {
        const unsigned seed = rig::seed() + run * 1000003u;
        ASSERT_EQ(Course(seed).run(60 * s, 60 * s + 600 * s), "") << "seed " << seed;
    }
}

// The last of what was repeated late was delivered alone, and held back what came before it.
TEST(AdaptiveLimits, ARunThatOnceStoodStill)
{
    EXPECT_EQ(Course(768002403).run(60 * s, 60 * s + 600 * s), "");
}
