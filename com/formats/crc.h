// The two checksums of the link's packets, and incremental forms of their standards.
#pragma once

#include <QtGlobal>

// All of these may be called from any thread. A length of 0 or less counts as no bytes.

// The check of a packet's header: CRC-16/CCITT-FALSE (polynomial 0x1021, start 0xFFFF,
// nothing reflected) with one deviation for bytes of 0x80 and more, which all peers in the field
// have; see crc.cpp. For no bytes 0xFFFF.
quint16 crc16(const char* data, int length);

// The check of a packet with payload: the CRC-32 of zlib and Ethernet. For no bytes 0.
quint32 crc32(const char* data, int length);

// CRC-16/CCITT-FALSE as catalogued, over a message given in pieces. Differs from
// crc16() as soon as a byte of 0x80 or more comes up.
class Crc16
{
public:
    static constexpr quint16 initialValue = 0xFFFF;

    explicit Crc16(quint16 running = initialValue) : m_running(running) {}

    void addData(const char* data, int length);
    // The register, which is also the finished check.
    quint16 value() const { return m_running; }

    static quint16 crc(const char* data, int length);

private:
    quint16 m_running;
};

// The CRC-32 of zlib and Ethernet, over a message given in pieces.
class Crc32
{
public:
    static constexpr quint32 initialValue = 0xFFFFFFFF;

    explicit Crc32(quint32 running = initialValue) : m_running(running) {}

    void addData(const char* data, int length);
    // The register, not inverted: to continue later, start another object with it.
    quint32 value() const { return m_running; }
    // The finished check of what was added so far.
    quint32 check() const { return ~m_running; }

    static quint32 crc(const char* data, int length);

private:
    quint32 m_running;
};
