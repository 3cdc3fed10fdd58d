// Complete link channels. Either two of them over a line that the input spoils: the delivered bytes
// must be the beginning of the sent ones, and in the end all of them. Or one with a peer that the
// input invents: nothing may grow beyond what came in.
//
// Faults that no link can detect are left out: the streams and the garbage contain no start symbol,
// so they never look like a packet, and a chunk gets at most one wrong bit, which every check
// finds.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

// isAdaptive: the same in all calls of a process.
void tryChannels(bool isAdaptive, const std::uint8_t* data, std::size_t size);

} // namespace fuzz
