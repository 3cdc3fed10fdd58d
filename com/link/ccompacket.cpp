#include "com/link/ccompacket.h"

#include "com/formats/crc.h"
#include "com/formats/packetlayout.h"

#include <QDebug>
#include <QtEndian>

#include <cstring>

using namespace packetlayout;

namespace {

bool isHeader(const char* position)
{
    return crc16(position, headerCheckOffset) == qFromLittleEndian<quint16>(position + headerCheckOffset);
}

// The first start symbol at or after from whose header check holds; end if there is none
// before it.
const char* findHeader(const char* from, const char* end)
{
    while (from < end) {
        from = static_cast<const char*>(std::memchr(from, startSymbol, static_cast<std::size_t>(end - from)));
        if (!from)
            return end;
        if (isHeader(from))
            return from;
        ++from;
    }
    return from;
}

} // namespace

void CComPacket::makePacket()
{
    char header[headerSize] = {startSymbol, static_cast<char>(type), static_cast<char>(number)};
    qToLittleEndian(static_cast<quint16>(data.size()), header + lengthOffset);
    qToLittleEndian(crc16(header, headerCheckOffset), header + headerCheckOffset);

    bytes.clear();
    bytes.reserve(headerSize + data.size() + (data.isEmpty() ? 0 : payloadCheckSize));
    bytes.append(header, headerSize);
    if (data.isEmpty())
        return;
    bytes.append(data);
    char check[payloadCheckSize];
    qToLittleEndian(crc32(bytes.constData(), bytes.size()), check);
    bytes.append(check, payloadCheckSize);
}

bool CComPacket::readPacket(QByteArray* buffer)
{
    int end = 0;
    const Cut found = cut(buffer->constData(), buffer->size(), &end);
    if (found == Cut::Packet) {
        data.detach();
        bytes.detach();
    }
    // If a packet is not complete, the bytes before it stay too.
    if (found != Cut::Incomplete && end > 0)
        buffer->remove(0, end);
    return found == Cut::Packet;
}

CComPacket::Cut CComPacket::cut(const char* buffer, int size, int* end)
{
    *end = 0;
    if (size < headerSize)
        return Cut::Nothing;

    const char* const scanEnd = buffer + size - headerSize + 1; // no header fits from here on
    const char* header = findHeader(buffer, scanEnd);
    while (header < scanEnd) {
        type = static_cast<quint8>(header[typeOffset]);
        number = static_cast<quint8>(header[numberOffset]);
        data.clear(); // an empty packet must not carry the payload of one read before
        const int length = qFromLittleEndian<quint16>(header + lengthOffset);
        *end = static_cast<int>(header - buffer);
        if (length == 0) {
            bytes = QByteArray::fromRawData(header, headerSize);
            *end += headerSize;
            return Cut::Packet;
        }

        const int wireSize = length + maxOverhead;
        if (wireSize > buffer + size - header)
            return Cut::Incomplete;
        const quint32 check = crc32(header, headerSize + length);
        if (check == qFromLittleEndian<quint32>(header + headerSize + length)) {
            data = QByteArray::fromRawData(header + headerSize, length);
            bytes = QByteArray::fromRawData(header, wireSize);
            *end += wireSize;
            return Cut::Packet;
        }
        qDebug() << "Packet header received, but data is corrupted" << int(type) << int(number) << length;
        // Peers continue one byte after the header, and so must we: the payload may contain the
        // next packet. This can lead beyond scanEnd.
        header = findHeader(header + headerSize + 1, scanEnd);
    }
    *end = static_cast<int>(header - buffer);
    return Cut::Nothing;
}
