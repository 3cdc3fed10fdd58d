// The frames of a session: how they are written into the byte stream of a channel and
// taken out of it again.
//
//   length of the rest (2, big-endian) | sealed: type (1), payload | tag (16)
//
// Each direction has a key of its own from the handshake, and counts its frames. So a frame cannot be
// opened if one was lost, repeated, moved, cut or changed on the way, if it belongs to another call,
// or if it is one of ours (a modem that has lost its carrier echoes what is still written to it).
// Somebody who listens learns only when frames were sent and how long they were.
//
// A length of 0 is a filler: two bytes that only make the link deliver what it holds. Anybody could
// have sent them.
#pragma once

#include "host/session/noisecipher.h"

#include <QByteArray>

namespace host {

constexpr int frameLengthBytes = 2;
constexpr int frameTypeBytes = 1;
constexpr int frameOverheadBytes = frameLengthBytes + frameTypeBytes + noiseTagBytes;
constexpr int maxFramePayloadBytes = 16384;

enum class FrameType : quint8
{
    Hello = 1, // who are you
    State = 2, // what have you got: messages stored, parts of messages
    Offer = 3, // a message begins; Data frames follow up to its size
    Data = 4, // the next bytes of the offered message
    Abort = 5, // the offered message's data ends here
    Stored = 6, // offers that were verified and stored
    Refused = 7, // an offer that was not
    Settled = 8, // so many acknowledgements have arrived
    Alive = 9, // nothing to say
    Finish = 10, // nothing left to send at the moment
    Continue = 11, // takes a Finish back
    Bye = 12, // shall we end?
    ByeYes = 13,
    ByeNo = 14,
    Stop = 15, // this side ends the session now, with the reason
};

struct Frame
{
    FrameType type = FrameType::Alive;
    QByteArray payload; // from a FrameReader: its bytes belong to the reader
};

[[nodiscard]] inline QByteArray frameFiller()
{
    return QByteArray(frameLengthBytes, '\0');
}

// Seals the frames of one direction.
class FrameWriter
{
public:
    FrameWriter() = default; // without a key: nothing can be written
    explicit FrameWriter(NoiseCipher cipher) : m_cipher(std::move(cipher)) {}

    [[nodiscard]] bool isUsable() const { return m_cipher.isUsable(); }

    // Appends a frame to out, or nothing when it cannot be sealed. payload: at most
    // maxFramePayloadBytes.
    void append(FrameType type, const QByteArray& payload, QByteArray* out);

    [[nodiscard]] QByteArray write(FrameType type, const QByteArray& payload)
    {
        QByteArray bytes;
        append(type, payload, &bytes);
        return bytes;
    }

private:
    NoiseCipher m_cipher;
};

// Cuts the frames of one direction out of a stream that comes in pieces of any size.
class FrameReader
{
public:
    FrameReader() = default; // without a key: nothing opens
    explicit FrameReader(NoiseCipher cipher) : m_cipher(std::move(cipher)) {}

    enum class Result
    {
        None,
        Frame,
        Damaged
    };

    void append(const QByteArray& bytes);

    // Whether a frame has begun to come in.
    [[nodiscard]] bool isInFrame() const { return m_buffer.size() - m_position >= frameLengthBytes; }

    // Frame: one frame was taken out. Its payload is valid until the reader is used again or
    // deleted; to keep it, copy it (QByteArray::detach). None: more bytes are needed. Damaged: the
    // stream is broken; every later call says so, too.
    Result next(Frame* frame);

private:
    QByteArray m_buffer;
    int m_position = 0;
    NoiseCipher m_cipher;
    bool m_damaged = false;
};

} // namespace host
