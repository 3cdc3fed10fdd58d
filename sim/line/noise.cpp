#include "sim/line/noise.h"

#include <cmath>
#include <limits>

namespace sim {

namespace {

constexpr int dataBits = 8;
constexpr int lineBits = 10; // with a start and a stop bit, which noise hits without effect here
constexpr double never = std::numeric_limits<double>::infinity();

} // namespace

Noise::Noise(double bitErrorRate, const BurstSettings& burst, int rate, quint64 seed)
    : m_bitErrorRate(bitErrorRate), m_burst(burst), m_burstIntervalBits(burst.meanIntervalSeconds * rate),
      m_random(seed)
{
    m_untilError = drawGap(m_bitErrorRate);
    m_untilBurst = drawInterval();
}

qint64 Noise::apply(QByteArray& bytes)
{
    const double size = bytes.size();
    if (m_burstLeft == 0 && m_untilError >= dataBits * size && m_untilBurst >= lineBits * size) {
        m_untilError -= dataBits * size;
        m_untilBurst -= lineBits * size;
        return 0;
    }
    qint64 flipped = 0;
    for (char& byte : bytes)
        flipped += flipEvery(byte) + flipInBurst(byte);
    return flipped;
}

// Evenly from above 0 to 1. Not std::uniform_real_distribution, which differs between libraries.
double Noise::draw()
{
    return (static_cast<double>(m_random() >> 11) + 1) / 9007199254740992.0;
}

// How many bits pass unharmed before one that is hit.
double Noise::drawGap(double chance)
{
    if (chance <= 0)
        return never;
    if (chance >= 1)
        return 0;
    return std::floor(std::log(draw()) / std::log1p(-chance));
}

double Noise::drawInterval()
{
    return m_burstIntervalBits > 0 ? std::floor(-std::log(draw()) * m_burstIntervalBits) : never;
}

qint64 Noise::flipEvery(char& byte)
{
    qint64 flipped = 0;
    while (m_untilError < dataBits) {
        byte = static_cast<char>(byte ^ (1 << static_cast<int>(m_untilError)));
        ++flipped;
        m_untilError += 1 + drawGap(m_bitErrorRate);
    }
    m_untilError -= dataBits;
    return flipped;
}

qint64 Noise::flipInBurst(char& byte)
{
    if (m_burstLeft == 0 && m_untilBurst >= lineBits) {
        m_untilBurst -= lineBits;
        return 0;
    }
    qint64 flipped = 0;
    for (int bit = 0; bit < lineBits; ++bit) {
        if (m_burstLeft == 0) {
            if (m_untilBurst >= 1) {
                m_untilBurst -= 1;
                continue;
            }
            m_burstLeft = m_burst.lengthBits;
            m_untilBurst = drawInterval();
        }
        --m_burstLeft;
        if (draw() <= m_burst.errorRate && bit >= 1 && bit <= dataBits) {
            byte = static_cast<char>(byte ^ (1 << (bit - 1)));
            ++flipped;
        }
    }
    return flipped;
}

} // namespace sim
