// Two sessions over a line in memory: bytes arrive in pieces of random size, the clock is
// a number, the line breaks after any number of bytes.
#pragma once

#include "host/session/session.h"
#include "rig/host/memorystore.h"
#include "rig/host/sealedpeer.h"
#include "rig/randombytes.h"

#include <QByteArray>

#include <functional>
#include <memory>
#include <random>
#include <vector>

namespace hosttest {

using rig::randomBytes;

struct LineOptions
{
    int pieceBytes = 1014; // what one write takes
    int queueBytes = 10240; // what the channel holds at most
    int bytesPerStep = 1 << 20; // delivered in one step each way
    int stepMs = 10;
    qint64 cutAfterBytes = -1; // of both directions together; -1: never
    bool sleeps = false; // a session has a turn only when it asked for one, or when bytes came
};

class SessionPair
{
public:
    explicit SessionPair(unsigned seed, const LineOptions& options = {});

    // New sessions over the same stores, on a whole line. The clock goes on.
    void connect(const LineOptions& options);
    void connect() { connect(m_options); }

    void step();
    // Steps until both sessions ended; false when they had not after limitMs of the clock.
    bool runToEnd(qint64 limitMs = 3600 * 1000);
    bool runUntil(const std::function<bool()>& condition, qint64 limitMs = 600 * 1000);

    struct Side
    {
        rig::MemoryStore store;
        host::SessionSettings settings;
        rig::TestDirectory directory;
        std::unique_ptr<host::Session> session;
        QByteArray wire; // on its way to this side
        qint64 receivedBytes = 0;
        std::vector<host::SessionEvent> events;
        bool silent = false; // its bytes are lost
        // What a test does to the bytes on their way to this side.
        std::function<QByteArray(const QByteArray&)> tamper;

        int count(host::SessionEvent::Kind kind) const;
        const host::SessionEvent* last(host::SessionEvent::Kind kind) const;
    };

    struct Said
    {
        qint64 atMs;
        bool byCaller;
        int bytes;
        bool operator==(const Said& other) const
        {
            return atMs == other.atMs && byCaller == other.byCaller && bytes == other.bytes;
        }
    };

    Side a; // calls
    Side b;
    std::vector<Said> said; // all that was written, also what was lost
    int turns = 0; // of both
    qint64 nowMs = 1000;
    qint64 carriedBytes = 0; // both directions, on this connection
    bool isCut() const { return m_isCut; }

private:
    bool deliver(Side& side);
    bool takesTurn(const Side& side, bool hasReceived) const;
    void pump(Side& from, Side& to);

    LineOptions m_options;
    std::mt19937 m_random;
    bool m_isCut = false;
};

} // namespace hosttest
