// How fast the port takes output: bytes that left the driver, over the time in which it had some.
#pragma once

#include <QtGlobal>

class DrainRate
{
public:
    static constexpr qint64 sampleUs = 100 * 1000;
    static constexpr qint64 firstSampleUs = 20 * 1000; // a guess soon is better than none

    // At the beginning of each pass, which may write. writtenBytes: in all since the beginning;
    // pendingBytes: of them, what is still in the port.
    void look(qint64 nowUs, qint64 writtenBytes, qint64 pendingBytes);

    bool isMeasured() const { return m_bytesPerS > 0; }
    double bytesPerS() const { return m_bytesPerS; }
    double fastestBytesPerS() const { return m_fastest; } // of all samples: the port's own rate

private:
    void finishSample();

    double m_bytesPerS = 0;
    double m_fastest = 0;
    qint64 m_lastUs = 0;
    qint64 m_lastWritten = 0;
    qint64 m_lastPending = 0;
    qint64 m_sampledUs = 0; // of busy time since the last sample
    qint64 m_sampledBytes = 0;
    bool m_hasRunDry = false; // in it
};
