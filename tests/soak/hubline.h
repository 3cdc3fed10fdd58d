// One line between two ports of a run with several, which fails as a whole or not at all: bytes
// arrive in order and whole, and are gone when the line dies, of which each end learns when it
// learns it.
#pragma once

#include "rig/line/direction.h"
#include "tests/soak/hubscenario.h"

#include <QByteArray>

#include <cstdint>

namespace soak {

// One way, of which somebody else hears the beginning.
class HubWay
{
public:
    HubWay(int bitsPerSecond, std::int64_t delayNs);

    int room(std::int64_t now); // bytes that a write takes now
    void send(const QByteArray& bytes, std::int64_t now);
    QByteArray take(std::int64_t now); // what has arrived
    std::int64_t nextArrivalNs() const; // never: nothing is under way
    std::int64_t lastArrivalNs(std::int64_t now) const;
    void clear(); // what is under way is gone
    void setDead(bool dead) { m_direction.setSilent(dead); } // what is sent from now on is gone
    // How the last call began that said anything.
    const QByteArray& tapped() const { return m_said.isEmpty() ? m_saidEarlier : m_said; }
    std::uint64_t bytesCarried() const { return m_direction.bytesCarried(); }

private:
    rig::Direction m_direction;
    QByteArray m_said; // in this call, as far as anybody taps it
    QByteArray m_saidEarlier;
};

class HubLine
{
public:
    explicit HubLine(const HubScenario::LinePlan& plan);

    const HubScenario::LinePlan plan;

    // A call stands from connect() until both ends have hung up.
    void connect();
    bool stands() const { return m_stands; }
    std::uint64_t call() const { return m_call; } // counts them
    // That end is done with the call; the other one learns it lateNs behind what was sent.
    void hangUp(int end, std::int64_t lateNs);
    // Nothing gets through any more; each end learns it at its time, or never.
    void die(std::int64_t firstLearnsNs, std::int64_t secondLearnsNs);
    bool isLost(int end) const { return rig::nowNs() >= m_learnsNs[end]; }
    std::int64_t learnsNs(int end) const { return m_learnsNs[end]; }
    // Whether somebody stands at the other end of that one, and hears it.
    bool isHeard(int end) const { return !m_hungUp[1 - end] && !m_isDead; }

    HubWay& from(int end) { return m_ways[end]; }

private:
    HubWay m_ways[2]; // by the end that writes
    bool m_stands = false;
    bool m_isDead = false;
    bool m_hungUp[2] = {true, true};
    std::int64_t m_learnsNs[2] = {rig::never, rig::never};
    std::uint64_t m_call = 0;
};

} // namespace soak
