// The frames of a session: how they are written into the byte stream of a channel and
// taken out of it again.
//
//   type (1) | payload length (2, big-endian) | payload | CRC-32 (4, big-endian)
//
// The check covers all that was said in this direction so far: of this frame and of each
// before it the number (4 bytes big-endian, counted from 0 and not sent), the type, the
// length and the payload. A frame that was lost, repeated, moved or changed on the way
// does not pass, nor does one of the other direction: a modem that has lost its carrier
// echoes what is still written to it, and the first frames of two sides always differ.
#pragma once

#include <QByteArray>

namespace host {

constexpr int frameHeaderBytes = 1 + 2;
constexpr int frameCheckBytes = 4;
constexpr int frameOverheadBytes = frameHeaderBytes + frameCheckBytes;
constexpr int maxFramePayloadBytes = 16384;

enum class FrameType : quint8 {
    Hello = 1,    // who are you
    State = 2,    // what have you got: messages stored, parts of messages
    Offer = 3,    // a message begins; Data frames follow up to its size
    Data = 4,     // the next bytes of the offered message
    Abort = 5,    // the offered message's data ends here
    Stored = 6,   // offers that were verified and stored
    Refused = 7,  // an offer that was not
    Settled = 8,  // so many acknowledgements were taken note of
    Alive = 9,    // nothing to say
    Finish = 10,  // nothing left to send, until something is
    Continue = 11, // takes a Finish back
    Bye = 12,     // shall we end?
    ByeYes = 13,
    ByeNo = 14,
    Stop = 15,    // this side ends the session now, with the reason
};

struct Frame
{
    FrameType type = FrameType::Alive;
    QByteArray payload;
};

// Numbers and writes the frames of one direction.
class FrameWriter
{
public:
    // payload: at most maxFramePayloadBytes.
    [[nodiscard]] QByteArray write(FrameType type, const QByteArray& payload);

private:
    quint32 m_nextNumber = 0;
    quint32 m_lastCheck = 0;
};

// Cuts the frames of one direction out of a stream that comes in pieces of any size.
class FrameReader
{
public:
    enum class Result { None, Frame, Damaged };

    void append(const QByteArray& bytes);

    // Frame: one frame was taken out. None: more bytes are needed. Damaged: the stream is
    // broken (for good, every later call says the same).
    Result next(Frame* frame);

private:
    QByteArray m_buffer;
    int m_position = 0;
    quint32 m_nextNumber = 0;
    quint32 m_lastCheck = 0;
    bool m_damaged = false;
};

} // namespace host
