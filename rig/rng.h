// Random numbers that are the same for a seed on every machine.
#pragma once

#include <cmath>
#include <cstdint>
#include <initializer_list>

namespace rig {

class Rng // SplitMix64
{
public:
    explicit Rng(std::uint64_t seed) : m_state(seed) {}

    std::uint64_t next()
    {
        std::uint64_t z = (m_state += 0x9E3779B97F4A7C15u);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
        return z ^ (z >> 31);
    }

    // From 0 to count - 1.
    std::uint64_t below(std::uint64_t count) { return count ? next() % count : 0; }

    // Both ends included.
    std::int64_t between(std::int64_t low, std::int64_t high)
    {
        return low + static_cast<std::int64_t>(below(static_cast<std::uint64_t>(high - low + 1)));
    }

    double unit() { return static_cast<double>(next() >> 11) / 9007199254740992.0; } // [0, 1)
    bool chance(double probability) { return probability > 0 && unit() < probability; }

    // Even in the logarithm, so that all orders of magnitude come up.
    double logBetween(double low, double high) { return low * std::pow(high / low, unit()); }

    // How many trials fail before one succeeds.
    std::int64_t failuresBefore(double probability)
    {
        if (probability <= 0)
            return INT64_MAX;
        const double count = std::floor(std::log1p(-unit()) / std::log1p(-probability));
        return count > 9e15 ? INT64_MAX : static_cast<std::int64_t>(count);
    }

    template <typename Value>
    Value oneOf(std::initializer_list<Value> values)
    {
        return *(values.begin() + below(values.size()));
    }

private:
    std::uint64_t m_state;
};

} // namespace rig
