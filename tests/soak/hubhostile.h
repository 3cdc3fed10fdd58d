// Somebody who calls an installation and keeps to no rule: silence, noise, frames of every
// kind at every moment, endless ones, other people's identifiers, stubs that grow.
#pragma once

#include "host/session/opening.h"
#include "host/session/sessionframes.h"
#include "tests/host/sealedpeer.h"
#include "tests/soak/checks.h"
#include "tests/soak/hubledger.h"
#include "tests/soak/hubline.h"
#include "tests/soak/rng.h"

#include <QByteArray>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace soak {

class HubHostile
{
public:
    // Nothing is owned. Speaks at end 1 of the line. isLetIn: the other side takes whoever it
    // does not know, as unproved. tapped: a line of others, of which it has heard all.
    HubHostile(HubLine* line, HubLine* tapped, HubLedger* ledger, Checks* checks, Rng* rng, bool isLetIn)
        : m_line(line), m_tapped(tapped), m_ledger(ledger), m_checks(checks), m_rng(rng), m_isLetIn(isLetIn)
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
        Count
    };

    void begin(Manner manner);
    void open();
    void halfAHandshake();
    void hear();
    void judge(const host::Frame& frame);
    void checkIds(const host::StateFrame& state);
    void endOfCall();
    bool shakeHands();
    void misbehave(Manner manner);
    QByteArray anyFrame();
    QByteArray state(bool isLast);
    quint64 anyId();
    void offer(quint64 id, const QByteArray& content, qint64 claimedSize, qint64 offset);
    void say(host::FrameType type, const QByteArray& payload = QByteArray());
    void write(QByteArray bytes);
    bool isLost() const { return m_line->isLost(1); }
    QByteArray random(int size);

    HubLine* const m_line; // not owned
    HubLine* const m_tapped; // not owned
    HubLedger* const m_ledger; // not owned
    Checks* const m_checks; // not owned
    Rng* const m_rng; // not owned
    const bool m_isLetIn;
    hosttest::TestDirectory m_directory;
    std::unique_ptr<host::Opening> m_opening; // null once frames come
    host::FrameWriter m_writer;
    host::FrameReader m_reader;
    bool m_hearsFrames = false;
    int m_framesHeard = 0;
    qint64 m_bytesHeard = 0;
    QByteArray m_heard; // in this call
    QByteArray m_said; // in this call
    QByteArray m_earlier; // heard or said in one before
    bool m_changesBits = false;
    quint64 m_stubId = 0;
    QByteArray m_stub;
};

} // namespace soak
