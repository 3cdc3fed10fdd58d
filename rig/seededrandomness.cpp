#include "rig/seededrandomness.h"

#include <sodium.h>

#include <cstring>

namespace rig {

namespace {

// One thread draws at a time in what uses this.
struct Drawn
{
    std::uint64_t seed = 0;
    std::uint64_t count = 0; // of draws, each with a stream of its own
} drawn;

void drawBytes(void* buffer, size_t size)
{
    unsigned char seed[randombytes_SEEDBYTES] = {};
    std::memcpy(seed, &drawn.seed, sizeof(drawn.seed));
    std::memcpy(seed + sizeof(drawn.seed), &drawn.count, sizeof(drawn.count));
    ++drawn.count;
    randombytes_buf_deterministic(buffer, size, seed);
}

std::uint32_t drawNumber()
{
    std::uint32_t number = 0;
    drawBytes(&number, sizeof(number));
    return number;
}

const char* nameOfSource()
{
    return "seeded";
}

} // namespace

void seedRandomness(std::uint64_t seed)
{
    static randombytes_implementation source{nameOfSource, drawNumber, nullptr, nullptr, drawBytes, nullptr};
    drawn = Drawn{seed, 0};
    randombytes_set_implementation(&source);
}

} // namespace rig
