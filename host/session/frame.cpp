#include "host/session/frame.h"

#include <QtEndian>

namespace host {

namespace {

bool isFrameType(quint8 type)
{
    return type >= static_cast<quint8>(FrameType::Hello) && type <= static_cast<quint8>(FrameType::Stop);
}

} // namespace

QByteArray FrameWriter::write(FrameType type, const QByteArray& payload)
{
    Q_ASSERT(payload.size() <= maxFramePayloadBytes);
    QByteArray plain;
    plain.reserve(frameTypeBytes + payload.size());
    plain.append(static_cast<char>(type));
    plain.append(payload);
    const QByteArray sealed = m_cipher.seal(plain);
    if (sealed.isEmpty())
        return QByteArray();
    QByteArray bytes(frameLengthBytes, Qt::Uninitialized);
    qToBigEndian(static_cast<quint16>(sealed.size()), bytes.data());
    bytes.append(sealed);
    return bytes;
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
    const char* start = m_buffer.constData() + m_position;
    const int length = qFromBigEndian<quint16>(start);
    if (length < frameTypeBytes + noiseTagBytes || length > frameTypeBytes + maxFramePayloadBytes + noiseTagBytes) {
        m_damaged = true;
        return Result::Damaged;
    }
    if (available < frameLengthBytes + length)
        return Result::None;
    QByteArray plain;
    if (!m_cipher.open(QByteArray::fromRawData(start + frameLengthBytes, length), &plain) ||
        !isFrameType(static_cast<quint8>(plain.at(0)))) {
        m_damaged = true;
        return Result::Damaged;
    }
    m_position += frameLengthBytes + length;
    frame->type = static_cast<FrameType>(plain.at(0));
    frame->payload = plain.mid(frameTypeBytes);
    return Result::Frame;
}

} // namespace host
