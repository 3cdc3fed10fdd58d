// What the runs share: taking down violations, a digest of what happened, memory in use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace soak {

// A serial port keeps what comes while a channel writes in pieces of 32 KiB each, however
// few bytes came, until the channel reads next: a long round of packets takes tens of
// megabytes for a second.
constexpr std::size_t mostMemoryBytes = 128 << 20;

// What may stay at the end of a run, beside what the queues hold.
constexpr std::size_t memoryLeftBytes = 4 << 20;

class Checks
{
public:
    // Of the run's own time, so that a report says when.
    void violation(const std::string& text);
    bool failed() const { return !m_violations.empty(); }
    const std::vector<std::string>& violations() const { return m_violations; }

    void note(std::uint64_t value) { m_digest = (m_digest ^ value) * 0x100000001B3u; }
    void note(const char* data, std::size_t size)
    {
        for (std::size_t i = 0; i < size; ++i)
            note(static_cast<std::uint8_t>(data[i]));
    }
    std::uint64_t digest() const { return m_digest; }

    // Bytes allocated beyond what the first call found must stay below limit.
    void checkMemory(std::size_t limit);

private:
    static constexpr std::size_t mostViolations = 5;

    std::vector<std::string> m_violations;
    std::uint64_t m_digest = 0xCBF29CE484222325u;
    std::size_t m_memoryAtFirst = 0;
};

} // namespace soak
