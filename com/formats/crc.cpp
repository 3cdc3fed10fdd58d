#include "com/formats/crc.h"

#include <QtEndian>

#include <array>

namespace {

constexpr int byteValues = 256;
constexpr quint32 polynomial16 = 0x1021;
constexpr quint32 polynomial32 = 0xEDB88320; // bits reflected

using Table16 = std::array<quint16, byteValues>;
using Table32 = std::array<quint32, byteValues>;

constexpr Table16 makeTable16()
{
    Table16 table{};
    for (quint32 i = 0; i < byteValues; ++i) {
        quint32 crc = i << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc << 1) ^ ((crc & 0x8000) ? polynomial16 : 0);
        table[i] = static_cast<quint16>(crc);
    }
    return table;
}

constexpr Table32 makeTable32()
{
    Table32 table{};
    for (quint32 i = 0; i < byteValues; ++i) {
        quint32 crc = i;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) ? polynomial32 : 0);
        table[i] = crc;
    }
    return table;
}

constexpr Table16 table16 = makeTable16();

// Row k gives the effect of a byte that is followed by k more bytes. So the bytes of one stride can
// be looked up independently: still one look-up for each byte, but many at a time.
constexpr int stride = 16;
using Rows32 = std::array<Table32, stride>;

constexpr quint32 pastOneByte(const Table32& table, quint32 crc)
{
    return (crc >> 8) ^ table[crc & 0xFF];
}

constexpr Rows32 makeRows32()
{
    Rows32 rows{};
    rows[0] = makeTable32();
    for (int k = 1; k < stride; ++k) {
        for (int i = 0; i < byteValues; ++i)
            rows[k][i] = pastOneByte(rows[0], rows[k - 1][i]);
    }
    return rows;
}

constexpr Rows32 rows32 = makeRows32();

// Long runs go through several registers that do not wait for each other: word i of a round belongs
// to register i, which skips the words of the others. Row k of this table gives the effect of a
// byte that is followed by all the others and by k more bytes of its own word.
constexpr int registers = 5;
constexpr int wordBytes = 8;
constexpr int round = registers * wordBytes;
using SkippingRows32 = std::array<Table32, wordBytes>;

constexpr SkippingRows32 makeSkippingRows32()
{
    SkippingRows32 rows{};
    Table32 row = rows32[stride - 1];
    for (int passed = stride; passed < round; ++passed) {
        for (quint32& crc : row)
            crc = pastOneByte(rows32[0], crc);
        if (passed >= round - wordBytes)
            rows[passed - (round - wordBytes)] = row;
    }
    return rows;
}

constexpr SkippingRows32 skippingRows32 = makeSkippingRows32();

// The header's check takes each byte as signed. Below 0x80 that changes nothing. For a
// byte of 0x80 or more the index x = (crc >> 8) ^ byte falls 256 words before the
// table, where peers in the field have the CRC-32 table: the word is half of its entry
// 128 + x / 2, the low half for an even x. Both cases are in one table here; the top bit of the
// byte selects the half.
using HeaderTable = std::array<quint16, 2 * byteValues>;

constexpr HeaderTable makeHeaderTable()
{
    HeaderTable table{};
    for (int x = 0; x < byteValues; ++x) {
        const quint32 entry = rows32[0][128 + x / 2];
        table[x] = table16[x];
        table[byteValues + x] = static_cast<quint16>(x % 2 == 0 ? entry : entry >> 16);
    }
    return table;
}

constexpr HeaderTable headerTable = makeHeaderTable();

template <typename Rows>
quint32 lookUpWord(const Rows& rows, int lastRow, quint32 word)
{
    return rows[lastRow][word & 0xFF] ^ rows[lastRow - 1][(word >> 8) & 0xFF] ^ rows[lastRow - 2][(word >> 16) & 0xFF] ^
           rows[lastRow - 3][word >> 24];
}

template <typename Rows>
quint32 lookUpLongWord(const Rows& rows, quint64 word)
{
    return lookUpWord(rows, 7, static_cast<quint32>(word)) ^ lookUpWord(rows, 3, static_cast<quint32>(word >> 32));
}

// Takes whole rounds: all but the last through the registers; the last one joins the registers.
quint32 addRounds(quint32 crc, const uchar*& bytes, int& length)
{
    quint32 running[registers] = {crc};
    for (; length >= 2 * round; bytes += round, length -= round) {
        for (int i = 0; i < registers; ++i)
            running[i] = lookUpLongWord(skippingRows32, running[i] ^ qFromLittleEndian<quint64>(bytes + i * wordBytes));
    }
    crc = 0;
    for (int i = 0; i < registers; ++i)
        crc = lookUpLongWord(rows32, crc ^ running[i] ^ qFromLittleEndian<quint64>(bytes + i * wordBytes));
    bytes += round;
    length -= round;
    return crc;
}

quint32 addToCrc32(quint32 crc, const char* data, int length)
{
    const uchar* bytes = reinterpret_cast<const uchar*>(data);
    if (length >= 4 * round) // with fewer, joining costs more than the registers save
        crc = addRounds(crc, bytes, length);
    for (; length >= stride; bytes += stride, length -= stride) {
        crc = lookUpWord(rows32, 15, crc ^ qFromLittleEndian<quint32>(bytes)) ^
              lookUpWord(rows32, 11, qFromLittleEndian<quint32>(bytes + 4)) ^
              lookUpWord(rows32, 7, qFromLittleEndian<quint32>(bytes + 8)) ^
              lookUpWord(rows32, 3, qFromLittleEndian<quint32>(bytes + 12));
    }
    for (; length > 0; ++bytes, --length)
        crc = (crc >> 8) ^ rows32[0][(crc ^ *bytes) & 0xFF];
    return crc;
}

quint16 addToCrc16(quint16 crc, const char* data, int length)
{
    for (int i = 0; i < length; ++i)
        crc = static_cast<quint16>((crc << 8) ^ table16[(crc >> 8) ^ static_cast<uchar>(data[i])]);
    return crc;
}

} // namespace

quint16 crc16(const char* data, int length)
{
    quint32 crc = Crc16::initialValue;
    for (int i = 0; i < length; ++i) {
        const quint32 byte = static_cast<uchar>(data[i]);
        crc = ((crc << 8) ^ headerTable[((byte & 0x80) << 1) | ((crc >> 8) ^ byte)]) & 0xFFFF;
    }
    return static_cast<quint16>(crc);
}

quint32 crc32(const char* data, int length)
{
    return ~addToCrc32(Crc32::initialValue, data, length);
}

void Crc16::addData(const char* data, int length)
{
    m_running = addToCrc16(m_running, data, length);
}

quint16 Crc16::crc(const char* data, int length)
{
    return addToCrc16(initialValue, data, length);
}

void Crc32::addData(const char* data, int length)
{
    m_running = addToCrc32(m_running, data, length);
}

quint32 Crc32::crc(const char* data, int length)
{
    return crc32(data, length);
}
