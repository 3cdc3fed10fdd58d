// The end of a line that speaks by hand: it knows how to shake hands and to seal frames, and
// keeps to no other rule. What it says is up to whoever it belongs to.
#pragma once

#include "host/session/opening.h"
#include "host/session/sessionframes.h"
#include "rig/host/sealedpeer.h"
#include "rig/rng.h"
#include "tests/soak/hubline.h"

#include <QByteArray>

#include <cstdint>
#include <memory>

namespace soak {

class HubCaller
{
public:
    // Nothing is owned. Speaks at end 1 of the line.
    HubCaller(HubLine* line, rig::Rng* rng) : m_line(line), m_rng(rng) {}
    virtual ~HubCaller() = default;
    HubCaller(const HubCaller&) = delete;
    HubCaller& operator=(const HubCaller&) = delete;

    [[nodiscard]] bool isLost() const { return m_line->isLost(1); }
    [[nodiscard]] bool mayTalk() const { return m_writer.isUsable() && !isLost(); }
    [[nodiscard]] HubLine& line() { return *m_line; }

    void beginCall(); // nothing of the last one is left
    bool shakeHands(const std::shared_ptr<const host::KeyPair>& key);
    void hear(); // what has arrived
    void say(host::FrameType type, const QByteArray& payload = QByteArray());
    // As much as the line takes; the rest waits for it.
    void write(QByteArray bytes);
    // An offer of content, and its bytes from offset on as far as sent, which is not always all.
    void offer(const host::OfferFrame& offer, const QByteArray& content, int sent);

protected:
    virtual void onFrame(const host::Frame& frame) = 0;
    virtual void onDamage() = 0; // what comes behind the handshake does not open

    QByteArray random(int size);
    // A frame of State with so many identifiers, and a quarter as many parts, as far as it holds them.
    QByteArray state(bool isLast, int ids);
    virtual quint64 anyId() { return m_rng->next() | 1; }

    static constexpr std::int64_t turnNs = 200 * rig::nsPerMs;

    HubLine* const m_line;
    rig::Rng* const m_rng;
    rig::TestDirectory m_directory;
    std::unique_ptr<host::Opening> m_opening; // null once frames come
    host::FrameWriter m_writer;
    host::FrameReader m_reader;
    bool m_hearsFrames = false;
    qint64 m_bytesHeard = 0;
    QByteArray m_heard; // in this call
    QByteArray m_said; // in this call
    bool m_changesBits = false;
};

} // namespace soak
