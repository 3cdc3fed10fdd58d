#include "host/frame.h"

#include "host/crc32.h"

#include <QtEndian>

namespace host {

namespace {

quint32 frameCheck(quint32 number, const QByteArray& headerAndPayload, quint32 lastCheck)
{
    char bytes[4];
    qToBigEndian(number, bytes);
    return crc32(headerAndPayload, crc32(QByteArray::fromRawData(bytes, 4), lastCheck));
}

} // namespace

QByteArray FrameWriter::write(FrameType type, const QByteArray& payload)
{
    Q_ASSERT(payload.size() <= maxFramePayloadBytes);
    QByteArray bytes;
    bytes.reserve(payload.size() + frameOverheadBytes);
    bytes.append(static_cast<char>(type));
    char length[2];
    qToBigEndian(static_cast<quint16>(payload.size()), length);
    bytes.append(length, 2);
    bytes.append(payload);
    char check[4];
    m_lastCheck = frameCheck(m_nextNumber++, bytes, m_lastCheck);
    qToBigEndian(m_lastCheck, check);
    bytes.append(check, 4);
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
    const int available = m_buffer.size() - m_position;
    if (available < frameHeaderBytes)
        return Result::None;
    const char* start = m_buffer.constData() + m_position;
    const quint8 type = static_cast<quint8>(start[0]);
    const int length = qFromBigEndian<quint16>(start + 1);
    if (type < static_cast<quint8>(FrameType::Hello) || type > static_cast<quint8>(FrameType::Stop) ||
        length > maxFramePayloadBytes) {
        m_damaged = true;
        return Result::Damaged;
    }
    if (available < length + frameOverheadBytes)
        return Result::None;
    const QByteArray checked = QByteArray::fromRawData(start, frameHeaderBytes + length);
    const quint32 check = frameCheck(m_nextNumber, checked, m_lastCheck);
    if (qFromBigEndian<quint32>(start + frameHeaderBytes + length) != check) {
        m_damaged = true;
        return Result::Damaged;
    }
    ++m_nextNumber;
    m_lastCheck = check;
    frame->type = static_cast<FrameType>(type);
    frame->payload = QByteArray(start + frameHeaderBytes, length);
    m_position += length + frameOverheadBytes;
    return Result::Frame;
}

} // namespace host
