// What is known of a run when it has ended.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace soak {

struct RunResult
{
    std::vector<std::string> violations; // with the time at the front
    std::int64_t virtualNs = 0;
    std::uint64_t bytesDelivered = 0; // payload, both ways
    std::uint64_t bytesCarried = 0; // on the line, both ways
    std::uint64_t faults = 0;
    std::uint64_t connections = 1;
    std::int64_t longestStandstillNs = 0; // of a link without faults; sessions call anew long before
    std::uint64_t digest = 0; // of what happened and when: the same for the same seed
};

} // namespace soak
