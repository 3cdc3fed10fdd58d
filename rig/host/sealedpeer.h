// The other end of a session, its frames written by hand behind a real handshake; and a
// directory that knows the keys a test tells it.
#pragma once

#include "host/session/frame.h"
#include "host/session/opening.h"
#include "host/session/session.h"

#include <map>
#include <memory>
#include <optional>
#include <set>

namespace rig {

// A key of that number: the same one each time.
std::shared_ptr<const host::KeyPair> testKey(int number);

class TestDirectory : public host::PeerDirectory
{
public:
    Verdict whoCalls(const QByteArray& publicKey) override { return look(publicKey); }
    Verdict whoAnswers(const QString& calledAbonent, const QByteArray& publicKey) override;
    std::optional<Verdict> whyExpelled(const host::Peer& peer) override;

    std::map<QByteArray, QString> names; // proved, by key
    QString everybodyElse; // proved under this name; empty: they are unknown
    bool acceptsUnknown = false; // as unproved
    std::optional<Verdict::Cause> refusal; // of everybody
    QString called; // of the last question about a call of ours
    std::set<QByteArray> blockedKeys; // of those who are in
    int timesAsked = 0; // whether one who is in may stay

private:
    Verdict look(const QByteArray& publicKey) const;
};

class SealedPeer
{
public:
    // isCaller: it calls the session.
    explicit SealedPeer(bool isCaller, std::shared_ptr<const host::KeyPair> key = testKey(99));

    // Up to the first sealed frame; false when the handshake fails.
    bool shakeHands(host::Session* session, qint64 nowMs);

    // Bytes of a frame; sent to nobody.
    QByteArray seal(host::FrameType type, const QByteArray& payload = QByteArray())
    {
        return m_writer.write(type, payload);
    }

    // What came from the session.
    void append(const QByteArray& bytes);
    // The frame may be kept.
    host::FrameReader::Result next(host::Frame* frame)
    {
        const host::FrameReader::Result result = m_reader.next(frame);
        frame->payload.detach();
        return result;
    }

    [[nodiscard]] bool isOpen() const { return m_writer.isUsable(); }

private:
    TestDirectory m_directory;
    host::Opening m_opening;
    host::FrameWriter m_writer;
    host::FrameReader m_reader;
    bool m_hears = false;
};

} // namespace rig
