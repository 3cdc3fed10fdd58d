#include "host/session/sessionframes.h"

#include "host/session/bytecodec.h"

namespace host {

namespace {

QByteArray cutUtf8(const QString& text, int maxBytes)
{
    QByteArray bytes = text.toUtf8();
    if (bytes.size() <= maxBytes)
        return bytes;
    int end = maxBytes;
    while (end > 0 && (static_cast<quint8>(bytes.at(end)) & 0xC0) == 0x80)
        --end;
    bytes.truncate(end);
    return bytes;
}

} // namespace

bool decodeUtf8(const QByteArray& bytes, QString* text)
{
    *text = QString::fromUtf8(bytes);
    return text->toUtf8() == bytes;
}

QByteArray HelloFrame::encode() const
{
    return cutUtf8(abonentName, maxAbonentNameBytes);
}

bool HelloFrame::decode(const QByteArray& payload)
{
    return payload.size() <= maxAbonentNameBytes && decodeUtf8(payload, &abonentName);
}

QByteArray StateFrame::encode() const
{
    QByteArray out;
    putU8(out, isLast ? 1 : 0);
    putNumber(out, static_cast<quint64>(storedIds.size()));
    for (const quint64 id : storedIds)
        putU64(out, id);
    putNumber(out, static_cast<quint64>(parts.size()));
    for (const MessagePart& part : parts) {
        putU64(out, part.messageId);
        putNumber(out, static_cast<quint64>(part.length));
        out.append(part.sha256);
    }
    return out;
}

bool StateFrame::decode(const QByteArray& payload)
{
    ByteReader reader(payload);
    isLast = reader.u8() != 0;
    const quint64 idCount = reader.number();
    if (idCount > maxStoredIds)
        return false;
    for (quint64 i = 0; i < idCount; ++i)
        storedIds.append(reader.u64());
    if (storedIds.contains(noMessageId))
        return false;
    const quint64 partCount = reader.number();
    if (partCount > maxParts)
        return false;
    for (quint64 i = 0; i < partCount; ++i) {
        MessagePart part;
        part.messageId = reader.u64();
        const quint64 length = reader.number();
        if (part.messageId == noMessageId || length > static_cast<quint64>(maxMessageBytes))
            return false;
        part.length = static_cast<qint64>(length);
        part.sha256 = reader.take(sha256Bytes);
        parts.append(part);
    }
    return reader.ok() && reader.atEnd();
}

QByteArray OfferFrame::encode() const
{
    QByteArray out;
    putU64(out, messageId);
    putNumber(out, static_cast<quint64>(size));
    putNumber(out, static_cast<quint64>(offset));
    out.append(sha256);
    putNumber(out, static_cast<quint64>(qMax<qint64>(0, modifiedSecs)));
    out.append(cutUtf8(fileName, maxFileNameBytes)); // up to the frame's end
    return out;
}

bool OfferFrame::decode(const QByteArray& payload)
{
    ByteReader reader(payload);
    messageId = reader.u64();
    const quint64 wireSize = reader.number();
    const quint64 wireOffset = reader.number();
    sha256 = reader.take(sha256Bytes);
    const quint64 wireModified = reader.number();
    const QByteArray name = reader.rest();
    if (!reader.ok() || messageId == noMessageId || wireSize > static_cast<quint64>(maxMessageBytes) ||
        wireOffset > wireSize || wireModified > static_cast<quint64>(maxMessageBytes) || name.size() > maxFileNameBytes)
        return false;
    size = static_cast<qint64>(wireSize);
    offset = static_cast<qint64>(wireOffset);
    modifiedSecs = static_cast<qint64>(wireModified);
    return decodeUtf8(name, &fileName);
}

QByteArray RefusedFrame::encode() const
{
    QByteArray out;
    putNumber(out, offerIndex);
    putU8(out, static_cast<quint8>(code));
    out.append(cutUtf8(reason, maxReasonBytes));
    return out;
}

bool RefusedFrame::decode(const QByteArray& payload)
{
    ByteReader reader(payload);
    offerIndex = reader.number();
    const quint8 wireCode = reader.u8();
    if (!reader.ok() || wireCode < static_cast<quint8>(RefusalCode::NoRoom) ||
        wireCode > static_cast<quint8>(RefusalCode::Failed))
        return false;
    code = static_cast<RefusalCode>(wireCode);
    return decodeReason(reader.rest(), &reason);
}

QByteArray encodeNumbers(const QVector<quint64>& numbers)
{
    QByteArray out;
    for (const quint64 number : numbers)
        putNumber(out, number);
    return out;
}

bool decodeNumbers(const QByteArray& payload, QVector<quint64>* numbers)
{
    ByteReader reader(payload);
    while (reader.ok() && !reader.atEnd())
        numbers->append(reader.number());
    return reader.ok();
}

QByteArray encodeReason(const QString& reason)
{
    return cutUtf8(reason, maxReasonBytes);
}

bool decodeReason(const QByteArray& payload, QString* reason)
{
    return payload.size() <= maxReasonBytes && decodeUtf8(payload, reason);
}

} // namespace host
