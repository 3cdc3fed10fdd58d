// Somebody who calls an installation and keeps to no rule: silence, noise, frames of every
// kind at every moment, endless ones, other people's identifiers, stubs that grow.
#pragma once

#include "rig/rng.h"
#include "tests/soak/checks.h"
#include "tests/soak/hubcaller.h"
#include "tests/soak/hubledger.h"
#include "tests/soak/hubline.h"

#include <QByteArray>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace soak {

class HubHostile : public HubCaller
{
public:
    // Nothing is owned. Speaks at end 1 of the line. isLetIn: the other side takes whoever it
    // does not know, as unproved. tapped: a line of others, of which it has heard all.
    HubHostile(HubLine* line, HubLine* tapped, HubLedger* ledger, Checks* checks, rig::Rng* rng, bool isLetIn)
        : HubCaller(line, rng), m_tapped(tapped), m_ledger(ledger), m_checks(checks), m_isLetIn(isLetIn)
    {
    }

    // One call, in a fiber: until the line is lost or the stranger has had enough.
    void call();

private:
    enum class Manner
    {
        // without a key
        Silence,
        Garbage,
        Echo,
        Replay,
        ReplayOfOthers,
        ReplayOfOwn,
        HalfAHandshake,
        // with one that nobody knows
        HandshakeAgain,
        ChangedBits,
        OnlyAlive,
        EndlessState,
        EndlessStubs,
        GrowingStub,
        AnyFrames,
        Customer,
        Trickle,
        Count
    };

    void begin(Manner manner);
    void open();
    void halfAHandshake();
    void onFrame(const host::Frame& frame) override;
    void onDamage() override { m_checks->violation("says to a stranger what does not open"); }
    void checkIds(const host::StateFrame& state);
    void endOfCall();
    void misbehave(Manner manner);
    QByteArray anyFrame();
    quint64 anyId() override;
    void offerAs(quint64 id, const QByteArray& content, qint64 claimedSize, qint64 offset);
    void trickle();
    QByteArray fewIds(bool isLast) { return state(isLast, static_cast<int>(m_rng->below(20))); }

    HubLine* const m_tapped; // not owned
    HubLedger* const m_ledger; // not owned
    Checks* const m_checks; // not owned
    const bool m_isLetIn;
    int m_framesHeard = 0;
    QByteArray m_earlier; // heard or said in one before
    std::int64_t m_nextDropNs = 0; // of a message that trickles
    quint64 m_stubId = 0;
    QByteArray m_stub;
};

} // namespace soak
