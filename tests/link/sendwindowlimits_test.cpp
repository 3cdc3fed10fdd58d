// Whatever a line loses, and however needlessly packets are repeated: no new packet arrives so far
// ahead that the peer throws it away.
#include "com/link/linkrules.h"
#include "com/link/sendwindow.h"
#include "rig/testroot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <optional>
#include <random>

namespace {

using Place = qint64; // in the stream, from 1 on

quint8 numberOf(Place place)
{
    return static_cast<quint8>(place);
}

// The receiving channel, which knows numbers only.
class Peer
{
public:
    void take(Place place)
    {
        CComPacket packet;
        packet.number = numberOf(place);
        linkrules::dropOvertaken(m_held, numberOf(m_expected), packet.number);
        if (packet.number == numberOf(m_expected)) {
            ++m_expected;
        } else if (linkrules::numberLessThen(numberOf(m_expected), packet.number)) {
            linkrules::hold(m_held, packet);
            for (; !m_held.isEmpty() && m_held.first().number == numberOf(m_expected); ++m_expected)
                m_held.removeFirst();
        }
        m_toConfirm.append(packet.number);
    }

    Place expected() const { return m_expected; }
    int toConfirm() const { return m_toConfirm.size(); }
    QList<quint8> confirm() { return std::exchange(m_toConfirm, {}); }

private:
    Place m_expected = 1;
    QList<CComPacket> m_held;
    QList<quint8> m_toConfirm;
};

struct Habits // of one run, all drawn
{
    double lossRate;
    double confirmationLossRate;
    double burstRate; // of a burst at each packet
    int burstPackets;
    int delayTurns;
    int confirmedTogether;
    int repeatAfterTurns;
    double repeatOnAWhim; // a packet, whether needed or not
    int window;
};

Habits draw(std::mt19937_64& random)
{
    const auto between = [&](double least, double most) {
        return std::uniform_real_distribution<>(least, most)(random);
    };
    const auto oneOf = [&](int least, int most) { return std::uniform_int_distribution<>(least, most)(random); };
    Habits habits;
    habits.lossRate = std::pow(10, between(-4, -0.4)) * (oneOf(0, 3) > 0);
    habits.confirmationLossRate = std::pow(10, between(-3, -0.2)) * (oneOf(0, 3) > 0);
    habits.burstRate = std::pow(10, between(-4, -2)) * oneOf(0, 1);
    habits.burstPackets = oneOf(2, 160);
    habits.delayTurns = oneOf(1, 200);
    habits.confirmedTogether = oneOf(1, 61);
    habits.repeatAfterTurns = oneOf(20, 600);
    habits.repeatOnAWhim = std::pow(10, between(-4, -1)) * oneOf(0, 1);
    habits.window = oneOf(20, 119);
    return habits;
}

// One packet each way in a turn at most.
class Course
{
public:
    explicit Course(unsigned seed) : m_random(seed), m_habits(draw(m_random)) {}

    // What went wrong; empty if nothing did.
    std::string run(int turns)
    {
        for (int turn = 0; turn < turns; ++turn) {
            m_turn = turn;
            deliver();
            confirm();
            takeConfirmations();
            send();
            if (!m_trouble.empty())
                return m_trouble;
        }
        return m_peer.expected() < turns / 1000 ? "stands still" : "";
    }

private:
    struct Flight
    {
        int arrives;
        Place place;
        bool isNew;
    };
    struct Confirmation
    {
        int arrives;
        QList<quint8> numbers;
    };

    bool chance(double rate) { return std::uniform_real_distribution<>(0, 1)(m_random) < rate; }

    void deliver()
    {
        for (; !m_line.empty() && m_line.front().arrives <= m_turn; m_line.pop_front()) {
            const Flight& flight = m_line.front();
            const Place ahead = flight.place - m_peer.expected();
            if (flight.isNew && ahead > linkrules::numberWindow)
                m_trouble = std::to_string(flight.place) + " arrives " + std::to_string(ahead) + " ahead";
            m_peer.take(flight.place);
        }
    }

    void confirm()
    {
        const bool isDue = m_turn - m_lastConfirmation > m_habits.delayTurns && m_peer.toConfirm() > 0;
        if (!isDue && m_peer.toConfirm() < m_habits.confirmedTogether)
            return;
        m_lastConfirmation = m_turn;
        const QList<quint8> numbers = m_peer.confirm();
        if (!chance(m_habits.confirmationLossRate))
            m_wayBack.push_back({m_turn + m_habits.delayTurns, numbers});
    }

    void takeConfirmations()
    {
        for (; !m_wayBack.empty() && m_wayBack.front().arrives <= m_turn; m_wayBack.pop_front()) {
            QVector<quint8> taken;
            for (int i = m_queue.size() - 1; i >= 0; --i) {
                if (!m_wayBack.front().numbers.contains(m_queue.at(i).number))
                    continue;
                taken.prepend(m_queue.at(i).number);
                m_queue.removeAt(i);
                m_queued.erase(m_queued.begin() + i);
            }
            m_window.noteConfirmed(taken);
        }
    }

    void send()
    {
        const auto due = std::find_if(m_queued.begin(), m_queued.end(), [&](const Queued& queued) {
            return m_turn - queued.sent > m_habits.repeatAfterTurns || chance(m_habits.repeatOnAWhim);
        });
        if (due != m_queued.end()) {
            m_window.noteRepeated(numberOf(due->place), m_queue.first().number);
            due->sent = m_turn;
            launch(due->place, false);
            return;
        }
        const Place oldest = m_queued.empty() ? m_next : m_queued.front().place;
        QList<CComPacket> queue = m_queue;
        CComPacket packet;
        packet.number = numberOf(m_next);
        queue.append(packet);
        if (m_next - oldest > std::min(m_window.newPacketsLimit(queue), m_habits.window))
            return;
        m_window.noteSent(packet.number, numberOf(oldest));
        m_queue.append(packet);
        m_queued.push_back({m_next, m_turn});
        launch(m_next++, true);
    }

    void launch(Place place, bool isNew)
    {
        if (m_burstLeft == 0 && chance(m_habits.burstRate))
            m_burstLeft = m_habits.burstPackets;
        const bool isLost = m_burstLeft > 0 || chance(m_habits.lossRate);
        m_burstLeft = std::max(0, m_burstLeft - 1);
        if (!isLost)
            m_line.push_back({m_turn + m_habits.delayTurns, place, isNew});
    }

    struct Queued
    {
        Place place;
        int sent;
    };

    std::mt19937_64 m_random;
    Habits m_habits;
    SendWindow m_window;
    Peer m_peer;
    QList<CComPacket> m_queue; // as the channel keeps it: m_queued with numbers only
    std::deque<Queued> m_queued;
    Place m_next = 1;
    std::deque<Flight> m_line;
    std::deque<Confirmation> m_wayBack;
    int m_turn = 0;
    int m_lastConfirmation = 0;
    int m_burstLeft = 0;
    std::string m_trouble;
};

} // namespace

TEST(SendWindowLimits, KeepEveryNewPacketWithinThePeersWindow)
{
    for (unsigned run = 0; run < 100; ++run) {
        const unsigned seed = rig::seed() + run * 1000003u;
        ASSERT_EQ(Course(seed).run(20000), "") << "seed " << seed;
    }
}
