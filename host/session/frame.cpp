#include "host/session/frame.h"

#include <QtEndian>

#include <algorithm>

namespace host {

namespace {

bool isFrameType(quint8 type)
{
    return type >= static_cast<quint8>(FrameType::Hello) && type <= static_cast<quint8>(FrameType::Stop);
}

} // namespace

void FrameWriter::append(FrameType type, const QByteArray& payload, QByteArray* out)
{
    Q_ASSERT(payload.size() <= maxFramePayloadBytes);
    const int before = out->size();
    const int plainBytes = frameTypeBytes + payload.size();
    out->resize(before + frameLengthBytes + plainBytes + noiseTagBytes);
    char* const length = out->data() + before;
    char* const sealed = length + frameLengthBytes;
    qToBigEndian(static_cast<quint16>(plainBytes + noiseTagBytes), length);
    sealed[0] = static_cast<char>(type);
    std::copy(payload.cbegin(), payload.cend(), sealed + frameTypeBytes);
    if (!m_cipher.sealInPlace(sealed, plainBytes))
        out->truncate(before);
}

void FrameReader::append(const QByteArray& bytes)
{
    if (m_damaged)
        return;
    if (m_position > 0) {
        m_buffer.remove(0, m_position);
        m_position = 0;
    }
    m_buffer.append(bytes);
}

FrameReader::Result FrameReader::next(Frame* frame)
{
    if (m_damaged)
        return Result::Damaged;
    while (m_buffer.size() - m_position >= frameLengthBytes && m_buffer.at(m_position) == 0 &&
           m_buffer.at(m_position + 1) == 0)
        m_position += frameLengthBytes;
    const int available = m_buffer.size() - m_position;
    if (available < frameLengthBytes)
        return Result::None;
    char* const start = m_buffer.data() + m_position;
    const int length = qFromBigEndian<quint16>(start);
    if (length < frameTypeBytes + noiseTagBytes || length > frameTypeBytes + maxFramePayloadBytes + noiseTagBytes) {
        m_damaged = true;
        return Result::Damaged;
    }
    if (available < frameLengthBytes + length)
        return Result::None;
    char* const opened = start + frameLengthBytes;
    if (!m_cipher.openInPlace(opened, length) || !isFrameType(static_cast<quint8>(opened[0]))) {
        m_damaged = true;
        return Result::Damaged;
    }
    m_position += frameLengthBytes + length;
    frame->type = static_cast<FrameType>(opened[0]);
    frame->payload = QByteArray::fromRawData(opened + frameTypeBytes, length - frameTypeBytes - noiseTagBytes);
    return Result::Frame;
}

} // namespace host
