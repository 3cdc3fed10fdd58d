#include "tests/soak/hubcaller.h"

#include "rig/time/fibers.h"

#include <algorithm>

namespace soak {

using namespace rig;

namespace {

using namespace host;

constexpr int mostHeard = 65536;
constexpr std::int64_t fullLineNs = 30 * nsPerMs; // until it is asked again for room
constexpr int dataBytes = 4000;

} // namespace

void HubCaller::beginCall()
{
    m_opening.reset();
    m_writer = FrameWriter();
    m_reader = FrameReader();
    m_hearsFrames = false;
    m_bytesHeard = 0;
    m_changesBits = false;
    m_heard.clear();
    m_said.clear();
}

bool HubCaller::shakeHands(const std::shared_ptr<const KeyPair>& key)
{
    m_directory.everybodyElse = QStringLiteral("the victim");
    m_opening = std::make_unique<Opening>(SessionCall{true, m_directory.everybodyElse}, key, &m_directory, nullptr);
    while (!isLost() && !m_opening->hasFailed()) {
        write(m_opening->takeOutput(nowNs() / nsPerMs));
        if (m_opening->maySend()) {
            m_writer = FrameWriter(m_opening->takeSending());
            return true;
        }
        Fibers::sleepFor(turnNs);
        hear();
    }
    return false;
}

void HubCaller::hear()
{
    const QByteArray bytes = m_line->from(0).take(nowNs());
    m_bytesHeard += bytes.size();
    if (m_heard.size() < mostHeard)
        m_heard += bytes;
    if (m_hearsFrames) {
        m_reader.append(bytes);
    } else if (m_opening && !bytes.isEmpty()) {
        m_opening->receive(bytes, nowNs() / nsPerMs);
        if (!m_opening->isOver())
            return;
        m_hearsFrames = true;
        m_reader = FrameReader(m_opening->takeReceiving());
        m_reader.append(m_opening->takeRest());
    }
    Frame frame;
    for (;;) {
        switch (m_reader.next(&frame)) {
        case FrameReader::Result::None: return;
        case FrameReader::Result::Damaged:
            if (m_hearsFrames)
                onDamage();
            m_hearsFrames = false;
            return;
        case FrameReader::Result::Frame: onFrame(frame); break;
        }
    }
}

void HubCaller::say(FrameType type, const QByteArray& payload)
{
    write(m_writer.write(type, payload));
}

void HubCaller::write(QByteArray bytes)
{
    if (m_changesBits && !bytes.isEmpty() && m_rng->chance(0.1)) {
        const int at = static_cast<int>(m_rng->below(static_cast<std::uint64_t>(bytes.size())));
        bytes[at] = static_cast<char>(bytes.at(at) ^ (1 << m_rng->below(8)));
    }
    if (m_said.size() < mostHeard)
        m_said += bytes;
    for (int at = 0; at < bytes.size() && !isLost();) {
        const int room = m_line->from(1).room(nowNs());
        if (room > 0) {
            m_line->from(1).send(bytes.mid(at, room), nowNs());
            at += room;
        } else {
            Fibers::sleepFor(fullLineNs);
        }
    }
}

void HubCaller::offer(const OfferFrame& offer, const QByteArray& content, int sent)
{
    say(FrameType::Offer, offer.encode());
    for (int at = static_cast<int>(offer.offset); at < sent && !isLost(); at += dataBytes)
        say(FrameType::Data, content.mid(at, std::min(dataBytes, sent - at)));
}

QByteArray HubCaller::random(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& byte : bytes)
        byte = static_cast<char>(m_rng->next());
    return bytes;
}

QByteArray HubCaller::state(bool isLast, int ids)
{
    StateFrame state;
    state.isLast = isLast;
    for (int count = std::min(ids, StateFrame::maxStoredIds); count > 0; --count)
        state.storedIds.append(m_rng->next() | 1);
    for (int count = std::min(ids / 4, StateFrame::maxParts); count > 0; --count)
        state.parts.append(MessagePart{anyId(), m_rng->between(1, 5000), QByteArray(32, 's')});
    return state.encode();
}

} // namespace soak
