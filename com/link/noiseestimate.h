// How noisy a line is, from the packets that are lost on it, and the packet size that carries the
// most in spite of it.
#pragma once

#include <QtGlobal>

class NoiseEstimate
{
public:
    static constexpr int smallestPacketBytes = 32;

    // Wire bytes of a packet that was confirmed.
    void confirmed(int wireBytes);

    // Wire bytes of packets that were lost one after the other. Many at once are a burst: it would
    // have hit one packet of any size.
    void lost(int packets, qint64 wireBytes);

    // Errors for each byte.
    double perByte() const { return m_losses / m_bytes; }

    // A packet's size on the wire. bytesPerS: of the line; roundTripUs: until a confirmation comes.
    int packetBytes(double bytesPerS, qint64 roundTripUs) const;

    // The same noise as a first guess: a few packets of the next call, which may be over another
    // line, weigh as much.
    NoiseEstimate startOfNextCall() const;

private:
    void forgetOld();

    // One error in a packet of 5680 bytes: between a clean line and one with an error in 10 kbit.
    double m_losses = 0.5;
    double m_bytes = 2840;
};
