// The noise of one direction of a line: which bits of the bytes it carries are flipped.
// Depends on the bytes' place in the stream and the seed alone.
#pragma once

#include "sim/line/linesettings.h"

#include <QByteArray>

#include <random>

namespace sim {

class Noise
{
public:
    // rate: of the direction, in bit/s; turns the bursts' interval into bits.
    Noise(double bitErrorRate, const BurstSettings& burst, int rate, quint64 seed);

    // Flips bits of bytes in place; returns how many.
    qint64 apply(QByteArray& bytes);

private:
    double draw();
    double drawGap(double chance);
    double drawInterval();
    qint64 flipEvery(char& byte);
    qint64 flipInBurst(char& byte);

    const double m_bitErrorRate;
    const BurstSettings m_burst;
    const double m_burstIntervalBits;
    std::mt19937_64 m_random; // its numbers are the same on every platform
    double m_untilError; // data bits that pass before the next single error
    double m_untilBurst; // line bits before the next burst
    int m_burstLeft = 0; // line bits of the burst that is on
};

} // namespace sim
